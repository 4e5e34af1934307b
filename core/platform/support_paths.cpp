#include "core/platform/support_paths.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>

namespace tarv::platform {

std::filesystem::path homeDirectory() {
  if (const char* home = std::getenv("HOME"); home && *home) return home;
  if (const passwd* entry = ::getpwuid(::getuid()); entry && entry->pw_dir) return entry->pw_dir;
  return "/";
}

std::filesystem::path supportDirectory() {
  if (const char* value = std::getenv("TARV_SUPPORT_DIRECTORY"); value && value[0] == '/') return value;
  const char* data = std::getenv("XDG_DATA_HOME");
  std::filesystem::path base = (data && data[0] == '/') ? std::filesystem::path(data) : homeDirectory() / ".local" / "share";
  return base / "Tarv";
}

std::filesystem::path configurationFile() { return supportDirectory() / "config.json"; }

std::filesystem::path indexCacheDirectory() { return supportDirectory() / "IndexCache"; }

}  // namespace tarv::platform
