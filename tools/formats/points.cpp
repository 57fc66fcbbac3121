// SPDX-License-Identifier: Apache-2.0
#include "formats/points.hpp"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>

#include "formats/grid_io.hpp"

namespace {

bool fail(std::string& error, const std::string& path, const std::string& what) {
    error = path + ": " + what;
    return false;
}

bool read_all(const std::string& path, std::string& bytes, std::string& error) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return fail(error, path, std::string("cannot open: ") + std::strerror(errno));
    bytes.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    if (in.bad()) return fail(error, path, "read error");
    return true;
}

template <class T>
T load(const std::string& bytes, size_t at) {
    T v;
    std::memcpy(&v, bytes.data() + at, sizeof v);
    return v;
}

std::string lower_extension(const std::string& path) {
    const size_t dot = path.find_last_of('.');
    const size_t slash = path.find_last_of('/');
    if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return {};
    std::string e = path.substr(dot + 1);
    for (char& c : e) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return e;
}

// --- .npy ------------------------------------------------------------------

bool read_npy(const std::string& path, const std::string& b, PointData& out, std::string& error) {
    if (b.size() < 10) return fail(error, path, "truncated .npy header");
    const int major = static_cast<unsigned char>(b[6]);
    const size_t len_size = major == 1 ? 2 : 4;
    const size_t header_len = major == 1 ? load<uint16_t>(b, 8) : (b.size() >= 12 ? load<uint32_t>(b, 8) : 0);
    const size_t data = 8 + len_size + header_len;
    if (header_len == 0 || data > b.size()) return fail(error, path, "truncated .npy header");
    NpyHeader header;
    try {
        header = parse_npy_header(std::string_view(b).substr(8 + len_size, header_len));
    } catch (const std::exception& e) {
        return fail(error, path, e.what());
    }
    size_t item = 0;
    if (header.descr == "<f4")
        item = 4;
    else if (header.descr == "<f8")
        item = 8;
    else
        return fail(error, path,
                    "the .npy array holds '" + header.descr + "'; expected float32 or float64 ('<f4' or '<f8')");
    if (header.shape.size() != 2 || header.shape[1] < 3) {
        std::string shape;
        for (uint64_t n : header.shape) shape += (shape.empty() ? "" : ", ") + std::to_string(n);
        return fail(error, path, "the .npy array has shape (" + shape + "); expected N x 3 (x, y, z per row)");
    }
    const uint64_t rows = header.shape[0], cols = header.shape[1];
    if (rows > (b.size() - data) / cols / item) return fail(error, path, "the .npy data is shorter than its shape");
    const bool by_column = header.fortran;
    out.xyz.resize(3 * rows);
    for (uint64_t r = 0; r < rows; ++r)
        for (int c = 0; c < 3; ++c) {
            const size_t at = data + item * (by_column ? c * rows + r : r * cols + c);
            out.xyz[3 * r + c] = item == 4 ? double(load<float>(b, at)) : load<double>(b, at);
        }
    return true;
}

// --- PLY -------------------------------------------------------------------

int ply_type_size(const std::string& t) {
    if (t == "char" || t == "uchar" || t == "int8" || t == "uint8") return 1;
    if (t == "short" || t == "ushort" || t == "int16" || t == "uint16") return 2;
    if (t == "int" || t == "uint" || t == "int32" || t == "uint32" || t == "float" || t == "float32") return 4;
    if (t == "double" || t == "float64") return 8;
    return 0;
}

double ply_value(const std::string& b, size_t at, const std::string& t) {
    if (t == "char" || t == "int8") return load<int8_t>(b, at);
    if (t == "uchar" || t == "uint8") return load<uint8_t>(b, at);
    if (t == "short" || t == "int16") return load<int16_t>(b, at);
    if (t == "ushort" || t == "uint16") return load<uint16_t>(b, at);
    if (t == "int" || t == "int32") return load<int32_t>(b, at);
    if (t == "uint" || t == "uint32") return load<uint32_t>(b, at);
    if (t == "float" || t == "float32") return load<float>(b, at);
    return load<double>(b, at);
}

