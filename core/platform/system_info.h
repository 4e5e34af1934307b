#pragma once
// Facts about the machine the kernel runs on.

#include <cstdint>
#include <optional>

namespace tarv::platform {

// The CPUs in this process's affinity mask, at least 1.
int activeProcessorCount();

// Resident memory of this process in bytes (/proc/self/statm), or nothing.
std::optional<std::uint64_t> residentMemoryBytes();

}  // namespace tarv::platform
