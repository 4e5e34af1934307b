#pragma once
// The compiled form of a query plan, shared by the execution planner (which
// compiles a query's tree into steps) and the plan evaluator (which runs the
// steps as bitsets): the step methods, the row groups built on first use and
// the path-term automata. Internal to the query engine.
//
// Plain data; built once per plan by one thread, then only read (the row
// groups are filled once under their once_flags).

#include <atomic>
#include <array>
#include <cstdint>
#include <mutex>
#include <optional>
#include <span>
#include <vector>

#include "kernel/base/text.h"
#include "kernel/query/execution_planner.h"
#include "kernel/query/name_candidates.h"
#include "kernel/query/name_literal.h"
#include "kernel/query/query.h"
#include "kernel/query/search_index.h"

namespace tarv {
namespace planning {

enum class Method : std::uint8_t {
  all, none, rows, literal, literalOr, units, prefix, suffix, pattern, extension, parent, path, volume, numeric,
  allOf, anyOf, negate
};

// Parent states of a path term: the text occurs within the parent's part of
// the path, or the path ends inside the parent text (a NUL cuts it).
constexpr std::int32_t kFound = -1;
constexpr std::int32_t kCut = -2;

// Rows grouped by a small key (extension id, parent index): the rows of key
// k, ascending, are rows[starts[k] ..< starts[k + 1]).
struct RowGroups {
  std::vector<std::int32_t> starts;
  std::vector<std::int32_t> rows;

  template <class KeyOf>
  static RowGroups build(std::int32_t n, std::size_t keys, KeyOf keyOf) {
    RowGroups g;
    g.starts.assign(keys + 1, 0);
    for (std::int32_t r = 0; r < n; ++r) ++g.starts[keyOf(r) + 1];
    for (std::size_t k = 0; k < keys; ++k) g.starts[k + 1] += g.starts[k];
    g.rows.resize(static_cast<std::size_t>(n));
    std::vector<std::int32_t> next(g.starts.begin(), g.starts.end() - 1);
    for (std::int32_t r = 0; r < n; ++r) g.rows[static_cast<std::size_t>(next[keyOf(r)]++)] = r;
    return g;
  }
  std::span<const std::int32_t> of(std::size_t key) const noexcept {
    if (key + 1 >= starts.size()) return {};
    return {rows.data() + starts[key], static_cast<std::size_t>(starts[key + 1] - starts[key])};
  }
};

}  // namespace planning

// Row groups are built on a planner's second question that needs them: a
// one-shot search answers its only question with a scan of the key column,
// which is cheaper than grouping it, while a long-lived process (service,
// MCP) pays for the groups once and then reads just the groups it asks for.
struct ExecutionPlanner::Groups {
  std::atomic<int> extensionUses{0};
  std::atomic<int> parentUses{0};
  std::once_flag extensionOnce;
  std::once_flag parentOnce;
  planning::RowGroups byExtension;
  planning::RowGroups byParent;
  // The folders among the rows, for file: and folder: (made on first use).
  std::once_flag folderOnce;
  Bitset folders;
};

struct ExecutionPlanner::Filter {
  // A substring term over full paths, decided with a prefix automaton: the
  // state after each parent text is computed once per evaluation (for every
  // parent, or only for the parents of a small pool; path_states.h), and
  // only the name is read per row.
  struct PathTerm {
    Text text;  // compared units: folded, or as typed when sensitive
    bool sensitive = false;
    std::vector<std::int32_t> failure;      // longest proper border of text[0..i]
    // The bigram mask of the text: a name that must hold the whole text (no
    // part of it pending from the parent) must hold these bits.
    std::uint64_t mask = 0;
    // The text holds a unit that only a separator can supply, so a row whose
    // parent leaves nothing pending matches only through a separator in its
    // name.
    bool needsSeparator = false;
    // Per partial state s (a parent ending in text[0..s)): whether every way
    // the name could finish the match needs a separator in the name, so that
    // such rows can match only as rows with separator names.
    std::vector<bool> separatorBound;
  };

  struct Step {
    planning::Method method = planning::Method::rows;
    const Query::Term* term = nullptr;
    std::int64_t estimate = 0;  // rows the step may select, for ordering
    std::uint64_t mask = 0;     // literal, pattern: the name-bigram bits
    std::uint64_t unitMask = 0;  // literal: the name-unit bits the text needs
    // units: the name-unit bit that alone decides each row, or -1 (scan).
    int unitBit = -1;
    name_literal::UnitSet units;  // units: the units to scan for
    // literal, literalOr: the first unit of each text, when a set holds it.
    std::vector<std::optional<name_literal::UnitSet>> firsts;
    // prefix: ranges of nameOrder, or of foldedOrder when `folded`; suffix:
    // ranges of reverseOrder.
    std::vector<NameCandidates::Range> ranges;
    bool folded = false;
    std::uint32_t path = 0;     // path: index into paths
    // prefix, suffix: every row of the ranges matches (a folded pattern that
    // is one literal and one `*`), so only NUL names need the test.
    bool exact = false;
    Query::NumericFilter numeric;
    std::vector<std::uint32_t> children;
  };

  std::vector<Step> steps;  // steps[0] is the root
  std::vector<PathTerm> paths;

  static std::int32_t advance(const PathTerm& term, std::int32_t state, Unit unit, const Compatibility& table) noexcept {
    const Unit x = term.sensitive ? unit : table.fold(unit);
    while (state > 0 && term.text[static_cast<std::size_t>(state)] != x)
      state = term.failure[static_cast<std::size_t>(state) - 1];
    if (term.text[static_cast<std::size_t>(state)] == x) ++state;
    return state;
  }

  // The path rule for one row, given the states of the parents
  // (path_states.h): at least the row's parent's must be known.
  static bool pathMatches(const PathTerm& term, const std::int32_t* parentStates, const SearchIndex& index,
                          std::int32_t row) noexcept {
    const Catalog& catalog = index.catalog();
    std::int32_t state = parentStates[catalog.parentIndex(row)];
    if (state == planning::kFound) return true;
    if (state == planning::kCut) return false;
    if (state == 0 && (index.nameGramMasks()[static_cast<std::size_t>(row)] & term.mask) != term.mask) return false;
    const auto m = static_cast<std::int32_t>(term.text.size());
    for (const Unit unit : catalog.nameUnits(row)) {
      if (unit == 0) break;  // the displayed path ends at a NUL of the name
      state = advance(term, state, unit, index.compatibility());
      if (state == m) return true;
    }
    return false;
  }
};

}  // namespace tarv
