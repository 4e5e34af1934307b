#pragma once
// PathFlavor: the path syntax of a source. Windows paths separate with "\" and
// "/" and name drives (C:); POSIX paths separate with "/" only.

#include <cstddef>

#include "kernel/base/text.h"

namespace tarv {

enum class PathFlavor { windows, posix };

namespace path_flavor {

// Whether `unit` separates path components in this flavor.
constexpr bool isSeparator(PathFlavor flavor, Unit unit) {
  return unit == u'/' || (flavor == PathFlavor::windows && unit == u'\\');
}

// Position of the last separator of the flavor in `text`, or -1 when there is none.
std::ptrdiff_t lastSeparator(PathFlavor flavor, TextView text);

// `text` with one trailing separator removed, unless it is a lone separator
// ("/" stays "/"). So parent texts and parent: values compare as folder paths.
TextView trimParent(PathFlavor flavor, TextView text);

}  // namespace path_flavor
}  // namespace tarv
