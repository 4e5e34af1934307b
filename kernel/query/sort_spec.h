#pragma once
// SortSpec: a parsed sort name, the key plus a descending flag, packed into
// one small integer as the key's raw value | 256 when descending.
//
// parse() never fails; validated() is the check every search runs first and
// throws KernelError::invalid("Unsupported sort: " + name) for any name
// outside the fourteen of kSortNames.

#include <array>
#include <string_view>

#include "kernel/query/sort_key.h"

namespace tarv {

// The accepted sort names, exactly these fourteen.
inline constexpr std::array<std::string_view, 14> kSortNames = {
    "name-asc",          "name-desc",          "path-asc",         "path-desc",        "size-asc",
    "size-desc",         "date-modified-asc",  "date-modified-desc", "date-created-asc", "date-created-desc",
    "size-on-disk-asc",  "size-on-disk-desc",  "volume-label-asc", "volume-label-desc"};

struct SortSpec {
  static constexpr int kDescending = 256;

  SortKey key = SortKey::name;
  bool descending = false;

  // Prefix tests in this order: "none" (whole name), "path", "size-on-disk",
  // "size", "date-modified", "date-created", "volume-label", else name; then
  // descending when the name has at least 6 characters and ends in "-desc".
  static SortSpec parse(std::string_view name) noexcept;
  static bool isSupported(std::string_view name) noexcept;
  // parse() of a supported name; throws KernelError::invalid otherwise.
  static SortSpec validated(std::string_view name);

  int packed() const noexcept { return rawValue(key) | (descending ? kDescending : 0); }
  // The inverse of packed(); a raw key outside 0..7 reads as none.
  static SortSpec unpack(int packed) noexcept;

  friend bool operator==(const SortSpec&, const SortSpec&) = default;
};

}  // namespace tarv
