#pragma once
// JoinedOrdersStore: where a joined search keeps its global orders between
// processes. Merging the sources' orders costs a pass over every row per key;
// a store hands back the orders a previous process merged for the same
// sources (named by the join key), or merges them through the caller's
// function and keeps them for the next process.
//
// The implementation over the index cache lives above the query engine; the
// joined search only sees this interface. Implementations must be safe to
// call from any thread and keep no reference to the arguments after
// returning (background work holds the orders' columns, which own their
// memory).

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <vector>

#include "kernel/base/column.h"
#include "kernel/query/sort_key.h"

namespace tarv {

class JoinedOrdersStore {
 public:
  using Orders = std::vector<Column<std::int32_t>>;

  virtual ~JoinedOrdersStore() = default;

  // The ascending global order of each of `keys` (same order; each `total`
  // ids long) over `sourceCount` sources joined under `joinKey`. Returns the
  // stored orders when usable; otherwise calls `merge` once and returns its
  // result. Throws only what `merge` throws.
  virtual Orders obtain(const std::string& joinKey, std::span<const SortKey> keys, std::size_t sourceCount,
                        std::int64_t total, const std::function<Orders()>& merge) const = 0;
};

}  // namespace tarv
