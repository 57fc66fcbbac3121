// SPDX-License-Identifier: Apache-2.0
// halden: lists devices, median-filters grid files and runs a cross-device
// demo, all through the public C interface.
//
// Messages go through C stdio only: creating a queue points std::cerr at the
// null device.
#include "halden/halden.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <charconv>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "grid_io.hpp"
#include "terrain.hpp"

namespace {

enum Exit { kOk = 0, kUsage = 1, kIo = 2, kDevice = 3, kDisagree = 4 };

const char kUsageText[] =
    "usage: halden <command> [options]\n"
    "\n"
    "commands:\n"
    "  devices   list the devices and their keys\n"
    "  median    median-filter a square float32 grid (.npy or raw)\n"
    "  demo      filter a generated terrain on every device and compare the results\n"
    "\n"
    "options of every command:\n"
    "  --verbose   also show the library's information messages\n"
    "  -h, --help  show the help of a command (halden <command> --help)\n"
    "\n"
    "exit codes:\n"
    "  0  success\n"
    "  1  usage error (unknown command or option, bad option value)\n"
    "  2  input/output error (unreadable or unwritable file, bad size, unknown format)\n"
    "  3  device or operation error (no matching device, an error reported by the library)\n"
    "  4  demo: the devices' results differ\n";

const char kDevicesUsage[] =
    "usage: halden devices [--json]\n"
    "\n"
    "Lists the usable devices: index, name and key. A key selects its device in\n"
    "'halden median --device KEY'; the key \"cpu\" always selects the host device.\n"
    "\n"
    "  --json  print a JSON array of {\"name\", \"key\", \"backend\", \"type\"}\n";

const char kMedianUsage[] =
    "usage: halden median IN OUT [--radius R] [--iterations N] [--device KEY]\n"
    "                            [--size W] [--quiet] [--json]\n"
    "\n"
    "Median-filters the square float32 grid in IN on one device and writes it to OUT.\n"
    "IN is a .npy file ('<f4' or '<f8', 2-D, C order, square) or raw little-endian\n"
    "float32 values. OUT is written as .npy ('<f4') when its name ends in .npy, as raw\n"
    "float32 otherwise; an existing OUT is replaced only on success.\n"
    "\n"
    "  --radius R      radius of the circular window, 1 to 8 (default 2)\n"
    "  --iterations N  number of passes (default 1)\n"
    "  --device KEY    cpu (the host device, default), gpu (the first CUDA device)\n"
    "                  or a key listed by 'halden devices'\n"
    "  --size W        side of a raw IN; inferred when it holds a square number of floats\n"
    "  --quiet         print nothing on success\n"
    "  --json          print {\"operation\", \"device\", \"size\", \"milliseconds\"} instead\n"
    "\n"
    "Throughput counts cells times iterations. Exit codes: see 'halden --help'.\n";

const char kDemoUsage[] =
    "usage: halden demo [--size N] [--out DIR]\n"
    "\n"
    "Generates a fractal terrain of N x N cells with spikes and pits, median-filters\n"
    "it (radius 3, 2 iterations) on every listed device, prints the times and checks\n"
    "that all results agree bit for bit with the first device's.\n"
    "\n"
    "  --size N   side of the terrain (default 1024)\n"
    "  --out DIR  write DIR/terrain.npy and DIR/median.npy (the first device's result)\n"
    "\n"
    "Exits 0, 3 when a device failed, or else 4 when the results differ.\n";

// --- Library callbacks ----------------------------------------------------------

bool g_verbose = false;
std::atomic<bool> g_error{false};  // set by the error slot, which may run on a library thread

void on_error(const char* text) {
    g_error = true;
    std::fprintf(stderr, "halden: error: %s\n", text ? text : "");
}
void on_warning(const char* text) { std::fprintf(stderr, "halden: warning: %s\n", text ? text : ""); }
void on_info(const char* text) {
    if (g_verbose) std::fprintf(stderr, "halden: %s\n", text ? text : "");
}

const halden_callbacks kCallbacks = {nullptr, nullptr, on_info, on_warning, on_error, nullptr, nullptr, nullptr};

// --- Helpers --------------------------------------------------------------------

// Prints "halden: error: ..." and returns `code`, the exit status.
__attribute__((format(printf, 2, 3))) int fail(int code, const char* format, ...) {
    std::fputs("halden: error: ", stderr);
    va_list list;
    va_start(list, format);
    std::vfprintf(stderr, format, list);
    va_end(list);
    std::fputc('\n', stderr);
    return code;
}

struct Args {
    std::vector<std::string> positional;
    std::map<std::string, std::string> values;
    std::set<std::string> switches;
};

// Splits the arguments after the command; `valued` take a value ("--x V" or
// "--x=V"), `flags` do not. Returns kOk or kUsage after a message.
int parse_args(int argc, char** argv, const std::set<std::string>& valued, const std::set<std::string>& flags,
               Args& args) {
    for (int i = 2; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg.size() < 2 || arg[0] != '-') {
            args.positional.push_back(arg);
            continue;
        }
        const size_t eq = arg.find('=');
        const std::string name = arg.substr(0, eq);
        if (valued.count(name)) {
            if (eq != std::string::npos) {
                args.values[name] = arg.substr(eq + 1);
            } else if (i + 1 < argc) {
                args.values[name] = argv[++i];
            } else {
                return fail(kUsage, "%s needs a value", name.c_str());
            }
        } else if (flags.count(arg) || arg == "--verbose") {
            args.switches.insert(arg);
        } else {
            return fail(kUsage, "unknown option %s (see --help)", arg.c_str());
        }
    }
    g_verbose = args.switches.count("--verbose") != 0;
    return kOk;
}

