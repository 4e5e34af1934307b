#pragma once
// SnapshotRecordReader: reads one line of a snapshot file on its own, running
// every check that does not depend on other records. Duplicate detection
// needs all earlier records, so it is left to the caller, which is also why
// problems are returned rather than thrown: a problem found after the
// duplicate check only counts when the record is not a duplicate.
//
// One reader per thread; it keeps parser buffers between records. Throws
// std::bad_alloc only.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

#include "kernel/base/text.h"

namespace tarv::snapshot {

struct RecordOutcome {
  // The first failed check before duplicate detection, else nullptr.
  const char* earlyProblem = nullptr;
  // The first failed check after duplicate detection, else nullptr.
  const char* lateProblem = nullptr;
  // Without an early problem: the path's canonical UTF-16 units, appended
  // to the caller's buffer at [unitsStart, unitsStart + unitsLength).
  std::size_t unitsStart = 0;
  std::size_t unitsLength = 0;
  // Without any problem: what the catalog stores.
  bool folder = false;
  std::uint64_t size = 0;      // unknown for folders
  std::uint64_t modified = 0;  // FILETIME ticks or unknown
  std::uint64_t created = 0;
};

class SnapshotRecordReader {
 public:
  // `canonicalRoot`: the scanned root in NFC form; must outlive the reader.
  explicit SnapshotRecordReader(std::string_view canonicalRoot);
  ~SnapshotRecordReader();
  SnapshotRecordReader(const SnapshotRecordReader&) = delete;
  SnapshotRecordReader& operator=(const SnapshotRecordReader&) = delete;

  // Reads the record at [data, data + length). The bytes up to `readableEnd`
  // (at least `length` past `data`) may be read ahead by the parser.
  RecordOutcome read(const char* data, std::size_t length, const char* readableEnd, Text& units);

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace tarv::snapshot
