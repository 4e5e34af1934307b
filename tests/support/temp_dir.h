#pragma once
// A fresh directory under $TMPDIR for one test, removed with everything in it
// when the object goes out of scope.

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace tarv::testing {

class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::filesystem::path& path() const { return path_; }
  std::filesystem::path operator/(std::string_view name) const { return path_ / name; }
  // Writes `bytes` to path()/name (creating folders) and returns the full path.
  std::filesystem::path write(std::string_view name, std::string_view bytes) const;

 private:
  std::filesystem::path path_;
};

std::string readFile(const std::filesystem::path& path);
// The names of the entries of `directory`, sorted; none when it is missing.
std::vector<std::string> entriesOf(const std::filesystem::path& directory);

}  // namespace tarv::testing
