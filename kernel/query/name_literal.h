#pragma once
// Literal search in names, the inner loops of the name strategies: a folded
// (or case-sensitive) run of units found in one name, and the bulk scan of a
// catalog's name units for the few units that fold to one given unit.
//
// Stateless functions over borrowed views; thread-safe; no allocation.

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "kernel/base/text.h"
#include "kernel/catalog/catalog.h"
#include "kernel/catalog/compatibility.h"

namespace tarv::name_literal {

// Whether `text` occurs in `name`: unit by unit equal (sensitive) or with
// each name unit folded through `fold` (text already folded). The first
// unit is looked for before the rest is compared.
inline bool contains(TextView name, TextView text, bool sensitive, const std::uint16_t* fold) noexcept {
  const std::size_t m = text.size();
  if (m == 0) return true;
  if (name.size() < m) return false;
  if (sensitive) return name.find(text) != TextView::npos;
  const Unit first = text[0];
  const std::size_t last = name.size() - m;
  for (std::size_t i = 0; i <= last; ++i) {
    if (fold[name[i]] != first) continue;
    std::size_t j = 1;
    while (j < m && fold[name[i + j]] == text[j]) ++j;
    if (j == m) return true;
  }
  return false;
}

// The units a name may hold where one folded unit is wanted: the ASCII ones
// listed, the others (when `wide`) confirmed through the fold table. Names
// are mostly ASCII, so the bulk scan compares a few ASCII units and stops at
// any wider unit.
struct UnitSet {
  static constexpr std::size_t kMaxAscii = 4;
  Unit ascii[kMaxAscii] = {};
  std::size_t asciiCount = 0;
  bool wide = false;  // some non-ASCII unit is wanted too
  Unit target = 0;    // the wanted unit: folded, or as typed when sensitive
  bool sensitive = false;
  const std::uint16_t* fold = nullptr;

  bool accepts(Unit u) const noexcept { return (sensitive ? u : static_cast<Unit>(fold[u])) == target; }
};

// The set for `unit` (already folded unless sensitive); nothing when NUL (the
// terminator of stored names) would be wanted or too many ASCII units fold
// to it.
std::optional<UnitSet> unitsMatching(Unit unit, bool sensitive, const Compatibility& compatibility);

// unitsMatching for many units: the fold table inverted once (ASCII
// preimages, whether a wider unit or NUL folds to each unit), so each set
// costs no pass over the table.
class UnitIndex {
 public:
  explicit UnitIndex(const Compatibility& compatibility);
  std::optional<UnitSet> of(Unit unit, bool sensitive) const noexcept;

 private:
  struct Entry {
    Unit ascii[UnitSet::kMaxAscii] = {};
    std::uint8_t asciiCount = 0;
    bool wide = false;
    bool unusable = false;  // NUL or too many ASCII units fold to it
  };
  const std::uint16_t* fold_;
  std::vector<Entry> entries_;
};

// Position of the first unit in [from, to) of `units` that `set` accepts,
// or `to`. Reads nothing outside [from, to).
std::size_t findAny(const char16_t* units, std::size_t from, std::size_t to, const UnitSet& set) noexcept;

// Position of the first NUL unit among units[0 ..< size], or size.
std::size_t findZero(const char16_t* units, std::size_t size) noexcept;

// contains() with the first unit of `text` looked for through `first` (its
// UnitSet), eight units at a time.
inline bool contains(TextView name, TextView text, const UnitSet& first, const std::uint16_t* fold) noexcept {
  const std::size_t m = text.size();
  if (m == 0) return true;
  if (name.size() < m) return false;
  const char16_t* units = name.data();
  const std::size_t end = name.size() - m + 1;  // starts that leave room
  for (std::size_t p = findAny(units, 0, end, first); p < end; p = findAny(units, p + 1, end, first)) {
    std::size_t j = 1;
    if (first.sensitive) {
      while (j < m && units[p + j] == text[j]) ++j;
    } else {
      while (j < m && fold[units[p + j]] == text[j]) ++j;
    }
    if (j == m) return true;
  }
  return false;
}

// Sets in `words` (bit r for row r, words owned by the caller for rows
// begin ..< end, begin a multiple of 64) every row of `catalog` in that
// range whose name holds a unit of `set` and whose bit is set in `pool`
// (absent: every row). Returns the number of rows set. Throws only
// std::bad_alloc (the per-batch unit masks).
std::int64_t scanUnits(const Catalog& catalog, const UnitSet& set, std::int64_t begin, std::int64_t end,
                       const std::uint64_t* pool, std::uint64_t* words);

}  // namespace tarv::name_literal
