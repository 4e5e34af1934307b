#pragma once
// PageWriter: the JSON body of one page of a stored result,
// {"offset": N, "rows": [...]}, written straight into one string. Paging is
// the service's hot route, and building a document tree per row cost more
// than reading the rows; the text is byte-for-byte what json::encode makes of
// the same objects (sorted keys, unescaped slashes, absent values left out).
//
// Plain functions; never throw except for memory and JoinedSearch::row's
// KernelError::invalid for an id out of range.

#include <cstdint>
#include <string>
#include <string_view>

#include "kernel/base/column.h"
#include "kernel/base/json.h"
#include "kernel/query/joined_search.h"

namespace tarv::page {

// The page of `ids[first .. end)` (end <= ids.size()) reported at `offset`.
std::string body(const JoinedSearch& search, const Column<std::int32_t>& ids, std::int64_t offset, std::size_t first,
                 std::size_t end);

// One row as a JSON object text.
void appendRow(std::string& out, const JoinedSearch::Row& row);

// The same row as a document (the reference the writer must match).
json::Value rowObject(const JoinedSearch::Row& row);

// `text` as a JSON string literal, escaped like json::encode.
void appendString(std::string& out, std::string_view text);

}  // namespace tarv::page
