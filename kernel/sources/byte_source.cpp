#include "kernel/sources/byte_source.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "kernel/base/kernel_error.h"

namespace tarv {

bool ByteSource::isCompressed(const std::filesystem::path& url) {
  std::string name = url.filename().string();
  return name.size() >= 3 && name.compare(name.size() - 3, 3, ".gz") == 0;
}

ByteSource::ByteSource(const std::filesystem::path& url) : path_(url.string()) {
  fd_ = ::open(url.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd_ < 0) throw systemError("Cannot read", path_, errno);
  try {
    if (isCompressed(url)) {
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
