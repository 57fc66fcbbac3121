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
#include <limits>
#include <memory>
#include <stdexcept>
#include <string_view>

#include <unistd.h>

#ifdef HALDEN_WITH_GDAL
#include <cpl_conv.h>
#include <cpl_error.h>
#include <cpl_string.h>
#include <cpl_vsi.h>
#include <gdal.h>
#endif

// .npy and raw files are written as the host's bytes, which are the
// little-endian ones the formats call for only on a little-endian host.
static_assert(std::endian::native == std::endian::little, "the grid files are little-endian");

namespace fs = std::filesystem;

namespace {

struct FileCloser {
    void operator()(std::FILE* f) const { std::fclose(f); }
};
using File = std::unique_ptr<std::FILE, FileCloser>;

// Errors while reading or writing unwind to read_grid or write_grid, which
// add the file name.
void require(bool condition, const std::string& message) {
    if (!condition) throw std::runtime_error(message);
}

// Anything bytes can be read from in order: a file, or a member of a zip
// archive through GDAL.
struct Source {
    std::function<size_t(void*, size_t)> read;
    uint64_t size = 0;
};

void read_exactly(Source& source, void* data, size_t bytes) {
    require(source.read(data, bytes) == bytes, "short read");
}

bool write_all(std::FILE* f, const void* data, size_t bytes) { return std::fwrite(data, 1, bytes, f) == bytes; }

// The name's extension, lower case, with its dot ("" when none).
std::string extension_of(const std::string& path) {
    std::string ext = fs::path(path).extension().string();
    std::transform(ext.begin(), ext.end(), ext.begin(), [](unsigned char c) { return std::tolower(c); });
    return ext;
}

bool is_raw_extension(const std::string& ext) {
    return ext == ".raw" || ext == ".f32" || ext == ".r32" || ext == ".bin";
}

// --- .npy -------------------------------------------------------------------------

// Reads the header dict strictly, as a malformed one means a damaged or
// foreign file whose data would be misread.
class NpyHeaderParser {
  public:
    explicit NpyHeaderParser(std::string_view text) : text_(text) {}

    NpyHeader parse() {
        NpyHeader header;
        std::vector<std::string> seen;
        expect('{', "'{' at its start");
        while (!take('}')) {
            const std::string key = quoted("a quoted key or '}'");
            require(std::find(seen.begin(), seen.end(), key) == seen.end(), "'" + key + "' twice in the .npy header");
            seen.push_back(key);
            expect(':', "':' after '" + key + "'");
            if (key == "descr") {
                skip();
                require(at_ < text_.size() && (text_[at_] == '\'' || text_[at_] == '"'),
                        "unsupported dtype: a structured array, not a grid of numbers");
                header.descr = quoted("a quoted dtype");
            } else if (key == "fortran_order") {
                header.fortran = word("True");
                require(header.fortran || word("False"), "malformed .npy header: 'fortran_order' is not True or False");
            } else if (key == "shape") {
                header.shape = tuple();
            } else {
                throw std::runtime_error("malformed .npy header: unexpected key '" + key + "'");
            }
            if (!take(',')) {
                expect('}', "',' or '}' after the value of '" + key + "'");
                break;
            }
        }
        skip();
        require(at_ == text_.size(), "malformed .npy header: text after its closing '}'");
        for (const char* key : {"descr", "fortran_order", "shape"})
            require(std::find(seen.begin(), seen.end(), key) != seen.end(),
                    std::string("no '") + key + "' in the .npy header");
        return header;
    }

