#pragma once
// PathOrder: the order of parent texts behind "path" sorting and every
// tie-break on the parent. One trailing separator is dropped first ("\" on
// windows when the text is non-empty, "/" on posix when the text has at least
// two units); the texts then compare by the three-level name collation except
// that every separator unit of the flavor ("\" and "/" on windows, "/" on
// posix) weighs less than every other unit and more than the end of the text.
// Texts still equal (the UNC root "\" and the empty parent, say) fall back to
// their raw units, so the order is total and ranks are unique.
// Stateless; thread-safe. ranks() runs on the worker pool.

#include <cstdint>
#include <vector>

#include "kernel/base/path_flavor.h"
#include "kernel/base/text.h"
#include "kernel/catalog/catalog.h"
#include "kernel/catalog/compatibility.h"

namespace tarv {

class PathOrder {
 public:
  // The part of a parent text that is compared.
  static TextView trimmed(PathFlavor flavor, TextView text) noexcept;

  // Three-way comparison of two parent texts; 0 only when they are identical.
  static int compare(const Compatibility& compatibility, PathFlavor flavor, TextView a, TextView b) noexcept;

  // The three collation levels of the rule on already trimmed texts (no raw
  // fall-back); exposed for callers that merge by level.
  static int compareTrimmed(const Compatibility& compatibility, PathFlavor flavor, TextView a, TextView b) noexcept;

  // The rank of every parent text of `catalog` (indexed by parent index):
  // its position when all of them are sorted in this order.
  static std::vector<std::int32_t> ranks(const Catalog& catalog, const Compatibility& compatibility);
};

}  // namespace tarv