struct ply_element {
    std::string name;
    uint64_t count = 0;
    std::vector<std::string> names, types;
    bool lists = false;
    size_t size = 0;  // bytes per binary record without lists
};

bool read_ply(const std::string& path, const std::string& b, PointData& out, std::string& error) {
    const size_t end = b.find("end_header");
    if (end == std::string::npos) return fail(error, path, "PLY header without end_header");
    size_t data = b.find('\n', end);
    if (data == std::string::npos) return fail(error, path, "PLY header without end_header");
    ++data;
    std::istringstream header(b.substr(0, end));
    std::string line, format;
    std::vector<ply_element> elements;
    while (std::getline(header, line)) {
        std::istringstream words(line);
        std::string word;
        words >> word;
        if (word == "format") {
            words >> format;
        } else if (word == "element") {
            ply_element e;
            words >> e.name >> e.count;
            elements.push_back(e);
        } else if (word == "property" && !elements.empty()) {
            std::string type, name;
            words >> type;
            if (type == "list") {
                elements.back().lists = true;
                continue;
            }
            words >> name;
            if (ply_type_size(type) == 0) return fail(error, path, "PLY property type '" + type + "' is unknown");
            elements.back().names.push_back(name);
            elements.back().types.push_back(type);
            elements.back().size += size_t(ply_type_size(type));
        }
    }
    if (format != "ascii" && format != "binary_little_endian")
        return fail(error, path, "PLY format '" + format + "' is not read; use ascii or binary_little_endian");
    const bool ascii = format == "ascii";
    size_t skip_records = 0, skip_bytes = 0;
    for (const ply_element& e : elements) {
        if (e.name != "vertex") {
            if (e.lists && !ascii)
                return fail(error, path, "PLY element '" + e.name + "' with lists comes before the vertices");
            skip_records += e.count;
            skip_bytes += e.count * e.size;
            continue;
        }
        if (e.lists) return fail(error, path, "PLY vertices with list properties are not read");
        int at[3] = {-1, -1, -1};
        size_t offset[3] = {0, 0, 0}, running = 0;
        for (size_t k = 0; k < e.names.size(); ++k) {
            for (int c = 0; c < 3; ++c)
                if (e.names[k] == std::string(1, char('x' + c))) at[c] = int(k), offset[c] = running;
            running += size_t(ply_type_size(e.types[k]));
        }
        if (at[0] < 0 || at[1] < 0 || at[2] < 0) return fail(error, path, "PLY vertices lack x, y or z");
        out.xyz.resize(3 * e.count);
        if (ascii) {
            std::istringstream body(b.substr(data));
            for (size_t r = 0; r < skip_records; ++r) std::getline(body, line);
            for (uint64_t v = 0; v < e.count; ++v) {
                if (!std::getline(body, line)) return fail(error, path, "PLY data ends before its vertices do");
                std::istringstream words(line);
                std::vector<double> values;
                double value;
                while (words >> value) values.push_back(value);
                if (values.size() < e.names.size())
                    return fail(error, path, "PLY vertex " + std::to_string(v) + " has too few values");
                for (int c = 0; c < 3; ++c) out.xyz[3 * v + c] = values[size_t(at[c])];
            }
        } else {
            const size_t first = data + skip_bytes;
            if (b.size() < first || (b.size() - first) / std::max<size_t>(e.size, 1) < e.count)
                return fail(error, path, "PLY data ends before its vertices do");
            for (uint64_t v = 0; v < e.count; ++v)
                for (int c = 0; c < 3; ++c)
                    out.xyz[3 * v + c] = ply_value(b, first + v * e.size + offset[c], e.types[size_t(at[c])]);
        }
        return true;
    }
    return fail(error, path, "PLY file without a vertex element");
}

// --- LAS -------------------------------------------------------------------

