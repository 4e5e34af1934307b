#include "kernel/sources/snapshot_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <thread>
#include <vector>

#include "kernel/base/files.h"
#include "kernel/base/kernel_error.h"

namespace tarv::snapshot {
namespace {

// Parts smaller than this are not worth a thread.
constexpr std::size_t kMinimumPart = std::size_t{16} << 20;

// Closes the descriptor on every path out of `read`.
struct Descriptor {
  int fd;
  ~Descriptor() {
    if (fd >= 0) ::close(fd);
  }
};

// Reads to the end in one pass, for files without a size known up front
// (pipes, devices). The open descriptor is used: reopening a pipe would wait
// for a writer that may be gone.
std::string readToEnd(int fd, const std::filesystem::path& path) {
  std::string out(std::size_t{1} << 16, '\0');
  std::size_t filled = 0;
  for (;;) {
    if (filled == out.size()) out.resize(out.size() * 2);
    ssize_t n = ::read(fd, out.data() + filled, out.size() - filled);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) throw systemError("Cannot read", path.string(), errno);
    if (n == 0) {
      out.resize(filled);
      return out;
    }
    filled += static_cast<std::size_t>(n);
  }
}

}  // namespace

SnapshotFile SnapshotFile::read(const std::filesystem::path& path, int threads) {
  SnapshotFile file;
  Descriptor descriptor{::open(path.c_str(), O_RDONLY | O_CLOEXEC)};
  if (descriptor.fd < 0) throw systemError("Cannot read", path.string(), errno);
  struct stat info {};
  if (::fstat(descriptor.fd, &info) != 0 || !S_ISREG(info.st_mode)) {
    file.fallback_ = readToEnd(descriptor.fd, path);
    file.data_ = file.fallback_.data();
    file.size_ = file.fallback_.size();
    return file;
  }

  auto size = static_cast<std::size_t>(info.st_size);
  file.raw_ = std::make_unique_for_overwrite<char[]>(std::max<std::size_t>(size, 1));
  std::size_t parts = std::clamp<std::size_t>(size / kMinimumPart, 1, static_cast<std::size_t>(std::max(threads, 1)));
  std::atomic<int> failure{0};     // errno of the first failed read
  std::atomic<bool> endedEarly{false};  // the file got shorter while it was read
  auto readPart = [&](std::size_t part) {
    std::size_t begin = size / parts * part;
    std::size_t end = part + 1 == parts ? size : size / parts * (part + 1);
    while (begin < end) {
      ssize_t n = ::pread(descriptor.fd, file.raw_.get() + begin, end - begin, static_cast<off_t>(begin));
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) {
        int expected = 0;
        failure.compare_exchange_strong(expected, errno);
        return;
      }
      if (n == 0) {
        endedEarly = true;
        return;
      }
      begin += static_cast<std::size_t>(n);
    }
  };
  std::vector<std::thread> helpers;
  for (std::size_t part = 1; part < parts; ++part) helpers.emplace_back(readPart, part);
  readPart(0);
  for (auto& helper : helpers) helper.join();
  if (failure != 0) throw systemError("Cannot read", path.string(), failure);

  if (endedEarly) {
    file.raw_.reset();
    file.fallback_ = files::readAll(path);
    file.data_ = file.fallback_.data();
    file.size_ = file.fallback_.size();
    return file;
  }
  int fd = descriptor.fd;
  descriptor.fd = -1;
  if (::close(fd) != 0) throw systemError("Cannot close", path.string(), errno);
  file.data_ = file.raw_.get();
  file.size_ = size;
  return file;
}

}  // namespace tarv::snapshot
