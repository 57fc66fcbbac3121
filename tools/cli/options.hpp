// SPDX-License-Identifier: Apache-2.0
// Declaring a command's positionals and options. CLI11 parses them as text;
// the tool checks each value after the parse, strictly: the whole text must
// be the number, numbers must be finite and in their range, so that a typo
// is a usage error (exit 1) rather than a silently different value.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace cli {

class Context;

enum class Sign { kAny, kPositive, kNonNegative };

// The finite numbers from `low` to `high`, each end included or not:
// Interval{0, true, 90, false} is "of at least 0 and below 90".
struct Interval {
    float low;
    bool with_low;
    float high;
    bool with_high;
    bool contains(float v) const {
        return (with_low ? v >= low : v > low) && (with_high ? v <= high : v < high);
    }
    // "from 0 to 1", "above 0 and at most 1", "above 0 and below 90", "of at least 0 and below 1"
    std::string describe() const;
};

// The whole of `text` as a whole number in [low, high].
bool parse_whole(const std::string& text, uint64_t low, uint64_t high, uint64_t& value);
// The whole of `text` as a finite float.
bool parse_finite(const std::string& text, float& value);

// A declared positional or option, for checks that need more than its value.
class Option {
  public:
    enum class Kind { kPositional, kFlag, kValue, kPair };

    // Whether the command line gave it.
    bool given() const;
    // Its value as given (the last time, when repeated); the first of a pair.
    const std::string& text() const { return at(0); }
    // The second value of a pair.
    const std::string& second() const { return at(1); }

    // What the help shows.
    Kind kind() const { return kind_; }
    const std::string& name() const { return name_; }
    const std::string& value_names() const { return values_; }  // "R", "LO HI"
    const std::string& help() const { return help_; }
    bool required() const { return required_; }

  private:
    friend class Definition;
    const std::string& at(size_t i) const;
    Kind kind_ = Kind::kValue;
    std::string name_, values_, help_;
    bool required_ = false;
    std::string text_;                // what CLI11 parses a single value into
    std::vector<std::string> texts_;  // and a pair
    CLI::Option* option_ = nullptr;
    std::function<bool()> check_;  // run when given: converts and checks the value, false after a message
};

// What a command declares in Command::define. Options keep the order they
// are declared in, in the help and in the order their values are checked.
class Definition {
  public:
    Definition(CLI::App& app, Context& context);
    ~Definition();
    Definition(const Definition&) = delete;
    Definition& operator=(const Definition&) = delete;

    // The help: what the command does, printed after the usage line, and
    // what follows the option list. Both are printed as written (wrap them at
    // 80 columns); option help is wrapped by the tool.
    void description(std::string text) { description_ = std::move(text); }
    void footer(std::string text) { footer_ = std::move(text); }

    // Positionals, all required, in the order declared. The output is the
    // file that failure messages name ("...; OUT not written").
    void input(const char* name, std::string& path);
    void output(const char* name, std::string& path);

    const Option& flag(const char* name, bool& value, const char* help);
    // A whole number in [low, high].
    const Option& whole(const char* name, uint32_t& value, uint32_t low, uint32_t high, const char* value_name,
                        const char* help);
    // A finite float of the given sign.
    const Option& number(const char* name, float& value, Sign sign, const char* value_name, const char* help);
    // A finite float in `interval`.
    const Option& number(const char* name, float& value, Interval interval, const char* value_name,
                         const char* help);
    // A text that must not be empty (a path, a key).
    const Option& text(const char* name, std::string& value, const char* value_name, const char* help);
    // Two values ("--size W H"), checked by the command (see check).
    const Option& pair(const char* name, const char* value_names, const char* help, bool required = false);
    // A check of the command's own, run after every option's: returns kOk
    // or, after a message, the exit code.
    void check(std::function<int()> check);

    // What a command that runs operations reads: grids (--size W and
    // --range LO HI), nothing but writes grids (--range LO HI alone), or
    // neither.
    enum class Grids { kRead, kWrite, kNone };

    // The options of a command that runs operations: --device KEY, those of
    // `grids`, --quiet, --json (whose object's keys `json` lists) and
    // --no-progress; `device_values` and `device_help` replace --device's
    // value name and help. Ctrl-C then cancels the command. Declare it after
    // the command's own options.
    void operation(const char* json, Grids grids = Grids::kRead, const char* device_values = "KEY",
                   const char* device_help = nullptr);

    // For the tool: adds --verbose and --help once the command has declared
    // its own options.
    void finish();
    // For the tool, after the parse: checks the arguments CLI11 left over
    // (`extras`), the positionals and every value. Returns kOk or, after a
    // message, the exit code.
    int validate(const std::vector<std::string>& extras) const;
    // For the tool: the message for an option given without its values, or
    // "" when the command has no option of that name that takes values.
    std::string missing_values(const std::string& name) const;

    const std::string& command() const { return command_; }
    const std::string& description() const { return description_; }
    const std::string& footer() const { return footer_; }
    const std::vector<std::unique_ptr<Option>>& options() const { return options_; }

  private:
    Option& add(Option::Kind kind, const char* name, const char* values, const char* help);
    void raw_width();
    void range(bool read);

    CLI::App& app_;
    Context& context_;
    std::string command_, description_, footer_;
    std::vector<std::unique_ptr<Option>> options_;
    std::vector<std::function<int()>> checks_;
};

}  // namespace cli
