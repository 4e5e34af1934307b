#include "kernel/query/order_range.h"

#include <algorithm>

namespace tarv::order_range {
namespace {

constexpr std::uint64_t kUnknown = ~std::uint64_t(0);

// The value's place in the stored order: unknown before every known value.
std::uint64_t rankOf(std::uint64_t value) noexcept { return value == kUnknown ? 0 : value + 1; }

// The first position of begin ..< end whose row's rank is not below `rank`
// (the part ascends by rank).
std::int64_t firstAtLeast(std::span<const std::int32_t> order, std::span<const std::uint64_t> values,
                          std::int64_t begin, std::int64_t end, std::uint64_t rank) noexcept {
  auto rankAt = [&](std::int64_t position) {
    const auto row = static_cast<std::uint64_t>(order[static_cast<std::size_t>(position)]);
    return row < values.size() ? rankOf(values[row]) : 0;
  };
  while (begin < end) {
    const std::int64_t middle = begin + (end - begin) / 2;
    if (rankAt(middle) < rank) begin = middle + 1;
    else end = middle;
  }
  return begin;
}

// The run of one part whose ranks lie in low ..= high.
Run runOf(std::span<const std::int32_t> order, std::span<const std::uint64_t> values, std::int64_t begin,
          std::int64_t end, std::uint64_t low, std::uint64_t high) noexcept {
  if (begin >= end || low > high) return {};
  const std::int64_t first = firstAtLeast(order, values, begin, end, low);
  const std::int64_t last = high == kUnknown ? end : firstAtLeast(order, values, first, end, high + 1);
  return {first, last};
}

}  // namespace

Runs find(std::span<const std::int32_t> order, std::span<const std::uint64_t> values, std::int64_t folders,
          const Query::Bounds& bounds, int types) noexcept {
  const auto n = static_cast<std::int64_t>(order.size());
  folders = std::clamp<std::int64_t>(folders, 0, n);
  // In ranks: unknown is 0, a known value v is v + 1 (a known value is never
  // all ones, so the high bound needs no more than the rank of all ones
  // minus one).
  std::uint64_t low = 0;
  std::uint64_t high = 0;
  if (bounds.known && bounds.unknown) return {};
  if (bounds.known) {
    if (bounds.low > bounds.high || bounds.low == kUnknown) return {};
    low = bounds.low + 1;
    high = std::min(bounds.high, kUnknown - 1) + 1;
  } else if (!bounds.unknown) {
    high = kUnknown;  // no bound: every row of the part
  }
  Runs runs;
  if ((types & 2) != 0) runs.folders = runOf(order, values, 0, folders, low, high);
  if ((types & 1) != 0) runs.files = runOf(order, values, folders, n, low, high);
  return runs;
}

}  // namespace tarv::order_range
