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
// Writes term.parentState only (every entry, whatever the texts hold). Runs
// on the worker pool. Throws only std::bad_alloc.

#include <cstdint>
#include <span>

#include "kernel/query/plan_filter.h"

namespace tarv::planning {

void fillParentStates(const Catalog& catalog, const Compatibility& table, ExecutionPlanner::Filter::PathTerm& term);

}  // namespace tarv::planning
