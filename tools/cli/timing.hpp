// SPDX-License-Identifier: Apache-2.0
// Wall-clock times of a command and of its export calls.
#pragma once

#include <chrono>

namespace cli {

class Stopwatch {
  public:
    void restart() { start_ = std::chrono::steady_clock::now(); }
    double milliseconds() const {
        return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start_).count();
    }

  private:
    std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

// The phases of a command, in milliseconds: reading its inputs, running on
// the device (opening and closing the queue included), writing its outputs,
// and the whole command. --json prints them as "timings".
struct Timings {
    double read = 0.0;
    double run = 0.0;
    double write = 0.0;
    double total = 0.0;
};

// One export call alone: the summary's "milliseconds" and its rate, in
// millions of work units (cells, triangles) per second.
struct Timing {
    double milliseconds = 0.0;
    double rate = 0.0;
};

// Adds the time `f()` takes to `into` and returns what it returns.
template <class F>
auto add_time(double& into, F&& f) {
    const Stopwatch watch;
    auto result = f();
    into += watch.milliseconds();
    return result;
}

}  // namespace cli
