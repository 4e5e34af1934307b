#include "cli/search_result.h"

#include <cmath>

#include "cli/date_formatter.h"

namespace tarv::cli {

json::Value rowObject(const ResultRow& row) {
  json::Value object = json::Value::object();
  object["path"] = row.path;
  object["name"] = row.name;
  object["type"] = row.kind == kFolderKind ? "folder" : "file";
  object["source"] = row.sourceId;
  if (row.size) object["size"] = *row.size;
  if (row.modifiedMs) object["modified"] = formatInternetDate(*row.modifiedMs);
  if (row.createdMs) object["created"] = formatInternetDate(*row.createdMs);
  if (row.device) object["volume"] = *row.device;
  return object;
}

json::Value searchResultObject(const std::string& query, const std::string& sort, std::int64_t offset,
                               const SearchResult& result) {
  json::Value results = json::Value::array();
  for (const ResultRow& row : result.rows) results.push_back(rowObject(row));
  json::Value object = json::Value::object();
  object["query"] = query;
  object["sort"] = sort;
  object["total"] = result.total;
  object["offset"] = offset;
  object["returned"] = static_cast<std::int64_t>(result.rows.size());
  object["searchMs"] = result.searchMs;
  object["results"] = std::move(results);
  return object;
}

std::string pathLines(const SearchResult& result) {
  std::string text;
  for (std::size_t i = 0; i < result.rows.size(); ++i) {
    if (i > 0) text.push_back('\n');
    text.append(result.rows[i].path);
  }
  return text;
}

double roundToHundredths(double ms) { return std::round(ms * 100.0) / 100.0; }

}  // namespace tarv::cli
