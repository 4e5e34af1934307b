#include "fuzz/fuzz_support.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <system_error>

#include "kernel/base/kernel_error.h"

namespace tarv::fuzz {

const std::shared_ptr<const Compatibility>& table() {
  static const std::shared_ptr<const Compatibility> loaded = [] {
    const char* env = std::getenv("TARV_COMPATIBILITY");
    const std::filesystem::path path = env && *env ? std::filesystem::path(env)
                                                   : std::filesystem::path(TARV_FUZZ_SOURCE_DIR) / "data/vantor-v1.json";
    try {
      return Compatibility::load(path);
    } catch (const std::exception& e) {
      std::fprintf(stderr, "fuzz: cannot load the comparison table %s: %s\n", path.c_str(), e.what());
      std::abort();
    }
  }();
  return loaded;
}

namespace {

std::filesystem::path makeScratch() {
  const char* base = std::getenv("TMPDIR");
  std::string pattern = std::string(base && *base ? base : "/tmp") + "/tarv-fuzz-XXXXXX";
  if (!::mkdtemp(pattern.data())) {
    std::perror("fuzz: mkdtemp");
    std::abort();
  }
  return pattern;
}

struct Scratch {
  std::filesystem::path path = makeScratch();
  ~Scratch() {
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
  }
};

}  // namespace

const std::filesystem::path& scratch() {
  static const Scratch folder;
  return folder.path;
}

std::filesystem::path writeScratch(const std::string& name, std::string_view bytes) {
  const std::filesystem::path path = scratch() / name;
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) {
    std::perror("fuzz: open");
    std::abort();
  }
  std::size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
    if (n <= 0) {
      std::perror("fuzz: write");
      std::abort();
    }
    done += static_cast<std::size_t>(n);
  }
  ::close(fd);
  return path;
}

Split split(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return {};
  return {data[0], std::string_view(reinterpret_cast<const char*>(data) + 1, size - 1)};
}

void check(bool condition, const char* what) {
  if (!condition) {
    std::fprintf(stderr, "fuzz: broken invariant: %s\n", what);
    std::abort();
  }
}

}  // namespace tarv::fuzz
