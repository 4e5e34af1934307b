#include "kernel/query/sort_key.h"

namespace tarv {

std::string_view sortKeyName(SortKey key) noexcept {
  switch (key) {
    case SortKey::name: return "name";
    case SortKey::path: return "path";
    case SortKey::size: return "size";
    case SortKey::modified: return "modified";
    case SortKey::created: return "created";
    case SortKey::allocated: return "allocated";
    case SortKey::device: return "device";
    case SortKey::none: return "none";
  }
  return "none";
}

}  // namespace tarv
