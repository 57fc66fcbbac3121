// SPDX-License-Identifier: Apache-2.0
// What the tool says on stderr, and the exit codes every command shares.
//
// Messages go through C stdio only: creating a queue points std::cerr at the
// null device.
#pragma once

#include <string>

namespace cli {

enum Exit {
    kOk = 0,
    kUsage = 1,     // unknown command or option, bad option value, an OUT of the wrong kind
    kIo = 2,        // unreadable or unwritable file, unknown format, a grid or mesh the command cannot take
    kDevice = 3,    // no such device, a library error, not enough device memory, Ctrl-C
    kDisagree = 4,  // demo --device all: the devices' results differ
};

// --quiet also hides the notes about files; --verbose shows the library's
// information texts. Set once the options are parsed.
void set_verbosity(bool quiet, bool verbose);
bool verbose();

// Prints "halden: error: ..." and returns `code`, the exit status.
__attribute__((format(printf, 2, 3))) int fail(int code, const char* format, ...);

// Prints "halden: warning: ...", even under --quiet: a warning is about the
// result.
__attribute__((format(printf, 1, 2))) void warn(const char* format, ...);

// A line about a file worth knowing (how PNG samples map to heights), on
// stderr so that stdout stays the summary or the JSON; nothing under --quiet.
void note(const std::string& text);

// printf into a string.
__attribute__((format(printf, 1, 2))) std::string format(const char* format, ...);

}  // namespace cli