bool read_las(const std::string& path, const std::string& b, PointData& out, std::string& error) {
    if (b.size() < 227) return fail(error, path, "truncated LAS header");
    const int major = static_cast<unsigned char>(b[24]), minor = static_cast<unsigned char>(b[25]);
    if (major != 1 || minor < 2 || minor > 4)
        return fail(
            error, path,
            "LAS version " + std::to_string(major) + "." + std::to_string(minor) + " is not read; 1.2 to 1.4 are");
    const uint32_t offset = load<uint32_t>(b, 96);
    const int format_byte = static_cast<unsigned char>(b[104]);
    // Compressors mark their files by setting the top bits of the format.
    if ((format_byte & 0xC0) != 0 || lower_extension(path) == "laz")
        return fail(error, path, "compressed LAS (LAZ) is not read; decompress it first (to .las)");
    if (format_byte > 10) return fail(error, path, "LAS point format " + std::to_string(format_byte) + " is unknown");
    const uint16_t record = load<uint16_t>(b, 105);
    if (record < 12)
        return fail(error, path, "LAS point records of " + std::to_string(record) + " bytes are too short");
    uint64_t count = load<uint32_t>(b, 107);
    if (minor == 4 && b.size() >= 255 && load<uint16_t>(b, 94) >= 255 && count == 0) count = load<uint64_t>(b, 247);
    const double scale[3] = {load<double>(b, 131), load<double>(b, 139), load<double>(b, 147)};
    const double shift[3] = {load<double>(b, 155), load<double>(b, 163), load<double>(b, 171)};
    if (offset > b.size() || (b.size() - offset) / record < count)
        return fail(error, path, "LAS data ends before its " + std::to_string(count) + " points do");
    out.xyz.resize(3 * count);
    for (uint64_t i = 0; i < count; ++i)
        for (int c = 0; c < 3; ++c)
            out.xyz[3 * i + c] = double(load<int32_t>(b, offset + i * record + 4 * size_t(c))) * scale[c] + shift[c];
    return true;
}

// --- text ------------------------------------------------------------------

bool read_text(const std::string& path, const std::string& b, PointData& out, std::string& error) {
    size_t line_no = 0, pos = 0;
    bool seen_data = false;
    while (pos < b.size()) {
        size_t end = b.find('\n', pos);
        if (end == std::string::npos) end = b.size();
        std::string line = b.substr(pos, end - pos);
        pos = end + 1;
        ++line_no;
        const size_t hash = line.find('#');
        if (hash != std::string::npos) line.resize(hash);
        for (char& c : line)
            if (c == ',' || c == ';' || c == '\r' || c == '\t') c = ' ';
        std::istringstream words(line);
        std::string word;
        double v[3];
        int n = 0;
        bool numbers = true;
        while (n < 3 && words >> word) {
            char* stop = nullptr;
            v[n] = std::strtod(word.c_str(), &stop);
            if (stop == word.c_str() || *stop != '\0') {
                numbers = false;
                break;
            }
            ++n;
        }
        if (n == 0 && numbers) continue;  // blank or comment
        if (!numbers && !seen_data && out.xyz.empty() && n == 0) {
            seen_data = true;  // a header line such as "x,y,z"
            continue;
        }
        if (!numbers || n < 3)
            return fail(error, path + ":" + std::to_string(line_no), "expected x y z, got '" + line + "'");
        seen_data = true;
        out.xyz.insert(out.xyz.end(), v, v + 3);
    }
    return true;
}

}  // namespace

bool read_points(const std::string& path, PointData& points, std::string& error) {
    points.xyz.clear();
    std::string bytes;
    if (!read_all(path, bytes, error)) return false;
    bool ok;
    const std::string ext = lower_extension(path);
    if (bytes.compare(0, 6, "\x93NUMPY") == 0)
        ok = read_npy(path, bytes, points, error);
    else if (bytes.compare(0, 4, "LASF") == 0 || ext == "laz")
        ok = read_las(path, bytes, points, error);
    else if (bytes.compare(0, 4, "ply\n") == 0 || bytes.compare(0, 5, "ply\r\n") == 0)
        ok = read_ply(path, bytes, points, error);
    else if (ext == "npy" || ext == "las" || ext == "ply")
        return fail(error, path, "not a ." + ext + " file (its first bytes do not match)");
    else
        ok = read_text(path, bytes, points, error);
    if (!ok) points.xyz.clear();
    return ok;
}
