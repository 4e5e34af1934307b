#pragma once
// IndexSnapshot: every source of one configuration loaded and joined into one
// search. Sources load one after another on the calling thread through the
// index cache (IndexCache: a usable cache file is mapped, otherwise the
// file's fingerprint, the catalog through the source's reader and its search
// index are made afresh; the per-row work runs on the worker pool). A fresh
// load's cache file is written on a background thread that starts as soon as
// its catalog is complete, beside the index build; stale cache files are
// pruned on one more background thread once every write has ended; the
// joined search's global orders are cached the same way. All of them belong
// to the PendingWrites group that finishWrites() waits for.
//
// Immutable once built; share it between threads. A newer configuration gives
// a new snapshot.
//
// Errors: construction passes on the first failure as it is: the
// configuration's KernelError::invalid, a source's read or record errors
// (KernelError::io / invalid), the joined search's limits.

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "kernel/catalog/compatibility.h"
#include "kernel/config/configuration.h"
#include "kernel/query/joined_search.h"

namespace tarv {

class IndexSnapshot {
 public:
  // Reads the configuration file at `config`, then loads as below.
  IndexSnapshot(const std::filesystem::path& config, std::shared_ptr<const Compatibility> compatibility);
  // Loads every source of an already read configuration.
  IndexSnapshot(const Configuration& configuration, std::shared_ptr<const Compatibility> compatibility);

  IndexSnapshot(const IndexSnapshot&) = delete;
  IndexSnapshot& operator=(const IndexSnapshot&) = delete;

  const JoinedSearch& search() const noexcept { return *search_; }
  const JoinedSearchPtr& searchPointer() const noexcept { return search_; }
  // The configuration's sources in file order.
  const std::vector<Configuration::Source>& sources() const noexcept { return sources_; }
  // Each source's record count, same order.
  const std::vector<std::int64_t>& counts() const noexcept { return counts_; }
  // Each source file's SHA-256 (64 lowercase hex digits), same order.
  const std::vector<std::string>& fingerprints() const noexcept { return fingerprints_; }
  // Each source's index-cache key, same order (computed with or without a cache).
  const std::vector<std::string>& keys() const noexcept { return keys_; }

  // Waits until the index files still being written in the background (by
  // any snapshot of this process) are done, at most 60 seconds.
  static void finishWrites();

 private:
  std::vector<Configuration::Source> sources_;
  std::vector<std::int64_t> counts_;
  std::vector<std::string> fingerprints_;
  std::vector<std::string> keys_;
  JoinedSearchPtr search_;
};

using IndexSnapshotPtr = std::shared_ptr<const IndexSnapshot>;

}  // namespace tarv
