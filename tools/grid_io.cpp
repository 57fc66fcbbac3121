// SPDX-License-Identifier: Apache-2.0
#include "grid_io.hpp"

#include <algorithm>
#include <bit>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <exception>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string_view>

#include <unistd.h>

// Both formats are read and written as the host's bytes, which are the
// little-endian ones the formats call for only on a little-endian host.
static_assert(std::endian::native == std::endian::little, "the grid files are little-endian");

namespace {

struct FileCloser {
    void operator()(std::FILE* f) const { std::fclose(f); }
};
using File = std::unique_ptr<std::FILE, FileCloser>;

// Errors while reading unwind to read_grid, which adds the file name.
void require(bool condition, const std::string& message) {
    if (!condition) throw std::runtime_error(message);
}

bool write_all(std::FILE* f, const void* data, size_t bytes) { return std::fwrite(data, 1, bytes, f) == bytes; }

void read_exactly(std::FILE* f, void* data, size_t size, size_t count) {
    require(std::fread(data, size, count, f) == count, "short read");
}

// The text after "'key':" (or the double-quoted form) in the header dictionary.
std::string_view value_of(std::string_view header, const char* key) {
    for (const char quote : {'\'', '"'}) {
        const std::string quoted = quote + std::string(key) + quote;
        size_t at = header.find(quoted);
        if (at == header.npos) continue;
        at = header.find_first_not_of(" ", at + quoted.size());
        if (at == header.npos || header[at] != ':') break;
        at = header.find_first_not_of(" ", at + 1);
        return at == header.npos ? std::string_view() : header.substr(at);
    }
    throw std::runtime_error(std::string("no '") + key + "' in the .npy header");
}

// Reads `count` values of type T into the grid as float32.
template <class T>
void read_values(std::FILE* f, uint64_t count, Grid& grid) {
    grid.cells.resize(count);
    if constexpr (sizeof(T) == sizeof(float)) {
        read_exactly(f, grid.cells.data(), sizeof(float), count);
    } else {
        // In slices, so a large '<f8' file never needs twice its size in memory.
        std::vector<T> slice(std::min<uint64_t>(count, uint64_t{1} << 20));
        for (uint64_t done = 0; done < count;) {
            const auto n = static_cast<size_t>(std::min<uint64_t>(slice.size(), count - done));
            read_exactly(f, slice.data(), sizeof(T), n);
            std::copy_n(slice.begin(), n, grid.cells.begin() + done);
            done += n;
        }
    }
}

void read_npy(std::FILE* f, uint64_t file_size, Grid& grid) {
    unsigned char lead[12];
    read_exactly(f, lead, 1, 10);
    require(lead[6] >= 1 && lead[6] <= 3, "unsupported .npy version " + std::to_string(lead[6]));
    uint64_t header_length = lead[8] | (lead[9] << 8);
    if (lead[6] >= 2) {  // later versions widen the length field to four bytes
        read_exactly(f, lead + 10, 1, 2);
        header_length |= (uint64_t{lead[10]} << 16) | (uint64_t{lead[11]} << 24);
    }
    const uint64_t offset = (lead[6] >= 2 ? 12 : 10) + header_length;
    require(offset <= file_size, "truncated .npy header");
    std::string header(header_length, '\0');
    read_exactly(f, header.data(), 1, header_length);

    const std::string_view descr_text = value_of(header, "descr");
    const size_t descr_end = descr_text.find_first_of("'\"", 1);
    require(!descr_text.empty() && descr_end != descr_text.npos, "bad 'descr' in the .npy header");
    const std::string descr(descr_text.substr(1, descr_end - 1));
    require(descr == "<f4" || descr == "<f8", "unsupported dtype '" + descr + "' (expected '<f4' or '<f8')");
    require(value_of(header, "fortran_order").starts_with("False"),
            "Fortran-ordered arrays are not supported (save in C order)");

    std::string_view shape_text = value_of(header, "shape");
    require(shape_text.starts_with("("), "bad 'shape' in the .npy header");
    shape_text = shape_text.substr(1, shape_text.find(')') - 1);
    std::vector<uint64_t> shape;
    for (size_t p = shape_text.find_first_not_of(" ,"); p != shape_text.npos; p = shape_text.find_first_not_of(" ,", p)) {
        uint64_t n = 0;
        const auto [next, ec] = std::from_chars(shape_text.data() + p, shape_text.data() + shape_text.size(), n);
        require(ec == std::errc(), "bad 'shape' in the .npy header");
        shape.push_back(n);
        p = static_cast<size_t>(next - shape_text.data());
    }
    require(shape.size() == 2, "expected a 2-D array, got " + std::to_string(shape.size()) + " dimension(s)");
    require(shape[0] > 0 && shape[1] > 0 && shape[0] <= UINT32_MAX && shape[1] <= UINT32_MAX,
            "expected a non-empty grid of at most 2^32 - 1 rows and columns, got shape (" +
                std::to_string(shape[0]) + ", " + std::to_string(shape[1]) + ")");

    const uint64_t item = descr == "<f4" ? 4 : 8, data = file_size - offset, cells = shape[0] * shape[1];
    require(cells / shape[1] == shape[0], "the shape (" + std::to_string(shape[0]) + ", " +
                                              std::to_string(shape[1]) + ") is too large");
    require(data % item == 0 && data / item == cells, "the data holds " + std::to_string(data) +
                                                          " bytes, the shape needs " + std::to_string(cells) +
                                                          " values of " + std::to_string(item) + " bytes");
    grid.height = static_cast<uint32_t>(shape[0]);
    grid.width = static_cast<uint32_t>(shape[1]);
    item == 4 ? read_values<float>(f, cells, grid) : read_values<double>(f, cells, grid);
}

void read_raw(std::FILE* f, uint64_t file_size, uint32_t width, Grid& grid) {
    require(file_size > 0 && file_size % 4 == 0,
            "a raw float32 file must hold a positive multiple of 4 bytes, this one holds " + std::to_string(file_size));
    const uint64_t cells = file_size / 4;
    if (width == 0) {
        // Infer the side; the square test catches any rounding of sqrt.
        const auto side = static_cast<uint64_t>(std::llround(std::sqrt(static_cast<double>(cells))));
        require(side * side == cells && side <= UINT32_MAX,
                std::to_string(cells) + " floats are not a square grid; give its width with --size");
        width = static_cast<uint32_t>(side);
    }
    require(cells % width == 0, std::to_string(cells) + " floats do not make whole rows of " + std::to_string(width));
    require(cells / width <= UINT32_MAX, "a raw grid of width " + std::to_string(width) + " would have " +
                                             std::to_string(cells / width) + " rows, more than 2^32 - 1");
    grid.width = width;
    grid.height = static_cast<uint32_t>(cells / width);
    read_values<float>(f, cells, grid);
}

}  // namespace

