#pragma once
// SearchIndex: the structures derived once from one catalog that make
// searches fast: the stored sort orders, the path rank of every parent text,
// per-row extension ids, name-bigram masks and name-unit masks, per-parent
// counts and the parent prefix order, the drive lists, the rows whose names
// hold a separator, and the name-ordered candidate lists.
//
// Built from a catalog (all per-row work on the worker pool) or mapped from an
// index file without copying and in constant time whatever the record count.
// Immutable afterwards except what is derived on first use: the volume-label
// order (under its own lock) and the extension tables (once, thread-safe).
// Shared read-only between threads. Holds the catalog and the tables alive.
//
// Numbers read from a mapped file are not range-checked at load: an order
// entry, extension id, parent index or row number of a damaged file may lie
// outside its range. Every user of one as an index checks it where it is
// used (Catalog::hasRow, parentCount(), extensions().size(), or a table of
// 65536 entries for extension ids); a damaged file then gives wrong answers,
// never a read outside a column.
//
// Extension ids: id 0 is the empty extension (names without "."), always
// present. The other distinct extension texts (exact units, irregular
// extensions included) get ids 1, 2, ... by falling row count, ties by raw
// units. A catalog with more than 65535 distinct extensions gives the rarest
// ones the id kExtensionOverflow: their `extensions` entry is empty, they are
// in no map, and an engine must test such rows by their units. Folded matching
// goes through extensionClasses: ids whose texts fold equal share a class.
//
// Drive lists (windows catalogs only; empty for posix): driveParents are the
// parent indexes whose text is a drive root, a letter, ":" and one separator
// ("C:\"); driveNames are the rows with an empty parent text whose name is a
// drive, a letter and ":" ("C:"): folders whose full path lacks the separator
// that their children's parent text carries. Both ascending.
//
// parentPrefixOrder: every parent index ordered by its folded units (a text
// that is a prefix of another first), then by raw units, so the parents that
// start with a folded prefix form one range. parentRowCounts: per parent
// index, the rows directly in it.

#include <array>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "kernel/base/column.h"
#include "kernel/catalog/catalog.h"
#include "kernel/catalog/compatibility.h"
#include "kernel/index/index_file.h"
#include "kernel/query/name_candidates.h"
#include "kernel/query/row_order.h"
#include "kernel/query/sort_spec.h"

namespace tarv {

class SearchIndex {
 public:
  static constexpr std::uint16_t kExtensionOverflow = 65535;
  // The layout of the sections below, kept in the meta value "indexLayout";
  // a file of another layout is refused (and a cache file rebuilt).
  static constexpr int kLayout = 5;

  // Builds every structure. Runs on the calling thread and one helper thread
  // of its own (the orders and the name-side tables are built side by side),
  // both handing their per-row work to the worker pool; returns when both are
  // done. Throws only what allocation throws.
  SearchIndex(CatalogPtr catalog, std::shared_ptr<const Compatibility> compatibility);

  // Maps the sections that write() stored under `prefix`; `catalog` must be
  // the one rebuilt from the same file. Constant-time checks only: the layout
  // version, every section's length against the row, parent or extension
  // count, and the extension table's header and last offset. Throws the
  // reader's "Missing index section ..." / "Missing index value ...",
  // KernelError::io("Unsupported index layout") for a file of another layout
  // (an older cache), or KernelError::io("Invalid index section " + name).
  SearchIndex(const IndexFile::Reader& reader, CatalogPtr catalog, std::shared_ptr<const Compatibility> compatibility,
              std::string_view prefix = {});

  SearchIndex(const SearchIndex&) = delete;
  SearchIndex& operator=(const SearchIndex&) = delete;

  const Catalog& catalog() const noexcept { return *catalog_; }
  const CatalogPtr& catalogPointer() const noexcept { return catalog_; }
  const Compatibility& compatibility() const noexcept { return *compatibility_; }
  const std::shared_ptr<const Compatibility>& compatibilityPointer() const noexcept { return compatibility_; }

  const Column<std::int32_t>& parentRanks() const noexcept { return parentRanks_; }

  // The keys with a stored order: name, path, size, modified, then created
  // and allocated when the catalog has those columns.
  const std::vector<SortKey>& storedKeys() const noexcept { return storedKeys_; }
  bool stores(SortKey key) const noexcept;
  // The ascending order of `key` over every row. name and none give the name
  // order, as do created and allocated when the catalog lacks the column (all
  // values unknown); device builds the volume-label order on first use.
  Column<std::int32_t> order(SortKey key) const;
  // The row comparison of result orders (descending negates).
  int compare(std::int32_t a, std::int32_t b, SortSpec spec) const noexcept {
    return rowOrder().compare(a, b, spec);
  }
  RowOrder rowOrder() const noexcept { return RowOrder(*catalog_, *compatibility_, parentRanks_.span()); }

  const Column<std::uint16_t>& extensionIds() const noexcept { return extensionIds_; }
  // The extension texts, the exact-text map and the folded classes are
  // derived on the first call of any of these (decoded from the mapped
  // table, once, thread-safe), so loading never pays for them.
  const std::vector<Text>& extensions() const { return extensionTables().texts; }
  const Column<std::int64_t>& extensionCounts() const noexcept { return extensionCounts_; }
  // Exact extension text to id.
  const std::unordered_map<Text, std::int32_t>& extensionMap() const { return extensionTables().map; }
  // Per id, the index of its folded class.
  const std::vector<std::int32_t>& extensionClasses() const { return extensionTables().classes; }
  // The ids whose text equals `extension` (sensitive) or folds equal to it.
  std::vector<std::int32_t> extensionIdsMatching(TextView extension, bool sensitive) const;
  bool hasOverflowExtensions() const noexcept { return extensionCounts_.size() > kExtensionOverflow; }

