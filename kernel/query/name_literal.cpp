#include "kernel/query/name_literal.h"

#include <algorithm>
#include <bit>
#include <vector>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace tarv::name_literal {

std::optional<UnitSet> unitsMatching(Unit unit, bool sensitive, const Compatibility& compatibility) {
  UnitSet set;
  set.target = unit;
  set.sensitive = sensitive;
  set.fold = compatibility.searchTable().data();
  for (std::uint32_t u = 0; u < 65536; ++u) {
    if (!set.accepts(static_cast<Unit>(u))) continue;
    if (u == 0) return std::nullopt;
    if (u >= 0x80) {
      set.wide = true;
      continue;
    }
    if (set.asciiCount == UnitSet::kMaxAscii) return std::nullopt;
    set.ascii[set.asciiCount++] = static_cast<Unit>(u);
  }
  return set;
}

UnitIndex::UnitIndex(const Compatibility& compatibility)
    : fold_(compatibility.searchTable().data()), entries_(65536) {
  for (std::uint32_t u = 0; u < 65536; ++u) {
    Entry& e = entries_[fold_[u]];
    if (u == 0) {
      e.unusable = true;
    } else if (u >= 0x80) {
      e.wide = true;
    } else if (e.asciiCount == UnitSet::kMaxAscii) {
      e.unusable = true;
    } else {
      e.ascii[e.asciiCount++] = static_cast<Unit>(u);
    }
  }
}

std::optional<UnitSet> UnitIndex::of(Unit unit, bool sensitive) const noexcept {
  UnitSet set;
  set.target = unit;
  set.sensitive = sensitive;
  set.fold = fold_;
  if (sensitive) {
    if (unit == 0) return std::nullopt;
    if (unit < 0x80) set.ascii[set.asciiCount++] = unit;
    else set.wide = true;
    return set;
  }
  const Entry& e = entries_[unit];
  if (e.unusable) return std::nullopt;
  std::copy(e.ascii, e.ascii + e.asciiCount, set.ascii);
  set.asciiCount = e.asciiCount;
  set.wide = e.wide;
  return set;
}

std::size_t findAny(const char16_t* names, std::size_t from, std::size_t to, const UnitSet& set) noexcept {
  std::size_t p = from;
#if defined(__SSE2__)
  __m128i wanted[UnitSet::kMaxAscii];
  const std::size_t k = set.asciiCount;
  for (std::size_t i = 0; i < k; ++i) wanted[i] = _mm_set1_epi16(static_cast<short>(set.ascii[i]));
  const __m128i high = _mm_set1_epi16(static_cast<short>(0xFF80));
  const __m128i zero = _mm_setzero_si128();
  while (p + 8 <= to) {
    const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(names + p));
    __m128i hit = zero;
    for (std::size_t i = 0; i < k; ++i) hit = _mm_or_si128(hit, _mm_cmpeq_epi16(v, wanted[i]));
    // Units at or above 0x80: not equal to zero after masking the low bits.
    if (set.wide) hit = _mm_or_si128(hit, _mm_andnot_si128(_mm_cmpeq_epi16(_mm_and_si128(v, high), zero), _mm_set1_epi16(-1)));
    auto bits = static_cast<unsigned>(_mm_movemask_epi8(hit));
    while (bits != 0) {
      const std::size_t at = p + static_cast<std::size_t>(std::countr_zero(bits)) / 2;
      if (set.accepts(names[at])) return at;
      bits &= ~(3u << ((at - p) * 2));
    }
    p += 8;
  }
#endif
  for (; p < to; ++p)
    if (names[p] != 0 && set.accepts(names[p])) return p;
  return to;
}

std::int64_t scanUnits(const Catalog& catalog, const UnitSet& set, std::int64_t begin, std::int64_t end,
                       const std::uint64_t* pool, std::uint64_t* words) noexcept {
  if (begin >= end) return 0;
  const char16_t* names = catalog.parts().names.data();
  const std::int32_t* starts = catalog.parts().nameStarts.data();
  // Offsets come from a mapped file and are trusted for nothing but order:
  // every position read is kept inside the name units, and a damaged file
  // gives wrong rows, never a read outside them.
  const std::size_t size = catalog.parts().names.size();
  auto offset = [&](std::int64_t row) { return std::min<std::size_t>(static_cast<std::uint32_t>(starts[row]), size); };
  std::int64_t found = 0;
  std::int64_t row = begin;
  const std::size_t to = offset(end);
  std::size_t p = offset(begin);
  while (row < end) {
    p = findAny(names, p, to, set);
    if (p >= to) break;
    // The row holding position p: the last start not above it.
    const std::int32_t* next = std::upper_bound(starts + row + 1, starts + end + 1, static_cast<std::int32_t>(p));
    row = (next - starts) - 1;
    if (row >= end) break;
    // Stored names are NUL-terminated and NUL is never wanted, so p lies
    // inside the name of `row`.
    const std::uint64_t bit = std::uint64_t(1) << (row & 63);
    if (pool == nullptr || (pool[row >> 6] & bit) != 0) {
      words[row >> 6] |= bit;
      ++found;
    }
    ++row;
    p = std::max(p + 1, offset(row));
  }
  return found;
}

}  // namespace tarv::name_literal