  private:
    void skip() {
        while (at_ < text_.size() && (text_[at_] == ' ' || text_[at_] == '\t' || text_[at_] == '\r' ||
                                      text_[at_] == '\n'))
            ++at_;
    }
    bool take(char c) {
        skip();
        if (at_ >= text_.size() || text_[at_] != c) return false;
        ++at_;
        return true;
    }
    void expect(char c, const std::string& what) { require(take(c), "malformed .npy header: expected " + what); }
    bool word(std::string_view w) {
        skip();
        if (text_.substr(at_, w.size()) != w) return false;
        at_ += w.size();
        return true;
    }
    std::string quoted(const std::string& what) {
        skip();
        const char quote = at_ < text_.size() ? text_[at_] : '\0';
        const size_t end = quote == '\'' || quote == '"' ? text_.find(quote, at_ + 1) : text_.npos;
        require(end != text_.npos, "malformed .npy header: expected " + what);
        std::string value(text_.substr(at_ + 1, end - at_ - 1));
        at_ = end + 1;
        return value;
    }
    // "(3, 4)", "(3,)" or "()"; Python 2 wrote "3L".
    std::vector<uint64_t> tuple() {
        std::vector<uint64_t> values;
        expect('(', "'(' to open 'shape'");
        while (!take(')')) {
            skip();
            uint64_t n = 0;
            const auto [next, ec] = std::from_chars(text_.data() + at_, text_.data() + text_.size(), n);
            require(ec == std::errc(), "malformed .npy header: expected a whole number or ')' in 'shape'");
            at_ = static_cast<size_t>(next - text_.data());
            if (at_ < text_.size() && text_[at_] == 'L') ++at_;
            values.push_back(n);
            if (!take(',')) {
                expect(')', "',' or ')' in 'shape'");
                break;
            }
        }
        return values;
    }

