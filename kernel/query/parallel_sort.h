#pragma once
// Sorting large arrays on the worker pool: every chunk is sorted on its own,
// then runs are merged pairwise, each merge split into independent pieces at
// co-ranks so that all workers share even the last merge. `less` must be a
// strict total order (no two items equal), as every row order here is, so the
// result is the same for any number of workers. Items must be trivially
// copyable. The calling thread takes part; allocates one buffer of n items.

#include <algorithm>
#include <cstdint>
#include <span>
#include <utility>
#include <vector>

#include "kernel/query/buffer.h"
#include "kernel/query/parallel.h"

namespace tarv {

namespace parallel_sort_detail {

// The number of items of `a` among the first `t` of the merge of a and b.
template <class T, class Less>
std::size_t coRank(std::size_t t, std::span<const T> a, std::span<const T> b, Less& less) {
  std::size_t lo = t > b.size() ? t - b.size() : 0;
  std::size_t hi = std::min(t, a.size());
  while (lo < hi) {
    const std::size_t i = lo + (hi - lo) / 2;
    const std::size_t j = t - i;
    if (j > 0 && less(a[i], b[j - 1])) lo = i + 1;
    else hi = i;
  }
  return lo;
}

}  // namespace parallel_sort_detail

template <class T, class Less>
void parallelSort(std::span<T> items, Less less, std::int64_t minimum = std::int64_t(1) << 14) {
  const auto n = static_cast<std::int64_t>(items.size());
  const Parallel::Plan plan = Parallel::plan(n, 1, minimum);
  if (plan.serial) {
    std::sort(items.begin(), items.end(), less);
    return;
  }
  Parallel::chunks(n, 1, minimum, [&](std::int64_t begin, std::int64_t end) {
    std::sort(items.begin() + begin, items.begin() + end, less);
  });
  std::vector<std::pair<std::int64_t, std::int64_t>> runs;
  for (std::int64_t i = 0; i < plan.chunks; ++i) runs.emplace_back(i * plan.length, std::min((i + 1) * plan.length, n));

  Buffer<T> buffer(items.size());
  std::span<T> from = items;
  std::span<T> to(buffer);
  const std::int64_t wantedPieces = 4 * Parallel::workers();
  while (runs.size() > 1) {
    struct Piece {
      std::int64_t a, aEnd, b, bEnd, out;
    };
    std::vector<Piece> pieces;
    std::vector<std::pair<std::int64_t, std::int64_t>> merged;
    const std::int64_t pairs = static_cast<std::int64_t>(runs.size() / 2);
    const std::int64_t split = std::max<std::int64_t>(1, wantedPieces / std::max<std::int64_t>(pairs, 1));
    for (std::size_t r = 0; r + 1 < runs.size(); r += 2) {
      const auto [aBegin, aEnd] = runs[r];
      const auto [bBegin, bEnd] = runs[r + 1];
      std::span<const T> a(from.data() + aBegin, static_cast<std::size_t>(aEnd - aBegin));
      std::span<const T> b(from.data() + bBegin, static_cast<std::size_t>(bEnd - bBegin));
      const std::int64_t total = (aEnd - aBegin) + (bEnd - bBegin);
      std::size_t previousA = 0, previousT = 0;
      for (std::int64_t s = 1; s <= split; ++s) {
        const auto t = static_cast<std::size_t>(total * s / split);
        const std::size_t i = s == split ? a.size() : parallel_sort_detail::coRank(t, a, b, less);
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
        std::merge(from.begin() + piece.a, from.begin() + piece.aEnd, from.begin() + piece.b,
                   from.begin() + piece.bEnd, to.begin() + piece.out, less);
      }
    });
    runs = std::move(merged);
    std::swap(from, to);
  }
  if (from.data() != items.data()) std::copy(from.begin(), from.end(), items.begin());
}

template <class T, class Allocator, class Less>
void parallelSort(std::vector<T, Allocator>& items, Less less, std::int64_t minimum = std::int64_t(1) << 14) {
  parallelSort(std::span<T>(items), less, minimum);
}

}  // namespace tarv
