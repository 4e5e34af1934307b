#pragma once
// prefixSort: sorts rows by text keys read in 128-bit slices, the way a most
// significant digit string sort does. Every row first gets the slice of its
// text at depth 0, computed in row order (sequential reads of the text
// column); the items are bucketed by the slice's top 16 bits and each bucket
// is sorted by slice; every run of equal slices that has not reached the end
// of its texts is then refined by the slice at the next depth, and so on.
// Runs whose slices reached the end hold texts that compare equal; `finalLess`
// orders them. A row's text is read once per depth its run needs (with
// prefetching), not once per comparison: comparison sorts over millions of
// names spend their time in cache misses.
//
// Small runs are refined in parallel, one run per task; a run too large for
// one worker computes its slices and sorts on the whole pool. The result does
// not depend on the number of workers. Slices must compare like the texts they
// cut (lexicographic, a text that ends first sorting first) and `ended(slice)`
// must say whether the text ended within the slice, so that equal ended
// slices mean equal texts.

#include <algorithm>
#include <cstdint>
#include <span>
#include <utility>
#include <vector>

#include "kernel/query/buffer.h"
#include "kernel/query/parallel.h"
#include "kernel/query/parallel_sort.h"

namespace tarv {

// Trivial types (no member initialisers), so buffers of them start unwritten.
struct PrefixSlice {
  std::uint64_t high;
  std::uint64_t low;
  friend bool operator==(const PrefixSlice&, const PrefixSlice&) = default;
  friend bool operator<(const PrefixSlice& a, const PrefixSlice& b) {
    return a.high != b.high ? a.high < b.high : a.low < b.low;
  }
};

struct PrefixItem {
  PrefixSlice slice;
  std::int32_t row;
  std::int32_t aux;  // caller data that travels with the row (e.g. its parent rank)
};

// Arrays that successive sorts can share, so each does not fault in fresh memory.
struct PrefixScratch {
  Buffer<PrefixItem> items;
  Buffer<PrefixItem> spare;
};

namespace prefix_sort_detail {

struct Run {
  std::size_t begin = 0;
  std::size_t end = 0;
  int depth = 0;       // the depth of the slices the run is sorted by
  bool fresh = false;  // whether the slices at `depth` still have to be computed
  int digit = 0;       // the run's items share the 16-bit digits of the slice before this one
};

// Digit d (0..7) of a slice, most significant first.
inline std::size_t digitOf(const PrefixSlice& s, int d) {
  const std::uint64_t word = d < 4 ? s.high : s.low;
  return static_cast<std::size_t>((word >> (48 - 16 * (d & 3))) & 0xFFFF);
}

template <class Access>
class Sorter {
 public:
  Sorter(Buffer<PrefixItem>& items, Access& access, std::size_t largeRun, Buffer<PrefixItem>& spare)
      : items_(items), access_(access), largeRun_(largeRun), buffer_(spare) {}

  void run(std::vector<Run> runs) {
    while (!runs.empty()) {
      std::vector<Run> large, small;
      for (const Run& r : runs) (r.end - r.begin >= largeRun_ ? large : small).push_back(r);
      runs.clear();
      balance(small);
      Parallel::chunks(static_cast<std::int64_t>(small.size()), 1, 16, [&](std::int64_t first, std::int64_t last) {
        for (auto k = first; k < last; ++k) refineSerially(small[static_cast<std::size_t>(k)]);
      });
      for (const Run& r : large) refineInParallel(r, runs);
    }
  }

 private:
  PrefixItem* at(std::size_t i) { return items_.data() + i; }

  // Runs in key order cluster by size (all names starting "lib" are large),
  // and chunks are contiguous: deal the runs out largest first, one to each
  // chunk in turn, so every chunk gets a similar share of rows.
  static void balance(std::vector<Run>& runs) {
    const Parallel::Plan plan = Parallel::plan(static_cast<std::int64_t>(runs.size()), 1, 16);
    if (plan.serial) return;
    std::sort(runs.begin(), runs.end(),
              [](const Run& a, const Run& b) { return a.end - a.begin > b.end - b.begin; });
    std::vector<Run> dealt(runs.size());
    std::vector<std::size_t> fill(static_cast<std::size_t>(plan.chunks), 0);
    std::size_t chunk = 0;
    for (const Run& r : runs) {
      // Skip chunks that are full (the last one may be shorter).
      while (true) {
        const std::size_t begin = chunk * static_cast<std::size_t>(plan.length);
        const std::size_t capacity = std::min(runs.size(), begin + static_cast<std::size_t>(plan.length)) - begin;
        if (fill[chunk] < capacity) break;
        chunk = (chunk + 1) % fill.size();
      }
      dealt[chunk * static_cast<std::size_t>(plan.length) + fill[chunk]++] = r;
      chunk = (chunk + 1) % fill.size();
    }
    runs.swap(dealt);
  }

