#pragma once
// CatalogBuilder: collects records from a source reader, finds duplicates with
// an open-addressing slot table (8192 slots, doubled when half full) and
// `finish`es into a Catalog. NativeCatalogBuilder wraps it for readers that
// must reject bad or duplicate records. Single-threaded; not shared (`finish`
// of a large catalog with ancestor inference runs its read-only lookups on a
// second thread of its own).
//
// Memory: the builder owns its growing columns until `finish` hands them to
// the catalog without copying. A parent index, name offset, parent offset or
// row count beyond 31 bits is a programming error: the process aborts with a
// message on standard error. Allocation failure throws std::bad_alloc.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "kernel/catalog/catalog.h"

namespace tarv {

// A path split into parent and name, with both hashed, computed by
// `CatalogBuilder::prepare` ahead of `add`: readers that parse on worker
// threads do this work there, leaving less to the single builder thread.
// `path` is borrowed: it must stay valid until the add.
struct PreparedPath {
  TextView path;
  std::uint32_t parentLength = 0;  // units of the parent text (through the last separator)
  std::uint32_t nameHash = 0;      // the name's polynomial hash, before it is mixed with its parent
  std::uint32_t parentHash = 0;    // hash of the parent text; unset when sameParent
  // The parent text equals that of the path prepared just before, which
  // must also be the path added (or prefetched) just before this one.
  bool sameParent = false;

  TextView parent() const noexcept { return path.substr(0, parentLength); }
};

class CatalogBuilder {
 public:
  CatalogBuilder(std::string sourceId, PathFlavor pathFlavor, bool inferAncestors, bool directorySizes);
  ~CatalogBuilder();
  CatalogBuilder(CatalogBuilder&&) noexcept;
  CatalogBuilder& operator=(CatalogBuilder&&) noexcept;

  // Adds one record; false when the path is already present (nothing added).
  // `path` is the full path. Without ancestor inference a file and a folder of
  // the same name in one parent are duplicates; with it they are two records.
  bool add(TextView path, bool folder, std::uint64_t size, std::uint64_t modified, std::uint64_t created,
           const std::optional<Text>& irregularExtension, std::uint8_t kind, std::uint64_t allocated,
           std::optional<std::uint64_t> device);

  // The same with the path already split and hashed by `prepare` for this
  // builder's path flavor.
  bool add(const PreparedPath& path, bool folder, std::uint64_t size, std::uint64_t modified, std::uint64_t created,
           const std::optional<Text>& irregularExtension, std::uint8_t kind, std::uint64_t allocated,
           std::optional<std::uint64_t> device);
  // `previous`: the path prepared just before in the same order of adds, or
  // nullptr; when the parents match, the parent is neither compared nor
  // hashed again by the builder.
  static PreparedPath prepare(PathFlavor pathFlavor, TextView path, const PreparedPath* previous = nullptr) noexcept;

  std::int32_t count() const noexcept { return count_; }

  // Whether add would refuse `path` as already present (a read-only probe).
  bool contains(TextView path, bool folder) const;
  // A hint that `path` will be added or probed soon: starts loading the part
  // of the duplicate table it needs, so that a reader looking a few records
  // ahead hides the memory latency. Changes nothing.
  void prefetch(TextView path, bool folder) const noexcept;
  void prefetch(const PreparedPath& path, bool folder) const noexcept;

  // Synthesises missing ancestors (with inference), derives folder sizes (with
  // directory sizes on: each folder's size is the sum of the files below it),
  // and returns the catalog. The builder must not be used afterwards.
  Catalog finish();

 private:
  bool addRow(std::uint32_t parentIndex, TextView name, std::uint32_t hashOfName, bool folder, std::uint64_t size,
              std::uint64_t modified, std::uint64_t created, const std::optional<Text>& irregularExtension,
              std::uint8_t kind, std::uint64_t allocated, std::optional<std::uint64_t> device);

  // Growing arrays, the parent and duplicate lookups (catalog_builder.cpp).
  struct State;
  std::unique_ptr<State> state_;
  std::int32_t count_ = 0;
};

class NativeCatalogBuilder {
 public:
  NativeCatalogBuilder(std::string sourceId, PathFlavor pathFlavor, bool directorySizes);

  // Throws KernelError::invalid("Invalid native record") when `path` is empty,
  // holds a NUL unit or `kind` >= 7, and KernelError::invalid("Duplicate native
  // path: " + path) for a duplicate. A rejected record leaves the builder unchanged.
  void add(TextView path, std::uint8_t kind, std::uint64_t size, std::uint64_t modified, std::uint64_t created,
           std::uint64_t allocated, std::optional<std::uint64_t> device);
  // The same for a path prepared for this builder's flavor.
  void add(const PreparedPath& path, std::uint8_t kind, std::uint64_t size, std::uint64_t modified,
           std::uint64_t created, std::uint64_t allocated, std::optional<std::uint64_t> device);

  std::int32_t count() const noexcept { return builder_.count(); }
  // Like add, but returns false for a path already present instead of throwing
  // (readers that report duplicates in their own words).
  bool addIfAbsent(TextView path, std::uint8_t kind, std::uint64_t size, std::uint64_t modified, std::uint64_t created,
                   std::uint64_t allocated, std::optional<std::uint64_t> device);
  // Whether `path` is already present (add would throw the duplicate error).
  bool contains(TextView path) const { return builder_.contains(path, /*folder=*/false); }
  void prefetch(TextView path) const noexcept { builder_.prefetch(path, /*folder=*/false); }
  void prefetch(const PreparedPath& path) const noexcept { builder_.prefetch(path, /*folder=*/false); }
  Catalog finish() { return builder_.finish(); }

 private:
  CatalogBuilder builder_;
};

}  // namespace tarv
