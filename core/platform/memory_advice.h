#pragma once
// Hints to the virtual-memory system about how the kernel uses big tables.
// Hints only: they never fail, never throw and change no results.

#include <cstddef>

namespace tarv::platform {

// Asks for large pages behind [data, data + bytes) where the system offers
// them. Random probes into tables of many megabytes otherwise spend much of
// their time on address translation. `data` should be aligned to 2 MiB.
void adviseLargePages(void* data, std::size_t bytes) noexcept;

}  // namespace tarv::platform
