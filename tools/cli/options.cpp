// SPDX-License-Identifier: Apache-2.0
#include "cli/options.hpp"

#include <charconv>
#include <cmath>

#include <CLI/CLI.hpp>

#include "cli/command.hpp"
#include "cli/messages.hpp"

namespace cli {

bool parse_whole(const std::string& text, uint64_t low, uint64_t high, uint64_t& value) {
    uint64_t parsed = 0;
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), parsed);
    if (text.empty() || ec != std::errc() || end != text.data() + text.size() || parsed < low || parsed > high)
        return false;
    value = parsed;
    return true;
}

bool parse_finite(const std::string& text, float& value) {
    float parsed = 0.0f;
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), parsed);
    if (text.empty() || ec != std::errc() || end != text.data() + text.size() || !std::isfinite(parsed)) return false;
    value = parsed;
    return true;
}

std::string Interval::describe() const {
    if (with_low && with_high) return format("from %g to %g", low, high);
    return format("%s %g and %s %g", with_low ? "of at least" : "above", low, with_high ? "at most" : "below", high);
}

bool Option::given() const { return option_ != nullptr && option_->count() > 0; }

const std::string& Option::at(size_t i) const {
    static const std::string kNone;
    if (kind_ != Kind::kPair) return i == 0 ? text_ : kNone;
    return i < texts_.size() ? texts_[i] : kNone;
}

Definition::Definition(CLI::App& app, Context& context) : app_(app), context_(context), command_(app.get_name()) {
    // A repeated option takes its last value, as most tools do.
    app_.option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
}

Definition::~Definition() = default;

Option& Definition::add(Option::Kind kind, const char* name, const char* values, const char* help) {
    auto option = std::make_unique<Option>();
    option->kind_ = kind;
    option->name_ = name;
    option->values_ = values ? values : "";
    option->help_ = help ? help : "";
    options_.push_back(std::move(option));
    return *options_.back();
}

void Definition::input(const char* name, std::string& path) {
    Option& option = add(Option::Kind::kPositional, name, nullptr, nullptr);
    option.required_ = true;
    option.option_ = app_.add_option(name, path);
}

void Definition::output(const char* name, std::string& path) {
    input(name, path);
    context_.out_ = &path;
}

const Option& Definition::flag(const char* name, bool& value, const char* help) {
    Option& option = add(Option::Kind::kFlag, name, nullptr, help);
    option.option_ = app_.add_flag(name, value, help);
    return option;
}

const Option& Definition::whole(const char* name, uint32_t& value, uint32_t low, uint32_t high,
                                const char* value_name, const char* help) {
    Option& option = add(Option::Kind::kValue, name, value_name, help);
    option.option_ = app_.add_option(name, option.text_, help);
    option.check_ = [&option, &value, low, high] {
        uint64_t parsed = 0;
        if (!parse_whole(option.text(), low, high, parsed)) {
            fail(kUsage, "%s expects a whole number from %u to %u, got '%s'", option.name().c_str(), low, high,
                 option.text().c_str());
            return false;
        }
        value = static_cast<uint32_t>(parsed);
        return true;
    };
    return option;
}

const Option& Definition::number(const char* name, float& value, Sign sign, const char* value_name,
                                 const char* help) {
    Option& option = add(Option::Kind::kValue, name, value_name, help);
    option.option_ = app_.add_option(name, option.text_, help);
    option.check_ = [&option, &value, sign] {
        float parsed = 0.0f;
        const bool ok = parse_finite(option.text(), parsed) && (sign == Sign::kAny        ? true
                                                                : sign == Sign::kPositive ? parsed > 0.0f
                                                                                          : parsed >= 0.0f);
        if (!ok) {
            fail(kUsage, "%s expects a %s number, got '%s'", option.name().c_str(),
                 sign == Sign::kAny        ? "finite"
                 : sign == Sign::kPositive ? "positive finite"
                                           : "finite, non-negative",
                 option.text().c_str());
            return false;
        }
        value = parsed;
        return true;
    };
    return option;
}

const Option& Definition::number(const char* name, float& value, Interval interval, const char* value_name,
                                 const char* help) {
    Option& option = add(Option::Kind::kValue, name, value_name, help);
    option.option_ = app_.add_option(name, option.text_, help);
    option.check_ = [&option, &value, interval] {
        float parsed = 0.0f;
        if (!parse_finite(option.text(), parsed) || !interval.contains(parsed)) {
            fail(kUsage, "%s expects a number %s, got '%s'", option.name().c_str(), interval.describe().c_str(),
                 option.text().c_str());
            return false;
        }
        value = parsed;
        return true;
    };
    return option;
}

const Option& Definition::text(const char* name, std::string& value, const char* value_name, const char* help) {
    Option& option = add(Option::Kind::kValue, name, value_name, help);
    option.option_ = app_.add_option(name, option.text_, help);
    option.check_ = [&option, &value] {
        if (option.text().empty()) {
            fail(kUsage, "%s needs a value", option.name().c_str());
            return false;
        }
        value = option.text();
        return true;
    };
    return option;
}

