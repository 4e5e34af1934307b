#pragma once
// SortKey: the field a result order compares, with fixed raw values 0..7.
// Immutable values; no errors.

#include <array>
#include <cstdint>
#include <optional>
#include <string_view>

namespace tarv {

enum class SortKey : std::uint8_t {
  name = 0,
  path = 1,
  size = 2,
  modified = 3,
  created = 4,
  allocated = 5,
  device = 6,
  none = 7,
};

// Every key in raw-value order.
inline constexpr std::array<SortKey, 8> kSortKeys = {SortKey::name,     SortKey::path,    SortKey::size,
                                                     SortKey::modified, SortKey::created, SortKey::allocated,
                                                     SortKey::device,   SortKey::none};

// The key of a raw value; none for values outside 0..7.
constexpr std::optional<SortKey> sortKeyFromRaw(int raw) noexcept {
  if (raw < 0 || raw > 7) return std::nullopt;
  return static_cast<SortKey>(raw);
}

constexpr int rawValue(SortKey key) noexcept { return static_cast<int>(key); }

// The key's case name ("name", "path", "size", "modified", "created",
// "allocated", "device", "none"); index sections are named "order." + this.
std::string_view sortKeyName(SortKey key) noexcept;

}  // namespace tarv
