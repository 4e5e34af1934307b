#pragma once
// Settings: the user's defaults suite. On Linux a JSON object file at
// ${XDG_CONFIG_HOME:-~/.config}/tarv/defaults.json with string values under the
// keys "configurationPath", "aiProvider", "aiBaseURL" and "aiModel.<provider>".
// A missing file is an empty suite; an unreadable or malformed one is ignored
// with one "tarv: " warning on standard error. Not shared between threads.

#include <filesystem>
#include <map>
#include <optional>
#include <string>

namespace tarv::platform {

class Settings {
 public:
  // The suite named by `identifier` (see bundleIdentifier()).
  static Settings open(const std::string& identifier);
  // A suite read from an explicit file (tests).
  static Settings openFile(const std::filesystem::path& file);

  std::optional<std::string> string(const std::string& key) const;
  void set(const std::string& key, std::optional<std::string> value);
  // Writes the file atomically (side file, rename, mode 0600).
  // Throws KernelError::io when it cannot be written.
  void save() const;

  const std::filesystem::path& file() const { return file_; }

 private:
  std::filesystem::path file_;
  std::map<std::string, std::string> values_;
};

// The defaults file: ${XDG_CONFIG_HOME:-~/.config}/tarv/defaults.json.
std::filesystem::path settingsFile();

}  // namespace tarv::platform
