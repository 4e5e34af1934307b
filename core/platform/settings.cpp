#include "core/platform/settings.h"

#include <cstdio>
#include <cstdlib>
#include <system_error>

#include "core/platform/support_paths.h"
#include "kernel/base/files.h"
#include "kernel/base/json.h"
#include "kernel/base/kernel_error.h"

namespace tarv::platform {

std::filesystem::path settingsFile() {
  const char* config = std::getenv("XDG_CONFIG_HOME");
  std::filesystem::path base = (config && config[0] == '/') ? std::filesystem::path(config) : homeDirectory() / ".config";
  return base / "tarv" / "defaults.json";
}

Settings Settings::open(const std::string& /*identifier*/) {
  // Linux keeps one suite per user; the identifier names it on macOS only.
  return openFile(settingsFile());
}

Settings Settings::openFile(const std::filesystem::path& file) {
  Settings settings;
  settings.file_ = file;
  std::error_code error;
  if (!std::filesystem::exists(file, error)) return settings;
  try {
    json::Value root = json::Value::parse(files::readAll(file));
    if (!root.is_object()) throw std::runtime_error("not a JSON object");
    for (auto& [key, value] : root.items())
      if (value.is_string()) settings.values_[key] = value.get<std::string>();
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "tarv: ignoring settings file %s (%s)\n", file.c_str(), failure.what());
    settings.values_.clear();
  }
  return settings;
}

std::optional<std::string> Settings::string(const std::string& key) const {
  auto found = values_.find(key);
  if (found == values_.end()) return std::nullopt;
  return found->second;
}

void Settings::set(const std::string& key, std::optional<std::string> value) {
  if (value) values_[key] = *value;
  else values_.erase(key);
}

void Settings::save() const {
  std::error_code error;
  std::filesystem::create_directories(file_.parent_path(), error);
  json::Value root = json::Value::object();
  for (auto& [key, value] : values_) root[key] = value;
  files::writeAtomically(file_, json::encode(root, json::Style::pretty) + "\n", 0600);
}

}  // namespace tarv::platform
