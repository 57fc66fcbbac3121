// SPDX-License-Identifier: Apache-2.0
// The message channel: the process-wide callback table, the record each call
// talks through, and helpers that send texts through a table's slots.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>

#include "halden/halden.h"

namespace halden {

// The process-wide table, installed by CreateSyclQueue (the last call wins).
// Guarded, so that a queue created on one thread never tears a table another
// thread is reading; the device exports report through it.
void install_process_callbacks(const halden_callbacks* table);
halden_callbacks process_callbacks();

// Every slot filled: null tables and null slots become the do-nothing defaults.
halden_callbacks complete(const halden_callbacks* table);

// The record one operation call talks through: the caller's, completed; with
// no record, the texts (info, error) go to the process-wide table and the
// other slots do nothing.
halden_callbacks call_callbacks(const halden_callbacks* caller);

void send_info(const halden_callbacks& table, const std::string& text);
void send_error(const halden_callbacks& table, const std::string& text);
// Sends the text through the process-wide error channel, then empties it.
void flush_error(std::string& text);

// "{}" placeholders filled in order.
std::string format(std::string_view pattern, std::initializer_list<std::string_view> args);

}  // namespace halden