  const Column<std::uint64_t>& nameGramMasks() const noexcept { return nameGramMasks_; }
  // The bigram mask of `units` with both units of every pair folded: bit
  // (h ^ (h >> 16)) & 63 of h = search[b] + search[a] * 65599; 0 below 2 units.
  static std::uint64_t gramMask(const Compatibility& compatibility, TextView units) noexcept;

  // Per row, bit unitBit(f) set for the folded value f of every unit of the
  // name (NUL and unpaired surrogates included). The common folded units of
  // names have bits of their own: the letters (either case: a table folds
  // to one of them), the digits and the frequent punctuation; every other
  // unit shares one of the last kHashedUnitBits bits by a hash.
  const Column<std::uint64_t>& nameUnitMasks() const noexcept { return nameUnitMasks_; }
  static constexpr int kHashedUnitBits = 20;
  static int unitBit(Unit folded) noexcept;
  // The unit mask of `units`, each unit folded through `compatibility`.
  static std::uint64_t unitMask(const Compatibility& compatibility, TextView units) noexcept;
  // The unit mask of units that are already folded.
  static std::uint64_t foldedUnitMask(TextView folded) noexcept;
  // Whether a row's unit mask tells exactly whether its name holds a unit
  // that folds to `folded`: no other value of the fold table shares its bit.
  bool unitBitIsExact(Unit folded) const noexcept {
    std::call_once(exactUnitsOnce_, [this] { findExactUnits(); });
    return exactUnits_[static_cast<std::size_t>(unitBit(folded))] == static_cast<std::int32_t>(folded);
  }

  const Column<std::int32_t>& parentPrefixOrder() const noexcept { return parentPrefixOrder_; }
  const Column<std::int32_t>& parentRowCounts() const noexcept { return parentRowCounts_; }
  const Column<std::int64_t>& exceptionalDriveParents() const noexcept { return driveParents_; }
  const Column<std::int64_t>& exceptionalDriveNames() const noexcept { return driveNames_; }

  // Rows whose name holds a separator of the catalog's flavor, as bitset words.
  std::span<const std::uint64_t> separatorNames() const noexcept { return separatorNames_.span(); }
  std::int64_t separatorNameCount() const noexcept { return separatorNameCount_; }

  const NameCandidates* names() const noexcept { return names_.get(); }

  // Adds the sections under `prefix`: "parentRanks", "order.<key>" per stored
  // key, "extensionIds", "extensions", "nameGrams", "parentPrefixOrder",
  // "parentRowCounts", "driveParents", "driveNames", "separatorNames",
  // "nulNames", "reverseOrder", "foldedOrder", then "extensionCounts". Passes on the
  // writer's KernelError::io.
  void write(IndexFile::Writer& writer, std::string_view prefix = {}) const;

 private:
  void buildOrders();
  std::vector<std::int32_t> buildRowTables();  // returns the rows whose names hold a NUL
  void buildParentPrefixOrder();
  struct ExtensionTables {
    std::vector<Text> texts;
    std::unordered_map<Text, std::int32_t> map;
    std::vector<std::int32_t> classes;
    std::unordered_map<Text, std::int32_t> classMap;  // folded text to class
    std::vector<std::vector<std::int32_t>> classMembers;
  };
  const ExtensionTables& extensionTables() const;
  // Walks all 65,536 units of the table: done on the first one-unit
  // question, not at every start-up.
  void findExactUnits() const noexcept;

  CatalogPtr catalog_;
  std::shared_ptr<const Compatibility> compatibility_;
  Column<std::int32_t> parentRanks_;
  std::vector<SortKey> storedKeys_;
  std::vector<Column<std::int32_t>> orders_;  // parallel to storedKeys_
  Column<std::uint16_t> extensionIds_;
  Column<std::uint16_t> encodedExtensions_;  // the "extensions" section, decoded on first use
  Column<std::uint64_t> nameGramMasks_;
  Column<std::uint64_t> nameUnitMasks_;
  // Per unit bit, the one folded value that maps to it, or -1 when none or
  // several do.
  mutable std::array<std::int32_t, 64> exactUnits_{};
  mutable std::once_flag exactUnitsOnce_;
  Column<std::int64_t> extensionCounts_;
  Column<std::int32_t> parentPrefixOrder_;
  Column<std::int32_t> parentRowCounts_;
  Column<std::int64_t> driveParents_;
  Column<std::int64_t> driveNames_;
  mutable ExtensionTables extensionTables_;
  mutable std::once_flag extensionOnce_;
  Column<std::uint64_t> separatorNames_;
  std::int64_t separatorNameCount_ = 0;
  std::unique_ptr<NameCandidates> names_;
  mutable std::optional<Column<std::int32_t>> deviceOrder_;
  mutable std::mutex deviceLock_;
};

using SearchIndexPtr = std::shared_ptr<const SearchIndex>;

}  // namespace tarv
