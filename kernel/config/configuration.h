#pragma once
// Configuration: the kernel configuration file (schema 1) that names 1 to 16
// sources. The reader is strict: any unknown key, missing field, malformed id
// or unparsable date rejects the whole file with one KernelError::invalid
// message, so a half-understood configuration never gives a half-loaded index.

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "kernel/base/json.h"
#include "kernel/base/path_flavor.h"
#include "kernel/catalog/catalog.h"

namespace tarv {

class Configuration {
 public:
  struct Source {
    std::string id;
    std::string label;
    std::string format;  // "efu", "gfind", "gfind7" or "snapshot-v1"
    std::filesystem::path file;  // absolute and standardised
    std::string root;
    std::string state;  // "complete", "partial" or "unknown"
    std::optional<std::string> scannedAt;
    std::optional<std::string> virtualDirectory;
    std::map<std::string, std::string> deviceLabels;  // decimal device id -> label

    // The path flavor of the catalog this source loads into.
    PathFlavor pathFlavor() const;

    // Loads the source file into a catalog with the reader of its format.
    // Throws KernelError (or the file system's error as KernelError::io).
    Catalog load() const;

    // The source's status record: "id", "label", "format", "root", "state",
    // "scannedAt" (string or null), "count", "sha256".
    json::Value status(std::int64_t count, const std::string& fingerprint) const;
  };

  std::vector<Source> sources;

  // Reads and validates the file. Throws KernelError::invalid for every rule,
  // the file system's error (KernelError::io) when unreadable, and
  // KernelError::invalid with the parser's message for malformed JSON.
  static Configuration read(const std::filesystem::path& url);

  // SHA-256 of a source file as 64 lowercase hex digits; for a name ending in
  // ".gz" over the decompressed bytes. Plain files are read in 1 MiB chunks.
  static std::string sha256(const std::filesystem::path& url);
};

}  // namespace tarv
