#include "kernel/query/search_memory.h"

#include <string>

#include "core/platform/memory_budget.h"
#include "kernel/base/kernel_error.h"

namespace tarv::SearchMemory {

std::uint64_t resultBytes(std::int64_t total, std::int64_t rows, bool descending) noexcept {
  if (total <= 0 || (total >= rows && !descending)) return 0;
  std::uint64_t bytes = static_cast<std::uint64_t>(total) * sizeof(std::int32_t);
  if (total < rows) bytes += (static_cast<std::uint64_t>(rows) + 63) / 64 * sizeof(std::uint64_t);
  return bytes;
}

void check(std::uint64_t needed, std::optional<std::uint64_t> available) {
  if (available && needed > *available) throw KernelError::invalid(std::string(kMessage));
}

void checkResult(std::int64_t total, std::int64_t rows, bool descending, std::optional<std::uint64_t> budget) {
  const std::uint64_t needed = resultBytes(total, rows, descending);
  if (budget) return check(needed, budget);
  if (needed > kUncheckedBytes) check(needed, platform::availableMemoryBytes());
}

}  // namespace tarv::SearchMemory
