#include "kernel/query/path_order.h"

#include <cstring>

#include "kernel/query/name_collation.h"
#include "kernel/query/parallel.h"
#include "kernel/query/parallel_sort.h"

namespace tarv {
namespace {

// Symbols of the walk: the end of a text below a separator below any unit.
constexpr std::uint32_t kEnd = 0;
constexpr std::uint32_t kSeparator = 1;

// The first position below `shared` where the texts differ or hold a NUL.
// Parent texts of one catalog share long prefixes, so equal runs are skipped
// four units at a time.
std::size_t skipEqual(const Unit* a, const Unit* b, std::size_t shared) noexcept {
  std::size_t i = 0;
  constexpr std::uint64_t ones = 0x0001000100010001ull;
  constexpr std::uint64_t highs = 0x8000800080008000ull;
  for (; i + 4 <= shared; i += 4) {
    std::uint64_t x, y;
    std::memcpy(&x, a + i, 8);
    std::memcpy(&y, b + i, 8);
    if (x != y || ((x - ones) & ~x & highs) != 0) break;
  }
  while (i < shared && a[i] == b[i] && a[i] != 0) ++i;
  return i;
}

// One level of the walk. `weight` gives the weight of a non-separator unit;
// symbols are shifted above kSeparator.
template <class Weight>
int walk(PathFlavor flavor, TextView a, TextView b, Weight weight) noexcept {
  const std::size_t shared = a.size() < b.size() ? a.size() : b.size();
  std::size_t i = skipEqual(a.data(), b.data(), shared);
  for (; i < shared; ++i) {
    const Unit ua = a[i];
    const Unit ub = b[i];
    if (ua == ub) {
      if (ua == 0) return 0;
      continue;
    }
    const bool sa = path_flavor::isSeparator(flavor, ua);
    const bool sb = path_flavor::isSeparator(flavor, ub);
    const std::uint32_t wa = sa ? kSeparator : weight(ua) + 2;
    const std::uint32_t wb = sb ? kSeparator : weight(ub) + 2;
    if (wa != wb) return wa < wb ? -1 : 1;
    if (sa || sb) continue;  // two separators ("\" and "/") weigh the same
    if (ua == 0 || ub == 0) return ua < ub ? -1 : 1;
  }
  if (a.size() == b.size()) return 0;
  return a.size() < b.size() ? -1 : 1;  // the end weighs least
}

}  // namespace

TextView PathOrder::trimmed(PathFlavor flavor, TextView text) noexcept {
  if (flavor == PathFlavor::windows) {
    if (!text.empty() && text.back() == u'\\') text.remove_suffix(1);
  } else if (text.size() >= 2 && text.back() == u'/') {
    text.remove_suffix(1);
  }
  return text;
}

int PathOrder::compareTrimmed(const Compatibility& compatibility, PathFlavor flavor, TextView a, TextView b) noexcept {
  const auto& order = compatibility.orderTable();
  if (int r = walk(flavor, a, b, [&](Unit u) { return name_collation::weight1(order, u); })) return r;
  const auto& letterCase = compatibility.letterCaseTable();
  if (int r = walk(flavor, a, b, [&](Unit u) { return std::uint32_t(letterCase[u]); })) return r;
  return walk(flavor, a, b, [](Unit u) { return std::uint32_t(u); });
}

int PathOrder::compare(const Compatibility& compatibility, PathFlavor flavor, TextView a, TextView b) noexcept {
  if (int r = compareTrimmed(compatibility, flavor, trimmed(flavor, a), trimmed(flavor, b))) return r;
  const int raw = a.compare(b);
  return raw < 0 ? -1 : raw > 0 ? 1 : 0;
}

std::vector<std::int32_t> PathOrder::ranks(const Catalog& catalog, const Compatibility& compatibility) {
  const std::int32_t count = catalog.parentCount();
  std::vector<std::int32_t> ranks(static_cast<std::size_t>(std::max(count, 0)));
  if (count <= 0) return ranks;
  const PathFlavor flavor = catalog.pathFlavor();
  std::vector<std::int32_t> parents(static_cast<std::size_t>(count));
  for (std::int32_t i = 0; i < count; ++i) parents[static_cast<std::size_t>(i)] = i;
  parallelSort(parents, [&](std::int32_t x, std::int32_t y) {
    return compare(compatibility, flavor, catalog.parentUnits(static_cast<std::uint32_t>(x)),
                   catalog.parentUnits(static_cast<std::uint32_t>(y))) < 0;
  });
  Parallel::chunks(count, 1, 1 << 14, [&](std::int64_t begin, std::int64_t end) {
    for (auto k = begin; k < end; ++k) ranks[static_cast<std::size_t>(parents[static_cast<std::size_t>(k)])] =
        static_cast<std::int32_t>(k);
  });
  return ranks;
}

}  // namespace tarv
