// SPDX-License-Identifier: Apache-2.0
// halden devices: the usable devices and the keys that select them.
#include <algorithm>
#include <cstdio>

#include "cli/device.hpp"
#include "cli/json.hpp"
#include "cli/messages.hpp"
#include "cli/options.hpp"
#include "commands/commands.hpp"

namespace {

class DevicesCommand final : public cli::Command {
  public:
    void define(cli::Definition& d) override {
        d.description(
            "Lists the usable devices: index, name and key. A key selects its device in the\n"
            "other commands (--device KEY); the key \"cpu\" always selects the host device.\n");
        // Runs no operation: the JSON is the list itself, an array.
        d.flag("--json", json_, "print a JSON array of {\"name\", \"key\", \"backend\", \"type\"}");
    }

    int run(cli::Context&) override {
        const cli::DeviceList list;
        if (json_) {
            std::string out = "[";
            for (uint32_t i = 0; i < list.count; ++i) {
                const halden_device_record& r = list.records[i];
                out += (i ? ", " : "") + cli::JsonObject()
                                             .add("name", cli::text_of(r.name))
                                             .add("key", cli::device_key(r))
                                             .add("backend", cli::text_of(r.backend))
                                             .add("type", static_cast<long long>(r.type))
                                             .text();
            }
            std::printf("%s]\n", out.c_str());
            return cli::kOk;
        }
        int width = 4;
        for (uint32_t i = 0; i < list.count; ++i)
            width = std::max(width, static_cast<int>(cli::text_of(list.records[i].name).size()));
        std::printf("%-5s  %-*s  %s\n", "index", width, "name", "key");
        for (uint32_t i = 0; i < list.count; ++i)
            std::printf("%5u  %-*s  %s\n", i, width, cli::text_of(list.records[i].name).c_str(),
                        cli::device_key(list.records[i]).c_str());
        if (list.count == 0) std::printf("(no devices listed)\n");
        std::printf("\nThe key \"cpu\" always selects the host device.\n");
        return cli::kOk;
    }

  private:
    bool json_ = false;
};

}  // namespace

std::unique_ptr<cli::Command> commands::devices() { return std::make_unique<DevicesCommand>(); }
