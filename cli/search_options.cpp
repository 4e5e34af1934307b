#include "cli/search_options.h"

#include <charconv>
#include <vector>

namespace tarv::cli {

std::int64_t wholeNumberOr(const std::optional<std::string>& text, std::int64_t absent) {
  if (!text) return absent;
  std::string_view digits = *text;
  // from_chars reads a leading "-" but not a "+"; "+-1" is no number.
  if (digits.starts_with('+')) {
    digits.remove_prefix(1);
    if (digits.starts_with('-')) return -1;
  }
  std::int64_t value = 0;
  auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
  if (error != std::errc() || end != digits.data() + digits.size()) return -1;
  return value;
}

SearchOptions SearchOptions::read(ArgumentList& arguments) {
  SearchOptions options;
  if (auto sort = arguments.take("--sort")) options.sort = std::move(*sort);
  options.limit = wholeNumberOr(arguments.take("--limit"), 100);
  options.offset = wholeNumberOr(arguments.take("--offset"), 0);
  options.json = arguments.flag("--json");
  options.count = arguments.flag("--count");
  if (options.limit < 1 || options.offset < 0)
    throw UsageError("--limit must be at least 1 and --offset at least 0");
  for (const std::string& argument : arguments.remaining())
    if (argument.starts_with("--")) throw UsageError("unknown option " + argument);
  const std::vector<std::string>& words = arguments.remaining();
  for (std::size_t i = 0; i < words.size(); ++i) {
    if (i > 0) options.query.push_back(' ');
    options.query += words[i];
  }
  return options;
}

std::optional<std::string> searchOutput(const SearchOptions& options, const SearchResult& result) {
  if (options.count) return std::to_string(result.total);
  if (options.json)
    return json::encode(searchResultObject(options.query, options.sort, options.offset, result), json::Style::pretty);
  if (result.rows.empty()) return std::nullopt;
  return pathLines(result);
}

}  // namespace tarv::cli
