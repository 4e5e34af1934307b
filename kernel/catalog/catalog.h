#pragma once
// Catalog: the immutable columnar table of one source's records (files and
// folders). Rows are dense positions 0..count-1. Text is UTF-16 units; names
// and parent texts are packed into shared arrays with offset columns, and each
// distinct parent text (the directory prefix including its trailing separator)
// is stored once. Columns are owned or mapped from an index file.
//
// Built by CatalogBuilder::finish or rebuilt from an index file; immutable
// afterwards except for applyDeviceLabels, which the loader calls once before
// the catalog is shared. Shared read-only between threads.

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "kernel/base/column.h"
#include "kernel/base/path_flavor.h"
#include "kernel/base/text.h"

namespace tarv {

inline constexpr std::uint64_t kUnknown64 = 0xFFFFFFFFFFFFFFFFull;
inline constexpr std::uint16_t kNoDevice = 65535;
inline constexpr std::uint32_t kFolderBit = 0x80000000u;
// FILETIME ticks of 1970-01-01 00:00 UTC.
inline constexpr std::uint64_t kUnixEpochTicks = 116444736000000000ull;

class Catalog {
 public:
  // Every field of a catalog; CatalogBuilder and the index-file reader fill it.
  struct Parts {
    std::int32_t count = 0;
    std::int32_t folderCount = 0;
    PathFlavor pathFlavor = PathFlavor::posix;
    std::string sourceId;
    bool directorySizes = false;
    Column<char16_t> names;            // every name followed by one NUL unit
    Column<std::int32_t> nameStarts;   // count + 1 entries
    Column<std::uint32_t> parentTags;  // bit 31: folder; bits 0..30: parent index
    Column<std::uint64_t> sizes;
    Column<std::uint64_t> modifiedTimes;
    std::optional<Column<std::uint64_t>> createdTimes;  // absent when no row has one
    std::optional<Column<std::uint64_t>> allocations;   // absent when no row has one
    std::optional<Column<std::uint16_t>> deviceIds;     // absent when no device was seen
    std::vector<std::uint64_t> devices;
    std::vector<std::optional<Text>> deviceLabels;      // one per device
    std::optional<Column<std::uint8_t>> kinds;          // absent with ancestor inference
    Column<char16_t> parentChars;      // every parent text followed by one NUL unit
    Column<std::int32_t> parentStarts; // parents + 1 entries
    std::unordered_map<std::int32_t, Text> irregularExtensions;
  };

  explicit Catalog(Parts parts) : p_(std::move(parts)) {}

  std::int32_t count() const noexcept { return p_.count; }
  std::int32_t folderCount() const noexcept { return p_.folderCount; }
  PathFlavor pathFlavor() const noexcept { return p_.pathFlavor; }
  const std::string& sourceId() const noexcept { return p_.sourceId; }
  bool directorySizes() const noexcept { return p_.directorySizes; }
  const Parts& parts() const noexcept { return p_; }

  // Row accessors (row is a position; unchecked beyond the column bounds).
  bool isDirectory(std::int32_t row) const noexcept { return (p_.parentTags[row] & kFolderBit) != 0; }
  std::uint32_t parentIndex(std::int32_t row) const noexcept { return p_.parentTags[row] & ~kFolderBit; }
  // kinds[row] when the column is present, else 1 for a folder and 0 for a file.
  std::uint8_t recordKind(std::int32_t row) const noexcept;
  std::optional<std::uint64_t> sizeBytes(std::int32_t row) const noexcept;
  std::optional<std::int64_t> modifiedUnixMs(std::int32_t row) const noexcept;
  std::optional<std::int64_t> createdUnixMs(std::int32_t row) const noexcept;
  std::optional<std::uint64_t> sizeOnDisk(std::int32_t row) const noexcept;
  // The raw 64-bit values with the unknown sentinel (for comparisons and filters).
  std::uint64_t rawSize(std::int32_t row) const noexcept { return p_.sizes[row]; }
  std::uint64_t rawModified(std::int32_t row) const noexcept { return p_.modifiedTimes[row]; }
  std::uint64_t rawCreated(std::int32_t row) const noexcept { return p_.createdTimes ? (*p_.createdTimes)[row] : kUnknown64; }
  std::uint64_t rawAllocated(std::int32_t row) const noexcept { return p_.allocations ? (*p_.allocations)[row] : kUnknown64; }
  // Device id of the row, kNoDevice when none.
  std::uint16_t deviceId(std::int32_t row) const noexcept { return p_.deviceIds ? (*p_.deviceIds)[row] : kNoDevice; }
  // The row's device label units, or nullptr when it has none.
  const Text* deviceLabel(std::int32_t row) const noexcept;
  std::optional<std::string> deviceName(std::int32_t row) const;

  // The row's name without its terminating NUL.
  TextView nameUnits(std::int32_t row) const noexcept {
    auto start = p_.nameStarts[row];
    auto end = p_.nameStarts[row + 1];
    return TextView(p_.names.data() + start, static_cast<std::size_t>(end - start - 1));
  }
  std::string name(std::int32_t row) const { return utf8(nameUnits(row)); }
  std::int32_t parentCount() const noexcept { return static_cast<std::int32_t>(p_.parentStarts.size()) - 1; }
  // Parent text i without its terminating NUL.
  TextView parentUnits(std::uint32_t i) const noexcept {
    auto start = p_.parentStarts[i];
    auto end = p_.parentStarts[i + 1];
    return TextView(p_.parentChars.data() + start, static_cast<std::size_t>(end - start - 1));
  }
  // The irregular extension when recorded, else the units after the name's last ".".
  TextView extensionUnits(std::int32_t row) const noexcept;
  // Full path: the parent text up to a NUL when it holds one, else the parent
  // text followed by the name up to its first NUL.
  Text pathUnits(std::int32_t row) const;
  std::string displayPath(std::int32_t row) const { return utf8(pathUnits(row)); }

  // Sets the label of every device whose decimal number is a key of `labels`.
  void applyDeviceLabels(const std::map<std::string, std::string>& labels);

 private:
  Parts p_;
};

using CatalogPtr = std::shared_ptr<const Catalog>;

}  // namespace tarv
