#include "kernel/query/path_order.h"

#include <cstring>

#include "kernel/query/name_collation.h"
#include "kernel/query/parallel.h"
#include "kernel/query/prefix_sort.h"

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
  // Level-1 symbols in 17 bits: 0 the end, 1 a separator, 2 + the unit's
  // level-1 code otherwise; six per slice. A NUL stops level 1 like the end.
  const name_collation::PrefixCodes codes(compatibility);
  const std::uint64_t nulSymbol = 2u + codes.code(0);
  const char16_t* chars = catalog.parts().parentChars.data();
  const std::int32_t* starts = catalog.parts().parentStarts.data();
  Buffer<PrefixItem> items(static_cast<std::size_t>(count));
  for (std::int32_t p = 0; p < count; ++p) items[static_cast<std::size_t>(p)].row = p;
  struct Access {
    const Catalog& catalog;
    const Compatibility& compatibility;
    const name_collation::PrefixCodes& codes;
    PathFlavor flavor;
    const char16_t* chars;
    const std::int32_t* starts;
    std::uint64_t nulSymbol;

    PrefixSlice sliceAt(std::int32_t p, int depth) const {
      const TextView text = trimmed(flavor, catalog.parentUnits(static_cast<std::uint32_t>(p)));
      std::uint64_t k[2] = {0, 0};
      std::uint64_t fill = 0;
      bool stopped = false;
      for (std::size_t j = 0; j < 6; ++j) {
        const std::size_t at = static_cast<std::size_t>(depth) * 6 + j;
        std::uint64_t symbol = fill;
        if (!stopped) {
          if (at >= text.size()) {
            stopped = true;
            symbol = fill = 0;
          } else if (path_flavor::isSeparator(flavor, text[at])) {
            symbol = 1;
          } else {
            symbol = 2u + codes.code(text[at]);
            if (text[at] == 0) {
              stopped = true;
              fill = symbol;
            }
          }
        }
        k[j / 3] = (k[j / 3] << 17) | symbol;
      }
      return PrefixSlice{k[0], k[1]};
    }
    void locate(std::int32_t p) const { __builtin_prefetch(starts + p); }
    void prefetch(std::int32_t p, int depth) const { __builtin_prefetch(chars + starts[p] + depth * 6); }
    bool ended(const PrefixSlice& s) const {
      const std::uint64_t last = s.low & 0x1FFFF;
      return last == 0 || last == nulSymbol;
    }
    // Equal at level 1: levels 2 and 3, then the raw units.
    bool finalLess(const PrefixItem& x, const PrefixItem& y) const {
      return compare(compatibility, flavor, catalog.parentUnits(static_cast<std::uint32_t>(x.row)),
                     catalog.parentUnits(static_cast<std::uint32_t>(y.row))) < 0;
    }
  } access{catalog, compatibility, codes, flavor, chars, starts, nulSymbol};
  prefixSort(items, access);
  Parallel::chunks(count, 1, 1 << 14, [&](std::int64_t begin, std::int64_t end) {
    for (auto k = begin; k < end; ++k)
      ranks[static_cast<std::size_t>(items[static_cast<std::size_t>(k)].row)] = static_cast<std::int32_t>(k);
  });
  return ranks;
}

}  // namespace tarv
