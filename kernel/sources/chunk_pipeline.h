#pragma once
// ChunkPipeline: parses a record stream on worker threads while the calling
// thread consumes the parsed batches strictly in file order (the catalog
// builder is single-threaded and row order is file order).
//
// Whichever worker is free cuts the next chunk from the ByteSource (one at a
// time, so reading and inflating stay sequential), then parses it into its
// batch while another worker cuts. At most `window` chunks are in flight, so
// memory stays bounded whatever the file size. With zero workers everything
// runs on the calling thread; the results are the same.
//
// A chunk holds whole records: it ends just after a record terminator, except
// the last chunk, which also holds whatever follows the last terminator. A
// failure of the source (read or gzip error) or of a parser is rethrown by
// `next` at the chunk where it happened, after every earlier batch has been
// consumed, so errors surface in the same order as in a sequential read.
//
// Parser: one per worker, constructed from `const Parser::Setup&`, with
//   void parse(std::string_view chunk, bool last, Batch& batch);
// Batch: default-constructible, reused (parse must reset it).

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <exception>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "kernel/sources/byte_source.h"

namespace tarv::sources {

// How a reader splits its work. Tests use small chunks and compare worker
// counts; production uses the defaults.
struct ReadOptions {
  static constexpr int kAutomatic = -1;
  int workers = kAutomatic;  // parse threads; 0 parses on the calling thread
  std::size_t chunkBytes = std::size_t{1} << 20;
};

// Worker threads for `options`: the processors available, at most `limit`.
int workerCount(const ReadOptions& options, int limit);

// Cuts a ByteSource into chunks of whole records: each chunk ends at the last
// record end within `chunkBytes` bytes, or holds one longer record whole. Not
// thread-safe.
class ChunkCutter {
 public:
  // `ends`: the bytes that end a record (one or two). With `skipFirstLine`
  // everything up to and including the first line feed is dropped, and a
  // stream without a line feed yields no chunk at all.
  ChunkCutter(ByteSource& source, std::string_view ends, bool skipFirstLine, std::size_t chunkBytes)
      : source_(source), ends_(ends), skipping_(skipFirstLine), chunkBytes_(chunkBytes == 0 ? 1 : chunkBytes) {}

  // Fills `out` with the next chunk; false after the last one. The last chunk
  // (`last` set) holds whatever follows the final record end, possibly
  // nothing. Throws the source's errors, but only once the whole records
  // read before the failure have been handed out.
  bool next(std::string& out, bool& last);

 private:
  std::size_t firstEnd(std::size_t from) const;
  std::size_t lastEnd(std::size_t from, std::size_t to) const;

  ByteSource& source_;
  std::string ends_;
  bool skipping_;
  std::size_t chunkBytes_;
  std::string buffer_;     // bytes read; those before start_ are handed out
  std::size_t start_ = 0;
  bool exhausted_ = false;  // the source has no more bytes
  bool finished_ = false;   // the last chunk was handed out
  std::exception_ptr failure_;  // a source failure after the chunk handed out
};

// Reports a reader's progress for a batch about to be added: the file read
// through its chunk and the records added before it, as a reader that
// reports before each block would. Batches without records (the empty last
// chunk of a file ending with a record end) report nothing. Call it on the
// loading thread, and only when LoadProgress::active().
void reportBatch(ByteSource::FilePosition at, std::uint64_t recordsBefore, bool hasRecords) noexcept;

template <class Parser, class Batch>
class ChunkPipeline {
 public:
  using Setup = typename Parser::Setup;

