#include "kernel/query/name_candidates.h"

#include <algorithm>
#include <limits>

#include "kernel/query/name_collation.h"
#include "kernel/query/parallel.h"
#include "kernel/query/prefix_sort.h"

namespace tarv {

NameCandidates::NameCandidates(CatalogPtr catalog, std::shared_ptr<const Compatibility> compatibility,
                               Column<std::int32_t> nameOrder, Column<std::int32_t> reverseOrder,
                               Column<std::int32_t> nulNames, Column<std::int32_t> foldedOrder)
    : catalog_(std::move(catalog)),
      compatibility_(std::move(compatibility)),
      nameOrder_(std::move(nameOrder)),
      reverseOrder_(std::move(reverseOrder)),
      nulNames_(std::move(nulNames)),
      foldedOrder_(std::move(foldedOrder)) {}

bool NameCandidates::prefixClassesCompatible() const {
  // A walk over all 65536 units: worth doing only for a search that asks.
  std::call_once(compatibleOnce_, [&] { prefixClassesCompatible_ = classesCompatible(*compatibility_); });
  return prefixClassesCompatible_;
}

bool NameCandidates::classesCompatible(const Compatibility& compatibility) {
  const auto& order = compatibility.orderTable();
  const auto& search = compatibility.searchTable();
  // The one folded value seen for each level-1 weight (surrogates included).
  std::vector<std::int32_t> foldOfWeight(65536 * 2, -1);
  const std::uint32_t nulWeight = name_collation::weight1(order, 0);
  for (std::uint32_t u = 0; u < 65536; ++u) {
    const auto unit = static_cast<Unit>(u);
    const std::uint32_t w = name_collation::weight1(order, unit);
    if (w != name_collation::weight1(order, static_cast<Unit>(search[u]))) return false;
    std::int32_t& seen = foldOfWeight[w];
    if (seen >= 0 && seen != search[u]) return false;
    seen = search[u];
    if (u != 0 && w <= nulWeight) return false;
  }
  return true;
}

std::optional<std::array<NameCandidates::Range, 2>> NameCandidates::prefixRanges(TextView prefix) const {
  if (!prefixClassesCompatible() || prefix.find(Unit(0)) != TextView::npos) return std::nullopt;
  const auto& order = compatibility_->orderTable();
  const Catalog& c = *catalog_;
  // <0: the name sorts before every name with the prefix; 0: it has the prefix.
  auto place = [&](std::int32_t row) {
    const TextView name = c.hasRow(row) ? c.nameUnits(row) : TextView();
    for (std::size_t i = 0; i < prefix.size(); ++i) {
      if (i >= name.size()) return -1;
      const auto wn = name_collation::weight1(order, name[i]);
      const auto wp = name_collation::weight1(order, prefix[i]);
      if (wn != wp) return wn < wp ? -1 : 1;
    }
    return 0;
  };
  std::array<Range, 2> out;
  const auto total = static_cast<std::int64_t>(nameOrder_.size());
  const std::int64_t folders = std::clamp<std::int64_t>(c.folderCount(), 0, total);
  const std::int64_t bounds[3] = {0, folders, total};
  for (int part = 0; part < 2; ++part) {
    const std::int32_t* first = nameOrder_.data() + bounds[part];
    const std::int32_t* last = nameOrder_.data() + bounds[part + 1];
    const std::int32_t* lo = std::partition_point(first, last, [&](std::int32_t row) { return place(row) < 0; });
    const std::int32_t* hi = std::partition_point(lo, last, [&](std::int32_t row) { return place(row) == 0; });
    out[part] = {lo - nameOrder_.data(), hi - nameOrder_.data()};
  }
  return out;
}

NameCandidates::Range NameCandidates::suffixRange(TextView suffix) const noexcept {
  const Catalog& c = *catalog_;
  const Compatibility& t = *compatibility_;
  auto place = [&](std::int32_t row) {
    const TextView name = c.hasRow(row) ? c.nameUnits(row) : TextView();
    for (std::size_t j = 0; j < suffix.size(); ++j) {
      if (j >= name.size()) return -1;
      const Unit a = t.fold(name[name.size() - 1 - j]);
      const Unit s = suffix[suffix.size() - 1 - j];
      if (a != s) return a < s ? -1 : 1;
    }
    return 0;
  };
  const std::int32_t* first = reverseOrder_.data();
  const std::int32_t* last = first + reverseOrder_.size();
  const std::int32_t* lo = std::partition_point(first, last, [&](std::int32_t row) { return place(row) < 0; });
  const std::int32_t* hi = std::partition_point(lo, last, [&](std::int32_t row) { return place(row) == 0; });
  return {lo - first, hi - first};
}

NameCandidates::Range NameCandidates::foldedRange(TextView prefix, bool whole) const noexcept {
  if (!hasFoldedOrder()) return {};
  // Past the key's units the order says nothing: the range of the key.
  if (!foldedRangeIsExact(prefix.size(), whole)) {
    prefix = prefix.substr(0, std::min(prefix.size(), kFoldedKeyUnits));
    whole = false;
  }
  const Catalog& c = *catalog_;
  const Compatibility& t = *compatibility_;
  // <0: the name sorts before every name in the range; 0: in it. Names equal
  // to the prefix come first among those that start with it, so a whole
  // name is the start of the prefix range.
  auto place = [&](std::int32_t row) {
    const TextView name = c.hasRow(row) ? c.nameUnits(row) : TextView();
    for (std::size_t i = 0; i < prefix.size(); ++i) {
      if (i >= name.size()) return -1;
      const Unit a = t.fold(name[i]);
      if (a != prefix[i]) return a < prefix[i] ? -1 : 1;
    }
    return whole && name.size() > prefix.size() ? 1 : 0;
  };
  const std::int32_t* first = foldedOrder_.data();
  const std::int32_t* last = first + foldedOrder_.size();
  const std::int32_t* lo = std::partition_point(first, last, [&](std::int32_t row) { return place(row) < 0; });
  const std::int32_t* hi = std::partition_point(lo, last, [&](std::int32_t row) { return place(row) == 0; });
  return {lo - first, hi - first};
}

std::optional<std::vector<NameCandidates::Range>> NameCandidates::suffixRanges(std::span<const std::int32_t> pattern,
                                                                               std::size_t maxRanges) const {
  const Catalog& c = *catalog_;
  const Compatibility& t = *compatibility_;
  const std::int32_t* order = reverseOrder_.data();
  // The folded unit j places from the end of a row's name, or -1 when the
  // name is shorter (those sort first among names sharing the units after).
  auto unitAt = [&](std::int64_t position, std::size_t j) -> std::int32_t {
    const std::int32_t row = order[position];
    const TextView name = c.hasRow(row) ? c.nameUnits(row) : TextView();
    return j < name.size() ? static_cast<std::int32_t>(t.fold(name[name.size() - 1 - j])) : -1;
  };
  // Within a range whose names share their last j units, the names are
  // ordered by unit j; the positions whose unit j is below / at most `u`.
  auto below = [&](Range r, std::size_t j, std::int32_t u) {
    std::int64_t lo = r.begin, hi = r.end;
    while (lo < hi) {
      const std::int64_t mid = lo + (hi - lo) / 2;
      if (unitAt(mid, j) < u) lo = mid + 1;
      else hi = mid;
    }
    return lo;
  };
  std::vector<Range> out;
  // Splits made over the whole walk: each any-unit position multiplies the
  // ranges, so the budget is shared by all of them, which bounds the work.
  std::size_t pieces = 0;
  // Depth-first over the any-unit positions: (range, next position) pairs.
  std::vector<std::pair<Range, std::size_t>> pending{{Range{0, static_cast<std::int64_t>(reverseOrder_.size())}, 0}};
  while (!pending.empty()) {
    auto [r, j] = pending.back();
    pending.pop_back();
    // The equal units narrow the range in place.
    while (j < pattern.size() && pattern[j] != kAnyUnit && r.size() > 0) {
      r = {below(r, j, pattern[j]), below(r, j, pattern[j] + 1)};
      ++j;
    }
    if (r.size() <= 0) continue;
    if (j == pattern.size()) {
      out.push_back(r);
      if (out.size() > maxRanges) return std::nullopt;
      continue;
    }
    // Any unit: one sub-range per distinct unit at j, shorter names skipped.
    // Each step moves forward by at least one position, so a damaged order
    // (not sorted) cannot stall the walk.
    std::int64_t at = below(r, j, 0);
    while (at < r.end) {
      const std::int32_t u = unitAt(at, j);
      const std::int64_t end = std::max(at + 1, below({at, r.end}, j, u + 1));
      pending.push_back({Range{at, end}, j + 1});
      at = end;
      if (++pieces > maxRanges) return std::nullopt;
    }
  }
  // Ascending positions, so the rows are read in the order's direction.
  std::sort(out.begin(), out.end(), [](const Range& a, const Range& b) { return a.begin < b.begin; });
  return out;
}

int NameCandidates::compareReversed(const Compatibility& compatibility, TextView a, TextView b) noexcept {
  const std::size_t shared = std::min(a.size(), b.size());
  for (std::size_t j = 0; j < shared; ++j) {
    const Unit x = compatibility.fold(a[a.size() - 1 - j]);
    const Unit y = compatibility.fold(b[b.size() - 1 - j]);
    if (x != y) return x < y ? -1 : 1;
  }
  return a.size() < b.size() ? -1 : a.size() > b.size() ? 1 : 0;
}

int NameCandidates::compareFolded(const Compatibility& compatibility, TextView a, TextView b,
                                  std::size_t units) noexcept {
  a = a.substr(0, std::min(a.size(), units));
  b = b.substr(0, std::min(b.size(), units));
  const std::size_t shared = std::min(a.size(), b.size());
  for (std::size_t j = 0; j < shared; ++j) {
    const Unit x = compatibility.fold(a[j]);
    const Unit y = compatibility.fold(b[j]);
    if (x != y) return x < y ? -1 : 1;
  }
  return a.size() < b.size() ? -1 : a.size() > b.size() ? 1 : 0;
}

namespace {

// Rows sorted by their folded names read forwards or backwards, up to
// `keyUnits` units, in slices of fold codes: the unit's code (at least 1), or
// 0 past the end of the name (or key), so a name that ends first sorts first
// and a slice ending in 0 means the key ended within it.
template <bool kBackwards>
Buffer<std::int32_t> foldedNameOrder(const Catalog& catalog, const Compatibility& compatibility,
                                     PrefixScratch* scratch, std::size_t keyUnits) {
  const name_collation::FoldCodes codes(compatibility);
  const std::int32_t n = catalog.count();
  const char16_t* names = catalog.parts().names.data();
  const std::int32_t* starts = catalog.parts().nameStarts.data();
  PrefixScratch local;
  PrefixScratch& work = scratch ? *scratch : local;
  Buffer<PrefixItem>& items = work.items;
  items.resize(static_cast<std::size_t>(n));
  Parallel::chunks(n, 1, 1 << 15, [&](std::int64_t begin, std::int64_t end) {
    for (auto i = begin; i < end; ++i) items[static_cast<std::size_t>(i)].row = static_cast<std::int32_t>(i);
  });
  struct Access {
    const Catalog& catalog;
    const name_collation::FoldCodes& codes;
    const char16_t* names;
    const std::int32_t* starts;
    std::size_t keyUnits;
    std::size_t units = codes.unitsPerSlice();
    std::uint64_t mask = codes.slotMask();

    PrefixSlice sliceAt(std::int32_t row, int depth) const {
      const TextView whole = catalog.nameUnits(row);
      const TextView name = whole.substr(0, std::min(whole.size(), keyUnits));
      const std::size_t from = static_cast<std::size_t>(depth) * units;
      PrefixSlice s;
      codes.pack(
          [&](std::size_t j) -> std::uint64_t {
            const std::size_t at = from + j;
            if (at >= name.size()) return 0;
            return codes.code(kBackwards ? whole[whole.size() - 1 - at] : name[at]);
          },
          s.high, s.low);
      return s;
    }
    void locate(std::int32_t row) const { __builtin_prefetch(starts + row + (kBackwards ? 1 : 0)); }
    void prefetch(std::int32_t row, int depth) const {
      const std::ptrdiff_t step = depth * static_cast<std::ptrdiff_t>(units);
      const std::ptrdiff_t at = kBackwards ? starts[row + 1] - 2 - step : starts[row] + step;
      if (at >= 0) __builtin_prefetch(names + at);
    }
    bool ended(const PrefixSlice& s) const { return (s.low & mask) == 0; }
    bool finalLess(const PrefixItem& x, const PrefixItem& y) const { return x.row < y.row; }
  } access{catalog, codes, names, starts, keyUnits};
  prefixSort(items, access, std::size_t(1) << 16, &work.spare);
  Buffer<std::int32_t> rows(static_cast<std::size_t>(n));
  Parallel::chunks(n, 1, 1 << 15, [&](std::int64_t begin, std::int64_t end) {
    for (auto i = begin; i < end; ++i) rows[static_cast<std::size_t>(i)] = items[static_cast<std::size_t>(i)].row;
  });
  return rows;
}

}  // namespace

Buffer<std::int32_t> NameCandidates::buildReverseOrder(const Catalog& catalog, const Compatibility& compatibility,
                                                       PrefixScratch* scratch) {
  return foldedNameOrder<true>(catalog, compatibility, scratch, std::numeric_limits<std::size_t>::max());
}

Buffer<std::int32_t> NameCandidates::buildFoldedOrder(const Catalog& catalog, const Compatibility& compatibility,
                                                      PrefixScratch* scratch) {
  return foldedNameOrder<false>(catalog, compatibility, scratch, kFoldedKeyUnits);
}

}  // namespace tarv
