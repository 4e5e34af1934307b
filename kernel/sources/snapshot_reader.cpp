#include "kernel/sources/snapshot_reader.h"

#include <simdjson.h>

#include <algorithm>
#include <condition_variable>
#include <cstring>
#include <exception>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "core/platform/system_info.h"
#include "kernel/base/kernel_error.h"
#include "kernel/catalog/catalog_builder.h"
#include "kernel/sources/canonical_path.h"
#include "kernel/sources/canonical_text.h"
#include "kernel/sources/load_progress.h"
#include "kernel/sources/snapshot_file.h"
#include "kernel/sources/snapshot_record.h"

namespace tarv::SnapshotReader {
namespace {

using snapshot::RecordOutcome;
using snapshot::SnapshotRecordReader;

// Lines are read in chunks of about this size, on as many threads as there
// are processors, while the calling thread feeds the builder in file order.
constexpr std::size_t kChunkBytes = std::size_t{1} << 20;
constexpr int kMaxWorkers = 8;

// Text of whole lines: [begin, end), not counting the separator after it.
struct Chunk {
  const char* begin;
  const char* end;
};

// The outcomes of one chunk's lines, in order.
struct Batch {
  std::vector<RecordOutcome> records;
  Text units;  // the records' path units
  std::exception_ptr failure;
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

void readChunk(SnapshotRecordReader& reader, Chunk chunk, const char* readableEnd, Batch& batch) {
  batch.records.clear();
  batch.units.clear();
  batch.failure = nullptr;
  try {
    LineCutter cutter(chunk.begin, chunk.end);
    for (const char* cursor = chunk.begin;;) {
      const char* separator = cutter.nextSeparator(cursor);
      batch.records.push_back(
          reader.read(cursor, static_cast<std::size_t>(separator - cursor), readableEnd, batch.units));
      if (separator == chunk.end) break;
      cursor = separator + (separator[0] == '\r' && separator + 1 < chunk.end && separator[1] == '\n' ? 2 : 1);
    }
  } catch (...) {
    batch.failure = std::current_exception();
  }
}

// Cuts [begin, end) into chunks that end at a line feed. A CR-LF pair stays
// whole; a file separated by CR alone stays one chunk. A separator that ends
// the text still starts one more (empty) line, as it does without chunks.
std::vector<Chunk> cutChunks(const char* begin, const char* end) {
  std::vector<Chunk> chunks;
  const char* start = begin;
  while (static_cast<std::size_t>(end - start) > kChunkBytes) {
    auto* lf = static_cast<const char*>(std::memchr(start + kChunkBytes, '\n', static_cast<std::size_t>(end - start - kChunkBytes)));
    if (!lf) break;
    chunks.push_back(Chunk{start, lf[-1] == '\r' ? lf - 1 : lf});
    start = lf + 1;
  }
  chunks.push_back(Chunk{start, end});
  return chunks;
}

// Reads chunks ahead on worker threads, at most `window` chunks beyond the
// one the caller is consuming, so memory stays bounded. Workers never throw:
// a failure travels in its batch. The destructor stops and joins them.
class ChunkPipeline {
 public:
  ChunkPipeline(const std::vector<Chunk>& chunks, const char* readableEnd, std::string_view root, int workers)
      : chunks_(chunks), readableEnd_(readableEnd), root_(root), window_(2 * static_cast<std::size_t>(workers) + 2),
        ready_(chunks.size(), 0) {
    for (std::size_t i = 0; i < window_; ++i) batches_.push_back(std::make_unique<Batch>());
    for (int i = 0; i < workers; ++i) threads_.emplace_back([this] { work(); });
  }

  ~ChunkPipeline() {
    {
      std::lock_guard lock(mutex_);
      stop_ = true;
    }
    changed_.notify_all();
    for (auto& thread : threads_) thread.join();
  }

  ChunkPipeline(const ChunkPipeline&) = delete;
  ChunkPipeline& operator=(const ChunkPipeline&) = delete;

