#pragma once
// Shared pieces of the index-cache tests: gfind7 source files written on the
// fly, source declarations, the shipped comparison table, environment
// variables set for one test, and file times moved into the past.

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/time.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "kernel/base/kernel_error.h"
#include "kernel/catalog/compatibility.h"
#include "kernel/config/configuration.h"
#include "tests/support/process.h"
#include "tests/support/temp_dir.h"

namespace tarv::testing {

// The shipped table, loaded once.
inline std::shared_ptr<const Compatibility> shippedTable() {
  static const auto table = Compatibility::load(std::filesystem::path(sourceDir()) / "data" / "vantor-v1.json");
  return table;
}

// gfind7 records (`find -printf '%y %s %T@ %B@ %b %D %p\0'`): `files` files
// spread over `folders` folders below /data on device 2049, every name
// carrying `salt` so two sources differ.
inline std::string gfindRecords(int files, int folders = 8, const std::string& salt = "a") {
  std::string text;
  for (int f = 0; f < folders; ++f)
    text += "d 0 1700000000.5 -1.-000000010 8 2049 /data/dir" + std::to_string(f) + salt + '\0';
  for (int i = 0; i < files; ++i) {
    text += "f " + std::to_string(i * 37 % 10007) + " " + std::to_string(1700000000 + i) + ".25 1600000000 " +
            std::to_string(i % 5) + " 2049 /data/dir" + std::to_string(i % folders) + salt + "/file" +
            std::to_string(i) + salt + (i % 3 == 0 ? ".txt" : ".bin") + '\0';
  }
  return text;
}

inline Configuration::Source gfindSource(const std::filesystem::path& file, std::string id = "disk") {
  Configuration::Source s;
  s.id = std::move(id);
  s.label = "Disk";
  s.format = "gfind7";
  s.file = file;
  s.root = "/";
  s.state = "complete";
  s.deviceLabels = {{"2049", "Data disk"}};
  return s;
}

// Sets (or with nullopt unsets) an environment variable for one scope.
class ScopedVariable {
 public:
  ScopedVariable(const char* name, std::optional<std::string> value) : name_(name) {
    if (const char* old = std::getenv(name)) old_ = old;
    if (value) ::setenv(name, value->c_str(), 1);
    else ::unsetenv(name);
  }
  ~ScopedVariable() {
    if (old_) ::setenv(name_, old_->c_str(), 1);
    else ::unsetenv(name_);
  }
  ScopedVariable(const ScopedVariable&) = delete;
  ScopedVariable& operator=(const ScopedVariable&) = delete;

 private:
  const char* name_;
  std::optional<std::string> old_;
};

// Sets a file's access and modification times to `secondsAgo` seconds in the
// past (whole seconds plus `nanoseconds`).
inline void ageFile(const std::filesystem::path& file, long secondsAgo, long nanoseconds = 0) {
  timespec times[2];
  times[0].tv_sec = times[1].tv_sec = std::time(nullptr) - secondsAgo;
  times[0].tv_nsec = times[1].tv_nsec = nanoseconds;
  if (::utimensat(AT_FDCWD, file.c_str(), times, 0) != 0) throw std::runtime_error("utimensat " + file.string());
}

inline std::string errorOf(const std::function<void()>& action) {
  try {
    action();
  } catch (const KernelError& e) {
    return e.message();
  }
  return "(no error)";
}

inline void writeBytes(const std::filesystem::path& file, std::string_view bytes) {
  std::ofstream out(file, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  if (!out) throw std::runtime_error("cannot write " + file.string());
}

inline unsigned permissionsOf(const std::filesystem::path& path) {
  struct stat info {};
  if (::stat(path.c_str(), &info) != 0) return 0;
  return info.st_mode & 07777;
}

}  // namespace tarv::testing