  void computeSlices(std::size_t b, std::size_t e, int depth) {
    constexpr std::size_t ahead = 8;
    for (std::size_t i = b; i < e && i < b + 2 * ahead; ++i) access_.locate(items_[i].row);
    for (std::size_t i = b; i < e && i < b + ahead; ++i) access_.prefetch(items_[i].row, depth);
    for (std::size_t i = b; i < e; ++i) {
      if (i + 2 * ahead < e) access_.locate(items_[i + 2 * ahead].row);
      if (i + ahead < e) access_.prefetch(items_[i + ahead].row, depth);
      items_[i].slice = access_.sliceAt(items_[i].row, depth);
    }
  }

  bool allEqual(std::size_t b, std::size_t e) const {
    for (std::size_t i = b + 1; i < e; ++i)
      if (!(items_[i].slice == items_[b].slice)) return false;
    return true;
  }

  // Splits a run sorted by its slices into runs of equal slices: ended ones
  // are put in final order at once, the others go to `out` for the next depth.
  template <class Out>
  void split(std::size_t b, std::size_t e, int depth, Out&& out) {
    std::size_t start = b;
    for (std::size_t i = b + 1; i <= e; ++i) {
      if (i < e && items_[i].slice == items_[start].slice) continue;
      if (i - start > 1) {
        if (access_.ended(items_[start].slice)) finish(start, i);
        else out(Run{start, i, depth + 1, true});
      }
      start = i;
    }
  }

  void finish(std::size_t b, std::size_t e) {
    auto less = [&](const PrefixItem& x, const PrefixItem& y) { return access_.finalLess(x, y); };
    if (e - b >= largeRun_ && !Parallel::insideBody()) parallelSort(std::span<PrefixItem>(at(b), e - b), less);
    else std::sort(at(b), at(e), less);
  }

  static bool bySlice(const PrefixItem& x, const PrefixItem& y) { return x.slice < y.slice; }

  // One run and everything below it, on the calling thread. A work list
  // instead of recursion: a run of long equal texts needs many depths.
  void refineSerially(Run first) {
    std::vector<Run> work{first};
    while (!work.empty()) {
      const Run r = work.back();
      work.pop_back();
      if (r.end - r.begin < 2) continue;
      if (r.fresh) computeSlices(r.begin, r.end, r.depth);
      if (allEqual(r.begin, r.end)) {
        // One repeated text (a common file name) keeps equal slices at every
        // depth: no sorting until it ends.
        if (access_.ended(items_[r.begin].slice)) finish(r.begin, r.end);
        else work.push_back(Run{r.begin, r.end, r.depth + 1, true});
        continue;
      }
      std::sort(at(r.begin), at(r.end), bySlice);
      split(r.begin, r.end, r.depth, [&](Run next) { work.push_back(next); });
    }
  }

