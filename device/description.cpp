// SPDX-License-Identifier: Apache-2.0
#include "device/description.hpp"

#include <cstdlib>
#include <cstring>

namespace halden::device {
namespace {

char* duplicate(const std::string& s) {
#if defined(_WIN32)
    char* p = _strdup(s.c_str());
#else
    char* p = strdup(s.c_str());
#endif
    if (!p) throw std::bad_alloc();
    return p;
}

// Keys separate their fields with '/', so no field may contain one.
std::string key_safe(std::string s) {
    for (char& c : s)
        if (c == '/') c = '-';
    return s;
}

// Decimal number at the start of `text`, as stoi would read it; false if none.
bool leading_number(const std::string& text, long& value) {
    const char* begin = text.c_str();
    char* end = nullptr;
    value = std::strtol(begin, &end, 10);
    return end != begin;
}

}  // namespace

const char* backend_name(compute::backend be) {
    switch (be) {
        case compute::backend::cuda: return "CUDA";
        case compute::backend::hip: return "HIP";
        case compute::backend::level_zero: return "Level Zero";
        case compute::backend::opencl: return "OpenCL";
        case compute::backend::native: return "Native";
    }
    return "Unknown";
}

std::uint32_t class_word_hash(const char* word) {
    std::uint32_t h = 5385;
    for (const char* p = word; *p; ++p) h = h * 33u + static_cast<std::uint32_t>(static_cast<signed char>(*p));
    return h;
}

std::int64_t class_code(const char* word) {
    const std::uint32_t h = class_word_hash(word);
    if (h == class_word_hash("Cpu")) return class_cpu;
    if (h == 0x504A2F1Eu) return class_other_cpu;
    if (h == class_word_hash("GpuIntegrated")) return class_gpu_integrated;
    if (h == class_word_hash("GpuDiscrete")) return class_gpu_discrete;
    if (h == class_word_hash("Accelerator")) return class_accelerator;
    return 0;
}

description describe(const compute::device& dev) {
    description d;
    d.name = dev.name();
    d.strings[0] = backend_name(dev.get_backend());
    d.strings[1] = key_safe(dev.vendor());
    d.strings[2] = key_safe(dev.driver_version());
    d.strings[3] = key_safe(dev.architecture());
    if (dev.is_cpu()) {
        const bool native = !d.strings[0].empty() && class_word_hash(d.strings[0].c_str()) == class_word_hash("Native");
        d.type = native ? class_cpu : class_other_cpu;
    } else if (dev.is_gpu()) {
        // Integrated parts of one vendor report no unified memory but carry "Graphics" in their names.
        const bool discrete = !dev.has_host_unified_memory() && d.name.find("Graphics") == std::string::npos;
        d.type = class_gpu_integrated + (discrete ? 1 : 0);
    } else {
        d.type = class_accelerator;
    }
    d.flag1 = 0;
    d.flag2 = dev.get_backend() == compute::backend::native ? 1 : 0;
    return d;
}

bool passes_architecture_test(const description& d, compute::backend be) {
    const std::string& arch = d.strings[3];
    switch (be) {
        case compute::backend::cuda: {
            if (arch.size() < 3 || arch.compare(0, 3, "sm_") != 0) return false;
            long number = 0;
            return leading_number(arch.substr(3), number) && number >= 60;
        }
        case compute::backend::hip:
            for (const char* ok : {"gfx1030", "gfx1031", "gfx1032", "gfx1100", "gfx1101", "gfx1102"})
                if (arch == ok) return true;
            return false;
        default: return true;
    }
}

std::vector<std::string> split_key(const std::string& key) {
    std::vector<std::string> tokens(1);
    for (char c : key) {
        if (c == '/')
            tokens.emplace_back();
        else
            tokens.back() += c;
    }
    return tokens;
}

compute::device find_device(const std::vector<std::string>& tokens) {
    if (tokens.size() != 5) throw compute::exception("No matching device");
    const std::int64_t type = class_code(tokens[0].c_str());
    // The key's own flags: flag 1 is never set, flag 2 marks the host back-end.
    const std::uint8_t key_flag2 = tokens[1] == "Native" ? 1 : 0;
    for (const compute::device& dev : compute::get_devices()) {
        const description d = describe(dev);
        bool same = d.type == type && d.flag2 == key_flag2 && d.flag1 == 0;
        for (int i = 0; same && i < 4; ++i) same = std::strcmp(d.strings[i].c_str(), tokens[i + 1].c_str()) == 0;
        if (same) return dev;
    }
    throw compute::exception("No matching device");
}

void fill_record(halden_device_record& r, const description& d) {
    r.name = duplicate(d.name);
    r.type = d.type;
    r.backend = duplicate(d.strings[0]);
    r.vendor = duplicate(d.strings[1]);
    r.driver = duplicate(d.strings[2]);
    r.arch = duplicate(d.strings[3]);
    r.flag1 = d.flag1;
    r.flag2 = d.flag2;
}

void free_record_strings(halden_device_record& r) noexcept {
    std::free(r.name);
    std::free(r.backend);
    std::free(r.vendor);
    std::free(r.driver);
    std::free(r.arch);
    r.name = r.backend = r.vendor = r.driver = r.arch = nullptr;
}

}  // namespace halden::device
