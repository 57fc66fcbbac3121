// SPDX-License-Identifier: Apache-2.0
#include "cli/library.hpp"

#include <atomic>
#include <cstdio>
#include <mutex>

#include "cli/messages.hpp"
#include "cli/progress.hpp"

namespace cli {
namespace {

// Set by the error slot, which may run on a library thread, with the first
// text it got since the flag was cleared: the tool's own failure message
// says that text.
std::atomic<bool> g_error{false};
std::mutex g_error_mutex;
std::string g_error_text;

void on_error(const char* text) {
    const std::lock_guard<std::mutex> lock(g_error_mutex);
    if (!g_error) g_error_text = text ? text : "";
    g_error = true;
}

void on_warning(const char* text) { warn("%s", text ? text : ""); }

void on_info(const char* text) {
    if (!verbose()) return;
    break_progress_line();
    std::fprintf(stderr, "halden: %s\n", text ? text : "");
}

const halden_callbacks kCallbacks = {nullptr, on_progress, on_info, on_warning, on_error, nullptr, nullptr, on_cancel};

}  // namespace

const halden_callbacks* callbacks() { return &kCallbacks; }

bool library_error() { return g_error; }

std::string library_reason() {
    const std::lock_guard<std::mutex> lock(g_error_mutex);
    const bool reported = g_error.exchange(false);
    return reported && !g_error_text.empty() ? ": " + g_error_text : std::string();
}

void clear_library_error() {
    const std::string left = library_reason();
    if (left.empty()) return;
    break_progress_line();
    std::fprintf(stderr, "halden: error%s\n", left.c_str());
}

}  // namespace cli
