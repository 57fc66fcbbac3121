// SPDX-License-Identifier: Apache-2.0
#include "mesh.hpp"

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
#include <system_error>

namespace {

struct FileCloser {
    void operator()(std::FILE* f) const { std::fclose(f); }
};
using File = std::unique_ptr<std::FILE, FileCloser>;

// A problem with the statement that starts on `line`; read_mesh adds the
// file name.
struct LineError : std::runtime_error {
    size_t line;
    LineError(size_t at, const std::string& message) : std::runtime_error(message), line(at) {}
};

bool is_space(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\v' || c == '\f'; }

// Splits a statement into its whitespace-separated words.
void split(std::string_view text, std::vector<std::string_view>& words) {
    words.clear();
    size_t at = 0;
    while (at < text.size()) {
        while (at < text.size() && is_space(text[at])) ++at;
        const size_t start = at;
        while (at < text.size() && !is_space(text[at])) ++at;
        if (at > start) words.push_back(text.substr(start, at - start));
    }
}

// from_chars takes no leading '+', which some writers emit.
std::string_view drop_plus(std::string_view text) {
    return text.size() > 1 && text[0] == '+' && text[1] != '-' ? text.substr(1) : text;
}

// The whole word as a finite float; anything else is the line's error.
float parse_coordinate(std::string_view word, size_t line) {
    const std::string_view text = drop_plus(word);
    float value = 0.0f;
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc() || end != text.data() + text.size() || !std::isfinite(value))
        throw LineError(line, "'" + std::string(word) + "' is not a finite number");
    return value;
}

// Reads a whole integer at the front of `text` and moves past it; false when
// there is none.
bool take_integer(std::string_view& text, int64_t& value) {
    const std::string_view digits = drop_plus(text);
    const auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
    if (ec != std::errc()) return false;
    text.remove_prefix(static_cast<size_t>(end - text.data()));
    return true;
}

// The vertex index of a reference i, i/t, i//n or i/t/n. The texture and
// normal parts are checked for form only: their arrays are not read.
int64_t parse_reference(std::string_view word, size_t line) {
    std::string_view rest = word;
    int64_t index = 0, other = 0;
    bool ok = take_integer(rest, index);
    if (ok && !rest.empty()) {
        ok = rest[0] == '/';
        rest.remove_prefix(1);
        const bool has_texture = ok && !rest.empty() && rest[0] != '/';
        if (has_texture) ok = take_integer(rest, other);
        if (ok && !rest.empty()) {
            ok = rest[0] == '/';
            rest.remove_prefix(1);
            ok = ok && take_integer(rest, other);
        } else if (ok && !has_texture) {
            ok = false;  // "i/" names neither a texture nor a normal
        }
        ok = ok && rest.empty();
    }
    if (!ok) throw LineError(line, "'" + std::string(word) + "' is not a vertex reference (i, i/t, i//n or i/t/n)");
    if (index == 0) throw LineError(line, "vertex index 0 in '" + std::string(word) + "' (indices start at 1)");
    return index;
}

// A positive index past the vertices read so far, to be checked once all are.
struct Pending {
    size_t line;
    int64_t index;
};

void parse(std::string_view text, MeshData& mesh) {
    std::vector<std::string_view> words;
    std::vector<Pending> pending;
    std::string joined;  // a statement continued over lines with '\'
    size_t line = 0;
    size_t at = 0;
    while (at < text.size()) {
        const size_t first_line = ++line;
        size_t end = text.find('\n', at);
        if (end == text.npos) end = text.size();
        std::string_view statement = text.substr(at, end - at);
        at = end + 1;
        // A backslash ending a line continues the statement on the next one.
        auto continued = [](std::string_view s) {
            while (!s.empty() && is_space(s.back())) s.remove_suffix(1);
            return !s.empty() && s.back() == '\\';
        };
        if (continued(statement)) {
            joined.clear();
            while (continued(statement)) {
                joined.append(statement.substr(0, statement.rfind('\\'))).push_back(' ');
                if (at >= text.size()) break;
                ++line;
                end = text.find('\n', at);
                if (end == text.npos) end = text.size();
                statement = text.substr(at, end - at);
                at = end + 1;
            }
            if (!continued(statement)) joined.append(statement);
            statement = joined;
        }
        statement = statement.substr(0, statement.find('#'));
        split(statement, words);
        if (words.empty()) continue;

        if (words[0] == "v") {
            if (words.size() < 4) throw LineError(first_line, "a vertex needs x, y and z");
            for (size_t i = 1; i <= 3; ++i) mesh.vertices.push_back(parse_coordinate(words[i], first_line));
        } else if (words[0] == "f") {
            const size_t corners = words.size() - 1;
            if (corners < 3) throw LineError(first_line, "a face needs 3 vertices, this one has " + std::to_string(corners));
            if (corners > 3)
                throw LineError(first_line, "only triangles are supported, this face has " + std::to_string(corners) +
                                                " vertices (triangulate the mesh first)");
            const auto known = static_cast<int64_t>(mesh.vertex_count());
            for (size_t i = 1; i <= 3; ++i) {
                const int64_t index = parse_reference(words[i], first_line);
                if (index < 0 && known + index < 0)
                    throw LineError(first_line, "vertex index " + std::to_string(index) + " reaches before the first of the " +
                                                    std::to_string(known) + " vertices read so far");
                // Forward references are legal OBJ; the total decides them.
                if (index > known) pending.push_back({first_line, index});
                const int64_t resolved = index < 0 ? known + index : index - 1;
                mesh.triangles.push_back(static_cast<uint32_t>(resolved));
            }
        }
    }
    const size_t count = mesh.vertex_count();
    if (count > UINT32_MAX) throw std::runtime_error("more than 2^32 - 1 vertices");
    for (const Pending& p : pending)
        if (static_cast<uint64_t>(p.index) > count)
            throw LineError(p.line, "vertex index " + std::to_string(p.index) + " is past the " + std::to_string(count) +
                                        " vertices of the file");
}

}  // namespace

bool read_mesh(const std::string& path, MeshData& mesh, std::string& error) {
    mesh = MeshData{};
    try {
        std::error_code ec;
        if (std::filesystem::is_directory(path, ec)) throw std::runtime_error("is a directory");
        File f(std::fopen(path.c_str(), "rb"));
        if (!f) throw std::runtime_error(std::strerror(errno));
        std::string text;
        char buffer[1 << 16];
        for (size_t n; (n = std::fread(buffer, 1, sizeof buffer, f.get())) > 0;) text.append(buffer, n);
        if (std::ferror(f.get())) throw std::runtime_error("read error");
        parse(text, mesh);
        return true;
    } catch (const LineError& e) {
        error = path + ":" + std::to_string(e.line) + ": " + e.what();
    } catch (const std::exception& e) {  // also an allocation too large for this machine
        error = path + ": " + e.what();
    }
    mesh = MeshData{};
    return false;
}
