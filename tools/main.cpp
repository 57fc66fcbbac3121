// SPDX-License-Identifier: Apache-2.0
// halden: lists devices, median-filters, blurs, thermally shapes and erodes
// grid files, computes flow maps, shades height grids into pictures, renders
// triangle meshes into height grids and runs a cross-device demo, all through
// the public C interface.
//
// This file builds the command line from the registry in
// commands/commands.hpp and runs the command it names; the commands live in
// commands/, the helpers they share in cli/ (see README.md).
#include <cstdio>
#include <cstring>
#include <exception>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <CLI/CLI.hpp>

#include "cli/command.hpp"
#include "cli/help.hpp"
#include "cli/messages.hpp"
#include "cli/options.hpp"
#include "cli/progress.hpp"
#include "commands/commands.hpp"

namespace {

// A command of the registry with what its parse fills in.
struct Registered {
    CLI::App* app = nullptr;
    std::unique_ptr<cli::Command> command;
    std::unique_ptr<cli::Context> context;
    std::unique_ptr<cli::Definition> definition;
};

int run(Registered& chosen) {
    cli::Context& context = *chosen.context;
    cli::set_verbosity(context.common.quiet, context.common.verbose);
    context.start();
    try {
        if (!context.operation()) return chosen.command->run(context);
        const cli::InterruptGuard guard;
        return chosen.command->run(context);
    } catch (const std::exception& e) {  // an allocation too large for this machine, say
        return cli::fail(cli::kIo, "%s", e.what());
    }
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app("", "halden");
    std::vector<std::pair<std::string, std::string>> summaries;
    std::string names;
    for (const commands::Entry& entry : commands::kCommands) {
        summaries.emplace_back(entry.name, entry.summary);
        names += (names.empty() ? "" : ", ") + std::string(entry.name);
    }
    app.formatter(cli::tool_formatter(summaries));
    // One command per run: a later word that names another command (an
    // output file called "demo") stays an argument of the first.
    app.require_subcommand(0, 1);
    // Arguments left over are reported by the command's own checks.
    app.allow_extras();
    std::vector<Registered> registered;
    for (const commands::Entry& entry : commands::kCommands) {
        Registered r;
        r.app = app.add_subcommand(entry.name, entry.summary);
        r.app->allow_extras();
        r.command = entry.make();
        r.context = std::make_unique<cli::Context>(entry.name);
        r.definition = std::make_unique<cli::Definition>(*r.app, *r.context);
        r.command->define(*r.definition);
        r.definition->finish();
        r.app->formatter(cli::command_formatter(*r.definition));
        registered.push_back(std::move(r));
    }

    if (argc < 2) {
        std::fputs(app.help().c_str(), stderr);
        return cli::kUsage;
    }
    const std::string first = argv[1];
    if (first == "-h" || first == "--help" || first == "help") {
        std::fputs(app.help().c_str(), stdout);
        return cli::kOk;
    }
    Registered* chosen = nullptr;
    for (Registered& r : registered)
        if (r.app->get_name() == first) chosen = &r;
    if (!chosen)
        return cli::fail(cli::kUsage, "unknown command '%s'; the commands are %s (see 'halden --help')",
                         first.c_str(), names.c_str());
    // Help wherever it is asked for, even where an option's value would stand.
    for (int i = 2; i < argc; ++i) {
        if (std::strcmp(argv[i], "-h") == 0 || std::strcmp(argv[i], "--help") == 0) {
            std::fputs(chosen->app->help().c_str(), stdout);
            return cli::kOk;
        }
    }
    // CLI11 reads "--name=" as "--name" and takes the next argument for its
    // value; an empty value is an error of its own.
    for (int i = 2; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--") break;
        if (arg.size() < 4 || !arg.starts_with("--") || arg.back() != '=') continue;
        const std::string message = chosen->definition->missing_values(arg.substr(0, arg.size() - 1));
        if (!message.empty()) return cli::fail(cli::kUsage, "%s", message.c_str());
    }

    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp&) {
        std::fputs(chosen->app->help().c_str(), stdout);
        return cli::kOk;
    } catch (const CLI::ArgumentMismatch& e) {
        // CLI11 says "NAME: ..."; the command knows how many values NAME takes.
        const std::string what = e.what();
        const std::string message = chosen->definition->missing_values(what.substr(0, what.find(':')));
        return cli::fail(cli::kUsage, "%s", message.empty() ? what.c_str() : message.c_str());
    } catch (const CLI::ParseError& e) {
        return cli::fail(cli::kUsage, "%s", e.what());
    }
    if (const int code = chosen->definition->validate(app.remaining(true)); code != cli::kOk) return code;
    return run(*chosen);
}
