#pragma once
// radixOrder: a stable LSD radix sort of row numbers by an unsigned integer
// key, on the worker pool. The keys are gathered once in input order, then
// (key, row) pairs move in passes of at most 11 bits; every chunk counts its
// own stretch and scatters it to offsets computed from all chunks' counts, so
// the result is the same for any number of workers. Linear in the rows.

#include <algorithm>
#include <cstdint>
#include <span>
#include <vector>

#include "kernel/query/buffer.h"
#include "kernel/query/parallel.h"

namespace tarv {

// Working arrays that successive sorts of the same size can share, so that
// each sort does not fault in fresh memory.
template <class Out = std::vector<std::int32_t>>
struct RadixScratch {
  Buffer<std::uint64_t> keys;
  Buffer<std::uint64_t> keysOut;
  Out rowsOut;
};

// `key(position, row)` must return a value below 2^keyBits (keyBits 0..64);
// position is the row's index in `input`. `Out` is the result's container:
// std::vector<std::int32_t>, or Buffer<std::int32_t> to skip zeroing it.
template <class Out = std::vector<std::int32_t>, class Key>
Out radixOrderAt(std::span<const std::int32_t> input, int keyBits, Key key, RadixScratch<Out>* scratch = nullptr) {
  const auto n = static_cast<std::int64_t>(input.size());
  constexpr std::int64_t kMinimum = 1 << 16;
  Out rows(input.size());
  if (keyBits <= 0 || n < 2) {
    Parallel::chunks(n, 1, kMinimum, [&](std::int64_t begin, std::int64_t end) {
      std::copy(input.begin() + begin, input.begin() + end, rows.begin() + begin);
    });
    return rows;
  }
  RadixScratch<Out> local;
  RadixScratch<Out>& work = scratch ? *scratch : local;
  Buffer<std::uint64_t>& keys = work.keys;
  keys.resize(static_cast<std::size_t>(n));
  Parallel::chunks(n, 1, kMinimum, [&](std::int64_t begin, std::int64_t end) {
    for (auto i = begin; i < end; ++i) {
      const std::int32_t row = input[static_cast<std::size_t>(i)];
      rows[static_cast<std::size_t>(i)] = row;
      keys[static_cast<std::size_t>(i)] = key(i, row);
    }
  });

  const int passes = (keyBits + 10) / 11;
  const int width = (keyBits + passes - 1) / passes;
  const std::size_t buckets = std::size_t(1) << width;
  const std::uint64_t mask = buckets - 1;
  const Parallel::Plan plan = Parallel::plan(n, 1, kMinimum);
  const auto chunkCount = static_cast<std::size_t>(plan.chunks);
  Buffer<std::uint64_t>& keysOut = work.keysOut;
  Out& rowsOut = work.rowsOut;
  keysOut.resize(keys.size());
  rowsOut.resize(rows.size());
  std::vector<std::int64_t> counts(chunkCount * buckets);

  for (int pass = 0; pass < passes; ++pass) {
    const int shift = pass * width;
    std::fill(counts.begin(), counts.end(), 0);
    Parallel::chunks(n, 1, kMinimum, [&](std::int64_t begin, std::int64_t end) {
      std::int64_t* c = counts.data() + static_cast<std::size_t>(begin / plan.length) * buckets;
      for (auto i = begin; i < end; ++i) ++c[(keys[static_cast<std::size_t>(i)] >> shift) & mask];
    });
    // A digit that every row shares moves nothing: skip the scatter.
    bool constant = false;
    for (std::size_t d = 0; d < buckets && !constant; ++d) {
      std::int64_t total = 0;
      for (std::size_t c = 0; c < chunkCount; ++c) total += counts[c * buckets + d];
      if (total == n) constant = true;
      else if (total != 0) break;
    }
    if (constant) continue;
    std::int64_t offset = 0;
    for (std::size_t d = 0; d < buckets; ++d) {
      for (std::size_t c = 0; c < chunkCount; ++c) {
        const std::int64_t here = counts[c * buckets + d];
        counts[c * buckets + d] = offset;
        offset += here;
      }
    }
    Parallel::chunks(n, 1, kMinimum, [&](std::int64_t begin, std::int64_t end) {
      std::int64_t* c = counts.data() + static_cast<std::size_t>(begin / plan.length) * buckets;
      for (auto i = begin; i < end; ++i) {
        const std::uint64_t k = keys[static_cast<std::size_t>(i)];
        const auto to = static_cast<std::size_t>(c[(k >> shift) & mask]++);
        keysOut[to] = k;
        rowsOut[to] = rows[static_cast<std::size_t>(i)];
      }
    });
    keys.swap(keysOut);
    rows.swap(rowsOut);
  }
  return rows;
}

// The same with `key(row)`.
template <class Out = std::vector<std::int32_t>, class Key>
Out radixOrder(std::span<const std::int32_t> input, int keyBits, Key key, RadixScratch<Out>* scratch = nullptr) {
  return radixOrderAt<Out>(input, keyBits, [&](std::int64_t, std::int32_t row) { return key(row); }, scratch);
}

}  // namespace tarv
