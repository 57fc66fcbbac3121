// SPDX-License-Identifier: Apache-2.0
#include "cli/messages.hpp"

#include <cstdarg>
#include <cstdio>

#include "cli/progress.hpp"

namespace cli {
namespace {

bool g_quiet = false;
bool g_verbose = false;

}  // namespace

void set_verbosity(bool quiet, bool verbose) {
    g_quiet = quiet;
    g_verbose = verbose;
}

bool verbose() { return g_verbose; }

namespace {
// One line on stderr after `prefix`, on a line of its own.
void say(const char* prefix, const char* format, va_list list) {
    break_progress_line();
    std::fputs(prefix, stderr);
    std::vfprintf(stderr, format, list);
    std::fputc('\n', stderr);
}
}  // namespace

int fail(int code, const char* format, ...) {
    va_list list;
    va_start(list, format);
    say("halden: error: ", format, list);
    va_end(list);
    return code;
}

void warn(const char* format, ...) {
    va_list list;
    va_start(list, format);
    say("halden: warning: ", format, list);
    va_end(list);
}

void note(const std::string& text) {
    if (text.empty() || g_quiet) return;
    break_progress_line();
    std::fprintf(stderr, "halden: %s\n", text.c_str());
}

std::string format(const char* format, ...) {
    va_list list;
    va_start(list, format);
    va_list again;
    va_copy(again, list);
    const int length = std::vsnprintf(nullptr, 0, format, list);
    va_end(list);
    std::string text(length > 0 ? static_cast<size_t>(length) : 0, '\0');
    if (length > 0) std::vsnprintf(text.data(), text.size() + 1, format, again);
    va_end(again);
    return text;
}

}  // namespace cli
