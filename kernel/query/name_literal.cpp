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

std::size_t findZero(const char16_t* units, std::size_t size) noexcept {
  std::size_t p = 0;
#if defined(__SSE2__)
  for (; p + 8 <= size; p += 8) {
    const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(units + p));
    const auto bits = static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi16(v, _mm_setzero_si128())));
    if (bits != 0) return p + static_cast<std::size_t>(std::countr_zero(bits)) / 2;
  }
#endif
  for (; p < size; ++p)
    if (units[p] == 0) return p;
  return size;
}

namespace {

// Rows handled per batch of the unit scan: their names' bit masks (one bit per
// unit, 1/16 of the units' bytes) stay in the core's cache while the rows read
// them back.
constexpr std::int64_t kScanBatchRows = 4096;

bool acceptsAt(const char16_t* names, std::size_t p, const UnitSet& set) noexcept {
  return names[p] != 0 && set.accepts(names[p]);
}

// The byte compares deciding a block of ASCII units: a unit is in the set
// when (unit | orBits) equals one of `wanted` (unused entries hold 0xFF,
// which no ASCII unit equals). A letter in both cases, the common case of a
// folded search, needs one compare: the cases differ in bit 0x20 alone.
struct AsciiTest {
  std::uint8_t orBits = 0;
  std::uint8_t wanted[UnitSet::kMaxAscii] = {0xFF, 0xFF, 0xFF, 0xFF};
  std::size_t count = 1;

  explicit AsciiTest(const UnitSet& set) noexcept {
    if (set.asciiCount == 2 && (set.ascii[0] ^ set.ascii[1]) == 0x20) {
      orBits = 0x20;
      wanted[0] = static_cast<std::uint8_t>(set.ascii[0] | 0x20);
      return;
    }
    for (std::size_t i = 0; i < set.asciiCount; ++i) wanted[i] = static_cast<std::uint8_t>(set.ascii[i]);
    count = std::max<std::size_t>(set.asciiCount, 1);
  }
};

// Fills masks[k] for the units base + 64k ..< base + 64(k + 1) below `to`:
// bit i says whether that unit is in `set`. Whole blocks of ASCII units are
// decided by byte compares (the set lists every ASCII unit it accepts);
// a block holding any wider unit is decided unit by unit through the fold.
// Reads only units below `size`.
void unitMasks(const char16_t* names, std::size_t size, std::size_t base, std::size_t to, const UnitSet& set,
               std::uint64_t* masks) noexcept {
  std::size_t k = 0;
  std::size_t block = base;
#if defined(__SSE2__)
  const AsciiTest test(set);
  const __m128i orBits = _mm_set1_epi8(static_cast<char>(test.orBits));
  __m128i wanted[UnitSet::kMaxAscii];
  for (std::size_t i = 0; i < UnitSet::kMaxAscii; ++i) wanted[i] = _mm_set1_epi8(static_cast<char>(test.wanted[i]));
  const __m128i high = _mm_set1_epi16(static_cast<short>(0xFF80));
  for (; block < to && block + 64 <= size; block += 64, ++k) {
    const auto* at = reinterpret_cast<const __m128i*>(names + block);
    const __m128i v0 = _mm_loadu_si128(at), v1 = _mm_loadu_si128(at + 1), v2 = _mm_loadu_si128(at + 2),
                  v3 = _mm_loadu_si128(at + 3), v4 = _mm_loadu_si128(at + 4), v5 = _mm_loadu_si128(at + 5),
                  v6 = _mm_loadu_si128(at + 6), v7 = _mm_loadu_si128(at + 7);
    const __m128i any = _mm_or_si128(_mm_or_si128(_mm_or_si128(v0, v1), _mm_or_si128(v2, v3)),
                                     _mm_or_si128(_mm_or_si128(v4, v5), _mm_or_si128(v6, v7)));
    if (_mm_movemask_epi8(_mm_cmpeq_epi16(_mm_and_si128(any, high), _mm_setzero_si128())) != 0xFFFF) {
      // A wider unit somewhere in the block: the exact rule, unit by unit.
      std::uint64_t bits = 0;
      for (std::size_t p = 0; p < 64; ++p)
        if (acceptsAt(names, block + p, set)) bits |= std::uint64_t(1) << p;
      masks[k] = bits;
      continue;
    }
    // Every unit below 0x80: packing to bytes keeps each one exactly.
    const __m128i bytes[4] = {_mm_or_si128(_mm_packus_epi16(v0, v1), orBits),
                              _mm_or_si128(_mm_packus_epi16(v2, v3), orBits),
                              _mm_or_si128(_mm_packus_epi16(v4, v5), orBits),
                              _mm_or_si128(_mm_packus_epi16(v6, v7), orBits)};
    std::uint64_t bits = 0;
    for (int j = 0; j < 4; ++j) {
      __m128i hit = _mm_cmpeq_epi8(bytes[j], wanted[0]);
      for (std::size_t a = 1; a < test.count; ++a) hit = _mm_or_si128(hit, _mm_cmpeq_epi8(bytes[j], wanted[a]));
      bits |= static_cast<std::uint64_t>(static_cast<unsigned>(_mm_movemask_epi8(hit))) << (16 * j);
    }
    masks[k] = bits;
  }
#endif
  for (; block < to; block += 64, ++k) {
    std::uint64_t bits = 0;
    const std::size_t last = std::min(block + 64, size);
    for (std::size_t p = block; p < last; ++p)
      if (acceptsAt(names, p, set)) bits |= std::uint64_t(1) << (p - block);
    masks[k] = bits;
  }
}

// Whether any bit from ..< to (to > from) of `masks` is set. The word after
// the last one holding a bit of the range must be readable (the caller pads
// the masks by one word), so a range of up to 64 bits costs two loads and a
// double-word shift, without branches.
inline bool anyBit(const std::uint64_t* masks, std::size_t from, std::size_t to) noexcept {
  const std::size_t length = to - from;
  const std::size_t first = from >> 6;
  const unsigned shift = from & 63;
  // The next word's low bits moved in above; shifting in two steps keeps a
  // shift of 0 defined (it moves nothing in).
  const std::uint64_t window = (masks[first] >> shift) | ((masks[first + 1] << 1) << (63 - shift));
  if (length <= 64) [[likely]]
    return (window & (~std::uint64_t(0) >> (64 - length))) != 0;
  if (window != 0) return true;
  const std::size_t last = (to - 1) >> 6;
  for (std::size_t w = first + 1; w < last; ++w)
    if (masks[w] != 0) return true;
  return (masks[last] & (~std::uint64_t(0) >> (63 - ((to - 1) & 63)))) != 0;
}

}  // namespace

