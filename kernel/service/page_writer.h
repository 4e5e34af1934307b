#pragma once
// The JSON body of one page of a stored result, {"offset": N, "rows": [...]}.
// Paging is the service's hot route, so PageWriter writes each row straight
// from the catalog columns into the caller's buffer: the path is written as
// parent text then name, UTF-16 to UTF-8 and JSON escaping in one pass, with
// no string made per row. The text is byte-for-byte what json::encode makes
// of the row objects JoinedSearch::row describes (sorted keys, unescaped
// slashes, absent values left out); the free functions below build that
// reference and tests compare the two.
//
// PageWriter is immutable after construction and may be shared between
// threads; it keeps the joined search alive. write() throws
// KernelError::invalid for an id outside the search (as JoinedSearch::row
// does) and std::bad_alloc; the buffer then holds a partial page.

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "kernel/base/column.h"
#include "kernel/base/json.h"
#include "kernel/base/text.h"
#include "kernel/query/joined_search.h"
#include "kernel/service/byte_buffer.h"

namespace tarv {

class PageWriter {
 public:
  explicit PageWriter(JoinedSearchPtr search);

  // Appends the page of `ids[first .. end)` (end <= ids.size()) reported at `offset`.
  void write(ByteBuffer& out, const Column<std::int32_t>& ids, std::int64_t offset, std::size_t first,
             std::size_t end) const;
  // Appends one row (a global id) as a JSON object.
  void writeRow(ByteBuffer& out, std::int64_t id) const;

 private:
  // What every row of one source shares, encoded once.
  struct Source {
    const Catalog* catalog = nullptr;
    std::int64_t start = 0;
    std::string sourceField;                 // ,"sourceId":"..."}
    std::vector<std::string> deviceFields;   // per device id: ,"device":"..." or empty
    std::size_t longestDeviceField = 0;
  };

  // The source of a global id and its row there; nullptr when out of range.
  const Source* locate(std::int64_t id, std::int32_t& row) const noexcept;
  // Loads link `link` (0: column entries, 1: text starts and the name,
  // 2: the parent text) of each row's reads; returns a value to keep.
  std::uint64_t touch(const std::int32_t* ids, std::size_t count, int link) const noexcept;

  JoinedSearchPtr search_;
  std::vector<Source> sources_;
};

// UTF-16 units as the body of a JSON string literal (no quotes): ill-formed
// units become U+FFFD as utf8() makes them, control characters, quote and
// backslash are escaped as json::encode escapes them. `first` and `second`
// are read as one text, so a surrogate pair split between them still makes
// one character. Writes at most 6 bytes per unit at `at`; returns the end.
char* writeJsonUnits(char* at, TextView first, TextView second = {}) noexcept;

namespace page {

// The same page built the plain way, through JoinedSearch::row.
std::string body(const JoinedSearch& search, const Column<std::int32_t>& ids, std::int64_t offset, std::size_t first,
                 std::size_t end);

// One row as a JSON object text.
void appendRow(std::string& out, const JoinedSearch::Row& row);

// The same row as a document (the reference the writers must match).
json::Value rowObject(const JoinedSearch::Row& row);

// `text` as a JSON string literal, escaped like json::encode.
void appendString(std::string& out, std::string_view text);

}  // namespace page
}  // namespace tarv
