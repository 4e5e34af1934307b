#include "kernel/query/global_order.h"

#include <algorithm>
#include <bit>
#include <limits>

#include "kernel/query/name_collation.h"
#include "kernel/query/parallel.h"
#include "kernel/query/path_order.h"
#include "kernel/query/radix_order.h"

namespace tarv {
namespace {

// Symbols of the path walk: the end of a text below a separator below any unit.
constexpr std::uint32_t kSeparator = 1;

// One level of the path walk over two texts of possibly different flavors.
// The same unit can be a separator on one side and an ordinary unit on the
// other ("\" on windows and on posix), so equal units are equal symbols only
// when both sides read them alike.
template <class Weight>
int walkPaths(PathFlavor flavorA, TextView a, PathFlavor flavorB, TextView b, Weight weight) noexcept {
  const std::size_t shared = std::min(a.size(), b.size());
  for (std::size_t i = 0; i < shared; ++i) {
    const Unit ua = a[i];
    const Unit ub = b[i];
    const bool sa = path_flavor::isSeparator(flavorA, ua);
    const bool sb = path_flavor::isSeparator(flavorB, ub);
    if (ua == ub && sa == sb) {
      if (ua == 0) return 0;
      continue;
    }
    const std::uint32_t wa = sa ? kSeparator : weight(ua) + 2;
    const std::uint32_t wb = sb ? kSeparator : weight(ub) + 2;
    if (wa != wb) return wa < wb ? -1 : 1;
    if (sa || sb) continue;  // two separators ("\" and "/") weigh the same
    if (ua == 0 || ub == 0) return ua < ub ? -1 : 1;
  }
  if (a.size() == b.size()) return 0;
  return a.size() < b.size() ? -1 : 1;  // the end weighs least
}

int compareUnknownFirst(std::uint64_t x, std::uint64_t y) noexcept {
  x += 1;  // all ones wraps to 0
  y += 1;
  return x < y ? -1 : x > y ? 1 : 0;
}

int bitWidth(std::uint64_t x) noexcept { return x == 0 ? 0 : 64 - std::countl_zero(x); }

std::uint64_t rawValue(const Catalog& catalog, std::int32_t row, SortKey key) noexcept {
  switch (key) {
    case SortKey::size: return catalog.rawSize(row);
    case SortKey::modified: return catalog.rawModified(row);
    case SortKey::created: return catalog.rawCreated(row);
    case SortKey::allocated: return catalog.rawAllocated(row);
    default: return kUnknown64;
  }
}

// The number of items of `a` among the first `t` of the stable merge of a and b.
template <class T, class Less>
std::size_t coRank(std::size_t t, std::span<const T> a, std::span<const T> b, const Less& less) {
  std::size_t lo = t > b.size() ? t - b.size() : 0;
  std::size_t hi = std::min(t, a.size());
  while (lo < hi) {
    const std::size_t i = lo + (hi - lo) / 2;
    const std::size_t j = t - i;
    if (j > 0 && less(b[j - 1], a[i])) hi = i;
    else lo = i + 1;
  }
  return lo;
}

// Merges the sorted runs of `items` (consecutive, covering it) into one sorted
// sequence. Runs merge pairwise in rounds; each merge is cut at co-ranks into
// pieces that all workers share, so even the last merge runs in parallel.
template <class T, class Less>
void mergeRuns(std::vector<T>& items, std::vector<std::pair<std::int64_t, std::int64_t>> runs, const Less& less) {
  std::vector<T> buffer(items.size());
  std::vector<T>* from = &items;
  std::vector<T>* to = &buffer;
  const std::int64_t wantedPieces = 4 * Parallel::workers();
  while (runs.size() > 1) {
    struct Piece {
      std::int64_t a, aEnd, b, bEnd, out;
    };
    std::vector<Piece> pieces;
    std::vector<std::pair<std::int64_t, std::int64_t>> merged;
    const auto pairs = static_cast<std::int64_t>(runs.size() / 2);
    const std::int64_t split = std::max<std::int64_t>(1, wantedPieces / pairs);
    for (std::size_t r = 0; r + 1 < runs.size(); r += 2) {
      const auto [aBegin, aEnd] = runs[r];
      const auto [bBegin, bEnd] = runs[r + 1];
      std::span<const T> a(from->data() + aBegin, static_cast<std::size_t>(aEnd - aBegin));
      std::span<const T> b(from->data() + bBegin, static_cast<std::size_t>(bEnd - bBegin));
      const std::int64_t total = (aEnd - aBegin) + (bEnd - bBegin);
      std::size_t previousA = 0, previousT = 0;
      for (std::int64_t s = 1; s <= split; ++s) {
        const auto t = static_cast<std::size_t>(total * s / split);
        // For sorted runs the co-ranks rise with t; runs from a damaged
        // index file may be unsorted, so the cut is kept within what the
        // previous piece left, and every piece within its runs.
        const std::size_t low = std::max(previousA, t > b.size() ? t - b.size() : 0);
        const std::size_t high = std::min(a.size(), previousA + (t - previousT));
        const std::size_t i = s == split ? a.size() : std::clamp(coRank(t, a, b, less), low, high);
        pieces.push_back({aBegin + static_cast<std::int64_t>(previousA), aBegin + static_cast<std::int64_t>(i),
                          bBegin + static_cast<std::int64_t>(previousT - previousA),
                          bBegin + static_cast<std::int64_t>(t - i), aBegin + static_cast<std::int64_t>(previousT)});
        previousA = i;
        previousT = t;
      }
      merged.emplace_back(aBegin, bEnd);
    }
    if (runs.size() % 2 == 1) {
      const auto [begin, end] = runs.back();
      pieces.push_back({begin, end, end, end, begin});  // an odd run is copied across
      merged.push_back(runs.back());
    }
    Parallel::chunks(static_cast<std::int64_t>(pieces.size()), 1, 1, [&](std::int64_t first, std::int64_t last) {
      for (std::int64_t p = first; p < last; ++p) {
        const Piece& piece = pieces[static_cast<std::size_t>(p)];
        std::merge(from->begin() + piece.a, from->begin() + piece.aEnd, from->begin() + piece.b,
                   from->begin() + piece.bEnd, to->begin() + piece.out, less);
      }
    });
    runs = std::move(merged);
    std::swap(from, to);
  }
  if (from != &items) items.swap(buffer);
}

}  // namespace

GlobalOrder::GlobalOrder(std::vector<SearchIndexPtr> indexes, std::shared_ptr<const Compatibility> compatibility,
                         Ranking ranking)
    : indexes_(std::move(indexes)), compatibility_(std::move(compatibility)) {
  starts_.reserve(indexes_.size() + 1);
  starts_.push_back(0);
  for (const auto& index : indexes_) starts_.push_back(starts_.back() + index->catalog().count());
  if (ranking == Ranking::now) rankParents();
  rankLabels();
}

bool GlobalOrder::adoptParentRanks(std::span<const Column<std::int32_t>> ranks) {
  if (ranks.size() != indexes_.size()) return false;
  std::int64_t parents = 0;
  for (std::size_t s = 0; s < ranks.size(); ++s) {
    if (ranks[s].size() != indexes_[s]->parentRanks().size()) return false;
    parents += static_cast<std::int64_t>(ranks[s].size());
  }
  if (parents > std::numeric_limits<std::int32_t>::max()) return false;
  parentRanks_.assign(ranks.begin(), ranks.end());
  // Equal texts share a rank, so the ranks in use may stop short of this
  // bound; it only sizes the radix passes of a path sort.
  parentRankCount_ = static_cast<std::int32_t>(parents);
  return true;
}

std::size_t GlobalOrder::sourceOf(std::int32_t id) const noexcept {
  // The last start not above the id; empty sources share their start with
  // the next source and are skipped by taking the last such entry.
  const auto it = std::upper_bound(starts_.begin(), starts_.end() - 1, std::int64_t(id));
  return static_cast<std::size_t>(it - starts_.begin()) - 1;
}

int GlobalOrder::comparePaths(const Compatibility& compatibility, PathFlavor flavorA, TextView a, PathFlavor flavorB,
                              TextView b) noexcept {
  const TextView ta = PathOrder::trimmed(flavorA, a);
  const TextView tb = PathOrder::trimmed(flavorB, b);
  const auto& order = compatibility.orderTable();
  if (int r = walkPaths(flavorA, ta, flavorB, tb, [&](Unit u) { return name_collation::weight1(order, u); })) return r;
  const auto& letterCase = compatibility.letterCaseTable();
  if (int r = walkPaths(flavorA, ta, flavorB, tb, [&](Unit u) { return std::uint32_t(letterCase[u]); })) return r;
  if (int r = walkPaths(flavorA, ta, flavorB, tb, [](Unit u) { return std::uint32_t(u); })) return r;
  const int raw = a.compare(b);
  return raw < 0 ? -1 : raw > 0 ? 1 : 0;
}

void GlobalOrder::rankParents() {
  parentRanks_.resize(indexes_.size());
  if (indexes_.size() == 1) {
    // One source: its own ranks are the global ones (shared, not copied).
    parentRanks_.front() = indexes_.front()->parentRanks();
    parentRankCount_ = static_cast<std::int32_t>(parentRanks_.front().size());
    return;
  }
  // Each source's parents in its own path order form a sorted run; the merge
  // of the runs is the path order of all parent texts.
  struct Parent {
    std::int32_t source;
    std::int32_t index;
  };
  std::vector<Parent> parents;
  std::vector<std::pair<std::int64_t, std::int64_t>> runs;
  std::vector<std::vector<std::int32_t>> merged(indexes_.size());
  for (std::size_t s = 0; s < indexes_.size(); ++s) {
    const auto& ranks = indexes_[s]->parentRanks();
    const auto begin = static_cast<std::int64_t>(parents.size());
    parents.resize(parents.size() + ranks.size(), Parent{static_cast<std::int32_t>(s), 0});
    // Each source's ranks are a permutation of its parents, unless its file
    // was damaged: a rank out of range is left out (its slot keeps the
    // source's parent 0), which misorders, safely.
    for (std::size_t p = 0; p < ranks.size(); ++p)
      if (static_cast<std::uint32_t>(ranks[p]) < ranks.size())
        parents[static_cast<std::size_t>(begin) + static_cast<std::size_t>(ranks[p])] = {
            static_cast<std::int32_t>(s), static_cast<std::int32_t>(p)};
    if (!ranks.empty()) runs.emplace_back(begin, static_cast<std::int64_t>(parents.size()));
    merged[s].assign(ranks.size(), 0);
  }
  auto text = [&](const Parent& p) {
    return indexes_[static_cast<std::size_t>(p.source)]->catalog().parentUnits(static_cast<std::uint32_t>(p.index));
  };  // parentUnits reads a parent index past the texts as the empty text
  auto flavor = [&](const Parent& p) { return indexes_[static_cast<std::size_t>(p.source)]->catalog().pathFlavor(); };
  auto comparison = [&](const Parent& x, const Parent& y) {
    return comparePaths(*compatibility_, flavor(x), text(x), flavor(y), text(y));
  };
  mergeRuns(parents, std::move(runs), [&](const Parent& x, const Parent& y) {
    const int r = comparison(x, y);
    return r != 0 ? r < 0 : x.source < y.source;
  });
  // Texts that compare equal (the same text in two sources) share a rank.
  std::int32_t rank = -1;
  for (std::size_t i = 0; i < parents.size(); ++i) {
    if (i == 0 || comparison(parents[i - 1], parents[i]) != 0) ++rank;
    merged[static_cast<std::size_t>(parents[i].source)][static_cast<std::size_t>(parents[i].index)] = rank;
  }
  for (std::size_t s = 0; s < merged.size(); ++s) parentRanks_[s] = Column<std::int32_t>::owned(std::move(merged[s]));
  parentRankCount_ = rank + 1;
}

void GlobalOrder::rankLabels() {
  labelRanks_.resize(indexes_.size());
  struct Label {
    std::size_t source;
    std::size_t device;
    const Text* text;
  };
  std::vector<Label> labels;
  for (std::size_t s = 0; s < indexes_.size(); ++s) {
    const auto& deviceLabels = indexes_[s]->catalog().parts().deviceLabels;
    labelRanks_[s].assign(deviceLabels.size(), 0);
    for (std::size_t d = 0; d < deviceLabels.size(); ++d)
      if (deviceLabels[d]) labels.push_back({s, d, &*deviceLabels[d]});
  }
  std::sort(labels.begin(), labels.end(), [&](const Label& x, const Label& y) {
    const int r = compatibility_->compareNames(*x.text, *y.text);
    return r != 0 ? r < 0 : std::pair(x.source, x.device) < std::pair(y.source, y.device);
  });
  std::int32_t rank = 0;  // 0 is "no label"
  for (std::size_t i = 0; i < labels.size(); ++i) {
    if (i == 0 || compatibility_->compareNames(*labels[i - 1].text, *labels[i].text) != 0) ++rank;
    labelRanks_[labels[i].source][labels[i].device] = rank;
  }
  labelRankCount_ = rank;
}

int GlobalOrder::compare(std::int32_t a, std::int32_t b, SortKey key) const noexcept {
  if (a == b) return 0;
  const std::size_t sa = sourceOf(a);
  const std::size_t sb = sourceOf(b);
  const auto ra = static_cast<std::int32_t>(a - starts_[sa]);
  const auto rb = static_cast<std::int32_t>(b - starts_[sb]);
  const Catalog& ca = indexes_[sa]->catalog();
  const Catalog& cb = indexes_[sb]->catalog();
  const bool fa = ca.isDirectory(ra);
  const bool fb = cb.isDirectory(rb);
  if (fa != fb) return fa ? -1 : 1;
  const std::int32_t pa = parentRanks_[sa][ca.parentIndex(ra)];
  const std::int32_t pb = parentRanks_[sb][cb.parentIndex(rb)];
  switch (key) {
    case SortKey::path:
      if (pa != pb) return pa < pb ? -1 : 1;
      break;
    case SortKey::size:
    case SortKey::modified:
    case SortKey::created:
    case SortKey::allocated:
      if (int r = compareUnknownFirst(rawValue(ca, ra, key), rawValue(cb, rb, key))) return r;
      break;
    case SortKey::device: {
      const std::int32_t la = RowOrder::rowLabelRank(ca, labelRanks_[sa], ra);
      const std::int32_t lb = RowOrder::rowLabelRank(cb, labelRanks_[sb], rb);
      if (la != lb) return la < lb ? -1 : 1;
      break;
    }
    case SortKey::name:
    case SortKey::none:
      break;
  }
  const TextView na = ca.nameUnits(ra);
  const TextView nb = cb.nameUnits(rb);
  // The same name (common across sources of one tree): all three levels tie.
  if (na == nb) {
    if (pa != pb) return pa < pb ? -1 : 1;
    return a < b ? -1 : 1;
  }
  if (int r = name_collation::level1(compatibility_->orderTable(), na, nb)) return r;
  if (pa != pb) return pa < pb ? -1 : 1;
  if (int r = name_collation::level2(compatibility_->letterCaseTable(), na, nb)) return r;
  if (int r = name_collation::level3(na, nb)) return r;
  // The source listed earlier, then the lower row: the lower global id.
  return a < b ? -1 : 1;
}

namespace {

// A row of the name merge with the start of its sort key: the folder bit and
// the level-1 weights of the name's first six units, as two words. Units
// are coded as weight + 1, and the end of a name (or its first NUL, where the
// level-1 walk stops) as 0 for every unit after it. Two keys that differ
// order the rows as folders-first and level 1 do; equal keys need the full
// comparison. Merging these keeps most comparisons to two integer compares
// and off the names themselves.
struct MergeItem {
  std::uint64_t high = 0;
  std::uint64_t low = 0;
  std::int32_t id = 0;
};

MergeItem mergeItem(const Compatibility::Table& order, const Catalog& catalog, std::int32_t row, std::int32_t id) {
  const TextView name = catalog.nameUnits(row);
  std::uint64_t words[2] = {catalog.isDirectory(row) ? 0u : 1u, 0};
  bool ended = false;
  for (std::size_t i = 0; i < 6; ++i) {
    std::uint64_t code = 0;
    if (!ended && i < name.size() && name[i] != 0) code = name_collation::weight1(order, name[i]) + 1;
    else ended = true;
    words[i / 3] = words[i / 3] << 18 | code;
  }
  return {words[0], words[1], id};
}

}  // namespace

Column<std::int32_t> GlobalOrder::nameOrder() const {
  if (indexes_.size() == 1) return indexes_.front()->order(SortKey::name);
  const auto& weights = compatibility_->orderTable();
  std::vector<MergeItem> items(static_cast<std::size_t>(total()));
  std::vector<std::pair<std::int64_t, std::int64_t>> runs;
  for (std::size_t s = 0; s < indexes_.size(); ++s) {
    const Column<std::int32_t> own = indexes_[s]->order(SortKey::name);
    const Catalog& catalog = indexes_[s]->catalog();
    const std::int64_t start = starts_[s];
    const auto n = static_cast<std::int64_t>(own.size());
    Parallel::chunks(n, 1, 1 << 15, [&](std::int64_t begin, std::int64_t end) {
      for (auto i = begin; i < end; ++i) {
        // A stored order entry is checked before it indexes the catalog.
        std::int32_t row = own[static_cast<std::size_t>(i)];
        if (!catalog.hasRow(row)) row = 0;
        items[static_cast<std::size_t>(start + i)] =
            mergeItem(weights, catalog, row, static_cast<std::int32_t>(start + row));
      }
    });
    if (n > 0) runs.emplace_back(start, start + n);
  }
  mergeRuns(items, std::move(runs), [&](const MergeItem& x, const MergeItem& y) {
    if (x.high != y.high) return x.high < y.high;
    if (x.low != y.low) return x.low < y.low;
    return compare(x.id, y.id, SortKey::name) < 0;
  });
  std::vector<std::int32_t> ids(items.size());
  Parallel::chunks(static_cast<std::int64_t>(ids.size()), 1, 1 << 16, [&](std::int64_t begin, std::int64_t end) {
    for (auto i = begin; i < end; ++i) ids[static_cast<std::size_t>(i)] = items[static_cast<std::size_t>(i)].id;
  });
  return Column<std::int32_t>::owned(std::move(ids));
}

std::vector<std::int32_t> GlobalOrder::sortedByKey(std::span<const std::int32_t> nameOrder, SortKey key) const {
  // The name order is the tie-break order within folders and within files,
  // so a stable sort of it by (folders first, key value) is the key's order.
  // The sort keys are gathered per global id first, source by source in row
  // order, so the radix passes read them with one lookup.
  const auto n = static_cast<std::size_t>(total());
  std::vector<std::uint64_t> keys(n);
  auto gather = [&](auto keyOf) {
    for (std::size_t s = 0; s < indexes_.size(); ++s) {
      const Catalog& catalog = indexes_[s]->catalog();
      const auto start = static_cast<std::size_t>(starts_[s]);
      Parallel::chunks(catalog.count(), 1, 1 << 16, [&](std::int64_t begin, std::int64_t end) {
        for (auto r = begin; r < end; ++r)
          keys[start + static_cast<std::size_t>(r)] = keyOf(s, catalog, static_cast<std::int32_t>(r));
      });
    }
  };
  // `nameOrder` may be mapped from a damaged file: an id past the rows reads
  // the key of id 0 (the radix passes keep the id itself).
  auto byKey = [&](std::int32_t id) {
    return keys[static_cast<std::uint32_t>(id) < n ? static_cast<std::size_t>(id) : 0];
  };
  auto fileBit = [](const Catalog& catalog, std::int32_t row) -> std::uint64_t {
    return catalog.isDirectory(row) ? 0 : 1;
  };

  if (key == SortKey::path || key == SortKey::device) {
    const std::int32_t top = key == SortKey::path ? std::max(parentRankCount_ - 1, 0) : labelRankCount_;
    const int bits = bitWidth(static_cast<std::uint64_t>(top));
    gather([&](std::size_t s, const Catalog& c, std::int32_t row) {
      const std::int32_t rank = key == SortKey::path ? parentRanks_[s][c.parentIndex(row)]
                                                     : RowOrder::rowLabelRank(c, labelRanks_[s], row);
      return fileBit(c, row) << bits | static_cast<std::uint64_t>(rank);
    });
    return radixOrder(nameOrder, bits + 1, byKey);
  }
  if (key != SortKey::size && key != SortKey::modified && key != SortKey::created && key != SortKey::allocated) {
    gather([&](std::size_t, const Catalog& c, std::int32_t row) { return fileBit(c, row); });
    return radixOrder(nameOrder, 1, byKey);
  }

  // The range of known values decides how many bits the passes must cover.
  gather([&](std::size_t, const Catalog& c, std::int32_t row) { return rawValue(c, row, key); });
  std::uint64_t low = kUnknown64, high = 0;
  bool known = false;
  for (const std::uint64_t v : keys) {
    if (v == kUnknown64) continue;
    known = true;
    low = std::min(low, v);
    high = std::max(high, v);
  }
  const int bits = known ? bitWidth(high - low) : 0;
  if (bits > 62) {
    // Values spread over nearly all 64 bits: by value (unknown wrapping to
    // 0), then stably by folder.
    auto byValue = radixOrder(nameOrder, 64, [&](std::int32_t id) { return byKey(id) + 1; });
    gather([&](std::size_t, const Catalog& c, std::int32_t row) { return fileBit(c, row); });
    return radixOrder(byValue, 1, byKey);
  }
  // (file, known) in the two top bits, the offset from the lowest known value below.
  for (std::size_t s = 0; s < indexes_.size(); ++s) {
    const Catalog& catalog = indexes_[s]->catalog();
    const auto start = static_cast<std::size_t>(starts_[s]);
    Parallel::chunks(catalog.count(), 1, 1 << 16, [&](std::int64_t begin, std::int64_t end) {
      for (auto r = begin; r < end; ++r) {
        std::uint64_t& k = keys[start + static_cast<std::size_t>(r)];
        const bool isKnown = k != kUnknown64;
        k = (fileBit(catalog, static_cast<std::int32_t>(r)) << 1 | (isKnown ? 1u : 0u)) << bits |
            (isKnown ? k - low : 0);
      }
    });
  }
  return radixOrder(nameOrder, bits + 2, byKey);
}

Column<std::int32_t> GlobalOrder::orderFrom(const Column<std::int32_t>& nameOrder, SortKey key) const {
  if (key == SortKey::name || key == SortKey::none) return nameOrder;
  if (indexes_.size() == 1) return indexes_.front()->order(key);
  return Column<std::int32_t>::owned(sortedByKey(nameOrder.span(), key));
}

}  // namespace tarv