    std::string_view text_;
    size_t at_ = 0;
};

// IEEE half precision, which float32 holds exactly.
struct Half {
    uint16_t bits;
    explicit operator float() const {
        const uint32_t sign = uint32_t{bits & 0x8000u} << 16, exponent = (bits >> 10) & 0x1fu,
                       mantissa = bits & 0x3ffu;
        if (exponent == 0) {  // zero and subnormals: mantissa x 2^-24
            const float magnitude = std::ldexp(static_cast<float>(mantissa), -24);
            return std::bit_cast<float>(std::bit_cast<uint32_t>(magnitude) | sign);
        }
        // Infinities and NaNs keep their payload; normal numbers rebias the exponent from 15 to 127.
        const uint32_t biased = exponent == 0x1fu ? 0xffu : exponent + 112u;
        return std::bit_cast<float>(sign | biased << 23 | mantissa << 13);
    }
};
static_assert(sizeof(Half) == 2);

// Converts `count` items of type T, in the file's byte order, to float32.
template <class T>
void convert_items(const unsigned char* bytes, size_t count, bool swap, float* out) {
    for (size_t i = 0; i < count; ++i) {
        unsigned char item[sizeof(T)];
        std::memcpy(item, bytes + i * sizeof(T), sizeof(T));
        if (swap) std::reverse(item, item + sizeof(T));
        T value;
        std::memcpy(&value, item, sizeof(T));
        out[i] = static_cast<float>(value);
    }
}

using Converter = void (*)(const unsigned char*, size_t, bool, float*);

// The converter for a dtype such as '<f4', '>i2' or '|u1'; null when unsupported.
Converter converter_for(char kind, int size) {
    switch (kind) {
        case 'f':
            return size == 2   ? convert_items<Half>
                   : size == 4 ? convert_items<float>
                   : size == 8 ? convert_items<double>
                               : nullptr;
        case 'i':
            return size == 1   ? convert_items<int8_t>
                   : size == 2 ? convert_items<int16_t>
                   : size == 4 ? convert_items<int32_t>
                   : size == 8 ? convert_items<int64_t>
                               : nullptr;
        case 'u':
            return size == 1   ? convert_items<uint8_t>
                   : size == 2 ? convert_items<uint16_t>
                   : size == 4 ? convert_items<uint32_t>
                   : size == 8 ? convert_items<uint64_t>
                               : nullptr;
        case 'b': return size == 1 ? convert_items<bool> : nullptr;
        default: return nullptr;
    }
}

void read_npy(Source& source, Grid& grid) {
    unsigned char lead[12];
    read_exactly(source, lead, 10);
    require(std::memcmp(lead, "\x93NUMPY", 6) == 0, "not a .npy file (bad magic bytes)");
    require(lead[6] >= 1 && lead[6] <= 3, "unsupported .npy version " + std::to_string(lead[6]));
    uint64_t header_length = lead[8] | (lead[9] << 8);
    if (lead[6] >= 2) {  // later versions widen the length field to four bytes
        read_exactly(source, lead + 10, 2);
        header_length |= (uint64_t{lead[10]} << 16) | (uint64_t{lead[11]} << 24);
    }
    const uint64_t offset = (lead[6] >= 2 ? 12 : 10) + header_length;
    require(offset <= source.size, "truncated .npy header");
    std::string header(header_length, '\0');
    read_exactly(source, header.data(), header_length);

    const auto [descr, fortran, shape] = NpyHeaderParser(header).parse();
    int item = 0;
    if (descr.size() >= 3 && std::strchr("<>|=", descr[0])) {
        const auto [end, ec] = std::from_chars(descr.data() + 2, descr.data() + descr.size(), item);
        if (ec != std::errc() || end != descr.data() + descr.size()) item = 0;
    }
    const Converter convert = item > 0 ? converter_for(descr[1], item) : nullptr;
    require(convert != nullptr, "unsupported dtype '" + descr + "' (expected real numbers: float, int, uint or bool)");
    const bool swap = descr[0] == '>';
    require(shape.size() == 2, "expected a 2-D array, got " + std::to_string(shape.size()) + " dimension(s)");
    require(shape[0] > 0 && shape[1] > 0 && shape[0] <= UINT32_MAX && shape[1] <= UINT32_MAX,
            "expected a non-empty grid of at most 2^32 - 1 rows and columns, got shape (" +
                std::to_string(shape[0]) + ", " + std::to_string(shape[1]) + ")");

    const uint64_t data = source.size - offset, cells = shape[0] * shape[1];
    require(cells / shape[1] == shape[0] && cells <= SIZE_MAX / 8,
            "the shape (" + std::to_string(shape[0]) + ", " + std::to_string(shape[1]) + ") is too large");
    require(data % item == 0 && data / item == cells, "the data holds " + std::to_string(data) +
                                                          " bytes, the shape needs " + std::to_string(cells) +
                                                          " values of " + std::to_string(item) + " bytes");
    grid.height = static_cast<uint32_t>(shape[0]);
    grid.width = static_cast<uint32_t>(shape[1]);
    grid.cells.resize(cells);
    // In slices, so a large '<f8' file never needs twice its size in memory.
    std::vector<unsigned char> slice(std::min<uint64_t>(cells, uint64_t{1} << 20) * item);
    for (uint64_t done = 0; done < cells;) {
        const auto n = static_cast<size_t>(std::min<uint64_t>(slice.size() / item, cells - done));
        read_exactly(source, slice.data(), n * item);
        convert(slice.data(), n, swap, grid.cells.data() + done);
        done += n;
    }
    if (fortran) {  // column-major: the values came column by column
        std::vector<float> rows(cells);
        for (uint64_t c = 0; c < grid.width; ++c)
            for (uint64_t r = 0; r < grid.height; ++r) rows[r * grid.width + c] = grid.cells[c * grid.height + r];
        grid.cells.swap(rows);
    }
}

void read_raw(Source& source, uint32_t width, Grid& grid) {
    require(source.size > 0 && source.size % 4 == 0,
            "a raw float32 file must hold a positive multiple of 4 bytes, this one holds " +
                std::to_string(source.size));
    const uint64_t cells = source.size / 4;
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
    grid.cells.resize(cells);
    read_exactly(source, grid.cells.data(), source.size);
}

Source file_source(std::FILE* f, const std::string& path) {
    std::error_code ec;
    const uint64_t size = fs::file_size(path, ec);
    require(!ec, ec.message());
    return {[f](void* data, size_t bytes) { return std::fread(data, 1, bytes, f); }, size};
}

// --- GDAL -------------------------------------------------------------------------

#ifdef HALDEN_WITH_GDAL

void init_gdal() {
    static const bool done = [] {
        GDALAllRegister();
        // GDAL would print its own messages; its reasons go into ours instead.
        CPLSetErrorHandler(CPLQuietErrorHandler);
        return true;
    }();
    (void)done;
    CPLErrorReset();
}

// ": GDAL's last message", or nothing when it left none.
std::string gdal_reason() {
    const char* message = CPLGetLastErrorMsg();
    return message && *message ? std::string(": ") + message : std::string();
}

struct DatasetCloser {
    void operator()(void* d) const { GDALClose(d); }
};
using Dataset = std::unique_ptr<void, DatasetCloser>;

struct VsiCloser {
    void operator()(VSILFILE* f) const { VSIFCloseL(f); }
};

// Reads the 2-D array `member` of a .npz archive, or the first 2-D array in
// it when `member` is empty.
void read_npz(const std::string& path, const std::string& member, Grid& grid) {
    init_gdal();
    // The braces mark the archive for GDAL, which otherwise knows zip files
    // by a .zip extension only.
    const std::string archive = "/vsizip/{" + fs::absolute(path).string() + "}";
    std::vector<std::string> names;
    if (!member.empty()) {
        names.push_back(member.ends_with(".npy") ? member : member + ".npy");
    } else {
        char** list = VSIReadDir(archive.c_str());
        for (char** p = list; p && *p; ++p)
            if (std::string_view(*p).ends_with(".npy")) names.emplace_back(*p);
        CSLDestroy(list);
        require(!names.empty(), "not a .npz archive, or one without arrays" + gdal_reason());
    }
    std::string first_error;
    for (const std::string& name : names) {
        const std::string inner = archive + "/" + name;
        VSIStatBufL stat;
        std::unique_ptr<VSILFILE, VsiCloser> f(VSIStatL(inner.c_str(), &stat) == 0 ? VSIFOpenL(inner.c_str(), "rb")
                                                                                   : nullptr);
        try {
            require(f != nullptr, "no array '" + name.substr(0, name.size() - 4) + "' in the archive");
            Source source{[&f](void* data, size_t bytes) { return VSIFReadL(data, 1, bytes, f.get()); },
                          static_cast<uint64_t>(stat.st_size)};
            read_npy(source, grid);
            return;
        } catch (const std::exception& e) {
            if (first_error.empty()) first_error = name + ": " + e.what();
        }
    }
    throw std::runtime_error(member.empty() ? "no 2-D array in the archive (" + first_error + ")" : first_error);
}

void read_gdal(const std::string& path, const ReadOptions& options, Grid& grid, std::string& note) {
    init_gdal();
    Dataset dataset(GDALOpenEx(path.c_str(), GDAL_OF_RASTER | GDAL_OF_READONLY, nullptr, nullptr, nullptr));
    require(dataset != nullptr, "unknown format, not a raster GDAL reads" + gdal_reason());
    const int width = GDALGetRasterXSize(dataset.get()), height = GDALGetRasterYSize(dataset.get());
    const int bands = GDALGetRasterCount(dataset.get());
    require(bands > 0 && width > 0 && height > 0, "no raster data in the file");
    GDALRasterBandH band = GDALGetRasterBand(dataset.get(), 1);
    grid.width = static_cast<uint32_t>(width);
    grid.height = static_cast<uint32_t>(height);
    grid.cells.resize(size_t(width) * size_t(height));
    require(GDALRasterIO(band, GF_Read, 0, 0, width, height, grid.cells.data(), width, height, GDT_Float32, 0, 0) ==
                CE_None,
            "reading failed" + gdal_reason());

    Georeference& geo = grid.georeference;
    int has_nodata = 0;
    const double nodata = GDALGetRasterNoDataValue(band, &has_nodata);
    if (has_nodata) {
        geo.has_nodata = true;
        geo.nodata = nodata;
        const float marker = static_cast<float>(nodata);
        for (float& h : grid.cells)
            if (h == marker) h = NAN;
    }
    geo.has_transform = GDALGetGeoTransform(dataset.get(), geo.transform) == CE_None;
    if (const char* wkt = GDALGetProjectionRef(dataset.get())) geo.projection = wkt;

    const GDALDataType type = GDALGetRasterDataType(band);
    const bool integer_png = std::strcmp(GDALGetDriverShortName(GDALGetDatasetDriver(dataset.get())), "PNG") == 0 &&
                             (type == GDT_Byte || type == GDT_UInt16);
    int has_scale = 0, has_offset = 0;
    const double scale = GDALGetRasterScale(band, &has_scale), offset = GDALGetRasterOffset(band, &has_offset);
    double lo = 0.0, step = 1.0;
    if (integer_png && options.range) {
        const double top = type == GDT_Byte ? 255.0 : 65535.0;
        lo = options.range->first;
        step = (static_cast<double>(options.range->second) - lo) / top;
    } else if ((has_scale && scale != 1.0) || (has_offset && offset != 0.0)) {
        lo = has_offset ? offset : 0.0;
        step = has_scale ? scale : 1.0;
    } else if (integer_png) {
        note = path + ": PNG samples read as heights as they are (0 to " + (type == GDT_Byte ? "255" : "65535") +
               "); --range LO HI maps them to heights";
    }
    if (lo != 0.0 || step != 1.0)
        for (float& h : grid.cells) h = static_cast<float>(lo + step * h);
    if (bands > 1) note += (note.empty() ? "" : "; ") + path + ": band 1 of " + std::to_string(bands) + " read";
}

// True when `word` is one of the space-separated `words` (null: none).
bool lists(const char* words, const std::string& word) {
    for (std::string_view rest = words ? words : ""; !rest.empty();) {
        const size_t end = std::min(rest.find(' '), rest.size());
        if (rest.substr(0, end) == word) return true;
        rest.remove_prefix(std::min(end + 1, rest.size()));
    }
    return false;
}

// The writing driver for an extension: the usual one for the common ones,
// else the first raster driver that lists it and can create files.
GDALDriverH driver_for(const std::string& ext) {
    static const std::pair<const char*, const char*> kUsual[] = {
        {".tif", "GTiff"}, {".tiff", "GTiff"}, {".png", "PNG"}, {".asc", "AAIGrid"}, {".hgt", "SRTMHGT"},
        {".exr", "EXR"},   {".img", "HFA"},    {".vrt", "VRT"}};
    for (const auto& [e, name] : kUsual)
        if (ext == e) return GDALGetDriverByName(name);
    for (int i = 0; i < GDALGetDriverCount(); ++i) {
        GDALDriverH driver = GDALGetDriver(i);
        const char* extensions = GDALGetMetadataItem(driver, GDAL_DMD_EXTENSIONS, nullptr);
        if (!extensions || !GDALGetMetadataItem(driver, GDAL_DCAP_RASTER, nullptr)) continue;
        if (!GDALGetMetadataItem(driver, GDAL_DCAP_CREATE, nullptr) &&
            !GDALGetMetadataItem(driver, GDAL_DCAP_CREATECOPY, nullptr))
            continue;
        if (lists(extensions, ext.substr(1))) return driver;
    }
    return nullptr;
}

// Whether the driver writes bands of `type`; one that does not say is taken
// at its word for float32.
bool creates_type(GDALDriverH driver, const char* type) {
    const char* types = GDALGetMetadataItem(driver, GDAL_DMD_CREATIONDATATYPES, nullptr);
    return types ? lists(types, type) : std::strcmp(type, "Float32") == 0;
}

void write_gdal(const std::string& target, const std::string& ext, const Grid& grid, const HeightRange& range,
                std::string& note) {
    init_gdal();
    GDALDriverH driver = driver_for(ext);
    require(driver != nullptr, "unknown format '" + ext + "': this GDAL has no driver that writes it");
    const std::string name = GDALGetDriverShortName(driver);
    const bool png = name == "PNG";
    // PNG holds integers only; SRTM tiles are 16-bit integers; everything
    // else that can takes the heights as they are.
    const GDALDataType type = png                           ? GDT_UInt16
                              : creates_type(driver, "Float32") ? GDT_Float32
                              : creates_type(driver, "Int16")   ? GDT_Int16
                                                                : GDT_Unknown;
    require(type != GDT_Unknown, "the " + name + " format cannot hold heights");
    require(grid.width <= INT32_MAX && grid.height <= INT32_MAX, "too large for GDAL");
    const int width = static_cast<int>(grid.width), height = static_cast<int>(grid.height);

    const Georeference& geo = grid.georeference;
    bool set_nodata = geo.has_nodata && !png;
    double nodata = geo.nodata;
    std::vector<float> values(grid.cells);
    double png_offset = 0.0, png_scale = 1.0;  // heights = offset + scale x sample
    if (png) {
        float lo = INFINITY, hi = -INFINITY;
        if (range) {
            std::tie(lo, hi) = *range;
        } else {
            for (const float h : values)
                if (!std::isnan(h)) lo = std::min(lo, h), hi = std::max(hi, h);
            if (lo > hi) lo = hi = 0.0f;  // no heights at all
        }
        const double span = static_cast<double>(hi) - lo;
        png_offset = lo;
        png_scale = span > 0.0 ? span / 65535.0 : 1.0;
        // Missing cells have no place among the samples: they take the lowest.
        for (float& h : values)
            h = std::isnan(h) ? 0.0f
                              : static_cast<float>(std::clamp(std::round((h - png_offset) / png_scale), 0.0, 65535.0));
        char text[160];
        std::snprintf(text, sizeof text, "heights %.9g to %.9g stored as 16-bit samples 0 to 65535", png_offset,
                      png_offset + 65535.0 * png_scale);
        note = text;
    } else if (type == GDT_Int16) {
        if (!set_nodata || nodata != std::round(nodata) || nodata < -32768.0 || nodata > 32767.0) nodata = -32768.0;
        set_nodata = true;
        for (float& h : values)
            h = std::isnan(h) ? static_cast<float>(nodata) : std::clamp(std::round(h), -32768.0f, 32767.0f);
    } else if (set_nodata) {
        for (float& h : values)
            if (std::isnan(h)) h = static_cast<float>(nodata);
    }

    GDALDriverH mem = GDALGetDriverByName("MEM");
    Dataset source(GDALCreate(mem, "", width, height, 1, type, nullptr));
    require(source != nullptr, "cannot hold the grid in memory" + gdal_reason());
    GDALRasterBandH band = GDALGetRasterBand(source.get(), 1);
    require(GDALRasterIO(band, GF_Write, 0, 0, width, height, values.data(), width, height, GDT_Float32, 0, 0) ==
                CE_None,
            "converting the grid failed" + gdal_reason());
    if (png) {  // kept beside the picture (.aux.xml), so reading it back restores the heights
        GDALSetRasterOffset(band, png_offset);
        GDALSetRasterScale(band, png_scale);
    }
    if (set_nodata) GDALSetRasterNoDataValue(band, nodata);
    if (geo.has_transform) GDALSetGeoTransform(source.get(), const_cast<double*>(geo.transform));
    if (!geo.projection.empty()) GDALSetProjection(source.get(), geo.projection.c_str());

    char** options = nullptr;
    if (name == "GTiff") {
        options = CSLSetNameValue(options, "COMPRESS", "DEFLATE");
        options = CSLSetNameValue(options, "PREDICTOR", type == GDT_Float32 ? "3" : "2");
        options = CSLSetNameValue(options, "BIGTIFF", "IF_SAFER");
    }
    CPLErrorReset();
    GDALDatasetH written = GDALCreateCopy(driver, target.c_str(), source.get(), FALSE, options, nullptr, nullptr);
    CSLDestroy(options);
    require(written != nullptr, "the " + name + " driver could not write it" + gdal_reason());
    GDALClose(written);  // flushes; a failure shows as an error left behind
    require(CPLGetLastErrorType() < CE_Failure, "the " + name + " driver could not write it" + gdal_reason());
}

#endif  // HALDEN_WITH_GDAL

// Splits "FILE.npz:NAME" into the archive and the array's name.
bool split_npz(const std::string& path, std::string& archive, std::string& member) {
    std::string lower = path;
    std::transform(lower.begin(), lower.end(), lower.begin(), [](unsigned char c) { return std::tolower(c); });
    const size_t at = lower.rfind(".npz:");
    if (lower.ends_with(".npz")) {
        archive = path;
        member.clear();
        return true;
    }
    if (at == std::string::npos) return false;
    archive = path.substr(0, at + 4);
    member = path.substr(at + 5);
    return true;
}

const char kWithoutGdal[] =
    "this halden was built without GDAL and reads .npy and raw float32 (.raw, .f32, .r32, .bin) only";

}  // namespace

