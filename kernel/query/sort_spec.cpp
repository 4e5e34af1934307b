#include "kernel/query/sort_spec.h"

#include <algorithm>
#include <string>

#include "kernel/base/kernel_error.h"

namespace tarv {

SortSpec SortSpec::parse(std::string_view name) noexcept {
  SortSpec spec;
  // "size-on-disk" must be tested before its prefix "size".
  if (name == "none") spec.key = SortKey::none;
  else if (name.starts_with("path")) spec.key = SortKey::path;
  else if (name.starts_with("size-on-disk")) spec.key = SortKey::allocated;
  else if (name.starts_with("size")) spec.key = SortKey::size;
  else if (name.starts_with("date-modified")) spec.key = SortKey::modified;
  else if (name.starts_with("date-created")) spec.key = SortKey::created;
  else if (name.starts_with("volume-label")) spec.key = SortKey::device;
  else spec.key = SortKey::name;
  spec.descending = name.size() >= 6 && name.ends_with("-desc");
  return spec;
}

bool SortSpec::isSupported(std::string_view name) noexcept {
  return std::find(kSortNames.begin(), kSortNames.end(), name) != kSortNames.end();
}

SortSpec SortSpec::validated(std::string_view name) {
  if (!isSupported(name)) throw KernelError::invalid("Unsupported sort: " + std::string(name));
  return parse(name);
}

SortSpec SortSpec::unpack(int packed) noexcept {
  SortSpec spec;
  spec.key = sortKeyFromRaw(packed & 0xFF).value_or(SortKey::none);
  spec.descending = (packed & kDescending) != 0;
  return spec;
}

}  // namespace tarv