  ChunkPipeline(ByteSource& source, std::string_view ends, bool skipFirstLine, const ReadOptions& options, int workers,
                bool trackPosition, const Setup& setup)
      : source_(source),
        setup_(setup),
        inlineParser_(setup),
        cutter_(source, ends, skipFirstLine, options.chunkBytes),
        trackPosition_(trackPosition),
        window_(workers <= 0 ? 1 : 2 * static_cast<std::size_t>(workers) + 2) {
    for (std::size_t i = 0; i < window_; ++i) slots_.push_back(std::make_unique<Slot>());
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

  // The next batch in file order, or nullptr at the end. The batch stays
  // valid until the next call. Rethrows the failure of its chunk.
  const Batch* next() {
    if (consumed_ > 0) release();
    if (threads_.empty()) {
      Slot& slot = *slots_[0];
      if (!fill(slot)) return nullptr;
      produceOn(slot, inlineParser_);
      return take(slot);
    }
    std::unique_lock lock(mutex_);
    Slot& slot = *slots_[consumed_ % window_];
    changed_.wait(lock, [&] { return slot.state == State::ready || slot.state == State::end; });
    if (slot.state == State::end) return nullptr;
    lock.unlock();
    return take(slot);
  }

  // Position in the file after the chunk of the batch last returned by `next`
  // (zeros unless tracking was asked for).
  ByteSource::FilePosition position() const { return position_; }

 private:
  enum class State { free, cutting, parsing, ready, end };
  struct Slot {
    std::string bytes;
    bool last = false;
    Batch batch;
    std::exception_ptr failure;
    ByteSource::FilePosition position;
    State state = State::free;
  };

  // Cuts the next chunk into `slot`; false at the end of the stream. A source
  // failure is kept in the slot (with no bytes) for the consumer.
  bool fill(Slot& slot) {
    slot.failure = nullptr;
    if (failed_) return false;
    try {
      if (!cutter_.next(slot.bytes, slot.last)) return false;
      if (trackPosition_) slot.position = source_.filePosition();
    } catch (...) {
      slot.failure = std::current_exception();
      slot.bytes.clear();
      failed_ = true;
    }
    return true;
  }

  void produceOn(Slot& slot, Parser& parser) {
    if (slot.failure) return;
    try {
      parser.parse(slot.bytes, slot.last, slot.batch);
    } catch (...) {
      slot.failure = std::current_exception();
    }
  }

  const Batch* take(Slot& slot) {
    ++consumed_;
    position_ = slot.position;
    if (slot.failure) std::rethrow_exception(slot.failure);
    return &slot.batch;
  }

  void release() {
    if (threads_.empty()) return;
    {
      std::lock_guard lock(mutex_);
      slots_[(consumed_ - 1) % window_]->state = State::free;
    }
    changed_.notify_all();
  }

  void work() {
    Parser parser(setup_);
    for (;;) {
      Slot* slot;
      {
        // Cutting is sequential (one reader of the source, chunks in file
        // order) but runs outside the state lock, so the consumer is never
        // held up by a read.
        std::unique_lock cutting(cutMutex_);
        {
          std::unique_lock lock(mutex_);
          changed_.wait(lock, [&] { return stop_ || ended_ || slots_[cut_ % window_]->state == State::free; });
          if (stop_ || ended_) return;
          slot = slots_[cut_ % window_].get();
          slot->state = State::cutting;
        }
        bool more = fill(*slot);
        {
          std::lock_guard lock(mutex_);
          if (!more) {
            ended_ = true;
            slot->state = State::end;
          } else {
            ++cut_;
            slot->state = State::parsing;
          }
        }
        if (!more) {
          changed_.notify_all();
          return;
        }
      }
      produceOn(*slot, parser);
      {
        std::lock_guard lock(mutex_);
        slot->state = State::ready;
      }
      changed_.notify_all();
    }
  }

  ByteSource& source_;
  const Setup& setup_;
  Parser inlineParser_;
  ChunkCutter cutter_;
  bool trackPosition_;
  std::size_t window_;
  std::vector<std::unique_ptr<Slot>> slots_;
  ByteSource::FilePosition position_;
  std::size_t cut_ = 0;       // chunks cut so far (under mutex_)
  std::size_t consumed_ = 0;  // batches handed to the caller
  bool failed_ = false;       // the source failed; nothing more is cut (under cutMutex_)
  bool ended_ = false;
  bool stop_ = false;
  std::mutex cutMutex_;  // held while a worker reads the source
  std::mutex mutex_;     // slot states and the counters
  std::condition_variable changed_;
  std::vector<std::thread> threads_;
};

}  // namespace tarv::sources
