#include "kernel/query/name_collation.h"

#include <algorithm>
#include <vector>

namespace tarv::name_collation {

PrefixCodes::PrefixCodes(const Compatibility& compatibility) {
  // Sort every unit by (weight, unit != 0) and number the distinct pairs.
  const auto& order = compatibility.orderTable();
  std::vector<std::uint64_t> pairs(65536);
  for (std::uint32_t u = 0; u < 65536; ++u) {
    const std::uint64_t w = weight1(order, static_cast<Unit>(u));
    pairs[u] = (w << 17 | (u != 0 ? 1u << 16 : 0u)) << 16 | u;
  }
  std::sort(pairs.begin(), pairs.end());
  std::uint32_t code = 0;
  std::uint64_t previous = ~std::uint64_t(0);
  for (std::uint64_t p : pairs) {
    const std::uint64_t pair = p >> 16;
    if (previous != ~std::uint64_t(0) && pair != previous) ++code;
    previous = pair;
    codes_[p & 0xFFFF] = static_cast<std::uint16_t>(code);
  }
}

FoldCodes::FoldCodes(const Compatibility& compatibility) : codes_(65536) {
  const auto& search = compatibility.searchTable();
  std::vector<std::uint32_t> rank(65536, 0);
  for (std::uint32_t u = 0; u < 65536; ++u) rank[search[u]] = 1;  // mark the folded values
  std::uint32_t next = 0;
  for (std::uint32_t v = 0; v < 65536; ++v)
    if (rank[v]) rank[v] = ++next;
  for (std::uint32_t u = 0; u < 65536; ++u) codes_[u] = rank[search[u]];
  wide_ = next > 65535;
}

}  // namespace tarv::name_collation
