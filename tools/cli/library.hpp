// SPDX-License-Identifier: Apache-2.0
// The callback table the tool gives the library, and the library's error
// texts caught so that one failure makes one line.
#pragma once

#include <string>

#include "halden/halden.h"

namespace cli {

// The table every queue and every operation gets: information texts (shown
// with --verbose), warnings and errors on stderr, progress to the bar, and
// Ctrl-C as the answer of the progress and cancel slots.
const halden_callbacks* callbacks();

// Whether the error slot fired since the flag was last cleared.
bool library_error();

// ": TEXT" for the library's first error text since the flag was last
// cleared, or "" when it reported none; clears the flag.
std::string library_reason();

// Clears the flag before a library call. A text that no failure message took
// (a report from a call that then went on) is printed as it came.
void clear_library_error();

}  // namespace cli