NpyHeader parse_npy_header(std::string_view text) { return NpyHeaderParser(text).parse(); }

bool have_gdal() {
#ifdef HALDEN_WITH_GDAL
    return true;
#else
    return false;
#endif
}

bool read_grid(const std::string& path, const ReadOptions& options, Grid& grid, std::string& error,
               std::string& note) {
    grid = Grid{};
    note.clear();
    try {
        std::string archive, member;
        const bool npz = split_npz(path, archive, member);
        const std::string& file = npz ? archive : path;
        std::error_code ec;
        require(!fs::is_directory(file, ec), "is a directory");
        File f(std::fopen(file.c_str(), "rb"));  // also says why a file cannot be read, which GDAL would not
        require(f != nullptr, std::strerror(errno));
        const std::string ext = extension_of(file);
        if (npz) {
#ifdef HALDEN_WITH_GDAL
            read_npz(archive, member, grid);
#else
            throw std::runtime_error(std::string("cannot read .npz: ") + kWithoutGdal);
#endif
        } else if (ext == ".npy") {
            Source source = file_source(f.get(), path);
            read_npy(source, grid);
        } else if (is_raw_extension(ext)) {
            Source source = file_source(f.get(), path);
            read_raw(source, options.width, grid);
        } else {
#ifdef HALDEN_WITH_GDAL
            f.reset();
            read_gdal(path, options, grid, note);
#else
            throw std::runtime_error("unknown format '" + ext + "': " + kWithoutGdal);
#endif
        }
        return true;
    } catch (const std::exception& e) {  // also an allocation too large for this machine
        error = path + ": " + e.what();
        grid = Grid{};
        return false;
    }
}

