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

  // Codes of the first four units (a name's end and any unit after its first
  // NUL read as the code of unit 0), most significant first. Two names whose
  // keys differ compare at level 1 like their keys; equal keys need the walk,
  // which can start at unit 4 when both names are that long and the key holds
  // no NUL.
  std::uint64_t key(TextView name) const noexcept {
    std::uint64_t k = 0;
    bool ended = false;
    for (std::size_t i = 0; i < 4; ++i) {
      Unit u = 0;
      if (!ended && i < name.size()) u = name[i];
      if (u == 0) ended = true;
      k = (k << 16) | codes_[u];
    }
    return k;
  }

 private:
  std::array<std::uint16_t, 65536> codes_;
};

}  // namespace tarv::name_collation
