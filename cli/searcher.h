#pragma once
// Searcher: the command line's holder of the configuration location, the
// compatibility table and the loaded snapshot. It loads the snapshot on first
// use and again only when the configuration file's modification date changes,
// so a long-lived Searcher (the MCP server) follows the app's edits cheaply.
// Used from one thread at a time.
//
// Errors: KernelError from every step (missing configuration, invalid
// configuration, table or source failures, unknown sort names).

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "cli/loaded_snapshot.h"
#include "cli/search_result.h"
#include "cli/status_report.h"
#include "kernel/catalog/compatibility.h"
#include "kernel/config/configuration.h"

namespace tarv::cli {

// ---------------------------------------------------------------------------
// ENGINE HANDOVER POINT. Builds the snapshot of a validated configuration:
// every source through the index cache, joined into one search. This is the
// one place where the command line meets the search engine; until the engine
// is linked in it throws KernelError::io("search engine not available yet").
// Defined in cli/snapshot_loader.cpp.
// ---------------------------------------------------------------------------
std::shared_ptr<const LoadedSnapshot> loadSnapshot(const Configuration& config,
                                                   const std::shared_ptr<const Compatibility>& compatibility);

class Searcher {
 public:
  using Loader = std::function<std::shared_ptr<const LoadedSnapshot>(
      const Configuration&, const std::shared_ptr<const Compatibility>&)>;

  // Sets TARV_INDEX_CACHE to the app's index-cache folder when the variable is
  // unset, then loads the compatibility table found from `arguments` (all of
  // argv: "--compatibility FILE", else the default location).
  Searcher(std::filesystem::path config, const std::vector<std::string>& arguments);
  // With an explicit table and snapshot loader (tests, other front ends);
  // leaves the environment alone.
  Searcher(std::filesystem::path config, std::shared_ptr<const Compatibility> compatibility,
           Loader loader = loadSnapshot);

  // The snapshot to search. Throws KernelError::io("No index yet: ...") when
  // no file exists at the configuration path. A failed reload keeps the
  // previous snapshot and date for the next comparison.
  std::shared_ptr<const LoadedSnapshot> current();

  // Runs the query and builds the rows of matches offset .. offset+limit-1
  // (fewer at the end; none when offset >= total or limit < 1). Only the
  // joined search is timed.
  SearchResult search(const std::string& query, const std::string& sort, std::int64_t offset, std::int64_t limit);

  // The configuration path, the total and each source with its count.
  StatusReport status();

  // Waits for the background index writes of the held snapshot, if any.
  void finishWrites() const;

  const std::filesystem::path& config() const noexcept { return config_; }
  const std::shared_ptr<const Compatibility>& compatibility() const noexcept { return compatibility_; }

 private:
  std::filesystem::path config_;
  std::shared_ptr<const LoadedSnapshot> snapshot_;
  std::optional<std::filesystem::file_time_type> loadedStamp_;
  std::shared_ptr<const Compatibility> compatibility_;
  Loader loader_;
};

}  // namespace tarv::cli
