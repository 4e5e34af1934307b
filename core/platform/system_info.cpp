#include "core/platform/system_info.h"

#include <sched.h>
#include <unistd.h>

#include <cstdio>

namespace tarv::platform {

int activeProcessorCount() {
  cpu_set_t set;
  CPU_ZERO(&set);
  if (::sched_getaffinity(0, sizeof set, &set) == 0) {
    int count = CPU_COUNT(&set);
    if (count >= 1) return count;
  }
  long online = ::sysconf(_SC_NPROCESSORS_ONLN);
  return online >= 1 ? static_cast<int>(online) : 1;
}

std::optional<std::uint64_t> residentMemoryBytes() {
  std::FILE* file = std::fopen("/proc/self/statm", "r");
  if (!file) return std::nullopt;
  unsigned long long size = 0, resident = 0;
  int read = std::fscanf(file, "%llu %llu", &size, &resident);
  std::fclose(file);
  if (read != 2) return std::nullopt;
  return static_cast<std::uint64_t>(resident) * static_cast<std::uint64_t>(::sysconf(_SC_PAGESIZE));
}

}  // namespace tarv::platform
