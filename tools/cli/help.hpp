// SPDX-License-Identifier: Apache-2.0
// The help texts, which CLI11 asks for through these formatters.
#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace CLI {
class FormatterBase;
}  // namespace CLI

namespace cli {

class Definition;

// `halden --help`: the usage line, the commands (name and summary, in
// order), the options the operation commands share, the file formats and the
// exit codes.
std::shared_ptr<CLI::FormatterBase> tool_formatter(std::vector<std::pair<std::string, std::string>> commands);

// `halden COMMAND --help`, from what the command declared: a usage line built
// from its positionals and options, its description, its options with their
// help wrapped to 80 columns, and its footer.
std::shared_ptr<CLI::FormatterBase> command_formatter(const Definition& definition);

}  // namespace cli
