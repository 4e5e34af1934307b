#pragma once
// BatchedPath: a record's path as a parse worker leaves it in a batch, split
// and hashed for the catalog builder. The units live in the batch's shared
// buffer, which grows while the batch fills, so the path is kept as an
// offset and turned back into a PreparedPath when the builder takes it.

#include <cstddef>
#include <cstdint>

#include "kernel/base/path_flavor.h"
#include "kernel/base/text.h"
#include "kernel/catalog/catalog_builder.h"

namespace tarv::sources {

struct BatchedPath {
  std::size_t unitsStart = 0;
  std::uint32_t unitsLength = 0;
  std::uint32_t parentLength = 0;
  std::uint32_t nameHash = 0;
  std::uint32_t parentHash = 0;
  bool sameParent = false;

  // Prepares the path units[start ..< units.size()]; `previous` is the path
  // batched just before it (nullptr for a batch's first), whose parent the
  // builder may then reuse.
  static BatchedPath prepare(PathFlavor flavor, TextView units, std::size_t start,
                             const BatchedPath* previous) noexcept {
    PreparedPath before;
    if (previous) before = previous->at(units.data());
    PreparedPath path = CatalogBuilder::prepare(flavor, units.substr(start), previous ? &before : nullptr);
    return {start, static_cast<std::uint32_t>(units.size() - start), path.parentLength, path.nameHash,
            path.parentHash, path.sameParent};
  }

  PreparedPath at(const Unit* units) const noexcept {
    return {TextView(units + unitsStart, unitsLength), parentLength, nameHash, parentHash, sameParent};
  }
};

}  // namespace tarv::sources
