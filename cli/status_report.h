#pragma once
// StatusReport: what is indexed, as `tarv status` and the MCP "index_status"
// tool show it; with its JSON object and its text form. Plain values.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "kernel/base/json.h"

namespace tarv::cli {

struct StatusReport {
  struct Source {
    std::string id;
    std::string label;
    std::string root;
    std::int64_t records = 0;
    std::string state;
    std::optional<std::string> scannedAt;
  };

  std::string configuration;  // the configuration file's path
  std::int64_t records = 0;   // records of all sources together
  std::vector<Source> sources;
};

// {"configuration", "records", "sources": [{"id", "label", "root", "records",
// "state", "scannedAt" (only when present)}]}.
json::Value statusObject(const StatusReport& report);

// "Configuration: PATH", "Records: N", then per source
// "  LABEL  ROOT  N records  scanned WHEN" (WHEN "-" when unknown); lines joined
// by line feeds, no final one.
std::string statusText(const StatusReport& report);

}  // namespace tarv::cli
