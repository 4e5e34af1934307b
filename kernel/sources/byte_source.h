#pragma once
// ByteSource: the buffered reader every source reader streams a file through.
// It reads 1 MiB blocks straight from the file, or, when the file's name ends
// in ".gz" (case-sensitive; the name decides, not the content), through an
// Inflater. Readers either take single bytes or, on hot paths, whole blocks
// with `block()` and scan them with memchr.
//
// Owns the file descriptor (closed by `close()` or the destructor). Not
// thread-safe. Opening or reading failures are KernelError::io
// ("Cannot read <path>: <reason>"); gzip damage is the Inflater's io errors.

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <span>
#include <string>

#include "kernel/sources/inflater.h"

namespace tarv {

class ByteSource {
 public:
  static constexpr int kEnd = -1;
  static constexpr std::size_t kBlockSize = 1 << 20;

  // Whether a name ending in ".gz" means gzip input. Formats that are never
  // compressed read their files as they are, whatever the name.
  enum class Inflation { byName, never };

  explicit ByteSource(const std::filesystem::path& url, Inflation inflation = Inflation::byName);
  ~ByteSource();
  ByteSource(const ByteSource&) = delete;
  ByteSource& operator=(const ByteSource&) = delete;

  // Whether the file is read through the gzip inflater (name ends in ".gz").
  static bool isCompressed(const std::filesystem::path& url);

  // The next byte (0..255), or kEnd once the input is exhausted.
  int byte() {
    if (position_ == size_ && !refill()) return kEnd;
    return static_cast<unsigned char>(data_[position_++]);
  }

  // The rest of the current block, refilling first when it is used up; the
  // bytes count as consumed. Empty at the end of the input. The span stays
  // valid until the next call of `byte` or `block`.
  std::span<const char> block() {
    if (position_ == size_ && !refill()) return {};
    std::span<const char> rest(data_ + position_, size_ - position_);
    position_ = size_;
    return rest;
  }

  // Closes the file now, so that a failing close is reported (io error).
  void close();

  // How far into the file reading has come and the file's size (0 when
  // unknown), for progress reports. Costs two system calls: call it at most
  // once per block, and only when someone is watching. Never throws.
  struct FilePosition {
    std::uint64_t done = 0;
    std::uint64_t total = 0;
  };
  FilePosition filePosition() const noexcept;

 private:
  bool refill();

  int fd_ = -1;
  std::string path_;
  std::unique_ptr<char[]> buffer_;  // only for plain files; gzip blocks live in the inflater
  const char* data_ = nullptr;
  std::size_t size_ = 0;
  std::size_t position_ = 0;
  bool finished_ = false;
  std::unique_ptr<Inflater> inflater_;
};

}  // namespace tarv