// Reads option `name` as an integer in [low, high] into `out` when given.
bool number_option(const Args& args, const char* name, uint32_t low, uint32_t high, uint32_t& out) {
    const auto it = args.values.find(name);
    if (it == args.values.end()) return true;
    const std::string& text = it->second;
    uint64_t value = 0;
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc() || end != text.data() + text.size() || text.empty() || value < low || value > high) {
        fail(kUsage, "%s expects a whole number from %u to %u, got '%s'", name, low, high, text.c_str());
        return false;
    }
    out = static_cast<uint32_t>(value);
    return true;
}

std::string text_of(const char* s) { return s ? s : ""; }

// The key that names a record's device in CreateSyclQueue.
std::string device_key(const halden_device_record& r) {
    std::string key(std::size_t(halden_device_key(&r, nullptr, 0)), '\0');
    halden_device_key(&r, key.data(), key.size() + 1);
    return key;
}

std::string json_string(const std::string& s) {
    std::string out = "\"";
    for (const char c : s) {
        char escaped[8] = {c};
        if (c == '"' || c == '\\') std::snprintf(escaped, sizeof escaped, "\\%c", c);
        if (static_cast<unsigned char>(c) < 0x20) std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
        out += escaped;
    }
    return out + "\"";
}

// The device list, freed when it goes out of scope.
struct DeviceList {
    halden_device_record* records = nullptr;
    uint32_t count = 0;
    DeviceList() { GetDevices(&records, &count); }
    ~DeviceList() { FreeDevices(records); }
    DeviceList(const DeviceList&) = delete;
    DeviceList& operator=(const DeviceList&) = delete;
};

struct Timing {
    double milliseconds;
    double mcells_per_second;
};

// Runs the filter in place and times the call alone; false when the library
// reported an error.
bool run_median(halden_queue* queue, Grid& grid, uint32_t radius, uint32_t iterations, Timing& timing) {
    const halden_median_filter_parameters parameters = {grid.size, radius, iterations, 0};
    g_error = false;
    const auto start = std::chrono::steady_clock::now();
    MedianFilter(queue, grid.cells.data(), &parameters);
    const auto stop = std::chrono::steady_clock::now();
    timing.milliseconds = std::chrono::duration<double, std::milli>(stop - start).count();
    const double work = static_cast<double>(grid.cells.size()) * iterations;
    timing.mcells_per_second = timing.milliseconds > 0.0 ? work / (timing.milliseconds * 1e3) : 0.0;
    return !g_error;
}

// --- Commands ---------------------------------------------------------------------

