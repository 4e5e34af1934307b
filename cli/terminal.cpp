#include "cli/terminal.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace tarv::cli {
namespace {

void writeAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    ssize_t n = ::write(fd, bytes.data(), bytes.size());
    if (n < 0) {
      if (errno == EINTR) continue;
      return;  // a closed pipe or full disk: nothing sensible is left to report to
    }
    bytes.remove_prefix(static_cast<std::size_t>(n));
  }
}

}  // namespace

void output(std::string_view text) {
  std::string line;
  line.reserve(text.size() + 1);
  line.append(text);
  line.push_back('\n');
  writeAll(STDOUT_FILENO, line);
}

void fail(std::string_view message, int code) {
  std::string line = "tarv: ";
  line.append(message);
  line.push_back('\n');
  writeAll(STDERR_FILENO, line);
  // Background index writes may still run on detached threads; skipping static
  // destructors keeps them from racing a half-torn-down process.
  std::fflush(nullptr);
  std::_Exit(code);
}

}  // namespace tarv::cli
