// SPDX-License-Identifier: Apache-2.0
// The JSON that --json prints: one object per command, on one line.
#pragma once

#include <cstdint>
#include <string>
#include <type_traits>

#include "cli/timing.hpp"

namespace cli {

// `s` as a JSON string, quotes included.
std::string json_string(const std::string& s);

// An object built key by key, in the order they are added.
class JsonObject {
  public:
    JsonObject& add(const std::string& key, const std::string& text) { return raw(key, json_string(text)); }
    JsonObject& add(const std::string& key, const char* text) { return raw(key, json_string(text)); }
    JsonObject& add(const std::string& key, bool value) { return raw(key, value ? "true" : "false"); }
    // Times, in milliseconds with three decimals.
    JsonObject& add(const std::string& key, double milliseconds);
    template <class Integer, std::enable_if_t<std::is_integral_v<Integer>, int> = 0>
    JsonObject& add(const std::string& key, Integer value) {
        return raw(key, std::to_string(value));
    }
    // A value that is JSON already: an array, an object, null.
    JsonObject& raw(const std::string& key, const std::string& json);

    std::string text() const { return "{" + body_ + "}"; }

  private:
    std::string body_;
};

// {"read": ms, "run": ms, "write": ms, "total": ms}
std::string json_timings(const Timings& timings);

}  // namespace cli
