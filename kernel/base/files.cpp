#include "kernel/base/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "kernel/base/kernel_error.h"

namespace tarv::files {

std::string readAll(const std::filesystem::path& path) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) throw systemError("Cannot read", path.string(), errno);
  std::string out;
  struct stat info {};
  if (::fstat(fd, &info) == 0 && S_ISREG(info.st_mode) && info.st_size > 0) out.reserve(static_cast<size_t>(info.st_size));
  char buffer[1 << 16];
  for (;;) {
    ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n < 0) {
      if (errno == EINTR) continue;
      int error = errno;
      ::close(fd);
      throw systemError("Cannot read", path.string(), error);
    }
    if (n == 0) break;
    out.append(buffer, static_cast<size_t>(n));
  }
  if (::close(fd) != 0) throw systemError("Cannot close", path.string(), errno);
  return out;
}

void writeAtomically(const std::filesystem::path& path, std::string_view bytes, unsigned mode) {
  std::filesystem::path partial = path;
  partial += ".partial";
  ::unlink(partial.c_str());
  int fd = ::open(partial.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
  if (fd < 0) throw systemError("Cannot write", partial.string(), errno);
  const char* p = bytes.data();
  size_t left = bytes.size();
  while (left > 0) {
    ssize_t n = ::write(fd, p, left);
    if (n < 0) {
      if (errno == EINTR) continue;
      int error = errno;
      ::close(fd);
      ::unlink(partial.c_str());
      throw systemError("Cannot write", partial.string(), error);
    }
    p += n;
    left -= static_cast<size_t>(n);
  }
  if (::fsync(fd) != 0 || ::close(fd) != 0) {
    int error = errno;
    ::unlink(partial.c_str());
    throw systemError("Cannot write", partial.string(), error);
  }
  if (::rename(partial.c_str(), path.c_str()) != 0) {
    int error = errno;
    ::unlink(partial.c_str());
    throw systemError("Cannot write", path.string(), error);
  }
}

}  // namespace tarv::files
