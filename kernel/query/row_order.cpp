#include "kernel/query/row_order.h"

#include <algorithm>
#include <bit>
#include <limits>

#include "kernel/query/name_collation.h"
#include "kernel/query/parallel.h"
#include "kernel/query/prefix_sort.h"
#include "kernel/query/radix_order.h"

namespace tarv {
namespace {

// Unsigned order with the unknown value (all ones) below every known value.
int compareUnknownFirst(std::uint64_t x, std::uint64_t y) noexcept {
  x += 1;  // all ones wraps to 0
  y += 1;
  return x < y ? -1 : x > y ? 1 : 0;
}

int bitWidth(std::uint64_t x) noexcept { return x == 0 ? 0 : 64 - std::countl_zero(x); }

const Column<std::uint64_t>* valueColumn(const Catalog& catalog, SortKey key) noexcept {
  const auto& p = catalog.parts();
  switch (key) {
    case SortKey::size: return &p.sizes;
    case SortKey::modified: return &p.modifiedTimes;
    case SortKey::created: return p.createdTimes ? &*p.createdTimes : nullptr;
    case SortKey::allocated: return p.allocations ? &*p.allocations : nullptr;
    default: return nullptr;
  }
}

}  // namespace

int RowOrder::compareKey(std::int32_t a, std::int32_t b, SortKey key) const noexcept {
  const bool fa = catalog_.isDirectory(a);
  const bool fb = catalog_.isDirectory(b);
  if (fa != fb) return fa ? -1 : 1;
  switch (key) {
    case SortKey::path: {
      const auto ra = parentRank(a), rb = parentRank(b);
      return ra < rb ? -1 : ra > rb ? 1 : 0;
    }
    case SortKey::size:
    case SortKey::modified:
    case SortKey::created:
    case SortKey::allocated: {
      const Column<std::uint64_t>* column = valueColumn(catalog_, key);
      if (column == nullptr) return 0;  // the catalog lacks the column: the step is skipped
      return compareUnknownFirst((*column)[static_cast<std::size_t>(a)], (*column)[static_cast<std::size_t>(b)]);
    }
    case SortKey::device: {
      const Text* la = catalog_.deviceLabel(a);
      const Text* lb = catalog_.deviceLabel(b);
      if (la == nullptr || lb == nullptr) return la == lb ? 0 : la == nullptr ? -1 : 1;
      return compatibility_.compareNames(*la, *lb);
    }
    case SortKey::name:
    case SortKey::none: return 0;
  }
  return 0;
}

int RowOrder::compareTieBreak(std::int32_t a, std::int32_t b) const noexcept {
  const TextView na = catalog_.nameUnits(a);
  const TextView nb = catalog_.nameUnits(b);
  if (int r = name_collation::level1(compatibility_.orderTable(), na, nb)) return r;
  const auto ra = parentRank(a), rb = parentRank(b);
  if (ra != rb) return ra < rb ? -1 : 1;
  if (int r = name_collation::level2(compatibility_.letterCaseTable(), na, nb)) return r;
  if (int r = name_collation::level3(na, nb)) return r;
  return a < b ? -1 : a > b ? 1 : 0;
}

int RowOrder::compare(std::int32_t a, std::int32_t b, SortSpec spec) const noexcept {
  int r = compareKey(a, b, spec.key);
  if (r == 0) r = compareTieBreak(a, b);
  return spec.descending ? -r : r;
}

std::vector<std::int32_t> RowOrder::labelRanks(const Catalog& catalog, const Compatibility& compatibility) {
  const auto& labels = catalog.parts().deviceLabels;
  std::vector<std::int32_t> ranks(labels.size(), 0);
  std::vector<std::int32_t> present;
  for (std::size_t id = 0; id < labels.size(); ++id)
    if (labels[id]) present.push_back(static_cast<std::int32_t>(id));
  std::sort(present.begin(), present.end(), [&](std::int32_t x, std::int32_t y) {
    const int r = compatibility.compareNames(*labels[static_cast<std::size_t>(x)], *labels[static_cast<std::size_t>(y)]);
    return r != 0 ? r < 0 : x < y;
  });
  std::int32_t rank = 0;
  for (std::size_t i = 0; i < present.size(); ++i) {
    const auto id = static_cast<std::size_t>(present[i]);
    if (i == 0 || compatibility.compareNames(*labels[static_cast<std::size_t>(present[i - 1])], *labels[id]) != 0)
      ++rank;
    ranks[id] = rank;
  }
  return ranks;
}

std::int32_t RowOrder::rowLabelRank(const Catalog& catalog, std::span<const std::int32_t> labelRanks,
                                    std::int32_t row) noexcept {
  const std::uint16_t id = catalog.deviceId(row);
  if (id == kNoDevice || id >= labelRanks.size()) return 0;
  return labelRanks[id];
}

RowOrder::TieBreak RowOrder::tieBreak(const Catalog& catalog, const Compatibility& compatibility,
                                      std::span<const std::int32_t> parentRanks, PrefixScratch* scratch) {
  const std::int32_t n = catalog.count();
  const name_collation::PrefixCodes codes(compatibility);
  const std::uint16_t endCode = codes.endCode();
  const char16_t* names = catalog.parts().names.data();
  const std::int32_t* starts = catalog.parts().nameStarts.data();
  PrefixScratch local;
  PrefixScratch& work = scratch ? *scratch : local;
  Buffer<PrefixItem>& items = work.items;
  items.resize(static_cast<std::size_t>(n));
  Parallel::chunks(n, 1, 1 << 15, [&](std::int64_t begin, std::int64_t end) {
    for (auto i = begin; i < end; ++i) {
      const auto row = static_cast<std::int32_t>(i);
      items[static_cast<std::size_t>(i)].row = row;
      // The file bit rides above the rank (ranks stay below 2^31).
      const std::uint32_t file = catalog.isDirectory(row) ? 0u : 1u;
      items[static_cast<std::size_t>(i)].aux =
          static_cast<std::int32_t>(file << 31 | static_cast<std::uint32_t>(parentRanks[catalog.parentIndex(row)]));
    }
  });
  struct Access {
    const Catalog& catalog;
    const name_collation::PrefixCodes& codes;
    const Compatibility::Table& letterCase;
    const char16_t* names;
    const std::int32_t* starts;
    std::uint16_t endCode;

    PrefixSlice sliceAt(std::int32_t row, int depth) const {
      PrefixSlice s;
      codes.slice(catalog.nameUnits(row), static_cast<std::size_t>(depth) * 8, s.high, s.low);
      return s;
    }
    void locate(std::int32_t row) const { __builtin_prefetch(starts + row); }
    void prefetch(std::int32_t row, int depth) const { __builtin_prefetch(names + starts[row] + depth * 8); }
    bool ended(const PrefixSlice& s) const { return (s.low & 0xFFFF) == endCode; }
    // Names equal at level 1: parent rank, then levels 2 and 3, then row.
    bool finalLess(const PrefixItem& x, const PrefixItem& y) const {
      const std::int32_t rx = x.aux & 0x7FFFFFFF, ry = y.aux & 0x7FFFFFFF;
      if (rx != ry) return rx < ry;
      const TextView a = catalog.nameUnits(x.row);
      const TextView b = catalog.nameUnits(y.row);
      int r = name_collation::level2(letterCase, a, b);
      if (r == 0) r = name_collation::level3(a, b);
      return r != 0 ? r < 0 : x.row < y.row;
    }
  } access{catalog, codes, compatibility.letterCaseTable(), names, starts, endCode};
  prefixSort(items, access, std::size_t(1) << 16, &work.spare);
  TieBreak out;
  out.rows.resize(static_cast<std::size_t>(n));
  out.fileAndRank.resize(static_cast<std::size_t>(n));
  Parallel::chunks(n, 1, 1 << 15, [&](std::int64_t begin, std::int64_t end) {
    for (auto i = begin; i < end; ++i) {
      out.rows[static_cast<std::size_t>(i)] = items[static_cast<std::size_t>(i)].row;
      out.fileAndRank[static_cast<std::size_t>(i)] = static_cast<std::uint32_t>(items[static_cast<std::size_t>(i)].aux);
    }
  });
  return out;
}
Buffer<std::int32_t> RowOrder::orderFrom(const Catalog& catalog, std::span<const std::int32_t> tieBreak,
                                              SortKey key, std::span<const std::int32_t> parentRanks,
                                              std::span<const std::int32_t> labelRanks, Scratch* scratch) {
  const auto& tags = catalog.parts().parentTags;
  // Folders (bit 31 set) form group 0 and files group 1.
  auto fileBit = [&](std::int32_t row) -> std::uint64_t { return (tags[static_cast<std::size_t>(row)] >> 31) ^ 1u; };

  if (key == SortKey::path) {
    const int bits = bitWidth(parentRanks.empty() ? 0 : parentRanks.size() - 1);
    return radixOrder<Buffer<std::int32_t>>(
        tieBreak, bits + 1,
        [&](std::int32_t row) {
          return fileBit(row) << bits | static_cast<std::uint64_t>(parentRanks[catalog.parentIndex(row)]);
        },
        scratch);
  }
  if (key == SortKey::device) {
    std::int32_t top = 0;
    for (auto r : labelRanks) top = std::max(top, r);
    const int bits = bitWidth(static_cast<std::uint64_t>(top));
    return radixOrder<Buffer<std::int32_t>>(
        tieBreak, bits + 1,
        [&](std::int32_t row) {
          return fileBit(row) << bits | static_cast<std::uint64_t>(rowLabelRank(catalog, labelRanks, row));
        },
        scratch);
  }
  const Column<std::uint64_t>* column = valueColumn(catalog, key);
  if (column == nullptr) return radixOrder<Buffer<std::int32_t>>(tieBreak, 1, fileBit, scratch);  // name, none, or a missing column

  // The range of known values decides how many bits the passes must cover.
  const std::int64_t n = static_cast<std::int64_t>(column->size());
  const Parallel::Plan plan = Parallel::plan(n, 1, 1 << 16);
  std::vector<std::uint64_t> lows(static_cast<std::size_t>(plan.chunks), kUnknown64);
  std::vector<std::uint64_t> highs(static_cast<std::size_t>(plan.chunks), 0);
  std::vector<char> anyKnown(static_cast<std::size_t>(plan.chunks), 0);
  Parallel::chunks(n, 1, 1 << 16, [&](std::int64_t begin, std::int64_t end) {
    const auto c = static_cast<std::size_t>(plan.length == 0 ? 0 : begin / plan.length);
    std::uint64_t lo = kUnknown64, hi = 0;
    bool known = false;
    for (auto i = begin; i < end; ++i) {
      const std::uint64_t v = (*column)[static_cast<std::size_t>(i)];
      if (v == kUnknown64) continue;
      known = true;
      lo = std::min(lo, v);
      hi = std::max(hi, v);
    }
    lows[c] = lo;
    highs[c] = hi;
    anyKnown[c] = known;
  });
  std::uint64_t low = kUnknown64, high = 0;
  bool known = false;
  for (std::size_t c = 0; c < lows.size(); ++c) {
    if (!anyKnown[c]) continue;
    known = true;
    low = std::min(low, lows[c]);
    high = std::max(high, highs[c]);
  }
  if (!known) return radixOrder<Buffer<std::int32_t>>(tieBreak, 1, fileBit, scratch);
  const int bits = bitWidth(high - low);
  if (bits <= 62) {
    // (file, known) in the two top bits, the offset from the lowest known value below.
    return radixOrder<Buffer<std::int32_t>>(
        tieBreak, bits + 2,
        [&](std::int32_t row) {
          const std::uint64_t v = (*column)[static_cast<std::size_t>(row)];
          const bool isKnown = v != kUnknown64;
          return (fileBit(row) << 1 | (isKnown ? 1u : 0u)) << bits | (isKnown ? v - low : 0);
        },
        scratch);
  }
  // Values spread over nearly all 64 bits: sort by value (unknown wrapping to
  // 0), then stably by folder.
  auto byValue = radixOrder<Buffer<std::int32_t>>(
      tieBreak, 64, [&](std::int32_t row) { return (*column)[static_cast<std::size_t>(row)] + 1; }, scratch);
  return radixOrder<Buffer<std::int32_t>>(byValue, 1, fileBit, scratch);
}

Buffer<std::int32_t> RowOrder::orderFrom(const Catalog& catalog, const TieBreak& tieBreak, SortKey key,
                                              std::span<const std::int32_t> parentRanks, Scratch* scratch) {
  const std::span<const std::int32_t> rows(tieBreak.rows);
  const std::uint32_t* packed = tieBreak.fileAndRank.data();
  const bool stored = key == SortKey::path || key == SortKey::name || key == SortKey::none ||
                      (key == SortKey::created && !catalog.parts().createdTimes) ||
                      (key == SortKey::allocated && !catalog.parts().allocations);
  if (!stored) return orderFrom(catalog, rows, key, parentRanks, {}, scratch);
  if (key != SortKey::path)
    return radixOrderAt<Buffer<std::int32_t>>(
        rows, 1, [&](std::int64_t i, std::int32_t) { return std::uint64_t(packed[i] >> 31); }, scratch);
  const int bits = bitWidth(parentRanks.empty() ? 0 : parentRanks.size() - 1);
  return radixOrderAt<Buffer<std::int32_t>>(
      rows, bits + 1,
      [&](std::int64_t i, std::int32_t) {
        const std::uint32_t v = packed[i];
        return std::uint64_t(v >> 31) << bits | (v & 0x7FFFFFFFu);
      },
      scratch);
}

}  // namespace tarv
