// SPDX-License-Identifier: Apache-2.0
#include "cli/help.hpp"

#include <algorithm>

#include <CLI/CLI.hpp>

#include "cli/options.hpp"
#include "formats/grid_io.hpp"

namespace cli {
namespace {

constexpr size_t kWidth = 80;

const char kToolText[] =
    "options of the commands that run operations:\n"
    "  --device KEY   cpu (the host device, default), gpu (the first CUDA device) or a\n"
    "                 key listed by 'halden devices'\n"
    "  --size W       width of a raw IN, whose height is then its value count / W;\n"
    "                 without it a raw IN must hold a square number of floats. Other\n"
    "                 formats bring their own shape, which W must then match\n"
    "  --range LO HI  the heights that a PNG's samples 0 and 65535 (255 in an 8-bit\n"
    "                 PNG) stand for, in IN and in OUT\n"
    "  --quiet        print nothing on success\n"
    "  --json         print the summary as one JSON object instead of a line, with\n"
    "                 \"timings\": {\"read\", \"run\", \"write\", \"total\"} in milliseconds\n"
    "                 (reading the inputs, running on the device, writing the outputs,\n"
    "                 the whole command)\n"
    "  --no-progress  draw no progress bar; one is drawn on stderr while an operation\n"
    "                 reports its progress, only when stderr is a terminal, and never\n"
    "                 with --quiet or --json\n"
    "  --verbose      also show the library's information messages\n"
    "  -h, --help     show the help of a command (halden <command> --help)\n"
    "\n"
    "Ctrl-C cancels a command that runs operations: no output is written and the\n"
    "exit code is 3 (a second Ctrl-C stops at once).\n"
    "\n"
    "files (the format follows the name's extension):\n"
    "  .npy               NumPy array, 2-D, any real dtype (read as float32); written\n"
    "                     as float32\n"
    "  .npz               NumPy archive, read only: its first 2-D array, or the one\n"
    "                     named NAME with FILE.npz:NAME\n"
    "  .raw .f32 .r32 .bin  little-endian float32 rows (see --size)\n"
    "  .tif .tiff         GeoTIFF (float32, deflate-compressed)\n"
    "  .png               16-bit greyscale: the samples span --range LO HI or, without\n"
    "                     it, OUT's least to greatest height (stated, and kept in\n"
    "                     OUT.png.aux.xml, which reading the file back applies)\n"
    "  .asc               ESRI ASCII grid     .hgt  SRTM tile (16-bit integers)\n"
    "  any other          read: any raster GDAL opens (band 1); written: the GDAL\n"
    "                     driver that claims the extension (.exr where GDAL has it)\n"
    "  All but .npy and raw need GDAL (built in: %s). The georeference and the\n"
    "  no-data value of IN are carried to OUT; no-data cells take the lowest height\n"
    "  while an operation runs and are no-data again in OUT. An existing OUT is\n"
    "  replaced only when the operation succeeded and every output of the command\n"
    "  (the extra grids of shade, rasterize, thermal-erode and erode too) was\n"
    "  written.\n"
    "\n"
    "exit codes:\n"
    "  0  success\n"
    "  1  usage error (unknown command or option, bad option value, an OUT of the wrong\n"
    "     kind)\n"
    "  2  input/output error (unreadable or unwritable file, unknown format, a size that\n"
    "     does not fit, a grid of the wrong shape for the command, a malformed mesh)\n"
    "  3  device or operation error (no matching device, an error reported by the library,\n"
    "     not enough device memory, a run cancelled with Ctrl-C)\n"
    "  4  demo --device all: the devices' results differ\n";

// Appends `words` to `out`, wrapped so that no line passes kWidth: the
// first line continues from `column`, later ones start at `indent`.
void wrap(std::string& out, const std::string& words, size_t column, size_t indent) {
    size_t at = 0;
    bool first = true;
    while (at < words.size()) {
        const size_t end = std::min(words.find(' ', at), words.size());
        const std::string word = words.substr(at, end - at);
        at = end + 1;
        if (word.empty()) continue;
        if (!first && column + 1 + word.size() > kWidth) {
            out += "\n" + std::string(indent, ' ');
            column = indent;
        } else if (!first) {
            out += ' ';
            ++column;
        }
        out += word;
        column += word.size();
        first = false;
    }
}

class ToolFormatter : public CLI::FormatterBase {
  public:
    explicit ToolFormatter(std::vector<std::pair<std::string, std::string>> commands)
        : commands_(std::move(commands)) {}

