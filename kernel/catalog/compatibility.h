#pragma once
// Compatibility: the three 65,536-entry UTF-16 tables that fix case folding
// (`search`), collation weights (`order`) and letter-case weights
// (`letterCase`), loaded once from "vantor-v1.json". Immutable after loading
// and read by any number of threads without locks.
//
// Errors: locating and loading throw KernelError::io with the fixed messages
// "Missing compatibility table vantor-v1.json (set TARV_COMPATIBILITY)",
// "Compatibility table missing: <key>", "Invalid compatibility table: <key>",
// "Compatibility table must contain 65536 UTF-16 entries: <key>"; an
// unreadable file throws the file system's error (files::readAll).

#include <array>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kernel/base/text.h"

namespace tarv {

class Compatibility {
 public:
  using Table = std::array<std::uint16_t, 65536>;

  // Loads the table file at `url`, or at defaultLocation() when absent.
  // With an index cache folder (TARV_INDEX_CACHE) the table comes from its
  // compiled copy there when that is current (see CompatibilityCache).
  static std::shared_ptr<const Compatibility> load(const std::optional<std::filesystem::path>& url = std::nullopt);
  // Parses the bytes of a table file (the byte-scan loader; no general JSON parse).
  static std::shared_ptr<const Compatibility> parse(std::string_view bytes);
  // A table from explicit arrays (tests and tools); fingerprint is empty.
  static std::shared_ptr<const Compatibility> fromTables(const Table& search, const Table& order, const Table& letterCase);

  // TARV_COMPATIBILITY when set (taken as is); else beside the executable
  // "vantor-v1.json", then "../Resources/vantor-v1.json", then
  // "../share/tarv/vantor-v1.json"; the first that exists. Throws the
  // "Missing compatibility table" error when none does.
  static std::filesystem::path defaultLocation();
  // The first of the three candidates beside `executableFolder` that exists
  // (the file itself, the bundle's Resources, the installed share folder).
  static std::optional<std::filesystem::path> locateBeside(const std::filesystem::path& executableFolder);
  // The command-line lookup: the argument after the first "--compatibility"
  // among `arguments` (all of argv, program path included); when absent or
  // last, defaultLocation().
  static std::filesystem::path commandLineLocation(const std::vector<std::string>& arguments);
  // Records argv[0] so defaultLocation() can find the executable's folder when
  // /proc/self/exe is unavailable. Call once at start-up.
  static void setProgramPath(const std::string& argv0);

  char16_t fold(char16_t unit) const noexcept { return static_cast<char16_t>(search_[unit]); }
  std::uint16_t order(char16_t unit) const noexcept { return order_[unit]; }
  std::uint16_t letterCase(char16_t unit) const noexcept { return letterCase_[unit]; }
  const Table& searchTable() const noexcept { return search_; }
  const Table& orderTable() const noexcept { return order_; }
  const Table& letterCaseTable() const noexcept { return letterCase_; }

  // Every unit replaced by its `search` value.
  Text fold(TextView units) const;
  // Same length and, unit by unit, equal (sensitive) or equal after folding.
  bool equal(TextView slice, TextView literal, bool sensitive) const noexcept;

  // The three levels of the name collation, each a three-way result (<0, 0, >0).
  // Level 1: `order` weights, a surrogate unit weighing unit + 65536; an ended
  //          name reads as unit 0, and when weights are equal and either unit
  //          is 0 the raw units decide and the walk stops.
  // Level 2: the same walk with `letterCase` weights for every unit.
  // Level 3: the same walk on raw units.
  int compareLevel1(TextView a, TextView b) const noexcept;
  int compareLevel2(TextView a, TextView b) const noexcept;
  static int compareLevel3(TextView a, TextView b) noexcept;
  // Level 1, then 2, then 3.
  int compareNames(TextView a, TextView b) const noexcept;

  // Lowercase hex SHA-256 of the whole file (64 characters); empty for fromTables.
  const std::string& fingerprint() const noexcept { return fingerprint_; }

 private:
  friend class CompatibilityCache;  // reads and writes the tables in place
  Compatibility() = default;
  Table search_{};
  Table order_{};
  Table letterCase_{};
  std::string fingerprint_;
};

}  // namespace tarv
