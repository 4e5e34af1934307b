#pragma once
// JoinedSearch: the one object every front end searches through. It joins the
// catalogs of all configured sources into one space of global row ids (row r
// of source s is starts[s] + r), keeps one ascending global order per sort
// key that any source stores, runs a query on every source and returns the
// matching global ids in the requested order, and turns a global id back into
// a displayable row.
//
// Immutable after construction except the volume-label order, built on first
// use under its own lock; share it freely between threads. Holds the sources'
// catalogs, indexes and the tables alive.
//
// Errors: construction throws KernelError::invalid when the sources and
// indexes do not pair up or the rows of all sources exceed 2^31 - 1;
// search() throws KernelError::invalid("Unsupported sort: " + name) before
// any source is searched, and KernelError::invalid(SearchMemory::kMessage)
// when the result would not fit in memory (checked before it is allocated,
// and for any allocation that fails during the search); row() throws
// KernelError::invalid for an id out of range.

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kernel/base/column.h"
#include "kernel/catalog/catalog.h"
#include "kernel/catalog/compatibility.h"
#include "kernel/query/execution_planner.h"
#include "kernel/query/global_order.h"
#include "kernel/query/joined_orders_store.h"
#include "kernel/query/search_index.h"
#include "kernel/query/sort_spec.h"

namespace tarv {

class JoinedSearch {
 public:
  struct Source {
    std::string id;
    std::string label;
    CatalogPtr catalog;
  };

  // One displayable record. Absent optionals mean unknown (or no column).
  struct Row {
    std::int64_t id = 0;
    std::string sourceId;
    std::string name;  // decoded, ill-formed units repaired
    std::string path;  // the full display path
    int kind = 0;      // 1 is a folder
    std::optional<std::uint64_t> size;
    std::optional<std::int64_t> modifiedMs;  // milliseconds since 1970 UTC
    std::optional<std::int64_t> createdMs;
    std::optional<std::uint64_t> sizeOnDisk;
    std::optional<std::string> device;  // volume label
  };

  // How a selection is turned into the ordered result. Results of at most
  // max(sortAtMost, total rows / sortRatio) members are gathered and sorted
  // with the cross-source comparison; larger ones are read off the global
  // order in parallel chunks. Tests move these to reach every path.
  struct Tuning {
    std::int64_t sortAtMost = 2048;
    std::int64_t sortRatio = 1024;
    std::int64_t scanMinimum = ExecutionPlanner::kScanMinimum;  // rows per scan chunk
    std::int64_t walkMinimum = 1 << 16;                          // order entries per walk chunk
    // Bytes an ordered result may take; absent: what the system can still give.
    std::optional<std::uint64_t> memoryBudget;
  };

  struct Result {
    std::int64_t total = 0;
    // The first min(total, wanted) matching global ids in the requested order
    // (every match when search() was not given `wanted`).
    Column<std::int32_t> ids;
    // Per source, the strategy its planner ran and the rows it matched.
    std::vector<ExecutionPlanner::Strategy> strategies;
    std::vector<std::int64_t> counts;
  };

  // `indexes[i]` must index `sources[i].catalog`. `cacheKeys` are the sources'
  // index-cache keys (empty strings when there is no cache); they name the
  // joined orders.
  JoinedSearch(std::vector<Source> sources, std::vector<SearchIndexPtr> indexes, std::vector<std::string> cacheKeys,
               std::shared_ptr<const Compatibility> compatibility);
  // With `ordersStore`, the global orders come from (and merged ones go to)
  // that store under joinKey(); it is used during construction only.
  JoinedSearch(std::vector<Source> sources, std::vector<SearchIndexPtr> indexes, std::vector<std::string> cacheKeys,
               std::shared_ptr<const Compatibility> compatibility, Tuning tuning,
               const JoinedOrdersStore* ordersStore = nullptr);

  JoinedSearch(const JoinedSearch&) = delete;
  JoinedSearch& operator=(const JoinedSearch&) = delete;

  // The sort name is checked first; then every source's planner selects its
  // rows, and the members are taken in the order of the sort's key (read
  // backwards for descending sorts: the exact reverse, folders last).
  Result search(std::string_view query, std::string_view sort) const;
  // The same count, but only the first `wanted` ids of the order are made:
  // a page or a count (wanted 0) never pays for ordering every match. The
  // ids are exactly the first `wanted` of the full search's.
  Result search(std::string_view query, std::string_view sort, std::int64_t wanted) const;

  Row row(std::int64_t id) const;

  // Rows of all sources together.
  std::int64_t total() const noexcept { return order_.total(); }
  // Global id of each source's first row, plus the total as last entry.
  const std::vector<std::int64_t>& starts() const noexcept { return order_.starts(); }
  // The fourteen accepted sort names.
  static const std::vector<std::string>& sorts();

  const std::vector<Source>& sources() const noexcept { return sources_; }
  const std::vector<SearchIndexPtr>& indexes() const noexcept { return indexes_; }
  const std::vector<ExecutionPlanner>& engines() const noexcept { return engines_; }
  const std::vector<std::string>& cacheKeys() const noexcept { return cacheKeys_; }
  const Compatibility& compatibility() const noexcept { return *compatibility_; }
  // 32 lowercase hex digits derived from the cache keys in order; changes
  // whenever any of them does.
  const std::string& joinKey() const noexcept { return joinKey_; }
  // The keys with a global order: those that any source stores.
  const std::vector<SortKey>& storedKeys() const noexcept { return storedKeys_; }

  // Every global id in ascending order of `key`; device is built on first use.
  Column<std::int32_t> order(SortKey key) const;
  // The comparison behind every order (descending negates).
  int compare(std::int32_t a, std::int32_t b, SortSpec spec) const noexcept;

 private:
  Result searchValidated(std::string_view query, SortSpec spec, std::int64_t wanted) const;
  Column<std::int32_t> ordered(std::vector<Bitset>& selections, std::int64_t total, SortSpec spec) const;
  // The first `wanted` (< total) members of the order, walked from its start
  // (or its end for descending sorts) until they are found.
  Column<std::int32_t> firstOrdered(std::vector<Bitset>& selections, std::int64_t total, std::int64_t wanted,
                                    SortSpec spec) const;

  std::vector<Source> sources_;
  std::vector<SearchIndexPtr> indexes_;
  std::vector<ExecutionPlanner> engines_;
  std::vector<std::string> cacheKeys_;
  std::shared_ptr<const Compatibility> compatibility_;
  Tuning tuning_;
  GlobalOrder order_;
  std::string joinKey_;
  std::vector<SortKey> storedKeys_;
  std::vector<Column<std::int32_t>> orders_;  // parallel to storedKeys_
  mutable std::optional<Column<std::int32_t>> deviceOrder_;
  mutable std::mutex deviceLock_;
};

using JoinedSearchPtr = std::shared_ptr<const JoinedSearch>;

}  // namespace tarv
