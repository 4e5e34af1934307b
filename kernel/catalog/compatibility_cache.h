#pragma once
// CompatibilityCache: a compiled copy of the comparison table file kept in the
// index cache folder, so that a process start reads three raw 128 KiB arrays
// and the stored fingerprint instead of scanning 0.9 MB of JSON and hashing
// it again.
//
// A compiled file belongs to one table path ("vantor-<hash of path>.tarvtab")
// and records the table file's identity when it was compiled: path, size,
// modification and status-change times to the nanosecond, inode and device.
// It is used only while that identity is unchanged and its own length, header
// and checksum are intact; anything else (a stale, truncated or damaged file)
// is ignored and rewritten from the table file, silently. The fingerprint
// stays the SHA-256 of the table file's bytes: only its recomputation is
// saved. Files are native-endian (a cache of this machine, never shipped) and
// are written to a side file that is renamed into place.
//
// Stateless apart from the folder; safe to use from several threads and
// processes at once (a reader sees an old or a new complete file).

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "kernel/catalog/compatibility.h"

namespace tarv {

class CompatibilityCache {
 public:
  // The table file's status as the compiled copy records it.
  struct Identity {
    std::uint64_t size = 0;
    std::int64_t modifiedSeconds = 0;
    std::int64_t modifiedNanoseconds = 0;
    std::int64_t changedSeconds = 0;
    std::int64_t changedNanoseconds = 0;
    std::uint64_t inode = 0;
    std::uint64_t device = 0;
    bool operator==(const Identity&) const = default;
  };

  static constexpr const char* kExtension = ".tarvtab";

  // The folder named by TARV_INDEX_CACHE when it is an absolute path, or none
  // (then nothing is compiled and every load reads the table file).
  static std::optional<std::filesystem::path> environmentDirectory();

  explicit CompatibilityCache(std::filesystem::path directory);

  // The table at `table`: from its compiled copy when that is current, else
  // read and checked from the file itself and compiled for the next process
  // (a failure to write the copy is ignored). Throws what Compatibility::parse
  // and files::readAll throw for the table file.
  std::shared_ptr<const Compatibility> load(const std::filesystem::path& table) const;

  // The compiled copy for `table` when it exists, matches `identity` and is
  // intact; otherwise none. Never throws for a bad file.
  std::shared_ptr<const Compatibility> read(const std::filesystem::path& table, const Identity& identity) const;
  // Writes the compiled copy of `compatibility` for `table`; false when that
  // failed (nothing is left behind then).
  bool write(const std::filesystem::path& table, const Identity& identity, const Compatibility& compatibility) const;

  // Where the compiled copy for `table` lives.
  std::filesystem::path fileOf(const std::filesystem::path& table) const;
  // The identity of the file at `table`, or none when it cannot be read.
  static std::optional<Identity> identityOf(const std::filesystem::path& table);

 private:
  std::filesystem::path directory_;
};

}  // namespace tarv
