#pragma once
// ResultStore: the ordered row ids of a few recent query results, kept in
// memory under random ids so a client can page through them after running
// the query once. Entries live for a fixed time after their last use (every
// read renews it) and are evicted oldest-created first when the count or the
// memory bound is reached.
//
// Thread safety: every call takes the store's one lock for its whole
// duration, so request threads may share a store. Entries are returned as
// copies; the row column is shared, never copied or mutated.
//
// Errors: add() throws KernelError::invalid("Result exceeds memory limit;
// narrow the query") for a result larger than the memory bound.

#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "kernel/base/column.h"

namespace tarv {

class ResultStore {
 public:
  struct Entry {
    std::string id;                // random UUID, canonical text, lower case
    Column<std::int32_t> rows;     // global row ids of the whole result, in result order
    std::string sort;              // the sort name the result was made with
    double searchMs = 0;           // how long the search took
    std::int64_t expiresAt = 0;    // milliseconds since 1970 UTC
  };

  struct Limits {
    std::size_t maxEntries = 4;
    std::int64_t maxBytes = 134217728;  // 128 MiB of row ids
    std::int64_t ttlMillis = 120000;    // life after the last use
  };

  // Milliseconds since 1970 UTC.
  using Clock = std::function<std::int64_t()>;

  // The wall clock, truncated to whole milliseconds.
  static std::int64_t wallClockMillis();
  // A fresh random (version 4) UUID in lower-case canonical form.
  static std::string randomId();

  ResultStore() : ResultStore(Limits{}, wallClockMillis) {}
  ResultStore(Limits limits, Clock clock) : limits_(limits), clock_(std::move(clock)) {}

  ResultStore(const ResultStore&) = delete;
  ResultStore& operator=(const ResultStore&) = delete;

  // Row columns of dropped results, for the caller to free when it suits it.
  using Released = std::vector<Column<std::int32_t>>;

  // Stores a new result, evicting the oldest entries as needed, and returns
  // it. The row columns of the entries it drops go to `released` when given
  // (freeing millions of ids takes milliseconds, which a caller may rather
  // spend after answering); otherwise they are freed before add returns,
  // after the lock is let go.
  Entry add(Column<std::int32_t> rows, std::string sort, double searchMs, Released* released = nullptr);
  // The entry with exactly this id, its expiry renewed; nothing when unknown or expired.
  std::optional<Entry> get(const std::string& id);
  // Removes the entry with this id if there is one (no purge).
  void remove(const std::string& id);

  // Bytes of row ids held now (4 per row), and the number of entries.
  std::int64_t bytes() const;
  std::size_t size() const;

  const Limits& limits() const noexcept { return limits_; }

  // The bytes counted for a result of `rows` row ids.
  static std::int64_t bytesOf(std::size_t rows) noexcept { return static_cast<std::int64_t>(rows) * 4; }

 private:
  using Entries = std::vector<std::pair<std::string, Entry>>;
  // Moves the expired entries to `released`, keeping the others in order.
  void purge(std::int64_t now, Entries& released);

  Entries entries_;  // oldest first
  mutable std::mutex lock_;
  Limits limits_;
  Clock clock_;
};

}  // namespace tarv
