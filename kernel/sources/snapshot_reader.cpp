#include "kernel/sources/snapshot_reader.h"

#include <simdjson.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <optional>
#include <vector>

#include "kernel/base/kernel_error.h"
#include "kernel/catalog/catalog_builder.h"
#include "kernel/sources/canonical_path.h"
#include "kernel/sources/canonical_text.h"
#include "kernel/sources/byte_source.h"
#include "kernel/sources/chunk_pipeline.h"
#include "kernel/sources/load_progress.h"
#include "kernel/sources/snapshot_record.h"

namespace tarv::SnapshotReader {
namespace {

using snapshot::RecordOutcome;
using snapshot::SnapshotRecordReader;

// Parse threads: more than the processors only queue up behind the single
// builder thread.
constexpr int kMaxWorkers = 8;

// The outcomes of one chunk's lines, in order.
struct Batch {
  std::vector<RecordOutcome> records;
  Text units;  // the records' path units
  bool invalidUtf8 = false;  // then nothing was parsed
  bool emptyText = false;    // the chunk is the file's last and holds no line
};

// Position of the first "\n" or "\r" at or after `from`, or end. Each byte is
// looked at about once over a whole chunk: the next position of each
// separator is remembered until the cursor passes it.
class LineCutter {
 public:
  LineCutter(const char* begin, const char* end) : end_(end), nextLf_(find(begin, '\n')), nextCr_(find(begin, '\r')) {}

  const char* nextSeparator(const char* from) {
    if (nextLf_ < from) nextLf_ = find(from, '\n');
    if (nextCr_ < from) nextCr_ = find(from, '\r');
    return std::min(nextLf_, nextCr_);
  }

 private:
  const char* find(const char* from, char c) const {
    auto* found = static_cast<const char*>(std::memchr(from, c, static_cast<std::size_t>(end_ - from)));
    return found ? found : end_;
  }
  const char* end_;
  const char* nextLf_;
  const char* nextCr_;
};

// Reads the lines of a chunk. Chunks are cut after a line feed, so every
// chunk but the file's last ends with a separator (a CR-LF pair stays whole).
// Each separator ends one line; what follows the last separator of the file
// is one more line unless it is empty. So one final separator ends the last
// line instead of starting a blank one, and a blank line inside the file is
// a record of its own.
class ChunkReader {
 public:
  struct Setup {
    std::string_view canonicalRoot;
    // Set once a record has failed: the rest of the file is only checked
    // for invalid UTF-8, which would take precedence.
    std::atomic<bool> checkOnly{false};
  };

  explicit ChunkReader(const Setup& setup) : setup_(setup), reader_(setup.canonicalRoot) {}

  void parse(std::string_view chunk, bool last, Batch& batch) {
    batch.records.clear();
    batch.units.clear();
    batch.invalidUtf8 = !simdjson::validate_utf8(chunk.data(), chunk.size());
    if (batch.invalidUtf8 || setup_.checkOnly.load(std::memory_order_relaxed)) return;
    const char* begin = chunk.data();
    const char* end = begin + chunk.size();
    batch.emptyText = last && (chunk.empty() || chunk == "\n" || chunk == "\r" || chunk == "\r\n");
    LineCutter cutter(begin, end);
    for (const char* cursor = begin; cursor < end;) {
      const char* separator = cutter.nextSeparator(cursor);
      batch.records.push_back(reader_.read(cursor, static_cast<std::size_t>(separator - cursor), end, batch.units));
      if (separator == end) break;
      cursor = separator + (separator[0] == '\r' && separator + 1 < end && separator[1] == '\n' ? 2 : 1);
    }
  }

 private:
  const Setup& setup_;
  SnapshotRecordReader reader_;
};

// Feeds one batch to the builder. Duplicate detection runs here, in file
// order, between the checks a worker ran before it and those after it. A
// path already present fails as a duplicate whether add or the check finds
// it: both look for the same thing, and the duplicate check comes first.
void addRecords(const Batch& batch, std::uint64_t& recordNumber, NativeCatalogBuilder& builder) {
  const auto& records = batch.records;
  auto pathOf = [&](const RecordOutcome& record) {
    return TextView(batch.units.data() + record.unitsStart, record.unitsLength);
  };
  // How far ahead the duplicate table is loaded; probes are random reads.
  constexpr std::size_t kAhead = 6;
  for (std::size_t i = 0; i < records.size() && i < kAhead; ++i)
    if (!records[i].earlyProblem) builder.prefetch(pathOf(records[i]));
  for (std::size_t i = 0; i < records.size(); ++i) {
    if (i + kAhead < records.size() && !records[i + kAhead].earlyProblem)
      builder.prefetch(pathOf(records[i + kAhead]));
    const RecordOutcome& record = records[i];
    ++recordNumber;
    auto fail = [&](const std::string& problem) {
      throw KernelError::io("Snapshot record " + std::to_string(recordNumber) + ": " + problem);
    };
    if (record.earlyProblem) fail(record.earlyProblem);
    TextView path = pathOf(record);
    if (record.lateProblem) fail(builder.contains(path) ? "Duplicate path" : record.lateProblem);
    bool added = false;
    try {
      added = builder.addIfAbsent(path, record.folder ? 1 : 0, record.size, record.modified, record.created,
                                  kUnknown64, std::nullopt);
    } catch (const KernelError& error) {
      if (error.kind() != KernelError::Kind::invalid) throw;
      fail(error.message());
    }
    if (!added) fail("Duplicate path");
  }
}

}  // namespace

Catalog load(const std::filesystem::path& url, const std::string& sourceId, const std::string& root,
             const sources::ReadOptions& options) {
  canonical::checkAbsolutePosixPath(std::string_view(root));
  std::string rootStorage;
  ChunkReader::Setup setup{canonical::nfc(root, rootStorage)};
  NativeCatalogBuilder builder(sourceId, PathFlavor::posix, /*directorySizes=*/true);

  // The file is streamed in chunks: it is never held whole, so a load needs
  // about the memory of the catalog it builds, whatever the file's size.
  ByteSource source(url, ByteSource::Inflation::never);
  bool progress = LoadProgress::active();
  sources::ReadOptions cut = options;
  // A file of up to two bytes (possibly an empty text) arrives as one chunk.
  cut.chunkBytes = std::max<std::size_t>(cut.chunkBytes, 3);
  {
    sources::ChunkPipeline<ChunkReader, Batch> pipeline(source, "\n", /*skipFirstLine=*/false, cut,
                                                        sources::workerCount(options, kMaxWorkers), progress, setup);
    // Invalid UTF-8 anywhere fails the whole file before any record does, as
    // when the file was checked whole before its records were read.
    auto failOnInvalidUtf8 = [](const Batch& batch) {
      if (batch.invalidUtf8) throw KernelError::io("Input length = 1");
    };
    std::uint64_t recordNumber = 0;
    bool first = true;
    while (const Batch* batch = pipeline.next()) {
      failOnInvalidUtf8(*batch);
      if (first && batch->emptyText) throw KernelError::io("Empty snapshot");
      first = false;
      if (progress) sources::reportBatch(pipeline.position(), recordNumber, !batch->records.empty());
      try {
        addRecords(*batch, recordNumber, builder);
      } catch (const KernelError&) {
        setup.checkOnly = true;
        while (const Batch* rest = pipeline.next()) failOnInvalidUtf8(*rest);
        throw;
      }
    }
  }
  source.close();
  return builder.finish();
}

}  // namespace tarv::SnapshotReader
