// SPDX-License-Identifier: Apache-2.0
#include "cli/command.hpp"

#include <cstdio>

namespace cli {

const std::string& Context::out() const {
    static const std::string kNone;
    return out_ ? *out_ : kNone;
}

void Context::report(JsonObject json, const std::string& line) {
    timings.total = elapsed();
    if (common.quiet) return;
    if (common.json) {
        json.raw("timings", json_timings(timings));
        std::printf("%s\n", json.text().c_str());
    } else {
        std::printf("%s\n", line.c_str());
    }
}

}  // namespace cli
