#include "cli/mcp_tools.h"

#include <algorithm>
#include <cmath>
#include <exception>
#include <limits>

#include "core/ai/search_syntax.h"
#include "kernel/base/kernel_error.h"
#include "kernel/query/sort_spec.h"

namespace tarv::cli::mcp {
namespace {

constexpr std::int64_t kMinimumLimit = 1;
constexpr std::int64_t kMaximumLimit = 1000;
constexpr std::int64_t kDefaultLimit = 50;

// Agents read this to decide when and how to call the tool, so the examples
// cover the forms they need most: extension and date, folders, type groups
// with sizes, and a project tree without its tests.
constexpr const char* kSearchFilesDescription =
    "Search file and folder names on this Mac (and the external disks and NAS indexed by Tarv) in milliseconds, "
    "with Vantor's search syntax. Returns full paths with size, dates and type. Call search_syntax once for the "
    "full syntax. Examples: 'ext:pdf invoice dm:2026-10', 'folder: node_modules', 'video: size:>1gb', "
    "'path:/Users/me/Projects ext:rs !test'.";

json::Value emptyObjectSchema() {
  return json::Value{{"type", "object"}, {"properties", json::Value::object()}};
}

json::Value searchFilesSchema() {
  json::Value sorts = json::Value::array();
  for (std::string_view name : kSortNames) sorts.push_back(std::string(name));
  json::Value properties = json::Value::object();
  properties["query"] = {{"type", "string"}, {"description", "Vantor-syntax query; an empty string matches everything."}};
  properties["sort"] = {{"type", "string"}, {"enum", std::move(sorts)}, {"default", "name-asc"}};
  properties["limit"] = {
      {"type", "integer"}, {"minimum", kMinimumLimit}, {"maximum", kMaximumLimit}, {"default", kDefaultLimit}};
  properties["offset"] = {{"type", "integer"}, {"minimum", 0}, {"default", 0}};
  return json::Value{
      {"type", "object"}, {"required", json::Value::array({"query"})}, {"properties", std::move(properties)}};
}

json::Value tool(std::string_view name, std::string_view description, json::Value schema) {
  return json::Value{{"name", std::string(name)}, {"description", std::string(description)}, {"inputSchema", std::move(schema)}};
}

const json::Value* member(const json::Value& object, const char* key) {
  if (!object.is_object()) return nullptr;
  auto found = object.find(key);
  return found == object.end() ? nullptr : &*found;
}

// A message for a failed call: the kernel's own text, or the system's for
// anything else (memory, file system library), so the agent still learns why.
template <typename Body>
json::Value guarded(Body body) {
  try {
    return toolResult(body(), false);
  } catch (const KernelError& error) {
    return toolResult(error.message(), true);
  } catch (const std::exception& error) {
    return toolResult(error.what(), true);
  }
}

}  // namespace

json::Value toolList() {
  json::Value tools = json::Value::array();
  tools.push_back(tool(kSearchFiles, kSearchFilesDescription, searchFilesSchema()));
  tools.push_back(tool(kIndexStatus,
                       "What Tarv has indexed: folders, disks and NAS shares, record counts and when each was scanned.",
                       emptyObjectSchema()));
  tools.push_back(tool(kSearchSyntax, "The search syntax search_files understands, with examples.", emptyObjectSchema()));
  return tools;
}

std::optional<std::int64_t> wholeNumber(const json::Value& value) {
  constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();
  constexpr std::int64_t kMin = std::numeric_limits<std::int64_t>::min();
  if (value.is_number_integer() && !value.is_number_unsigned()) return value.get<std::int64_t>();
  if (value.is_number_unsigned()) {
    const std::uint64_t n = value.get<std::uint64_t>();
    return n > static_cast<std::uint64_t>(kMax) ? kMax : static_cast<std::int64_t>(n);
  }
  if (value.is_number_float()) {
    const double d = value.get<double>();
    if (!std::isfinite(d) || std::trunc(d) != d) return std::nullopt;
    // 2^63 is exactly representable; anything at or beyond it saturates.
    if (d >= 9223372036854775808.0) return kMax;
    if (d < -9223372036854775808.0) return kMin;
    return static_cast<std::int64_t>(d);
  }
  return std::nullopt;
}

SearchArguments SearchArguments::read(const json::Value& arguments) {
  SearchArguments read;
  if (const json::Value* query = member(arguments, "query"); query && query->is_string())
    read.query = query->get<std::string>();
  if (const json::Value* sort = member(arguments, "sort"); sort && sort->is_string())
    read.sort = sort->get<std::string>();
  if (const json::Value* limit = member(arguments, "limit"))
    read.limit = wholeNumber(*limit).value_or(kDefaultLimit);
  read.limit = std::clamp(read.limit, kMinimumLimit, kMaximumLimit);
  if (const json::Value* offset = member(arguments, "offset"))
    read.offset = wholeNumber(*offset).value_or(0);
  read.offset = std::max<std::int64_t>(read.offset, 0);
  return read;
}

json::Value toolResult(std::string text, bool isError) {
  json::Value content = json::Value::array();
  content.push_back(json::Value{{"type", "text"}, {"text", std::move(text)}});
  return json::Value{{"content", std::move(content)}, {"isError", isError}};
}

std::optional<json::Value> callTool(Searcher& searcher, const std::string& name, const json::Value& arguments) {
  if (name == kSearchSyntax) return toolResult(std::string(SearchSyntax::guide), false);
  if (name == kSearchFiles) {
    const SearchArguments values = SearchArguments::read(arguments);
    return guarded([&] {
      const SearchResult result = searcher.search(values.query, values.sort, values.offset, values.limit);
      return json::encode(searchResultObject(values.query, values.sort, values.offset, result));
    });
  }
  if (name == kIndexStatus) return guarded([&] { return json::encode(statusObject(searcher.status())); });
  return std::nullopt;
}

}  // namespace tarv::cli::mcp
