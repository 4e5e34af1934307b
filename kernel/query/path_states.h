#pragma once
// The parent states of a substring term over full paths: for every parent
// text of a catalog, whether the text occurs in it (planning::kFound), whether
// the displayed path ends inside it at a NUL without the text (kCut), or else
// the longest end of it that starts the text (the prefix automaton's state),
// which the row's name may complete.
//
// Parent texts are walked in the catalog's parent order, where a text mostly
// shares a long start with the one before (a folder's children follow it):
// the automaton's states along the shared start are kept and only the rest
// of each text is stepped through, so the automaton's work follows the
// lengths of the folder names rather than of the whole paths, and the texts
// are read in the order they are stored.
//
// Reads the catalog and the term only; the states belong to the caller.
// Throws only std::bad_alloc.

#include <cstdint>
#include <vector>

#include "kernel/query/plan_filter.h"

namespace tarv::planning {

// Not a state: a parent not computed (yet).
constexpr std::int32_t kUnknownState = -3;

// The automaton walked along one parent text after another, keeping its
// states along the start each text shares with the one before. One walker
// per thread; any order of parents gives exact states (a shared start only
// saves work).
class ParentStateWalker {
 public:
  ParentStateWalker(const Catalog& catalog, const Compatibility& table, const ExecutionPlanner::Filter::PathTerm& term);
  // kFound, kCut, or the automaton's state after the parent text.
  std::int32_t stateOf(std::uint32_t parent);

 private:
  const Catalog& catalog_;
  const Compatibility& table_;
  const ExecutionPlanner::Filter::PathTerm& term_;
  std::int32_t m_;
  std::vector<std::int32_t> states_;  // states_[k]: after the first k units of previous_
  TextView previous_;
  std::size_t foundAt_;  // units of previous_ after which the term was found
};

// The state of every parent, walked in the catalog's parent order on the
// worker pool.
std::vector<std::int32_t> parentStates(const Catalog& catalog, const Compatibility& table,
                                       const ExecutionPlanner::Filter::PathTerm& term);

}  // namespace tarv::planning