int cmd_devices(int argc, char** argv) {
    Args args;
    if (parse_args(argc, argv, {}, {"--json"}, args) != kOk) return kUsage;
    if (!args.positional.empty()) return fail(kUsage, "devices takes no arguments, got '%s'", args.positional[0].c_str());
    const DeviceList list;
    if (args.switches.count("--json")) {
        std::printf("[");
        for (uint32_t i = 0; i < list.count; ++i) {
            const halden_device_record& r = list.records[i];
            std::printf("%s{\"name\": %s, \"key\": %s, \"backend\": %s, \"type\": %lld}", i ? ", " : "",
                        json_string(text_of(r.name)).c_str(), json_string(device_key(r)).c_str(),
                        json_string(text_of(r.backend)).c_str(), static_cast<long long>(r.type));
        }
        std::printf("]\n");
        return kOk;
    }
    int width = 4;
    for (uint32_t i = 0; i < list.count; ++i)
        width = std::max(width, static_cast<int>(text_of(list.records[i].name).size()));
    std::printf("%-5s  %-*s  %s\n", "index", width, "name", "key");
    for (uint32_t i = 0; i < list.count; ++i)
        std::printf("%5u  %-*s  %s\n", i, width, text_of(list.records[i].name).c_str(),
                    device_key(list.records[i]).c_str());
    if (list.count == 0) std::printf("(no devices listed)\n");
    std::printf("\nThe key \"cpu\" always selects the host device.\n");
    return kOk;
}

int cmd_median(int argc, char** argv) {
    Args args;
    if (parse_args(argc, argv, {"--radius", "--iterations", "--device", "--size"}, {"--quiet", "--json"}, args) !=
        kOk)
        return kUsage;
    if (args.positional.size() != 2) return fail(kUsage, "median needs IN and OUT (see halden median --help)");
    uint32_t radius = 2, iterations = 1, size = 0;
    if (!number_option(args, "--radius", 1, 8, radius) || !number_option(args, "--iterations", 0, 1000000, iterations) ||
        !number_option(args, "--size", 1, UINT32_MAX, size))
        return kUsage;
    const auto device = args.values.count("--device") ? args.values.at("--device") : std::string("cpu");
    if (device.empty()) return fail(kUsage, "--device needs a value");
    const std::string& in = args.positional[0];
    const std::string& out = args.positional[1];

    Grid grid;
    std::string error;
    if (!read_grid(in, size, grid, error)) return fail(kIo, "%s", error.c_str());

    std::string key = device;
    if (device == "gpu") {
        const DeviceList list;
        key.clear();
        for (uint32_t i = 0; i < list.count && key.empty(); ++i)
            if (text_of(list.records[i].backend) == "CUDA") key = device_key(list.records[i]);
        if (key.empty()) return fail(kDevice, "no CUDA device listed (see 'halden devices')");
    }
    halden_queue* queue = CreateSyclQueue(key.c_str(), &kCallbacks);
    if (!queue) return fail(kDevice, "no device matches '%s' (see 'halden devices')", key.c_str());
    if (halden_device_record* info = GetDeviceInfo(queue)) {  // names the device "cpu" or "gpu" resolved to
        key = device_key(*info);
        FreeDeviceInfo(info);
    }
    Timing timing{};
    bool ok = run_median(queue, grid, radius, iterations, timing);
    DestroySyclQueue(queue);
    ok = ok && !g_error;  // waiting for the queue may report late failures too
    if (!ok) return fail(kDevice, "the median filter failed on %s; %s not written", key.c_str(), out.c_str());
    if (!write_grid(out, grid, error)) return fail(kIo, "%s", error.c_str());

    if (args.switches.count("--quiet")) return kOk;
    if (args.switches.count("--json")) {
        std::printf("{\"operation\": \"median\", \"device\": %s, \"size\": %u, \"milliseconds\": %.3f}\n",
                    json_string(key).c_str(), grid.size, timing.milliseconds);
    } else {
        std::printf("median %ux%u, radius %u, %u iteration(s) on %s: %.3f ms, %.1f Mcells/s\n", grid.size, grid.size,
                    radius, iterations, key.c_str(), timing.milliseconds, timing.mcells_per_second);
    }
    return kOk;
}

