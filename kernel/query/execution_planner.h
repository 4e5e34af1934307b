#pragma once
// ExecutionPlanner: runs one query over one source. It parses the query
// against the source's catalog (path flavor, directory sizes), picks a
// strategy and tests the rows on the worker pool, giving the set of matching
// rows. Query::matches is the definition of a correct answer; every strategy
// returns exactly the rows it accepts.
//
// The query is parsed, marked and prepared by the query optimizer; then
// every term of the tree gets the cheapest method its structures allow, and
// the plan is evaluated as bitsets over the source's rows: an and narrows a
// pool of rows operand by operand (cheapest, most selective first, the
// numeric and type operands merged into one test), an or unites, a not
// subtracts. Named strategies (the method of the root term):
//   "all"           always true (the empty query): every row, no test.
//   "none"          provably empty (ext: of an extension no row has, an
//                   unmatched parent: or volume-label:, ...): no row read.
//   "name-literal"  a plain name text: rows whose name-bigram mask lacks a
//                   bit of the text's mask, or whose name-unit mask lacks
//                   one of its units, are skipped unread; the others are
//                   searched for the text (first unit, then the rest).
//   "literal-or"    an or of name literals, all tested in one such pass.
//   "name-units"    a one-unit name text: when the folded unit has a
//                   name-unit bit of its own, that bit of each row is the
//                   answer; otherwise (and for case: terms) the name units
//                   of all rows are scanned in bulk for the units that fold
//                   to it.
//   "name-prefix"   a pattern or whole name with a literal start: a binary
//                   search in the folded-name order gives the candidates
//                   (for README*, wfn:Makefile exactly the matches).
//   "name-suffix"   a pattern whose end after the last `*` holds a literal
//                   unit (*.so, *.py?, ?akefile): binary searches in the
//                   reversed-name order, one range per unit found where the
//                   end has a `?`, give the candidates.
//   "gram-scan"     a pattern without a usable end: bigram test of its
//                   literal runs, then the pattern.
//   "extension"     ext: and type macros: the extension ids are decided
//                   once, the rows come from the rows grouped by extension.
//   "parent"        parent:, decided once per parent text; rows by parent.
//   "path"          a literal over full paths: a prefix automaton runs once
//                   per parent text; only rows whose parent leaves a partial
//                   match (or whose name holds a separator, when the text
//                   does) read their names.
//   "volume"        volume-label:, decided once per device.
//   "filter-scan"   size, date, file: and folder: terms as one merged
//                   filter: a selective size or date range is a run of the
//                   stored size or date order (binary search), the other
//                   fields tested on that run's rows; otherwise one per-row
//                   test of the columns.
//   "combined"      and / or / not over the above.
//   "scan"          the rest (full-path patterns, trees too deep or too
//                   large): Query::matches per row.
// Every method returns exactly the rows Query::matches accepts; where a
// structure cannot answer for a row (names holding NUL units, extensions
// beyond the id range) that row is tested on its own.
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
  enum class Strategy {
    all, none, scan, gramScan, filterScan, nameLiteral, literalOr, nameUnits, namePrefix, nameSuffix, extension,
    parent, path, volume, combined
  };

  // The evaluation steps chosen for the tree (execution_planner.cpp).
  struct Filter;
  // Row lists grouped by extension id and by parent, built on first use.
  struct Groups;

  struct Plan {
    Query::TermPtr root;
    Strategy strategy = Strategy::scan;
    std::shared_ptr<const Filter> filter;  // absent for "all"
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

  // The strategy names listed above.
  static std::string_view name(Strategy strategy) noexcept;

 private:
  SearchIndexPtr index_;
  std::int64_t scanMinimum_;
  std::shared_ptr<Groups> groups_;  // shared by copies of this planner
};

}  // namespace tarv