bool has_npy_extension(const std::string& path) {
    if (path.size() < 4) return false;
    std::string tail = path.substr(path.size() - 4);
    std::transform(tail.begin(), tail.end(), tail.begin(), [](unsigned char c) { return std::tolower(c); });
    return tail == ".npy";
}

bool read_grid(const std::string& path, uint32_t width, Grid& grid, std::string& error) {
    try {
        std::error_code ec;
        require(!std::filesystem::is_directory(path, ec), "is a directory");
        File f(std::fopen(path.c_str(), "rb"));
        require(f != nullptr, std::strerror(errno));
        const uint64_t file_size = std::filesystem::file_size(path, ec);
        require(!ec, ec.message());
        char magic[6] = {};
        const bool is_npy = std::fread(magic, 1, 6, f.get()) == 6 && std::memcmp(magic, "\x93NUMPY", 6) == 0;
        std::rewind(f.get());
        require(is_npy || !has_npy_extension(path), "not a .npy file (bad magic bytes)");
        is_npy ? read_npy(f.get(), file_size, grid) : read_raw(f.get(), file_size, width, grid);
        return true;
    } catch (const std::exception& e) {  // also an allocation too large for this machine
        error = path + ": " + e.what();
        return false;
    }
}

bool write_file_replacing(const std::string& path, const std::function<bool(std::FILE*)>& write, std::string& error) {
    // Next to the target, so the rename stays within one file system.
    const std::string temp = path + ".tmp." + std::to_string(::getpid());
    File f(std::fopen(temp.c_str(), "wbx"));
    if (!f) {
        error = path + ": " + std::strerror(errno);
        return false;
    }
    bool ok = write(f.get());
    ok = std::fflush(f.get()) == 0 && ok;
    // Closing reports write errors that buffering deferred.
    ok = std::fclose(f.release()) == 0 && ok;
    if (!ok) {
        error = temp + ": " + std::strerror(errno);
    } else if (std::rename(temp.c_str(), path.c_str()) != 0) {
        error = path + ": " + std::strerror(errno);
    } else {
        return true;
    }
    std::remove(temp.c_str());
    return false;
}

bool write_grid(const std::string& path, const Grid& grid, std::string& error) {
    return write_file_replacing(
        path,
        [&](std::FILE* f) {
            if (has_npy_extension(path)) {
                std::string header = "{'descr': '<f4', 'fortran_order': False, 'shape': (" +
                                     std::to_string(grid.height) + ", " + std::to_string(grid.width) + "), }";
                // Pad with spaces and a newline so the data starts on a 64-byte boundary.
                const size_t total = (10 + header.size() + 1 + 63) / 64 * 64;
                header.append(total - 10 - header.size() - 1, ' ');
                header += '\n';
                const unsigned char lead[10] = {0x93, 'N', 'U', 'M', 'P', 'Y', 1, 0,
                                                static_cast<unsigned char>(header.size() & 0xff),
                                                static_cast<unsigned char>(header.size() >> 8)};
                if (!write_all(f, lead, sizeof lead) || !write_all(f, header.data(), header.size())) return false;
            }
            return write_all(f, grid.cells.data(), grid.cells.size() * sizeof(float));
        },
        error);
}
