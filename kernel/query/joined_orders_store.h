#pragma once
// JoinedOrdersStore: where a joined search keeps what it derives across its
// sources between processes. Merging the sources' orders costs a pass over
// every row per key, and ranking the parent texts of all sources a merge of
// every parent text; a store hands back what a previous process derived for
// the same sources (named by the join key), or derives it through the
// caller's function and keeps it for the next process.
//
// The implementation over the index cache lives above the query engine; the
// joined search only sees this interface. Implementations must be safe to
// call from any thread and keep no reference to the arguments after
// returning (background work holds the columns, which own their memory).

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "kernel/base/column.h"
#include "kernel/query/sort_key.h"

namespace tarv {

class JoinedOrdersStore {
 public:
  using Orders = std::vector<Column<std::int32_t>>;

  // What is asked for: the join key of the sources, the sort keys with a
  // global order, the rows of all sources, and each source's parent count.
  struct Request {
    std::string joinKey;
    std::vector<SortKey> keys;
    std::int64_t total = 0;
    std::vector<std::int64_t> parentCounts;  // one per source, in order
  };

  // The derived state: per key (as in the request) every global id in
  // ascending order; per source the global rank of each parent text.
  struct Joined {
    Orders orders;
    Orders parentRanks;
  };

  virtual ~JoinedOrdersStore() = default;

  // The stored state when it is usable for `request`; otherwise calls
  // `merge` once and returns its result. Throws only what `merge` throws.
  // Stored state is checked for its shape only (one order of `total` ids per
  // key, one rank per parent text), in constant time: the values are not
  // read, so an id may lie outside 0 ..< total and a rank out of range. The
  // joined search checks an id before it looks anything up with it and only
  // ever compares ranks.
  virtual Joined obtain(const Request& request, const std::function<Joined()>& merge) const = 0;
};

}  // namespace tarv