PendingOutputs::~PendingOutputs() {
    std::error_code ec;
    for (const Staged& staged : staged_) fs::remove_all(staged.folder, ec);
}

bool PendingOutputs::stage(const std::string& path, const std::function<void(const std::string&)>& make,
                           std::string& error) {
    // One folder per staged file: two outputs may share a folder and a name.
    static unsigned serial = 0;
    const fs::path target(path);
    const fs::path dir = target.has_parent_path() ? target.parent_path() : fs::path(".");
    const fs::path folder = dir / (".halden-" + std::to_string(::getpid()) + "-" + std::to_string(serial++));
    const std::string made = (folder / target.filename()).string();
    std::error_code ec;
    try {
        fs::remove_all(folder, ec);  // left by an earlier run that had this process id
        fs::create_directory(folder);
        make(made);
        staged_.push_back({path, folder.string()});
        return true;
    } catch (const fs::filesystem_error& e) {
        error = path + ": " + e.code().message();
    } catch (const std::exception& e) {
        // Reasons may name the file as it was made: name the user's instead.
        std::string reason = e.what();
        for (size_t at; (at = reason.find(made)) != std::string::npos;) reason.replace(at, made.size(), path);
        error = path + ": " + reason;
    }
    fs::remove_all(folder, ec);
    return false;
}

