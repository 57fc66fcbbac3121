// SPDX-License-Identifier: Apache-2.0
// What a command is to the tool: a class that declares its options on a
// Definition and runs with a Context. See tools/README.md for how to add one.
#pragma once

#include <string>

#include "cli/json.hpp"
#include "cli/timing.hpp"
#include "formats/grid_io.hpp"

namespace cli {

class Definition;

// The options every operation command takes (Definition::operation), filled
// in by the parse. --verbose is every command's.
struct Common {
    std::string device = "cpu";
    bool quiet = false;
    bool json = false;
    bool no_progress = false;
    bool verbose = false;
};

// One run of a command: the options the helpers share, the device the run
// resolved to and the times. The helpers of cli/ fill in the times as they
// read, run and write.
class Context {
  public:
    explicit Context(std::string name) : name_(std::move(name)) {}

    // The command's name, which also labels its progress bar.
    const std::string& name() const { return name_; }
    // The output that failure messages name ("...; OUT not written"): the
    // command's Definition::output positional, or "" without one.
    const std::string& out() const;
    // Whether the command runs operations, so that Ctrl-C cancels it.
    bool operation() const { return operation_; }

    Common common;
    ReadOptions read;  // --size W and --range LO HI (see Definition::operation)
    std::string key;   // the key of the device the operation ran on
    Timing call;       // the export call alone
    Timings timings;

    // Starts the clock of "total"; the tool calls it just before run().
    void start() { since_start_.restart(); }
    // Milliseconds since start().
    double elapsed() const { return since_start_.milliseconds(); }

    // Prints the summary on stdout: `json` with "timings" added under
    // --json, else `line`; nothing under --quiet.
    void report(JsonObject json, const std::string& line);

  private:
    friend class Definition;
    std::string name_;
    const std::string* out_ = nullptr;
    bool operation_ = false;
    Stopwatch since_start_;
};

class Command {
  public:
    virtual ~Command() = default;
    // Declares the positionals, the options, their checks and the help.
    virtual void define(Definition& definition) = 0;
    // Runs once the arguments are parsed and checked; returns the exit code.
    virtual int run(Context& context) = 0;
};

}  // namespace cli