    std::string make_help(const CLI::App*, std::string, CLI::AppFormatMode) const override {
        std::string out = "usage: halden <command> [options]\n\ncommands:\n";
        size_t width = 0;
        for (const auto& [name, summary] : commands_) width = std::max(width, name.size());
        for (const auto& [name, summary] : commands_) {
            const std::string left = "  " + name + std::string(width - name.size() + 2, ' ');
            out += left;
            wrap(out, summary, left.size(), left.size());
            out += '\n';
        }
        std::string text(sizeof kToolText + 8, '\0');
        text.resize(static_cast<size_t>(std::snprintf(text.data(), text.size(), kToolText, have_gdal() ? "yes" : "no")));
        return out + "\n" + text;
    }

  private:
    std::vector<std::pair<std::string, std::string>> commands_;
};

class CommandFormatter : public CLI::FormatterBase {
  public:
    explicit CommandFormatter(const Definition& definition) : definition_(definition) {}

    std::string make_help(const CLI::App*, std::string, CLI::AppFormatMode) const override {
        const Definition& d = definition_;
        // The usage line: positionals, then every option but the two that
        // every command takes.
        std::string out = "usage: halden " + d.command();
        size_t indent = out.size() + 1;  // continuation lines start under the options
        std::string items;
        for (const auto& option : d.options()) {
            if (option->kind() == Option::Kind::kPositional) indent += option->name().size() + 1;
            if (option->name() == "--verbose" || option->name() == "-h, --help") continue;
            std::string item = option->name();
            if (!option->value_names().empty()) item += " " + option->value_names();
            const bool bare = option->kind() == Option::Kind::kPositional || option->required();
            // Non-breaking within an item: its words are joined by '\x01' until wrapped.
            std::replace(item.begin(), item.end(), ' ', '\x01');
            items += (items.empty() ? "" : " ") + (bare ? item : "[" + item + "]");
        }
        if (indent > 40) indent = out.size() + 1 <= 40 ? out.size() + 1 : 8;
        out += ' ';
        wrap(out, items, out.size(), indent);
        std::replace(out.begin(), out.end(), '\x01', ' ');
        out += "\n";
        if (!d.description().empty()) out += "\n" + d.description();

        // The options, their help starting in one column.
        size_t column = 0;
        std::vector<std::string> lefts;
        for (const auto& option : d.options()) {
            if (option->kind() == Option::Kind::kPositional) continue;
            std::string left = "  " + option->name();
            if (!option->value_names().empty()) left += " " + option->value_names();
            lefts.push_back(left);
            column = std::max(column, std::min<size_t>(left.size() + 2, 24));
        }
        out += "\noptions:\n";
        size_t i = 0;
        for (const auto& option : d.options()) {
            if (option->kind() == Option::Kind::kPositional) continue;
            const std::string& left = lefts[i++];
            out += left;
            if (left.size() + 2 > column)
                out += "\n" + std::string(column, ' ');
            else
                out += std::string(column - left.size(), ' ');
            wrap(out, option->help(), column, column);
            out += '\n';
        }
        if (!d.footer().empty()) out += "\n" + d.footer();
        return out;
    }

  private:
    const Definition& definition_;
};

}  // namespace

std::shared_ptr<CLI::FormatterBase> tool_formatter(std::vector<std::pair<std::string, std::string>> commands) {
    return std::make_shared<ToolFormatter>(std::move(commands));
}

std::shared_ptr<CLI::FormatterBase> command_formatter(const Definition& definition) {
    return std::make_shared<CommandFormatter>(definition);
}

}  // namespace cli