bool PendingOutputs::commit(std::string& error) {
    std::error_code ec;
    // The one failure worth checking for: a file cannot take a folder's place.
    for (const Staged& staged : staged_)
        if (fs::is_directory(staged.path, ec)) {
            error = staged.path + ": is a directory";
            return false;
        }
    while (!staged_.empty()) {
        const Staged& staged = staged_.front();
        const fs::path target(staged.path);
        const fs::path dir = target.has_parent_path() ? target.parent_path() : fs::path(".");
        try {
            std::vector<fs::path> files;
            for (const auto& entry : fs::directory_iterator(staged.folder)) files.push_back(entry.path());
            // The main file last: until it moves, the old one stays whole.
            std::stable_partition(files.begin(), files.end(),
                                  [&](const fs::path& p) { return p.filename() != target.filename(); });
            bool has_aux = false;
            for (const fs::path& file : files) {
                has_aux = has_aux || file.filename() == target.filename().string() + ".aux.xml";
                fs::rename(file, dir / file.filename());
            }
            // A side file of an earlier version would describe this one wrongly.
            if (!has_aux) fs::remove(staged.path + ".aux.xml");
        } catch (const fs::filesystem_error& e) {
            error = staged.path + ": " + e.code().message();
            return false;
        }
        fs::remove_all(staged.folder, ec);
        staged_.erase(staged_.begin());
    }
    return true;
}

