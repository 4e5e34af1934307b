#pragma once
// JoinedOrdersCache: what the joined search derives across its sources, kept
// in the index cache directory as one index file per join key:
// "<joinKey>.tarvidx" with one Int32 section "order.<key name>" per stored
// sort key, one Int32 section "parentRanks.<n>" per source (n from 0, in
// source order), and the meta values "joinKey" (string), "joinSources" and
// "joinTotal" (integers).
//
// A stored file is used only when all of these hold: the meta values match
// the join key, source count and total asked for; every asked key and every
// source has its section; every order holds exactly `total` ids; every
// source's ranks are as many as its parent texts. These checks take constant
// time: the ids and ranks themselves are not read at load, so a damaged value
// reaches the joined search, whose users check an id before using it as one
// (and only ever compare ranks). An unusable file is deleted and everything
// is derived again. A usable file's modification time is set to
// now, so pruning sees it as in use.
//
// Derived state is written in the background (one detached thread in the
// PendingWrites group) under the cache directory's write lock; a failure is
// one line on standard error ("Tarv: index file not written (<reason>)").
// With one source nothing is stored: its own orders are the global ones.
// Trace phases: "join.map", "join.orders" (deriving), "join.store".
//
// Immutable; share freely between threads.

#include <filesystem>
#include <optional>

#include "kernel/query/joined_orders_store.h"

namespace tarv {

class JoinedOrdersCache final : public JoinedOrdersStore {
 public:
  explicit JoinedOrdersCache(std::filesystem::path directory);

  Joined obtain(const Request& request, const std::function<Joined()>& merge) const override;

  // The stored state when the file is present and usable; an unusable file
  // is deleted. Never throws.
  std::optional<Joined> map(const Request& request) const noexcept;
  // Writes the state now, on the calling thread; a file another writer
  // finished meanwhile is kept. Never throws.
  void store(const Request& request, const Joined& joined) const noexcept;

  std::filesystem::path fileOf(const std::string& joinKey) const;

 private:
  std::filesystem::path directory_;
};

}  // namespace tarv
