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
//
// A catalog mapped from an index file is checked only in constant time (column
// lengths, the last offset of each text column), so a damaged file may hold
// any value inside its columns. The row accessors therefore never trust a
// stored number as an index: a parent index past the parent texts reads as
// parent 0, an offset pair out of order or past its text reads as the empty
// text, a kind of 7 or more reads as a file. Such a file gives wrong answers,
// never a read outside the mapping. Rows themselves (0 ..< count) are the
// caller's to keep in range; hasRow() checks a number read from a file.

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

  // Whether `row` names a row: a number read from an index file is checked
  // with this before it is used as a row.
  bool hasRow(std::int64_t row) const noexcept { return static_cast<std::uint64_t>(row) < static_cast<std::uint64_t>(p_.count); }

  // Row accessors (row must satisfy hasRow; nothing else is assumed).
  bool isDirectory(std::int32_t row) const noexcept { return (p_.parentTags[row] & kFolderBit) != 0; }
  // The row's parent index, always below parentCount() (0 for a damaged tag).
  std::uint32_t parentIndex(std::int32_t row) const noexcept {
    const std::uint32_t parent = p_.parentTags[row] & ~kFolderBit;
    return parent < parentLimit() ? parent : 0;
  }
  // kinds[row] when the column is present (0 for a damaged value of 7 or
  // more), else 1 for a folder and 0 for a file.
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
    return slice(p_.names, p_.nameStarts[row], p_.nameStarts[row + 1]);
  }
  std::string name(std::int32_t row) const { return utf8(nameUnits(row)); }
  std::int32_t parentCount() const noexcept { return static_cast<std::int32_t>(p_.parentStarts.size()) - 1; }
  // Parent text i without its terminating NUL; empty when i is not a parent.
  TextView parentUnits(std::uint32_t i) const noexcept {
    if (i >= parentLimit()) return {};
    return slice(p_.parentChars, p_.parentStarts[i], p_.parentStarts[i + 1]);
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
  std::uint32_t parentLimit() const noexcept {
    return p_.parentStarts.empty() ? 0u : static_cast<std::uint32_t>(p_.parentStarts.size() - 1);
  }
  // Units start ..< end - 1 of `text` (the last unit is the terminator). Every
  // text of a well-formed catalog has its terminator, so start < end always
  // holds there; anything else comes from a damaged file and reads as empty.
  static TextView slice(const Column<char16_t>& text, std::int32_t start, std::int32_t end) noexcept {
    const auto from = static_cast<std::uint32_t>(start);
    const auto to = static_cast<std::uint32_t>(end);
    if (from >= to || to > text.size()) [[unlikely]] return {};
    return TextView(text.data() + from, to - from - 1);
  }

  Parts p_;
};

using CatalogPtr = std::shared_ptr<const Catalog>;

}  // namespace tarv