const Option& Definition::pair(const char* name, const char* value_names, const char* help, bool required) {
    Option& option = add(Option::Kind::kPair, name, value_names, help);
    option.required_ = required;
    option.option_ = app_.add_option(name, option.texts_, help)->expected(2)->allow_extra_args(false);
    return option;
}

void Definition::check(std::function<int()> check) { checks_.push_back(std::move(check)); }

void Definition::operation(const char* json, Grids grids, const char* device_values, const char* device_help) {
    context_.operation_ = true;
    Common& common = context_.common;
    text("--device", common.device, device_values,
         device_help ? device_help
                     : "the device: cpu (the host device, default), gpu (the first CUDA device) or a key listed "
                       "by 'halden devices'");
    if (grids == Grids::kRead) raw_width();
    if (grids != Grids::kNone) range(grids == Grids::kRead);
    flag("--quiet", common.quiet, "print nothing on success");
    flag("--json", common.json, (std::string("print ") + json + " on stdout instead of the summary").c_str());
    flag("--no-progress", common.no_progress,
         "draw no progress bar; one is drawn on stderr while an operation reports its progress, only when "
         "stderr is a terminal, and never with --quiet or --json");
}

void Definition::raw_width() {
    Option& option = add(Option::Kind::kValue, "--size", "W",
                         "width of a raw IN, whose height is then its value count / W; without it a raw IN must "
                         "hold a square number of floats. Other formats bring their own shape, which W must then "
                         "match");
    option.option_ = app_.add_option("--size", option.text_);
    option.check_ = [&option, this] {
        uint64_t parsed = 0;
        if (!parse_whole(option.text(), 1, UINT32_MAX, parsed)) {
            fail(kUsage, "--size expects a whole number from 1 to %u, got '%s'", UINT32_MAX, option.text().c_str());
            return false;
        }
        context_.read.width = static_cast<uint32_t>(parsed);
        return true;
    };
}

void Definition::range(bool read) {
    Option& option = add(Option::Kind::kPair, "--range", "LO HI",
                         read ? "the heights that a PNG's samples 0 and 65535 (255 in an 8-bit PNG) stand for, in "
                                "IN and in OUT"
                              : "the heights that the samples 0 and 65535 of a PNG OUT stand for");
    option.option_ = app_.add_option("--range", option.texts_)->expected(2)->allow_extra_args(false);
    option.check_ = [&option, this] {
        float lo = 0.0f, hi = 0.0f;
        if (!parse_finite(option.text(), lo) || !parse_finite(option.second(), hi) || !(lo < hi)) {
            fail(kUsage, "--range expects two finite numbers LO < HI, got '%s %s'", option.text().c_str(),
                 option.second().c_str());
            return false;
        }
        context_.read.range = std::make_pair(lo, hi);
        return true;
    };
}

void Definition::finish() {
    flag("--verbose", context_.common.verbose, "also show the library's information messages");
    // The tool answers -h and --help itself, wherever they stand; CLI11 only
    // needs to know them.
    app_.set_help_flag("-h,--help", "show this help");
    add(Option::Kind::kFlag, "-h, --help", nullptr, "show this help");
}

int Definition::validate(const std::vector<std::string>& extras) const {
    for (const std::string& extra : extras)
        if (extra.size() > 1 && extra[0] == '-') return fail(kUsage, "unknown option %s (see --help)", extra.c_str());
    std::vector<const Option*> positionals;
    bool missing = false;
    for (const auto& option : options_) {
        if (option->kind() != Option::Kind::kPositional) continue;
        positionals.push_back(option.get());
        missing = missing || !option->given();
    }
    if (positionals.empty() && !extras.empty())
        return fail(kUsage, "%s takes no arguments, got '%s'", command_.c_str(), extras[0].c_str());
    if (missing || !extras.empty()) {
        std::string names;
        for (size_t i = 0; i < positionals.size(); ++i)
            names += (i == 0 ? "" : i + 1 == positionals.size() ? " and " : ", ") + positionals[i]->name();
        return fail(kUsage, "%s needs %s (see halden %s --help)", command_.c_str(), names.c_str(), command_.c_str());
    }
    for (const auto& option : options_) {
        if (option->required() && !option->given())
            return fail(kUsage, "%s %s is required", option->name().c_str(), option->value_names().c_str());
        // CLI11 takes a pair's one value when no second follows.
        if (option->kind() == Option::Kind::kPair && option->given() && option->texts_.size() != 2)
            return fail(kUsage, "%s", missing_values(option->name()).c_str());
        if (option->check_ && option->given() && !option->check_()) return kUsage;
    }
    for (const auto& check : checks_)
        if (const int code = check(); code != kOk) return code;
    return kOk;
}

std::string Definition::missing_values(const std::string& name) const {
    for (const auto& option : options_) {
        if (option->name() != name || option->kind() == Option::Kind::kFlag) continue;
        if (option->kind() == Option::Kind::kPair)
            return format("%s needs two values, given as %s %s", name.c_str(), name.c_str(),
                          option->value_names().c_str());
        return name + " needs a value";
    }
    return {};
}

}  // namespace cli
