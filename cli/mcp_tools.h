#pragma once
// The three tools `tarv mcp` offers AI agents ("search_files", "index_status",
// "search_syntax"): their listing for "tools/list", the reading of a
// "search_files" call's arguments, and the running of a call against the
// Searcher. Tool failures are results with "isError" true, never exceptions,
// so the agent can read the message. Not thread safe (the Searcher is not).

#include <cstdint>
#include <optional>
#include <string>

#include "cli/searcher.h"
#include "kernel/base/json.h"

namespace tarv::cli::mcp {

inline constexpr std::string_view kSearchFiles = "search_files";
inline constexpr std::string_view kIndexStatus = "index_status";
inline constexpr std::string_view kSearchSyntax = "search_syntax";

// The tool objects ("name", "description", "inputSchema"), in listing order.
json::Value toolList();

// The values a "search_files" call runs with. Arguments of the wrong JSON type
// count as missing; out-of-range numbers are clamped, never rejected.
struct SearchArguments {
  std::string query;               // "query" as a string, else empty (matches everything)
  std::string sort = "name-asc";   // "sort" as a string
  std::int64_t limit = 50;         // "limit", clamped into 1 ..= 1000
  std::int64_t offset = 0;         // "offset", raised to 0 when negative

  static SearchArguments read(const json::Value& arguments);
};

// A JSON number that holds a whole value (an integer, or a float without a
// fraction), saturated to the 64-bit range; nothing for every other value,
// Booleans included.
std::optional<std::int64_t> wholeNumber(const json::Value& value);

// {"content": [{"type": "text", "text": text}], "isError": isError}.
json::Value toolResult(std::string text, bool isError);

// Runs the named tool with its arguments object; nothing when the name is not
// one of the three tools. Never throws for a failing search or status.
std::optional<json::Value> callTool(Searcher& searcher, const std::string& name, const json::Value& arguments);

}  // namespace tarv::cli::mcp
