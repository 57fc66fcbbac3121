// SPDX-License-Identifier: Apache-2.0
#include "png.hpp"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdio>
#include <cstring>

#include "grid_io.hpp"

namespace {

// CRC-32 of ISO 3309 (reflected polynomial 0xEDB88320), which every PNG chunk ends with.
const std::array<uint32_t, 256>& crc_table() {
    static const std::array<uint32_t, 256> table = [] {
        std::array<uint32_t, 256> t{};
        for (uint32_t n = 0; n < 256; ++n) {
            uint32_t c = n;
            for (int k = 0; k < 8; ++k) c = (c & 1) ? 0xEDB88320u ^ (c >> 1) : c >> 1;
            t[n] = c;
        }
        return t;
    }();
    return table;
}

uint32_t crc_update(uint32_t crc, const uint8_t* data, size_t size) {
    const auto& table = crc_table();
    for (size_t i = 0; i < size; ++i) crc = table[(crc ^ data[i]) & 0xff] ^ (crc >> 8);
    return crc;
}

// Adler-32, the zlib stream's checksum of the uncompressed data.
struct Adler32 {
    uint32_t a = 1, b = 0;
    void update(const uint8_t* data, size_t size) {
        // 5552 is the most bytes whose sums cannot overflow 32 bits before the modulo.
        while (size > 0) {
            const size_t n = std::min<size_t>(size, 5552);
            for (size_t i = 0; i < n; ++i) {
                a += data[i];
                b += a;
            }
            a %= 65521;
            b %= 65521;
            data += n;
            size -= n;
        }
    }
    uint32_t value() const { return (b << 16) | a; }
};

void put_u32(uint8_t* out, uint32_t v) {
    out[0] = static_cast<uint8_t>(v >> 24);
    out[1] = static_cast<uint8_t>(v >> 16);
    out[2] = static_cast<uint8_t>(v >> 8);
    out[3] = static_cast<uint8_t>(v);
}

// Writes chunks to a file and gathers the zlib stream into IDAT chunks of a
// bounded size, so no copy of the whole image is ever held.
class ChunkWriter {
  public:
    explicit ChunkWriter(std::FILE* f) : file_(f) { idat_.reserve(kIdatBytes); }

    bool ok() const { return ok_; }

    void raw(const void* data, size_t size) {
        if (size > 0) ok_ = ok_ && std::fwrite(data, 1, size, file_) == size;
    }

    void chunk(const char* type, const uint8_t* data, size_t size) {
        uint8_t head[8];
        put_u32(head, static_cast<uint32_t>(size));
        std::memcpy(head + 4, type, 4);
        uint32_t crc = crc_update(0xFFFFFFFFu, head + 4, 4);
        crc = crc_update(crc, data, size);
        uint8_t tail[4];
        put_u32(tail, crc ^ 0xFFFFFFFFu);
        raw(head, sizeof head);
        raw(data, size);
        raw(tail, sizeof tail);
    }

    // Appends to the zlib stream.
    void stream(const uint8_t* data, size_t size) {
        while (size > 0) {
            const size_t n = std::min(size, kIdatBytes - idat_.size());
            idat_.insert(idat_.end(), data, data + n);
            data += n;
            size -= n;
            if (idat_.size() == kIdatBytes) flush();
        }
    }

    void flush() {
        if (idat_.empty()) return;
        chunk("IDAT", idat_.data(), idat_.size());
        idat_.clear();
    }

  private:
    // Far below the format's 2^31 - 1 limit per chunk; decoders join the IDAT chunks.
    static constexpr size_t kIdatBytes = size_t{1} << 20;
    std::FILE* file_;
    std::vector<uint8_t> idat_;
    bool ok_ = true;
};

// Writes the whole PNG; false on a write error (errno tells which).
bool write_png_file(std::FILE* f, uint32_t width, uint32_t height, const std::vector<uint8_t>& rgb) {
    ChunkWriter out(f);
    static const uint8_t kSignature[8] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n'};
    out.raw(kSignature, sizeof kSignature);

    uint8_t ihdr[13];
    put_u32(ihdr, width);
    put_u32(ihdr + 4, height);
    ihdr[8] = 8;    // bits per sample
    ihdr[9] = 2;    // colour type: RGB
    ihdr[10] = 0;   // compression: deflate
    ihdr[11] = 0;   // filter method: adaptive (each row names its filter)
    ihdr[12] = 0;   // no interlace
    out.chunk("IHDR", ihdr, sizeof ihdr);

    // zlib header: deflate with a 32 KiB window, no dictionary, check bits
    // making 0x7801 a multiple of 31.
    static const uint8_t kZlibHeader[2] = {0x78, 0x01};
    out.stream(kZlibHeader, sizeof kZlibHeader);

    // The uncompressed data is each row prefixed by its filter byte (0: none).
    const uint64_t row_bytes = 1 + uint64_t{3} * width;
    const uint64_t total = row_bytes * height;
    static const uint8_t kNoFilter = 0;
    Adler32 adler;
    uint64_t row = 0, column = 0;  // position in the uncompressed data; column 0 is the filter byte
    for (uint64_t done = 0; done < total;) {
        // A stored block holds at most 65535 bytes; the last one is marked final.
        const auto block = static_cast<uint32_t>(std::min<uint64_t>(total - done, 65535));
        const uint8_t head[5] = {static_cast<uint8_t>(done + block == total ? 1 : 0),
                                 static_cast<uint8_t>(block & 0xff), static_cast<uint8_t>(block >> 8),
                                 static_cast<uint8_t>(~block & 0xff), static_cast<uint8_t>((~block >> 8) & 0xff)};
        out.stream(head, sizeof head);
        for (uint64_t left = block; left > 0;) {
            if (column == 0) {
                out.stream(&kNoFilter, 1);
                adler.update(&kNoFilter, 1);
                column = 1;
                --left;
                continue;
            }
            const auto n = static_cast<size_t>(std::min(left, row_bytes - column));
            const uint8_t* pixels = rgb.data() + row * (row_bytes - 1) + (column - 1);
            out.stream(pixels, n);
            adler.update(pixels, n);
            column += n;
            left -= n;
            if (column == row_bytes) {
                ++row;
                column = 0;
            }
        }
        done += block;
    }
    uint8_t checksum[4];
    put_u32(checksum, adler.value());
    out.stream(checksum, sizeof checksum);
    out.flush();
    out.chunk("IEND", nullptr, 0);
    return out.ok();
}

}  // namespace

bool has_png_extension(const std::string& path) {
    if (path.size() < 4) return false;
    std::string tail = path.substr(path.size() - 4);
    std::transform(tail.begin(), tail.end(), tail.begin(), [](unsigned char c) { return std::tolower(c); });
    return tail == ".png";
}

bool write_png_rgb(PendingOutputs& outputs, const std::string& path, uint32_t width, uint32_t height,
                   const std::vector<uint8_t>& rgb, std::string& error) {
    // The format stores sides as 31-bit numbers.
    if (width == 0 || height == 0 || width > INT32_MAX || height > INT32_MAX) {
        error = path + ": a PNG must be 1 to 2^31 - 1 pixels wide and high, not " + std::to_string(width) + "x" +
                std::to_string(height);
        return false;
    }
    if (rgb.size() != uint64_t{3} * width * height) {
        error = path + ": " + std::to_string(rgb.size()) + " bytes are not " + std::to_string(width) + "x" +
                std::to_string(height) + " RGB pixels";
        return false;
    }
    return stage_file(
        outputs, path, [&](std::FILE* f) { return write_png_file(f, width, height, rgb); }, error);
}
