#include "kernel/query/path_states.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <limits>
#include <vector>

#include "kernel/query/name_literal.h"
#include "kernel/query/parallel.h"

namespace tarv::planning {
namespace {

using PathTerm = ExecutionPlanner::Filter::PathTerm;

// The number of leading units two texts share, compared four at a time.
std::size_t commonStart(TextView a, TextView b) noexcept {
  const std::size_t n = std::min(a.size(), b.size());
  std::size_t i = 0;
  for (; i + 4 <= n; i += 4) {
    std::uint64_t x = 0;
    std::uint64_t y = 0;
    std::memcpy(&x, a.data() + i, sizeof x);
    std::memcpy(&y, b.data() + i, sizeof y);
    if (x != y) return i + static_cast<std::size_t>(std::countr_zero(x ^ y)) / 16;
  }
  while (i < n && a[i] == b[i]) ++i;
  return i;
}

}  // namespace

ParentStateWalker::ParentStateWalker(const Catalog& catalog, const Compatibility& table, const PathTerm& term)
    : catalog_(catalog),
      table_(table),
      term_(term),
      m_(static_cast<std::int32_t>(term.text.size())),
      foundAt_(std::numeric_limits<std::size_t>::max()) {
  states_.reserve(256);
  states_.push_back(0);
}

std::int32_t ParentStateWalker::stateOf(std::uint32_t parent) {
  constexpr std::size_t kNever = std::numeric_limits<std::size_t>::max();
  TextView units = catalog_.parentUnits(parent);
  // States are known along the start this text shares with the last one,
  // which holds no NUL (texts are cut at their first).
  const std::size_t shared = commonStart(units, previous_.substr(0, std::min(states_.size() - 1, previous_.size())));
  // The displayed path ends at a NUL, without the name.
  const std::size_t nul = shared + name_literal::findZero(units.data() + shared, units.size() - shared);
  const bool cut = nul < units.size();
  units = units.substr(0, nul);
  states_.resize(shared + 1);
  bool found = foundAt_ <= shared;
  if (!found) {
    foundAt_ = kNever;
    std::int32_t state = states_.back();
    for (std::size_t k = shared; k < units.size(); ++k) {
      state = ExecutionPlanner::Filter::advance(term_, state, units[k], table_);
      states_.push_back(state);
      if (state == m_) {
        // Every text sharing this start holds the term: nothing past it
        // is needed.
        foundAt_ = k + 1;
        found = true;
        break;
      }
    }
  }
  previous_ = units.substr(0, states_.size() - 1);
  return found ? kFound : cut ? kCut : states_.back();
}

std::vector<std::int32_t> parentStates(const Catalog& catalog, const Compatibility& table, const PathTerm& term) {
  const auto parents = static_cast<std::int64_t>(std::max(catalog.parentCount(), 0));
  std::vector<std::int32_t> out(static_cast<std::size_t>(parents), 0);
  std::int32_t* states = out.data();
  Parallel::chunks(parents, 1, 1 << 12, [&](std::int64_t begin, std::int64_t end) {
    ParentStateWalker walker(catalog, table, term);
    for (auto p = begin; p < end; ++p) states[p] = walker.stateOf(static_cast<std::uint32_t>(p));
  });
  return out;
}

}  // namespace tarv::planning
