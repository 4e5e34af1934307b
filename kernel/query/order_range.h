#pragma once
// The rows of a stored ascending order whose value of the order's key lies in
// a size or date bound, found by binary search instead of a column scan.
//
// A stored order of size, modified, created or allocated lists every folder
// first, then every file; within each part the rows ascend by value with the
// unknown value (all bits set) before every known one. So the rows of one
// part whose value is unknown, or lies in low ..= high, are one run of
// positions, and the count of such rows is the run's length.
//
// Plain functions over spans; nothing is kept. The order may come from an
// index file whose entries were not checked: an entry that names no row reads
// as an unknown value here (a damaged order gives wrong runs, never a read
// outside a column). Nothing throws.

#include <cstdint>
#include <span>

#include "kernel/query/query.h"

namespace tarv::order_range {

// Positions begin ..< end of an order.
struct Run {
  std::int64_t begin = 0;
  std::int64_t end = 0;
  std::int64_t size() const noexcept { return end > begin ? end - begin : 0; }
};

// The runs of the folder part (positions 0 ..< folders) and the file part
// (folders ..< order.size()) whose rows pass `bounds` on `values`, for the
// record types in `types` (1 files, 2 folders; a type left out gets an empty
// run). Bounds wanting both unknown and known values, or a known range that
// is empty, give empty runs.
struct Runs {
  Run folders;
  Run files;
  std::int64_t size() const noexcept { return folders.size() + files.size(); }
};

Runs find(std::span<const std::int32_t> order, std::span<const std::uint64_t> values, std::int64_t folders,
          const Query::Bounds& bounds, int types) noexcept;

}  // namespace tarv::order_range
