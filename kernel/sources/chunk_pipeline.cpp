#include "kernel/sources/chunk_pipeline.h"

#include <algorithm>
#include <utility>

#include "core/platform/system_info.h"
#include "kernel/sources/load_progress.h"

namespace tarv::sources {

int workerCount(const ReadOptions& options, int limit) {
  if (options.workers != ReadOptions::kAutomatic) return std::max(options.workers, 0);
  // One processor gains nothing from a second thread; two or more let the
  // parsing run beside the single-threaded catalog builder.
  int processors = platform::activeProcessorCount();
  return processors < 2 ? 0 : std::min(processors, limit);
}

void reportBatch(ByteSource::FilePosition at, std::uint64_t recordsBefore, bool hasRecords) noexcept {
  if (hasRecords) LoadProgress::advance(at.done, at.total, recordsBefore);
}

std::size_t ChunkCutter::firstEnd(std::size_t from) const {
  std::size_t found = std::string::npos;
  for (char end : ends_) {
    auto* at = static_cast<const char*>(std::memchr(buffer_.data() + from, end, buffer_.size() - from));
    if (at != nullptr) found = std::min(found, static_cast<std::size_t>(at - buffer_.data()));
  }
  return found;
}

std::size_t ChunkCutter::lastEnd(std::size_t from, std::size_t to) const {
  std::size_t found = std::string::npos;
  for (char end : ends_) {
    auto* at = static_cast<const char*>(::memrchr(buffer_.data() + from, end, to - from));
    if (at == nullptr) continue;
    auto position = static_cast<std::size_t>(at - buffer_.data());
    if (found == std::string::npos || position > found) found = position;
  }
  return found;
}

bool ChunkCutter::next(std::string& out, bool& last) {
  out.clear();
  last = false;
  if (failure_) std::rethrow_exception(std::exchange(failure_, nullptr));
  if (finished_) return false;
  while (skipping_) {
    std::span<const char> block = source_.block();
    if (block.empty()) {
      finished_ = true;
      return false;
    }
    if (auto* lf = static_cast<const char*>(std::memchr(block.data(), '\n', block.size()))) {
      skipping_ = false;
      buffer_.assign(lf + 1, block.data() + block.size());
    }
  }
  // Bytes before `searched` are known to hold no record end.
  std::size_t searched = start_;
  for (;;) {
    if (buffer_.size() - start_ >= chunkBytes_) {
      // The last record end within the chunk size, else the first beyond it
      // (a record longer than a chunk stays whole).
      std::size_t end = lastEnd(start_, start_ + chunkBytes_);
      if (end == std::string::npos) end = firstEnd(std::max(searched, start_ + chunkBytes_));
      if (end != std::string::npos) {
        if (start_ == 0) {
          // The usual case with chunks as large as the source's blocks: the
          // buffer itself becomes the chunk and only the cut record's start
          // is copied.
          out.swap(buffer_);
          buffer_.assign(out, end + 1);
          out.resize(end + 1);
        } else {
          out.assign(buffer_, start_, end + 1 - start_);
          start_ = end + 1;
        }
        return true;
      }
      searched = buffer_.size();
    }
    if (exhausted_) {
      out.assign(buffer_, start_);
      buffer_.clear();
      start_ = 0;
      finished_ = true;
      last = true;
      return true;
    }
    if (start_ != 0) {  // keep only what is not handed out yet
      buffer_.erase(0, start_);
      searched -= start_;
      start_ = 0;
    }
    std::span<const char> block;
    try {
      block = source_.block();
    } catch (...) {
      // The whole records read before the failure are still handed out, as a
      // record-by-record reader would have seen them; the failure follows.
      finished_ = true;
      std::size_t end = lastEnd(start_, buffer_.size());
      if (end == std::string::npos) throw;
      failure_ = std::current_exception();
      out.assign(buffer_, start_, end + 1 - start_);
      return true;
    }
    if (block.empty()) {
      exhausted_ = true;
    } else {
      buffer_.append(block.data(), block.size());
    }
  }
}

}  // namespace tarv::sources
