#pragma once
// Runs the compiled steps of one query plan over a source's rows, giving the
// set of rows that match (exactly those Query::matches accepts). Each step
// is evaluated as a bitset; an and narrows a pool operand by operand, and the
// per-row work runs in parallel chunks on the worker pool.
//
// Reads the index, catalog and plan without locks; the row groups are built
// on first use. Throws only std::bad_alloc.

#include <cstdint>

#include "kernel/query/bitset.h"
#include "kernel/query/plan_filter.h"

namespace tarv::planning {

// The rows selected by step 0 (the root) of `filter`. `minimum` is the
// smallest number of rows worth one parallel chunk.
Bitset evaluate(const SearchIndex& index, const ExecutionPlanner::Filter& filter, ExecutionPlanner::Groups& groups,
                std::int64_t minimum);

}  // namespace tarv::planning
