#pragma once
// Inline forms of the three-level name collation for the sorting hot loops,
// identical in result to Compatibility::compareLevel1/2/3 (the tests hold
// them against each other), plus the 64-bit level-1 prefix keys that let a
// sort decide most comparisons with one integer compare.
//
// A position past the end of a name reads as unit 0; when the weights agree
// and either unit is 0 the raw units decide and the walk stops. Level 1 weighs
// a surrogate unit as unit + 65536 and every other unit by `order`.
// Stateless apart from the tables passed in; thread-safe.

#include <array>
#include <cstdint>
#include <memory>
#include <vector>

#include "kernel/base/text.h"
#include "kernel/catalog/compatibility.h"

namespace tarv::name_collation {

constexpr bool isSurrogate(Unit u) noexcept { return (u & 0xF800) == 0xD800; }

template <class Weight>
inline int walk(TextView a, TextView b, Weight weight) noexcept {
  const std::size_t shared = a.size() < b.size() ? a.size() : b.size();
  for (std::size_t i = 0; i < shared; ++i) {
    const Unit ua = a[i];
    const Unit ub = b[i];
    if (ua == ub) {
      if (ua == 0) return 0;
      continue;
    }
    const std::uint32_t wa = weight(ua);
    const std::uint32_t wb = weight(ub);
    if (wa != wb) return wa < wb ? -1 : 1;
    if (ua == 0 || ub == 0) return ua < ub ? -1 : 1;
  }
  if (a.size() == b.size()) return 0;
  const bool aEnded = a.size() < b.size();
  const Unit next = aEnded ? b[shared] : a[shared];
  const std::uint32_t wEnded = weight(Unit(0));
  const std::uint32_t wNext = weight(next);
  int result;
  if (wEnded != wNext) {
    result = wEnded < wNext ? -1 : 1;
  } else {
    if (next == 0) return 0;
    result = -1;
  }
  return aEnded ? result : -result;
}

inline std::uint32_t weight1(const Compatibility::Table& order, Unit u) noexcept {
  return isSurrogate(u) ? std::uint32_t(u) + 65536u : std::uint32_t(order[u]);
}

inline int level1(const Compatibility::Table& order, TextView a, TextView b) noexcept {
  return walk(a, b, [&](Unit u) { return weight1(order, u); });
}
inline int level2(const Compatibility::Table& letterCase, TextView a, TextView b) noexcept {
  return walk(a, b, [&](Unit u) { return std::uint32_t(letterCase[u]); });
}
inline int level3(TextView a, TextView b) noexcept {
  return walk(a, b, [](Unit u) { return std::uint32_t(u); });
}

// Dense 16-bit codes of (level-1 weight, unit is 0) pairs: at most 65536
// distinct pairs exist, one per unit, and the codes keep their order, so
// comparing codes position by position agrees with level 1 wherever the codes
// differ.
class PrefixCodes {
 public:
  explicit PrefixCodes(const Compatibility& compatibility);

  // Codes of units from ..< from + 8 as two words, most significant first.
  // A name's end and every unit after its first NUL read as the code of unit
  // 0 (which no other unit shares), so two slices that differ compare at
  // level 1 like the names, and a slice ending in that code means the name
  // ended within it: equal such slices mean names equal at level 1.
  // Callers pass `from` only for names that did not end before it.
  void slice(TextView name, std::size_t from, std::uint64_t& high, std::uint64_t& low) const noexcept {
    std::uint64_t k[2] = {0, 0};
    bool ended = false;
    for (std::size_t i = 0; i < 8; ++i) {
      Unit u = 0;
      if (!ended && from + i < name.size()) u = name[from + i];
      if (u == 0) ended = true;
      k[i >> 2] = (k[i >> 2] << 16) | codes_[u];
    }
    high = k[0];
    low = k[1];
  }
  std::uint16_t endCode() const noexcept { return codes_[0]; }
  std::uint16_t code(Unit u) const noexcept { return codes_[u]; }

 private:
  std::array<std::uint16_t, 65536> codes_;
};

// Dense codes of folded units for slices of folded text: 1 + the rank of
// search[u] among all folded values, so 0 is free to mean "past the end" and
// codes keep the order of the folded values. They fit 16 bits (eight units per
// 128-bit slice) unless every value 0..65535 is some unit's fold, in which
// case slots take 17 bits (six units per slice).
class FoldCodes {
 public:
  explicit FoldCodes(const Compatibility& compatibility);

  std::uint32_t code(Unit u) const noexcept { return codes_[u]; }
  int slotBits() const noexcept { return wide_ ? 17 : 16; }
  std::size_t unitsPerSlice() const noexcept { return wide_ ? 6 : 8; }
  std::uint64_t slotMask() const noexcept { return (std::uint64_t(1) << slotBits()) - 1; }

  // Packs slot(0 ..< unitsPerSlice()) into a slice, slot 0 most significant.
  template <class Slot>
  void pack(Slot slot, std::uint64_t& high, std::uint64_t& low) const noexcept {
    const std::size_t perWord = unitsPerSlice() / 2;
    const int bits = slotBits();
    std::uint64_t k[2] = {0, 0};
    for (std::size_t j = 0; j < 2 * perWord; ++j) k[j / perWord] = (k[j / perWord] << bits) | slot(j);
    high = k[0];
    low = k[1];
  }

 private:
  std::vector<std::uint32_t> codes_;
  bool wide_ = false;
};

}  // namespace tarv::name_collation
