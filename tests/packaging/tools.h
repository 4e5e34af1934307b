#pragma once
// Small helpers the packaging tests share: finding system programs on PATH
// and a tiny gfind7 source with its configuration.

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <optional>
#include <sstream>
#include <string>

#include "tests/support/temp_dir.h"

namespace tarv::testing {

// The absolute path of a program on PATH, or nothing.
inline std::optional<std::string> findProgram(const std::string& name) {
  const char* path = std::getenv("PATH");
  std::istringstream folders(path ? path : "/usr/bin:/bin");
  std::string folder;
  while (std::getline(folders, folder, ':')) {
    if (folder.empty()) continue;
    std::filesystem::path candidate = std::filesystem::path(folder) / name;
    std::error_code error;
    if (std::filesystem::is_regular_file(candidate, error) && ::access(candidate.c_str(), X_OK) == 0)
      return candidate.string();
  }
  return std::nullopt;
}

// Three records under /data, as GNU find writes them with the gfind7 format,
// and a configuration naming them; returns the configuration's path.
inline std::filesystem::path writeTinySource(const TempDir& dir) {
  using namespace std::string_literals;
  dir.write("lists/data.gfind7",
            "d 4096 1795326869.0 1795326869.0 8 2049 /data\0"
            "f 1234 1795326869.5 -1.-000000010 8 2049 /data/report.pdf\0"
            "f 99 1795326870.25 1795326870.25 8 2049 /data/notes.txt\0"s);
  return dir.write("config.json", R"({
  "schema": 1,
  "sources": [{"id": "data", "label": "Data", "format": "gfind7", "file": "lists/data.gfind7", "root": "/data",
               "state": "complete", "scannedAt": "2026-10-01T12:00:00Z", "virtualDirectory": null}]
})");
}

}  // namespace tarv::testing
