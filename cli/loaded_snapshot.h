#pragma once
// LoadedSnapshot: what the command line needs from the index snapshot of one
// configuration (every source loaded and joined): run a joined search, turn a
// global id into a displayable row, report what was loaded, and wait for the
// index files still being written in the background.
//
// The engine's index snapshot satisfies this through a thin adapter made by
// loadSnapshot (cli/searcher.h). Implementations are immutable after loading
// and may be searched from several threads.

#include <cstdint>
#include <string>
#include <vector>

#include "cli/search_result.h"
#include "kernel/base/column.h"
#include "kernel/config/configuration.h"

namespace tarv::cli {

class LoadedSnapshot {
 public:
  virtual ~LoadedSnapshot() = default;

  // What a search found: how many rows match, and the first of them.
  struct Matches {
    std::int64_t total = 0;
    Column<std::int32_t> ids;  // the first min(total, wanted) global ids, in order
  };

  // The rows matching `query`, counted in full but ordered by `sort` only as
  // far as the first `wanted` (0: count only). Throws
  // KernelError::invalid("Unsupported sort: " + sort) for an unknown sort
  // name, before any source is searched.
  virtual Matches search(const std::string& query, const std::string& sort, std::int64_t wanted) const = 0;
  // The row of one global id (0 <= id < totalRecords()).
  virtual ResultRow row(std::int32_t id) const = 0;
  // Records of all sources together.
  virtual std::int64_t totalRecords() const = 0;
  // The configuration's sources in file order, and each one's record count.
  virtual const std::vector<Configuration::Source>& sources() const = 0;
  virtual const std::vector<std::int64_t>& counts() const = 0;
  // Waits for background index writes, at most 60 seconds.
  virtual void finishWrites() const = 0;
};

}  // namespace tarv::cli
