#include "core/platform/executable.h"

namespace tarv::platform {

std::filesystem::path executablePath(const std::string& argv0) {
  std::error_code error;
  auto self = std::filesystem::read_symlink("/proc/self/exe", error);
  if (!error && !self.empty()) return self;
  if (argv0.empty()) return {};
  auto resolved = std::filesystem::weakly_canonical(std::filesystem::absolute(argv0, error), error);
  return error ? std::filesystem::path() : resolved;
}

}  // namespace tarv::platform
