#pragma once
// What one search hands the front ends: the total number of matches, the
// rows of the requested page and the search time; and the JSON and text forms
// the command line (and the MCP server) print them in. Plain values.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "kernel/base/json.h"

namespace tarv::cli {

// One displayable record, as the joined search builds it for a global row id.
struct ResultRow {
  std::int64_t id = 0;             // global row id
  std::string sourceId;
  std::string name;                // UTF-8, ill-formed units already repaired
  std::string path;                // full display path, UTF-8
  int kind = 0;                    // record kind code; 1 is a folder
  std::optional<std::uint64_t> size;
  std::optional<std::int64_t> modifiedMs;  // milliseconds since 1970 UTC
  std::optional<std::int64_t> createdMs;
  std::optional<std::uint64_t> sizeOnDisk;  // never printed
  std::optional<std::string> device;        // volume label
};

struct SearchResult {
  std::int64_t total = 0;  // every match, not just this page
  std::vector<ResultRow> rows;
  double searchMs = 0;     // already rounded to two decimals
};

// The kind code of folders.
inline constexpr int kFolderKind = 1;

// {"path", "name", "type", "source"} plus "size", "modified", "created" and
// "volume" only when the row has them; never null, never "sizeOnDisk".
json::Value rowObject(const ResultRow& row);

// {"query", "sort", "total", "offset", "returned", "searchMs", "results"}.
json::Value searchResultObject(const std::string& query, const std::string& sort, std::int64_t offset,
                               const SearchResult& result);

// One path per line without a final line feed; empty for no rows.
std::string pathLines(const SearchResult& result);

// Milliseconds rounded to two decimals, halves away from zero.
double roundToHundredths(double ms);

}  // namespace tarv::cli
