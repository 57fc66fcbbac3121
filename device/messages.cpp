// SPDX-License-Identifier: Apache-2.0
#include "device/messages.hpp"

#include <mutex>

namespace halden {
namespace {

void ignore_text(const char*) {}
std::int32_t no_progress_cancel(float) { return 0; }
void ignore_bytes(std::uint64_t) {}
std::int32_t no_cancel() { return 0; }

constexpr halden_callbacks defaults{ignore_text,  no_progress_cancel, ignore_text,  ignore_text,
                                    ignore_text,  ignore_bytes,       ignore_bytes, no_cancel};

std::mutex process_mutex;
halden_callbacks process_table = defaults;

}  // namespace

void install_process_callbacks(const halden_callbacks* table) {
    const halden_callbacks t = complete(table);
    const std::lock_guard<std::mutex> lock(process_mutex);
    process_table = t;
}

halden_callbacks process_callbacks() {
    const std::lock_guard<std::mutex> lock(process_mutex);
    return process_table;
}

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

halden_callbacks call_callbacks(const halden_callbacks* caller) {
    if (caller) return complete(caller);
    const halden_callbacks process = process_callbacks();
    halden_callbacks t = defaults;
    t.info = process.info;
    t.error = process.error;
    return t;
}

void flush_error(std::string& text) {
    send_error(process_callbacks(), text);
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
