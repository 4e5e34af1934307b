#pragma once
// The options of `tarv search`, read off the argument list in a fixed order
// (--sort, --limit, --offset, --json, --count); what remains is the query.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "cli/argument_list.h"
#include "cli/search_result.h"

namespace tarv::cli {

struct SearchOptions {
  std::string sort = "name-asc";
  std::int64_t limit = 100;
  std::int64_t offset = 0;
  bool json = false;
  bool count = false;
  std::string query;  // remaining arguments joined by one space

  // Consumes the options from `arguments`. Throws UsageError for a value-less
  // option, a limit below 1 or offset below 0 (non-numbers included), and
  // any remaining argument that starts with "--".
  static SearchOptions read(ArgumentList& arguments);
};

// What `tarv search` prints for `result`: with "count" the total alone (it
// wins over "json"); with "json" the pretty-printed result object; otherwise
// one path per line, and nothing at all (no empty line) for no rows.
std::optional<std::string> searchOutput(const SearchOptions& options, const SearchResult& result);

// A whole decimal number with an optional sign that fits 64 bits, else -1.
std::int64_t wholeNumberOr(const std::optional<std::string>& text, std::int64_t absent);

}  // namespace tarv::cli