int cmd_demo(int argc, char** argv) {
    Args args;
    if (parse_args(argc, argv, {"--size", "--out"}, {}, args) != kOk) return kUsage;
    if (!args.positional.empty()) return fail(kUsage, "demo takes no arguments, got '%s'", args.positional[0].c_str());
    uint32_t size = 1024;
    if (!number_option(args, "--size", 1, 32768, size)) return kUsage;
    const std::string dir = args.values.count("--out") ? args.values.at("--out") : std::string();
    constexpr uint32_t kRadius = 3, kIterations = 2;

    const Grid terrain = make_terrain(size);
    std::string error;
    if (!dir.empty()) {
        std::error_code ec;
        std::filesystem::create_directories(dir, ec);
        if (ec) return fail(kIo, "%s: %s", dir.c_str(), ec.message().c_str());
        if (!write_grid(dir + "/terrain.npy", terrain, error)) return fail(kIo, "%s", error.c_str());
    }

    const DeviceList list;
    if (list.count == 0) return fail(kDevice, "no devices listed");
    std::printf("terrain %ux%u, median filter radius %u, %u iterations\n", size, size, kRadius, kIterations);
    std::vector<Grid> results;  // one per device that succeeded, in list order
    bool failed = false;
    for (uint32_t i = 0; i < list.count; ++i) {
        const std::string key = device_key(list.records[i]);
        std::printf("  [%u] %s (%s): ", i, text_of(list.records[i].name).c_str(), key.c_str());
        std::fflush(stdout);  // so the library's error lines follow the device they concern
        halden_queue* queue = CreateSyclQueue(key.c_str(), &kCallbacks);
        Grid grid = terrain;
        Timing timing{};
        bool ok = queue && run_median(queue, grid, kRadius, kIterations, timing);
        DestroySyclQueue(queue);
        ok = ok && !g_error;
        if (ok) {
            std::printf("%.3f ms, %.1f Mcells/s\n", timing.milliseconds, timing.mcells_per_second);
            results.push_back(std::move(grid));
        } else {
            std::printf("failed%s\n", queue ? "" : " (no queue)");
            failed = true;
        }
    }

    bool agree = true;
    if (list.count == 1) {
        std::printf("only one device listed: nothing to compare\n");
    } else if (results.size() < 2) {
        std::printf("fewer than two devices succeeded: nothing to compare\n");
    } else {
        for (size_t i = 1; i < results.size(); ++i)
            agree = agree && std::memcmp(results[i].cells.data(), results[0].cells.data(),
                                         results[0].cells.size() * sizeof(float)) == 0;
        std::printf("devices agree bit for bit: %s (%zu devices)\n", agree ? "yes" : "NO", results.size());
    }
    if (!dir.empty() && !results.empty()) {
        if (!write_grid(dir + "/median.npy", results[0], error)) return fail(kIo, "%s", error.c_str());
        std::printf("wrote %s/terrain.npy and %s/median.npy\n", dir.c_str(), dir.c_str());
    }
    return failed ? kDevice : agree ? kOk : kDisagree;
}

}  // namespace

int main(int argc, char** argv) {
    struct Command {
        const char* name;
        int (*run)(int, char**);
        const char* usage;
    };
    static const Command kCommands[] = {
        {"devices", cmd_devices, kDevicesUsage}, {"median", cmd_median, kMedianUsage}, {"demo", cmd_demo, kDemoUsage}};

    if (argc < 2) {
        std::fputs(kUsageText, stderr);
        return kUsage;
    }
    const std::string first = argv[1];
    if (first == "-h" || first == "--help" || first == "help") {
        std::fputs(kUsageText, stdout);
        return kOk;
    }
    for (const Command& command : kCommands) {
        if (first != command.name) continue;
        for (int i = 2; i < argc; ++i) {
            if (std::strcmp(argv[i], "-h") == 0 || std::strcmp(argv[i], "--help") == 0) {
                std::fputs(command.usage, stdout);
                return kOk;
            }
        }
        return command.run(argc, argv);
    }
    std::fprintf(stderr, "halden: unknown command '%s'\n\n%s", first.c_str(), kUsageText);
    return kUsage;
}
