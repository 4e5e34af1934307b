#pragma once
// SnapshotFile: the whole content of a snapshot file in memory, read straight
// into one uninitialised buffer by several threads at once. Filling hundreds
// of megabytes of fresh memory is otherwise the largest serial step of a load.
// Immutable once read; the bytes live as long as the object.
//
// Throws what files::readAll throws: KernelError::io("Cannot read <path>:
// <reason>") (or "Cannot close ...") with the system's reason.

#include <cstddef>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>

namespace tarv::snapshot {

class SnapshotFile {
 public:
  // Reads `path` with up to `threads` threads. A file that is not a regular
  // file, or that changes size while it is read, is read again in one pass.
  static SnapshotFile read(const std::filesystem::path& path, int threads);

  const char* data() const noexcept { return data_; }
  std::size_t size() const noexcept { return size_; }
  std::string_view bytes() const noexcept { return {data_, size_}; }

 private:
  std::unique_ptr<char[]> raw_;
  std::string fallback_;
  const char* data_ = nullptr;
  std::size_t size_ = 0;
};

}  // namespace tarv::snapshot
