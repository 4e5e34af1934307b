#include "kernel/sources/byte_source.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "kernel/base/kernel_error.h"

namespace tarv {

bool ByteSource::isCompressed(const std::filesystem::path& url) {
  std::string name = url.filename().string();
  return name.size() >= 3 && name.compare(name.size() - 3, 3, ".gz") == 0;
}

ByteSource::ByteSource(const std::filesystem::path& url, Inflation inflation) : path_(url.string()) {
  fd_ = ::open(url.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd_ < 0) throw systemError("Cannot read", path_, errno);
  try {
    if (inflation == Inflation::byName && isCompressed(url)) {
      inflater_ = std::make_unique<Inflater>(fd_, path_);
    } else {
      buffer_ = std::make_unique_for_overwrite<char[]>(kBlockSize);
    }
  } catch (...) {
    ::close(fd_);
    fd_ = -1;
    throw;
  }
}

ByteSource::~ByteSource() {
  // The inflater borrows the descriptor: release it first.
  inflater_.reset();
  if (fd_ >= 0) ::close(fd_);
}

void ByteSource::close() {
  inflater_.reset();
  if (fd_ < 0) return;
  int fd = fd_;
  fd_ = -1;
  finished_ = true;
  data_ = nullptr;
  size_ = position_ = 0;
  if (::close(fd) != 0) throw systemError("Cannot close", path_, errno);
}

ByteSource::FilePosition ByteSource::filePosition() const noexcept {
  FilePosition position;
  if (fd_ < 0) return position;
  // The descriptor's offset counts compressed bytes for gzip input, so the
  // fraction done is right for both kinds of file.
  off_t offset = ::lseek(fd_, 0, SEEK_CUR);
  struct stat info {};
  if (offset > 0) position.done = static_cast<std::uint64_t>(offset);
  if (::fstat(fd_, &info) == 0 && S_ISREG(info.st_mode)) position.total = static_cast<std::uint64_t>(info.st_size);
  return position;
}

bool ByteSource::refill() {
  if (finished_) return false;
  if (inflater_) {
    std::span<const char> next = inflater_->read();
    data_ = next.data();
    size_ = next.size();
  } else {
    ssize_t n;
    do {
      n = ::read(fd_, buffer_.get(), kBlockSize);
    } while (n < 0 && errno == EINTR);
    if (n < 0) throw systemError("Cannot read", path_, errno);
    data_ = buffer_.get();
    size_ = static_cast<std::size_t>(n);
  }
  position_ = 0;
  if (size_ == 0) finished_ = true;
  return size_ > 0;
}

}  // namespace tarv
