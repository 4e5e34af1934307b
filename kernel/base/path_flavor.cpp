#include "kernel/base/path_flavor.h"

namespace tarv::path_flavor {

std::ptrdiff_t lastSeparator(PathFlavor flavor, TextView text) {
  for (std::size_t i = text.size(); i > 0; --i)
    if (isSeparator(flavor, text[i - 1])) return static_cast<std::ptrdiff_t>(i - 1);
  return -1;
}

TextView trimParent(PathFlavor flavor, TextView text) {
  if (text.size() >= 2 && isSeparator(flavor, text.back())) return text.substr(0, text.size() - 1);
  return text;
}

}  // namespace tarv::path_flavor
