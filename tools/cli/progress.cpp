// SPDX-License-Identifier: Apache-2.0
#include "cli/progress.hpp"

#include <algorithm>
#include <atomic>
#include <cstdio>

#include <unistd.h>

namespace cli {
namespace {

// Set by the SIGINT handler; a lock-free atomic is safe to store from one.
std::atomic<bool> g_interrupted{false};
static_assert(std::atomic<bool>::is_always_lock_free, "the SIGINT handler needs a lock-free flag");

extern "C" void on_interrupt(int) { g_interrupted = true; }

// The bar: its label, whether to draw it, the percentage last drawn and
// whether the cursor still stands at the end of the bar's line.
std::string g_label;
bool g_enabled = false;
int g_shown = -1;
bool g_open = false;

void draw(float percent) {
    constexpr int kCells = 30;
    // Written so that NaN draws 0 rather than reaching the int conversion.
    const int whole = static_cast<int>(percent >= 0.0f ? std::min(percent, 100.0f) : 0.0f);
    if (whole == g_shown && g_open) return;  // redrawing the same text only costs terminal output
    g_shown = whole;
    char cells[kCells + 1];
    const int filled = whole * kCells / 100;
    for (int i = 0; i < kCells; ++i) cells[i] = i < filled ? '#' : '.';
    cells[kCells] = '\0';
    std::fprintf(stderr, "\r%s [%s] %3d%%", g_label.c_str(), cells, whole);
    std::fflush(stderr);
    g_open = true;
}

}  // namespace

InterruptGuard::InterruptGuard() {
    g_interrupted = false;
    struct sigaction action {};
    action.sa_handler = on_interrupt;
    sigemptyset(&action.sa_mask);
    // SA_RESETHAND: the first Ctrl-C asks the library to stop at its next
    // poll, a second one ends the process as usual. SA_RESTART: system calls
    // in flight carry on rather than fail with EINTR.
    action.sa_flags = SA_RESETHAND | SA_RESTART;
    // A shell starts background jobs with SIGINT ignored; they stay immune.
    if (sigaction(SIGINT, nullptr, &previous_) == 0 && !(previous_.sa_flags & SA_SIGINFO) &&
        previous_.sa_handler == SIG_IGN)
        return;
    installed_ = sigaction(SIGINT, &action, &previous_) == 0;
}

InterruptGuard::~InterruptGuard() {
    if (installed_) sigaction(SIGINT, &previous_, nullptr);
}

bool interrupted() { return g_interrupted; }

bool progress_wanted(bool quiet, bool json, bool no_progress) {
    return !quiet && !json && !no_progress && isatty(STDERR_FILENO);
}

ProgressBar::ProgressBar(const std::string& label, bool enabled, bool now) {
    g_label = label;
    g_enabled = enabled;
    g_shown = -1;
    if (g_enabled && now) draw(0.0f);
}

ProgressBar::~ProgressBar() {
    if (g_enabled && g_shown >= 0 && complete_ && !g_interrupted) draw(100.0f);  // a bar was drawn: fill it
    break_progress_line();
    g_enabled = false;
}

void break_progress_line() {
    if (!g_open) return;
    std::fputc('\n', stderr);
    g_open = false;
}

int32_t on_progress(float percent) {
    if (g_enabled) draw(percent);
    return g_interrupted ? 1 : 0;
}

int32_t on_cancel() { return g_interrupted ? 1 : 0; }

}  // namespace cli
