// SPDX-License-Identifier: Apache-2.0
// The progress bar on stderr and Ctrl-C, which every operation shares: the
// library's progress slot draws the bar, and its progress and cancel slots
// answer "stop" once Ctrl-C was pressed.
#pragma once

#include <cstdint>
#include <string>

#include <signal.h>

namespace cli {

// Turns Ctrl-C into a cancel request while it lives, then puts back what was
// there before (normally the default action, which ends the process). The
// first Ctrl-C asks the library to stop at its next poll; a second one ends
// the process at once.
class InterruptGuard {
  public:
    InterruptGuard();
    ~InterruptGuard();
    InterruptGuard(const InterruptGuard&) = delete;
    InterruptGuard& operator=(const InterruptGuard&) = delete;

  private:
    struct sigaction previous_ {};
    bool installed_ = false;
};

// Whether Ctrl-C was pressed since the guard was installed.
bool interrupted();

// Whether a bar may be drawn: stderr is a terminal and the user asked for
// neither silence (--quiet, --json) nor --no-progress.
bool progress_wanted(bool quiet, bool json, bool no_progress);

// Shows the progress that the operation `label` reports, when `enabled`:
// from its first report on, or at once (0 %) when `now`, for operations
// known to report late. Ended by the destructor, at 100 % after complete().
class ProgressBar {
  public:
    ProgressBar(const std::string& label, bool enabled, bool now = false);
    ~ProgressBar();
    ProgressBar(const ProgressBar&) = delete;
    ProgressBar& operator=(const ProgressBar&) = delete;

    // The operation finished: a bar on the screen is filled before it ends.
    void complete() { complete_ = true; }

  private:
    bool complete_ = false;
};

// Ends the bar's line, so that a message does not run on after the bar.
void break_progress_line();

// The library's progress (slot 1) and cancel (slot 7) slots; a nonzero
// answer asks it to stop.
int32_t on_progress(float percent);
int32_t on_cancel();

}  // namespace cli
