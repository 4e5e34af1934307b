#pragma once
// ExecutionPlanner: runs one query over one source. It parses the query
// against the source's catalog (path flavor, directory sizes), picks a
// strategy and tests the rows on the worker pool, giving the set of matching
// rows. Query::matches is the definition of a correct answer; every strategy
// returns exactly the rows it accepts.
//
// Strategies:
//   "all"         the query is always true (the empty query): every row, no test.
//   "scan"        every row tested with Query::matches.
//   "gram-scan"   a row filter decides first; it holds name-bigram tests: a
//                 name whose mask lacks a bit of a required literal's mask
//                 (a plain name term, or a literal run of a name pattern)
//                 cannot match and is skipped untested.
//   "filter-scan" a row filter without bigram tests decides first.
// The row filter is a small tree compiled from the query that answers yes,
// no or maybe per row from cheap facts (operands cheapest first, stopping as
// soon as the answer is known): name-bigram masks, extension ids, the folder
// bit, and for path terms the matching state at the end of each parent text
// (computed once per parent), continued over the name; plain name texts are
// decided by their bigram test and then the text itself. Only "maybe" rows
// are tested with Query::matches.
//
// Holds the search index (and through it the catalog and tables) alive.
// Immutable; select() may run on several threads at once. Never throws on
// query text (the parser never fails); only std::bad_alloc.

#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>

#include "kernel/base/text.h"
#include "kernel/query/bitset.h"
#include "kernel/query/query.h"
#include "kernel/query/search_index.h"

namespace tarv {

class ExecutionPlanner {
 public:
  enum class Strategy { all, scan, gramScan, filterScan };

  // The compiled row filter (execution_planner.cpp).
  struct Filter;

  struct Plan {
    Query::TermPtr root;
    Strategy strategy = Strategy::scan;
    std::shared_ptr<const Filter> filter;  // absent for "all" and "scan"
  };

  // The rows of one source that match.
  struct Selection {
    std::int64_t count = 0;
    Bitset rows;  // over the source's rows
    Strategy strategy = Strategy::scan;
  };

  // Rows per chunk below which the scan does not split further.
  static constexpr std::int64_t kScanMinimum = 1 << 13;

  explicit ExecutionPlanner(SearchIndexPtr index, std::int64_t scanMinimum = kScanMinimum);

  // Parses and marks the query, chooses the strategy and compiles its filter.
  // `moment` is the present for date keywords and local offsets; a search
  // over several sources passes one moment to all of them, so "today" means
  // the same day in every source even across midnight. Absent: the real clock.
  Plan plan(TextView query, std::optional<Query::Moment> moment = std::nullopt) const;
  // Runs a plan made by this planner.
  Selection run(const Plan& plan) const;
  Selection select(TextView query, std::optional<Query::Moment> moment = std::nullopt) const {
    return run(plan(query, moment));
  }

  const SearchIndex& index() const noexcept { return *index_; }

  // "all", "scan", "gram-scan", "filter-scan".
  static std::string_view name(Strategy strategy) noexcept;

 private:
  SearchIndexPtr index_;
  std::int64_t scanMinimum_;
};

}  // namespace tarv