  // Waits until chunk i is read. Chunks are taken in order.
  Batch& take(std::size_t i) {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return ready_[i] != 0; });
    return *batches_[i % window_];
  }

  // The caller is done with chunk i; its batch may be reused.
  void release(std::size_t i) {
    {
      std::lock_guard lock(mutex_);
      consumed_ = i + 1;
    }
    changed_.notify_all();
  }

 private:
  void work() {
    SnapshotRecordReader reader(root_);
    for (;;) {
      std::size_t i;
      {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [&] { return stop_ || next_ >= chunks_.size() || next_ < consumed_ + window_; });
        if (stop_ || next_ >= chunks_.size()) return;
        i = next_++;
      }
      readChunk(reader, chunks_[i], readableEnd_, *batches_[i % window_]);
      {
        std::lock_guard lock(mutex_);
        ready_[i] = 1;
      }
      changed_.notify_all();
    }
  }

  const std::vector<Chunk>& chunks_;
  const char* readableEnd_;
  std::string_view root_;
  std::size_t window_;
  std::vector<std::unique_ptr<Batch>> batches_;
  std::vector<char> ready_;
  std::size_t next_ = 0;
  std::size_t consumed_ = 0;
  bool stop_ = false;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::thread> threads_;
};

// Feeds one batch to the builder. Duplicate detection runs here, in file
// order, between the checks a worker ran before it and those after it. A
// path already present fails as a duplicate whether add or the check finds
// it: both look for the same thing, and the duplicate check comes first.
void addRecords(const Batch& batch, std::uint64_t& recordNumber, NativeCatalogBuilder& builder) {
  if (batch.failure) std::rethrow_exception(batch.failure);
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

Catalog load(const std::filesystem::path& url, const std::string& sourceId, const std::string& root) {
  canonical::checkAbsolutePosixPath(std::string_view(root));
  std::string rootStorage;
  std::string_view canonicalRoot = canonical::nfc(root, rootStorage);
  NativeCatalogBuilder builder(sourceId, PathFlavor::posix, /*directorySizes=*/true);

  int processors = std::min(platform::activeProcessorCount(), kMaxWorkers);
  auto file = snapshot::SnapshotFile::read(url, processors);
  const char* bytes = file.data();
  if (!simdjson::validate_utf8(bytes, file.size())) throw KernelError::io("Input length = 1");
  std::size_t length = file.size();
  // One final separator ends the last line instead of starting a blank one.
  if (length >= 2 && bytes[length - 2] == '\r' && bytes[length - 1] == '\n') {
    length -= 2;
  } else if (length >= 1 && (bytes[length - 1] == '\n' || bytes[length - 1] == '\r')) {
    length -= 1;
  }
  if (length == 0) throw KernelError::io("Empty snapshot");

  const char* readableEnd = bytes + file.size();
  std::vector<Chunk> chunks = cutChunks(bytes, bytes + length);
  std::uint64_t recordNumber = 0;
  auto offsetOf = [bytes](const char* at) { return static_cast<std::uint64_t>(at - bytes); };
  int workers = std::min(processors, static_cast<int>(chunks.size()));
  if (workers <= 1) {
    SnapshotRecordReader reader(canonicalRoot);
    Batch batch;
    for (const Chunk& chunk : chunks) {
      readChunk(reader, chunk, readableEnd, batch);
      addRecords(batch, recordNumber, builder);
      if (LoadProgress::active()) LoadProgress::advance(offsetOf(chunk.end), file.size(), recordNumber);
    }
  } else {
    ChunkPipeline pipeline(chunks, readableEnd, canonicalRoot, workers);
    for (std::size_t i = 0; i < chunks.size(); ++i) {
      addRecords(pipeline.take(i), recordNumber, builder);
      pipeline.release(i);
      if (LoadProgress::active()) LoadProgress::advance(offsetOf(chunks[i].end), file.size(), recordNumber);
    }
  }
  return builder.finish();
}

}  // namespace tarv::SnapshotReader
