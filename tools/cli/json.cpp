// SPDX-License-Identifier: Apache-2.0
#include "cli/json.hpp"

#include <cstdio>

namespace cli {

std::string json_string(const std::string& s) {
    std::string out = "\"";
    for (const char c : s) {
        char escaped[8] = {c};
        if (c == '"' || c == '\\') std::snprintf(escaped, sizeof escaped, "\\%c", c);
        if (static_cast<unsigned char>(c) < 0x20) std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
        out += escaped;
    }
    return out + "\"";
}

JsonObject& JsonObject::add(const std::string& key, double milliseconds) {
    char text[64];
    std::snprintf(text, sizeof text, "%.3f", milliseconds);
    return raw(key, text);
}

JsonObject& JsonObject::raw(const std::string& key, const std::string& json) {
    if (!body_.empty()) body_ += ", ";
    body_ += json_string(key) + ": " + json;
    return *this;
}

std::string json_timings(const Timings& timings) {
    return JsonObject()
        .add("read", timings.read)
        .add("run", timings.run)
        .add("write", timings.write)
        .add("total", timings.total)
        .text();
}

}  // namespace cli
