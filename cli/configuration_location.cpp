#include "cli/configuration_location.h"

#include <system_error>

#include "core/platform/support_paths.h"

namespace tarv::cli {
namespace {

std::filesystem::path absoluteOrAsIs(const std::filesystem::path& path) {
  std::error_code error;
  std::filesystem::path absolute = std::filesystem::absolute(path, error);
  return error ? path : absolute;
}

}  // namespace

std::filesystem::path configurationLocation(const std::optional<std::string>& given,
                                            const platform::Settings& settings) {
  if (given) return absoluteOrAsIs(*given);
  if (std::optional<std::string> configured = settings.string("configurationPath")) {
    std::error_code error;
    if (!configured->empty() && std::filesystem::exists(*configured, error)) return absoluteOrAsIs(*configured);
  }
  return platform::configurationFile();
}

}  // namespace tarv::cli
