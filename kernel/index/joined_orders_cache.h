#pragma once
// JoinedOrdersCache: the joined search's global orders kept in the index
// cache directory, as one index file per join key: "<joinKey>.tarvidx" with
// one Int32 section "order.<key name>" per stored sort key and the meta
// values "joinKey" (string), "joinSources" and "joinTotal" (integers).
//
// A stored file is used only when all of these hold: the meta values match
// the join key, source count and total asked for; every asked key has its
// section; every section holds exactly `total` ids, each in 0 ..< total
// (checked in one pass on the worker pool, so a damaged file can never send
// a search outside its rows). An unusable file is deleted and the orders are
// merged again. A usable file's modification time is set to now, so pruning
// sees it as in use.
//
// Merged orders are written in the background (one detached thread in the
// PendingWrites group) under the cache directory's write lock; a failure is
// one line on standard error ("Tarv: index file not written (<reason>)").
// With one source nothing is stored: its own orders are the global ones.
//
// Immutable; share freely between threads.

#include <filesystem>
#include <optional>

#include "kernel/query/joined_orders_store.h"

namespace tarv {

class JoinedOrdersCache final : public JoinedOrdersStore {
 public:
  explicit JoinedOrdersCache(std::filesystem::path directory);

  Orders obtain(const std::string& joinKey, std::span<const SortKey> keys, std::size_t sourceCount,
                std::int64_t total, const std::function<Orders()>& merge) const override;

  // The stored orders when the file is present and usable (trace "join.map");
  // an unusable file is deleted. Never throws.
  std::optional<Orders> map(const std::string& joinKey, std::span<const SortKey> keys, std::size_t sourceCount,
                            std::int64_t total) const noexcept;
  // Writes the orders now, on the calling thread (trace "join.store"); a file
  // another writer finished meanwhile is kept. Never throws.
  void store(const std::string& joinKey, std::span<const SortKey> keys, std::size_t sourceCount,
             std::int64_t total, const Orders& orders) const noexcept;

  std::filesystem::path fileOf(const std::string& joinKey) const;

 private:
  std::filesystem::path directory_;
};

}  // namespace tarv
