#pragma once
// GlobalOrder: the row order across the catalogs of several sources, over one
// space of global ids (row r of source s is starts[s] + r). Two rows compare
// as in one catalog (folders first, the key with unknown values smallest, name
// level 1, parent path, name levels 2 and 3), then the source listed earlier
// comes first, then the lower row; so ties end on the global id.
//
// Parent texts of different sources are compared as texts (per-source ranks
// are not comparable): every distinct parent text of every source gets one
// global rank, by the path order with each text's separators weighed by its
// own source's flavor. Device labels of all sources get global ranks the same
// way (absent first, then the three-level name collation).
//
// Order entries and ranks may come from index files whose values were not
// checked at load; every one used as an index here is checked where it is
// used (a damaged file gives a wrong order, never a read outside a column).
//
// Holds the search indexes (and through them the catalogs and tables) alive.
// Immutable after construction; compare and the builders may run on any
// number of threads. The builders run on the worker pool. Nothing here throws
// except std::bad_alloc.

#include <cstdint>
#include <memory>
#include <span>
#include <utility>
#include <vector>

#include "kernel/base/column.h"
#include "kernel/base/path_flavor.h"
#include "kernel/catalog/compatibility.h"
#include "kernel/query/search_index.h"
#include "kernel/query/sort_key.h"

namespace tarv {

class GlobalOrder {
 public:
  // When the parent texts are ranked: at construction, or later by
  // rankParents() or adoptParentRanks() (which the owner must call before
  // any other use; the joined search does so when it may have the ranks
  // stored from an earlier process).
  enum class Ranking { now, deferred };

  // `indexes` in source order; their row counts must sum to at most 2^31 - 1
  // (the caller checks).
  GlobalOrder(std::vector<SearchIndexPtr> indexes, std::shared_ptr<const Compatibility> compatibility,
              Ranking ranking = Ranking::now);

  // Ranks every parent text of every source (the merge by path order).
  void rankParents();
  // Takes ranks that rankParents() gave for the same sources: one column
  // per source, as long as its parent count (shared, not copied). The ranks
  // themselves are not read here (constant time): they are only ever
  // compared, so a damaged value misorders rows and nothing worse. Returns
  // false, and changes nothing, when the columns do not fit that shape.
  bool adoptParentRanks(std::span<const Column<std::int32_t>> ranks);

  std::int64_t total() const noexcept { return starts_.back(); }
  // One entry per source plus the total.
  const std::vector<std::int64_t>& starts() const noexcept { return starts_; }
  std::size_t sourceCount() const noexcept { return indexes_.size(); }

  // The source holding a global id (0 <= id < total).
  std::size_t sourceOf(std::int32_t id) const noexcept;

  // Ascending three-way comparison of two global ids by `key` (name and none
  // compare by the tie-break alone); 0 only for a == b.
  int compare(std::int32_t a, std::int32_t b, SortKey key) const noexcept;

  // Every global id in ascending name order. With one source this is the
  // source's own stored order (shared, not copied); otherwise a merge of the
  // sources' name orders.
  Column<std::int32_t> nameOrder() const;
  // Every global id in ascending order of `key`, given the name order. With
  // one source the source's own order (device: built by the index on first
  // use); otherwise a stable sort of `nameOrder` by (folders first, key
  // value), linear in the rows. name and none give `nameOrder` itself.
  Column<std::int32_t> orderFrom(const Column<std::int32_t>& nameOrder, SortKey key) const;

  // The global rank of every parent text of source s (by parent index).
  std::span<const std::int32_t> parentRanks(std::size_t source) const noexcept { return parentRanks_[source].span(); }
  // The same ranks as a column sharing their owner (a single source's are
  // its index's own), for handing on without a copy.
  const Column<std::int32_t>& parentRankColumn(std::size_t source) const noexcept { return parentRanks_[source]; }
  // The global rank of every device label of source s (by device id; 0 when
  // the device has no label).
  std::span<const std::int32_t> labelRanks(std::size_t source) const noexcept { return labelRanks_[source]; }

  // The path order of two parent texts that may come from sources of
  // different flavors: one trailing separator dropped per each text's flavor,
  // then the three-level collation with each text's separators (by its own
  // flavor) weighing less than any other unit and more than the end, then the
  // raw units. Agrees with PathOrder::compare when the flavors are equal.
  static int comparePaths(const Compatibility& compatibility, PathFlavor flavorA, TextView a, PathFlavor flavorB,
                          TextView b) noexcept;

 private:
  std::vector<std::int32_t> sortedByKey(std::span<const std::int32_t> nameOrder, SortKey key) const;
  void rankLabels();

  std::vector<SearchIndexPtr> indexes_;
  std::shared_ptr<const Compatibility> compatibility_;
  std::vector<std::int64_t> starts_;
  std::vector<Column<std::int32_t>> parentRanks_;  // a single source's own, shared
  std::vector<std::vector<std::int32_t>> labelRanks_;
  std::int32_t parentRankCount_ = 0;  // ranks lie below this (for a damaged file: should)
  std::int32_t labelRankCount_ = 0;  // highest label rank
};

}  // namespace tarv
