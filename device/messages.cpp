// SPDX-License-Identifier: Apache-2.0
#include "device/messages.hpp"

namespace halden {
namespace {

void ignore_text(const char*) {}
std::int32_t no_progress_cancel(float) { return 0; }
void ignore_bytes(std::uint64_t) {}
std::int32_t no_cancel() { return 0; }

constexpr halden_callbacks defaults{ignore_text,  no_progress_cancel, ignore_text,  ignore_text,
                                    ignore_text,  ignore_bytes,       ignore_bytes, no_cancel};

}  // namespace

halden_callbacks g_callbacks = defaults;
std::uint8_t g_async_error = 0;

halden_callbacks complete(const halden_callbacks* table) {
    if (!table) return defaults;
    halden_callbacks t = *table;
    if (!t.debug) t.debug = defaults.debug;
    if (!t.progress) t.progress = defaults.progress;
    if (!t.info) t.info = defaults.info;
    if (!t.warning) t.warning = defaults.warning;
    if (!t.error) t.error = defaults.error;
    if (!t.reserve) t.reserve = defaults.reserve;
    if (!t.release) t.release = defaults.release;
    if (!t.cancel) t.cancel = defaults.cancel;
    return t;
}

void send_info(const halden_callbacks& table, const std::string& text) { table.info(text.c_str()); }
void send_error(const halden_callbacks& table, const std::string& text) { table.error(text.c_str()); }

void flush_error(std::string& text) {
    send_error(g_callbacks, text);
    text.clear();
}

std::string format(std::string_view pattern, std::initializer_list<std::string_view> args) {
    std::string out;
    auto arg = args.begin();
    for (std::size_t i = 0; i < pattern.size(); ++i) {
        if (pattern[i] == '{' && i + 1 < pattern.size() && pattern[i + 1] == '}' && arg != args.end()) {
            out += *arg++;
            ++i;
        } else {
            out += pattern[i];
        }
    }
    return out;
}

}  // namespace halden