bool stage_file(PendingOutputs& outputs, const std::string& path, const std::function<bool(std::FILE*)>& write,
                std::string& error) {
    return outputs.stage(
        path,
        [&](const std::string& made) {
            File f(std::fopen(made.c_str(), "wb"));
            require(f != nullptr, std::strerror(errno));
            bool ok = write(f.get());
            ok = std::fflush(f.get()) == 0 && ok;
            // Closing reports write errors that buffering deferred.
            ok = std::fclose(f.release()) == 0 && ok;
            require(ok, std::strerror(errno));
        },
        error);
}

namespace {

bool write_npy_or_raw(PendingOutputs& outputs, const std::string& path, const Grid& grid, std::string& error) {
    const bool npy = extension_of(path) == ".npy";
    const bool fill = grid.georeference.has_nodata;
    return stage_file(
        outputs, path,
        [&](std::FILE* f) {
            if (npy) {
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
            if (!fill) return write_all(f, grid.cells.data(), grid.cells.size() * sizeof(float));
            // Missing cells get the file's own no-data value back.
            const float nodata = static_cast<float>(grid.georeference.nodata);
            std::vector<float> row(grid.width);
            for (size_t start = 0; start < grid.cells.size(); start += grid.width) {
                for (uint32_t x = 0; x < grid.width; ++x) {
                    const float h = grid.cells[start + x];
                    row[x] = std::isnan(h) ? nodata : h;
                }
                if (!write_all(f, row.data(), row.size() * sizeof(float))) return false;
            }
            return true;
        },
        error);
}

}  // namespace

bool write_grid(PendingOutputs& outputs, const std::string& path, const Grid& grid, const HeightRange& range,
                std::string& error, std::string& note) {
    note.clear();
    const std::string ext = extension_of(path);
    // "name." has the extension "."; neither says a format.
    if (ext.size() < 2) {
        error = path + ": no extension to tell the format by; name it " +
                (have_gdal() ? ".npy, .raw, .f32, .r32, .bin, .tif, .tiff, .png, .asc, .hgt or another extension "
                               "that a GDAL driver writes"
                             : ".npy, .raw, .f32, .r32 or .bin");
        return false;
    }
    if (ext == ".npy" || is_raw_extension(ext)) return write_npy_or_raw(outputs, path, grid, error);
#ifndef HALDEN_WITH_GDAL
    (void)range;
    error = path + ": unknown format '" + ext + "': this halden was built without GDAL and writes .npy and raw "
            "float32 (.raw, .f32, .r32, .bin) only";
    return false;
#else
    if (ext == ".npz") {
        error = path + ": .npz archives are read only; write .npy";
        return false;
    }
    const bool ok = outputs.stage(
        path, [&](const std::string& made) { write_gdal(made, ext, grid, range, note); }, error);
    if (ok && !note.empty()) note = path + ": " + note;
    return ok;
#endif
}
