#include "kernel/query/name_candidates.h"

#include <algorithm>

#include "kernel/query/name_collation.h"
#include "kernel/query/parallel.h"
#include "kernel/query/prefix_sort.h"

namespace tarv {

NameCandidates::NameCandidates(CatalogPtr catalog, std::shared_ptr<const Compatibility> compatibility,
                               Column<std::int32_t> nameOrder, Column<std::int32_t> reverseOrder,
                               Column<std::int32_t> nulNames)
    : catalog_(std::move(catalog)),
      compatibility_(std::move(compatibility)),
      nameOrder_(std::move(nameOrder)),
      reverseOrder_(std::move(reverseOrder)),
      nulNames_(std::move(nulNames)) {}

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

int NameCandidates::compareReversed(const Compatibility& compatibility, TextView a, TextView b) noexcept {
  const std::size_t shared = std::min(a.size(), b.size());
  for (std::size_t j = 0; j < shared; ++j) {
    const Unit x = compatibility.fold(a[a.size() - 1 - j]);
    const Unit y = compatibility.fold(b[b.size() - 1 - j]);
    if (x != y) return x < y ? -1 : 1;
  }
  return a.size() < b.size() ? -1 : a.size() > b.size() ? 1 : 0;
}

Buffer<std::int32_t> NameCandidates::buildReverseOrder(const Catalog& catalog, const Compatibility& compatibility,
                                                       PrefixScratch* scratch) {
  // Slices of the name read backwards, one slot per unit: the unit's fold code
  // (at least 1), or 0 past the start of the name, so a name that ends first
  // sorts first and a slice ending in 0 means the name ended within it.
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
    std::size_t units = codes.unitsPerSlice();
    std::uint64_t mask = codes.slotMask();

    PrefixSlice sliceAt(std::int32_t row, int depth) const {
      const TextView name = catalog.nameUnits(row);
      const std::size_t from = static_cast<std::size_t>(depth) * units;
      PrefixSlice s;
      codes.pack(
          [&](std::size_t j) -> std::uint64_t {
            const std::size_t back = from + j;
            return back < name.size() ? codes.code(name[name.size() - 1 - back]) : 0;
          },
          s.high, s.low);
      return s;
    }
    void locate(std::int32_t row) const { __builtin_prefetch(starts + row + 1); }
    void prefetch(std::int32_t row, int depth) const {
      const std::ptrdiff_t at = starts[row + 1] - 2 - depth * static_cast<std::ptrdiff_t>(units);
      if (at >= 0) __builtin_prefetch(names + at);
    }
    bool ended(const PrefixSlice& s) const { return (s.low & mask) == 0; }
    bool finalLess(const PrefixItem& x, const PrefixItem& y) const { return x.row < y.row; }
  } access{catalog, codes, names, starts};
  prefixSort(items, access, std::size_t(1) << 16, &work.spare);
  Buffer<std::int32_t> rows(static_cast<std::size_t>(n));
  Parallel::chunks(n, 1, 1 << 15, [&](std::int64_t begin, std::int64_t end) {
    for (auto i = begin; i < end; ++i) rows[static_cast<std::size_t>(i)] = items[static_cast<std::size_t>(i)].row;
  });
  return rows;
}

}  // namespace tarv