std::int64_t scanUnits(const Catalog& catalog, const UnitSet& set, std::int64_t begin, std::int64_t end,
                       const std::uint64_t* pool, std::uint64_t* words) {
  if (begin >= end) return 0;
  const char16_t* names = catalog.parts().names.data();
  const std::int32_t* starts = catalog.parts().nameStarts.data();
  // Offsets come from a mapped file and are trusted for nothing: each batch
  // reads the units between its first and last offset (kept inside the
  // column, and never before the previous batch's end), and a row's range
  // is cut to that window, so a damaged file gives wrong rows, never a read
  // outside the units, and all batches together read the column once (and
  // at most one block again per batch).
  const std::size_t size = catalog.parts().names.size();
  auto offset = [&](std::int64_t row) { return std::min<std::size_t>(static_cast<std::uint32_t>(starts[row]), size); };
  std::vector<std::uint64_t> masks;
  std::int64_t found = 0;
  std::size_t readUpTo = 0;
  for (std::int64_t batch = begin; batch < end; batch += kScanBatchRows) {
    const std::int64_t batchEnd = std::min(end, batch + kScanBatchRows);
    const std::size_t lo = std::max(offset(batch), readUpTo);
    const std::size_t hi = std::max(lo, offset(batchEnd));
    readUpTo = hi;
    const std::size_t base = lo & ~std::size_t(63);
    // One word more than the units need: anyBit reads a word ahead.
    masks.assign((hi - base + 63) / 64 + 1, 0);
    if (hi > lo) unitMasks(names, size, base, hi, set, masks.data());
    // Rows in words of 64 (batches start on a multiple of 64), each word
    // written once.
    std::size_t from = offset(batch);
    for (std::int64_t word = batch; word < batchEnd; word += 64) {
      const std::int64_t last = std::min(batchEnd, word + 64);
      std::uint64_t bits = 0;
      for (std::int64_t row = word; row < last; ++row) {
        const std::size_t to = offset(row + 1);
        const std::size_t s = std::max(from, lo), t = std::min(to, hi);
        from = to;
        if (s < t && anyBit(masks.data(), s - base, t - base)) bits |= std::uint64_t(1) << (row - word);
      }
      if (pool != nullptr) bits &= pool[word >> 6];
      words[word >> 6] |= bits;
      found += std::popcount(bits);
    }
  }
  return found;
}

}  // namespace tarv::name_literal
