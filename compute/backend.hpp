// SPDX-License-Identifier: Apache-2.0
// What each back-end supplies to the front end: memory, streams, copies.
// native/ and cuda/ implement the same list, file for file.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace halden::compute {

namespace native {
// Throws out_of_memory when the bytes exceed the memory the system has available.
void* allocate(std::size_t bytes);
void deallocate(void* ptr) noexcept;
void copy(const void* src, void* dst, std::size_t bytes);
// The machine's memory in bytes, 0 if unknown.
std::uint64_t physical_bytes();
// The most worker threads a launch from the calling thread runs at once.
int max_team_size();
}  // namespace native

namespace cuda {
// Throws out_of_memory after clearing the CUDA error state.
void* allocate(int ordinal, std::size_t bytes);
// Returns the failure's text, empty on success.
std::string deallocate(int ordinal, void* ptr) noexcept;

void* create_stream(int ordinal);
void destroy_stream(int ordinal, void* stream) noexcept;
// Returns the failure's text, empty on success.
std::string synchronize(int ordinal, void* stream) noexcept;
void copy(int ordinal, void* stream, const void* src, void* dst, std::size_t bytes);
// The error of the last launch on this thread, empty if none; clears it.
std::string last_launch_error() noexcept;
}  // namespace cuda

}  // namespace halden::compute
