#pragma once
// How much more memory this process may take before the system refuses it or
// kills the process, so that a large allocation can be refused up front with
// a clear message instead.

#include <cstdint>
#include <optional>
#include <string_view>

namespace tarv::platform {

// The smaller of the system's available memory (MemAvailable of
// /proc/meminfo) and the room left under the address-space limit (RLIMIT_AS
// minus the current virtual size, 0 when already above it). Nothing when
// neither can be read. Reads the system on every call; thread safe.
std::optional<std::uint64_t> availableMemoryBytes();

// The arithmetic behind availableMemoryBytes, on given figures.
std::optional<std::uint64_t> availableMemoryBytes(std::optional<std::uint64_t> memAvailable,
                                                  std::optional<std::uint64_t> addressLimit,
                                                  std::optional<std::uint64_t> virtualSize);

// The "MemAvailable:" figure of a /proc/meminfo text, in bytes.
std::optional<std::uint64_t> memAvailableOf(std::string_view meminfo);

}  // namespace tarv::platform
