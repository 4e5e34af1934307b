#pragma once
// NameCandidates: name-ordered row lists that turn a name prefix or suffix
// into ranges of rows instead of a scan.
//
// nameOrder: the stored name order, folders first (positions 0 ..<
//   folderCount) then files, each part in the tie-break order whose first
//   level is the level-1 name collation.
// reverseOrder: every row ordered by its folded name read backwards (unit by
//   unit from the end, a name that ends first sorting first), ties by row.
// foldedOrder: every row ordered by the first kFoldedKeyUnits units of its
//   folded name (a name that ends first sorting first), ties by row. The
//   comparison tables may sort a unit apart from the unit it folds to
//   (accented letters), so nameOrder cannot answer folded prefixes; this
//   order can, and a whole folded name is one range of it too. Cutting the
//   key keeps its sort cheap (long names sharing a start are not read to
//   their ends); a longer prefix gets the range of its first units, which
//   holds every match and some rows to test.
// nulNames: the rows whose name holds a NUL unit, ascending. Level 1 stops at
//   a NUL, so in nameOrder such a name sits with its part before the NUL;
//   matchers that read names to their end test these rows on their own.
// prefixClassesCompatible: whether the tables make level-1 order and folding
//   agree (folding keeps a unit's weight, equal weights fold equally, and
//   unit 0 weighs least of all), which is what lets a folded prefix select a
//   contiguous range of nameOrder.
//
// The lists may be mapped from an index file whose entries are not checked
// at load: a reader of one as a row checks it with Catalog::hasRow. The
// lookups here do so themselves (a damaged entry may misplace a range, never
// read outside a column).
//
// Immutable apart from prefixClassesCompatible, worked out once on first use
// (thread-safe); shared read-only between threads. Holds the catalog and
// tables.

#include <array>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <vector>

#include "kernel/base/column.h"
#include "kernel/catalog/catalog.h"
#include "kernel/catalog/compatibility.h"
#include "kernel/query/buffer.h"
#include "kernel/query/prefix_sort.h"

namespace tarv {

class NameCandidates {
 public:
  // Positions begin ..< end of an order column.
  struct Range {
    std::int64_t begin = 0;
    std::int64_t end = 0;
    std::int64_t size() const noexcept { return end - begin; }
    friend bool operator==(const Range&, const Range&) = default;
  };

  NameCandidates(CatalogPtr catalog, std::shared_ptr<const Compatibility> compatibility, Column<std::int32_t> nameOrder,
                 Column<std::int32_t> reverseOrder, Column<std::int32_t> nulNames,
                 Column<std::int32_t> foldedOrder = {});

  const Catalog& catalog() const noexcept { return *catalog_; }
  const Compatibility& compatibility() const noexcept { return *compatibility_; }
  const Column<std::int32_t>& nameOrder() const noexcept { return nameOrder_; }
  const Column<std::int32_t>& reverseOrder() const noexcept { return reverseOrder_; }
  const Column<std::int32_t>& nulNames() const noexcept { return nulNames_; }
  const Column<std::int32_t>& foldedOrder() const noexcept { return foldedOrder_; }
  // Whether foldedOrder holds every row (an index built without it has none).
  bool hasFoldedOrder() const noexcept { return foldedOrder_.size() == nameOrder_.size(); }
  bool prefixClassesCompatible() const;

  // The ranges of nameOrder (folders, then files) holding the rows whose
  // folded name starts with `foldedPrefix`. Nothing when the tables are not
  // prefix-compatible or the prefix holds a NUL.
  std::optional<std::array<Range, 2>> prefixRanges(TextView foldedPrefix) const;
  // The range of reverseOrder holding the rows whose folded name ends with
  // `foldedSuffix`.
  Range suffixRange(TextView foldedSuffix) const noexcept;
  // Units of a folded name that foldedOrder sorts by.
  static constexpr std::size_t kFoldedKeyUnits = 16;
  // The range of foldedOrder holding the rows whose folded name starts with
  // `foldedPrefix` (NUL units included), or with `whole` equals it: exactly
  // those rows while foldedRangeIsExact, else those and some others. Empty
  // when there is no foldedOrder.
  Range foldedRange(TextView foldedPrefix, bool whole) const noexcept;
  static bool foldedRangeIsExact(std::size_t prefixUnits, bool whole) noexcept {
    return whole ? prefixUnits < kFoldedKeyUnits : prefixUnits <= kFoldedKeyUnits;
  }

  // A pattern end read backwards: units that must be equal (folded) and
  // kAnyUnit for a position that takes any one unit.
  static constexpr std::int32_t kAnyUnit = -1;
  // The ranges of reverseOrder holding the rows whose folded name ends with
  // `pattern` (one entry per unit from the name's end: a folded unit, or
  // kAnyUnit). Each any-unit position splits a range by the distinct units
  // found there, one binary search each; nothing when the walk would split
  // ranges more than `maxRanges` times in all.
  std::optional<std::vector<Range>> suffixRanges(std::span<const std::int32_t> pattern,
                                                 std::size_t maxRanges) const;

  static bool classesCompatible(const Compatibility& compatibility);
  // reverseOrder built from a catalog (parallel sort); `scratch` (optional)
  // lends its arrays to the sort.
  static Buffer<std::int32_t> buildReverseOrder(const Catalog& catalog, const Compatibility& compatibility,
                                                PrefixScratch* scratch = nullptr);
  // Three-way comparison of two names read backwards through the fold.
  static int compareReversed(const Compatibility& compatibility, TextView a, TextView b) noexcept;
  // foldedOrder built from a catalog (parallel sort); `scratch` as above.
  static Buffer<std::int32_t> buildFoldedOrder(const Catalog& catalog, const Compatibility& compatibility,
                                               PrefixScratch* scratch = nullptr);
  // Three-way comparison of two names read forwards through the fold, up
  // to `units` units each (foldedOrder's key by default).
  static int compareFolded(const Compatibility& compatibility, TextView a, TextView b,
                           std::size_t units = kFoldedKeyUnits) noexcept;

 private:
  CatalogPtr catalog_;
  std::shared_ptr<const Compatibility> compatibility_;
  Column<std::int32_t> nameOrder_;
  Column<std::int32_t> reverseOrder_;
  Column<std::int32_t> nulNames_;
  Column<std::int32_t> foldedOrder_;
  mutable std::once_flag compatibleOnce_;
  mutable bool prefixClassesCompatible_ = false;
};

}  // namespace tarv
