#include "core/platform/memory_budget.h"

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <string>

namespace tarv::platform {

std::optional<std::uint64_t> memAvailableOf(std::string_view meminfo) {
  constexpr std::string_view key = "MemAvailable:";
  std::size_t at = meminfo.find(key);
  // The key must start a line, not end another one's name.
  while (at != std::string_view::npos && at != 0 && meminfo[at - 1] != '\n') at = meminfo.find(key, at + 1);
  if (at == std::string_view::npos) return std::nullopt;
  std::size_t i = at + key.size();
  while (i < meminfo.size() && meminfo[i] == ' ') ++i;
  std::uint64_t kib = 0;
  const std::size_t digits = i;
  for (; i < meminfo.size() && meminfo[i] >= '0' && meminfo[i] <= '9'; ++i) {
    if (kib > (UINT64_MAX >> 10) / 10) return std::nullopt;  // no real figure is this large
    kib = kib * 10 + static_cast<std::uint64_t>(meminfo[i] - '0');
  }
  if (i == digits || meminfo.substr(i, 3) != " kB") return std::nullopt;
  return kib << 10;
}

std::optional<std::uint64_t> availableMemoryBytes(std::optional<std::uint64_t> memAvailable,
                                                  std::optional<std::uint64_t> addressLimit,
                                                  std::optional<std::uint64_t> virtualSize) {
  std::optional<std::uint64_t> room;
  if (addressLimit && virtualSize) room = *addressLimit > *virtualSize ? *addressLimit - *virtualSize : 0;
  if (memAvailable && room) return std::min(*memAvailable, *room);
  return memAvailable ? memAvailable : room;
}

namespace {

std::optional<std::uint64_t> readMemAvailable() {
  std::FILE* file = std::fopen("/proc/meminfo", "re");
  if (!file) return std::nullopt;
  char buffer[8192];
  const std::size_t n = std::fread(buffer, 1, sizeof buffer, file);
  std::fclose(file);
  return memAvailableOf(std::string_view(buffer, n));
}

std::optional<std::uint64_t> readAddressLimit() {
  rlimit limit{};
  if (::getrlimit(RLIMIT_AS, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY) return std::nullopt;
  return static_cast<std::uint64_t>(limit.rlim_cur);
}

std::optional<std::uint64_t> readVirtualSize() {
  std::FILE* file = std::fopen("/proc/self/statm", "re");
  if (!file) return std::nullopt;
  unsigned long long pages = 0;
  const int read = std::fscanf(file, "%llu", &pages);
  std::fclose(file);
  if (read != 1) return std::nullopt;
  return static_cast<std::uint64_t>(pages) * static_cast<std::uint64_t>(::sysconf(_SC_PAGESIZE));
}

}  // namespace

std::optional<std::uint64_t> availableMemoryBytes() {
  const std::optional<std::uint64_t> limit = readAddressLimit();
  return availableMemoryBytes(readMemAvailable(), limit, limit ? readVirtualSize() : std::nullopt);
}

}  // namespace tarv::platform
