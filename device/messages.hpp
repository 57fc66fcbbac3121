// SPDX-License-Identifier: Apache-2.0
// The message channel: the process-wide callback table, the asynchronous-error
// flag, and helpers that send texts through a table's slots.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>

#include "halden/halden.h"

namespace halden {

// Installed by CreateSyclQueue; the last call wins. Plain globals, unlocked:
// queues must not be created while other calls are sending messages.
extern halden_callbacks g_callbacks;
// Set by the queues' asynchronous-error handler; cleared and read by the call frame.
extern std::uint8_t g_async_error;

// Every slot filled: null tables and null slots become the do-nothing defaults.
halden_callbacks complete(const halden_callbacks* table);

void send_info(const halden_callbacks& table, const std::string& text);
void send_error(const halden_callbacks& table, const std::string& text);
// Sends the text through the process-wide error channel, then empties it.
void flush_error(std::string& text);

// "{}" placeholders filled in order.
std::string format(std::string_view pattern, std::initializer_list<std::string_view> args);

}  // namespace halden
