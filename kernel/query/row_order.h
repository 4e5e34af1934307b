#pragma once
// RowOrder: the comparison rule of result orders over the rows of one
// catalog, and the linear-time builders of whole orders.
//
// compare(a, b, spec): folders first; then the key (path rank; size, modified,
// created or allocated as unsigned values with unknown smallest, the step
// skipped for a column the catalog lacks; device labels, absent first, present
// ones by the three-level name collation); then the tie-break T = (name level
// 1, parent rank, name level 2, name level 3, row). Descending negates the
// whole result, so a descending order is the exact reverse of the ascending one.
//
// Holds references: the catalog, the tables and the ranks must outlive it.
// Read-only; safe to share between threads. Nothing here throws.

#include <cstdint>
#include <span>
#include <vector>

#include "kernel/catalog/catalog.h"
#include "kernel/catalog/compatibility.h"
#include "kernel/query/buffer.h"
#include "kernel/query/prefix_sort.h"
#include "kernel/query/radix_order.h"
#include "kernel/query/sort_spec.h"

namespace tarv {

class RowOrder {
 public:
  RowOrder(const Catalog& catalog, const Compatibility& compatibility, std::span<const std::int32_t> parentRanks) noexcept
      : catalog_(catalog), compatibility_(compatibility), parentRanks_(parentRanks) {}

  // Three-way comparison (<0, 0, >0); 0 only for a == b.
  int compare(std::int32_t a, std::int32_t b, SortSpec spec) const noexcept;
  // Steps 1 and 2 only (folders first, then the key); 0 when they tie.
  int compareKey(std::int32_t a, std::int32_t b, SortKey key) const noexcept;
  // The tie-break T alone.
  int compareTieBreak(std::int32_t a, std::int32_t b) const noexcept;

  std::int32_t parentRank(std::int32_t row) const noexcept {
    return parentRanks_[catalog_.parentIndex(row)];
  }

  // Per device id, the rank of its label: 0 for no label, then 1, 2, ... in
  // label order, equal labels sharing a rank.
  static std::vector<std::int32_t> labelRanks(const Catalog& catalog, const Compatibility& compatibility);
  // The label rank of a row (0 without device or label).
  static std::int32_t rowLabelRank(const Catalog& catalog, std::span<const std::int32_t> labelRanks,
                                   std::int32_t row) noexcept;

  // Every row in tie-break order T (a slice-by-slice string sort of the names
  // by level-1 codes, prefix_sort.h), plus per position the row's folder flag
  // and parent rank (file bit << 31 | rank), from which the name and path
  // orders follow without reading the catalog again.
  struct TieBreak {
    Buffer<std::int32_t> rows;
    Buffer<std::uint32_t> fileAndRank;
  };
  // `scratch` (optional) lends its arrays to the sort.
  static TieBreak tieBreak(const Catalog& catalog, const Compatibility& compatibility,
                           std::span<const std::int32_t> parentRanks, PrefixScratch* scratch = nullptr);
  static Buffer<std::int32_t> tieBreakOrder(const Catalog& catalog, const Compatibility& compatibility,
                                                 std::span<const std::int32_t> parentRanks) {
    return tieBreak(catalog, compatibility, parentRanks).rows;
  }

  // The ascending order of `key`, as a stable sort of `tieBreak` (T, or any
  // order that is T within folders and within files, such as the name order)
  // by (folders first, key value). Linear: radix passes on the pool. For
  // device, `labelRanks` must be given. `scratch` (optional) is shared by
  // successive calls.
  using Scratch = RadixScratch<Buffer<std::int32_t>>;
  static Buffer<std::int32_t> orderFrom(const Catalog& catalog, std::span<const std::int32_t> tieBreak, SortKey key,
                                        std::span<const std::int32_t> parentRanks,
                                        std::span<const std::int32_t> labelRanks = {}, Scratch* scratch = nullptr);
  // The same from a TieBreak: name and path use its per-position data.
  static Buffer<std::int32_t> orderFrom(const Catalog& catalog, const TieBreak& tieBreak, SortKey key,
                                        std::span<const std::int32_t> parentRanks, Scratch* scratch = nullptr);

 private:
  const Catalog& catalog_;
  const Compatibility& compatibility_;
  std::span<const std::int32_t> parentRanks_;
};

}  // namespace tarv