  // One large run with the whole pool: a counting sort by its next 16-bit
  // digit (most significant digit first), so no comparison sort ever runs
  // over millions of items. The runs it splits into go to `out`.
  void refineInParallel(const Run& r, std::vector<Run>& out) {
    const auto length = static_cast<std::int64_t>(r.end - r.begin);
    constexpr std::int64_t kMinimum = 1 << 14;
    if (r.fresh) {
      Parallel::chunks(length, 1, kMinimum, [&](std::int64_t b, std::int64_t e) {
        computeSlices(r.begin + static_cast<std::size_t>(b), r.begin + static_cast<std::size_t>(e), r.depth);
      });
    }
    if (r.digit == 8) {  // the whole slice is shared
      if (access_.ended(items_[r.begin].slice)) finish(r.begin, r.end);
      else out.push_back(Run{r.begin, r.end, r.depth + 1, true, 0});
      return;
    }
    constexpr std::size_t kBuckets = 1 << 16;
    const Parallel::Plan plan = Parallel::plan(length, 1, kMinimum);
    const auto chunkCount = static_cast<std::size_t>(plan.chunks);
    counts_.assign(chunkCount * kBuckets, 0);
    Parallel::chunks(length, 1, kMinimum, [&](std::int64_t b, std::int64_t e) {
      std::int64_t* c = counts_.data() + static_cast<std::size_t>(b / plan.length) * kBuckets;
      for (auto i = b; i < e; ++i) ++c[digitOf(items_[r.begin + static_cast<std::size_t>(i)].slice, r.digit)];
    });
    std::vector<std::size_t> starts(kBuckets + 1);
    std::int64_t offset = 0;
    for (std::size_t d = 0; d < kBuckets; ++d) {
      starts[d] = r.begin + static_cast<std::size_t>(offset);
      for (std::size_t c = 0; c < chunkCount; ++c) {
        const std::int64_t here = counts_[c * kBuckets + d];
        counts_[c * kBuckets + d] = offset;
        offset += here;
      }
    }
    starts[kBuckets] = r.end;
    const std::size_t only = digitOf(items_[r.begin].slice, r.digit);
    if (starts[only + 1] - starts[only] != r.end - r.begin) {
      if (buffer_.size() < r.end - r.begin) buffer_.resize(r.end - r.begin);
      Parallel::chunks(length, 1, kMinimum, [&](std::int64_t b, std::int64_t e) {
        std::int64_t* c = counts_.data() + static_cast<std::size_t>(b / plan.length) * kBuckets;
        for (auto i = b; i < e; ++i) {
          const PrefixItem& item = items_[r.begin + static_cast<std::size_t>(i)];
          buffer_[static_cast<std::size_t>(c[digitOf(item.slice, r.digit)]++)] = item;
        }
      });
      Parallel::chunks(length, 1, kMinimum, [&](std::int64_t b, std::int64_t e) {
        std::copy(buffer_.begin() + b, buffer_.begin() + e, items_.begin() + static_cast<std::ptrdiff_t>(r.begin) + b);
      });
    }
    for (std::size_t d = 0; d < kBuckets; ++d)
      if (starts[d + 1] - starts[d] > 1) out.push_back(Run{starts[d], starts[d + 1], r.depth, false, r.digit + 1});
  }

  Buffer<PrefixItem>& items_;
  Access& access_;
  std::size_t largeRun_;
  Buffer<PrefixItem>& buffer_;  // scatter target of the large runs, refined one at a time
  std::vector<std::int64_t> counts_;
};

}  // namespace prefix_sort_detail

// `access` provides: sliceAt(row, depth) -> PrefixSlice; locate(row) and
// prefetch(row, depth), hints in two steps for the memory sliceAt reads (where
// the row's text starts, then the text); ended(slice) -> bool; and
// finalLess(PrefixItem, PrefixItem) for items whose texts compare equal.
// Runs of at least `largeRun` rows are refined with the whole pool; `spare`
// (optional) is reused as their scatter target.
template <class Access>
void prefixSort(Buffer<PrefixItem>& items, Access& access, std::size_t largeRun = std::size_t(1) << 16,
                Buffer<PrefixItem>* spare = nullptr) {
  const auto n = static_cast<std::int64_t>(items.size());
  if (n < 2) return;
  constexpr std::int64_t kMinimum = 1 << 15;
  Parallel::chunks(n, 1, kMinimum, [&](std::int64_t begin, std::int64_t end) {
    for (auto i = begin; i < end; ++i) {
      PrefixItem& item = items[static_cast<std::size_t>(i)];
      item.slice = access.sliceAt(item.row, 0);
    }
  });

  std::vector<prefix_sort_detail::Run> runs{{0, items.size(), 0, false, 0}};
  Buffer<PrefixItem> local;
  prefix_sort_detail::Sorter<Access>(items, access, std::max<std::size_t>(largeRun, 2), spare ? *spare : local)
      .run(std::move(runs));
}

}  // namespace tarv
