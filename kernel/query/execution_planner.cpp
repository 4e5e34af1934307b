#include "kernel/query/execution_planner.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <mutex>
#include <optional>
#include <span>
#include <utility>
#include <vector>

#include "kernel/query/name_literal.h"
#include "kernel/query/parallel.h"
#include "kernel/query/query_optimizer.h"

namespace tarv {
namespace {

using Kind = Query::Kind;
using Term = Query::Term;

enum class Method : std::uint8_t {
  all, none, rows, literal, literalOr, units, prefix, suffix, pattern, extension, parent, path, volume, numeric,
  allOf, anyOf, negate
};

// Deeper or larger trees are evaluated row by row below this point, so the
// plan stays small and its walk a bounded recursion.
constexpr int kMaxDepth = QueryOptimizer::kMaxDepth;
constexpr std::size_t kMaxSteps = 4096;

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

}  // namespace

struct ExecutionPlanner::Groups {
  std::once_flag extensionOnce;
  std::once_flag parentOnce;
  RowGroups byExtension;
  RowGroups byParent;
};

struct ExecutionPlanner::Filter {
  // A substring term over full paths, decided with a prefix automaton: the
  // state after each parent text is computed once, and only the name is read
  // per row.
  struct PathTerm {
    Text text;  // compared units: folded, or as typed when sensitive
    bool sensitive = false;
    std::vector<std::int32_t> failure;      // longest proper border of text[0..i]
    std::vector<std::int32_t> parentState;  // state, kFound or kCut per parent
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
    Method method = Method::rows;
    const Term* term = nullptr;
    std::int64_t estimate = 0;  // rows the step may select, for ordering
    std::uint64_t mask = 0;     // literal, pattern: the name-bigram bits
    name_literal::UnitSet units;  // units: the units to scan for
    // literal, literalOr: the first unit of each text, when a set holds it.
    std::vector<std::optional<name_literal::UnitSet>> firsts;
    std::array<NameCandidates::Range, 2> ranges{};  // prefix: nameOrder; suffix: reverseOrder (first)
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

  // The path rule for one row, given its parent's state.
  static bool pathMatches(const PathTerm& term, const SearchIndex& index, std::int32_t row) noexcept {
    const Catalog& catalog = index.catalog();
    std::int32_t state = term.parentState[catalog.parentIndex(row)];
    if (state == kFound) return true;
    if (state == kCut) return false;
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

namespace {

using Step = ExecutionPlanner::Filter::Step;
using PathTerm = ExecutionPlanner::Filter::PathTerm;

// Chooses a method per term. Every step selects exactly the rows for which
// Query::matches holds for its term.
class Compiler {
 public:
  Compiler(const SearchIndex& index, ExecutionPlanner::Filter& filter) : index_(index), filter_(filter) {}

  std::uint32_t compile(const Term& term, int depth) {
    const auto at = static_cast<std::uint32_t>(filter_.steps.size());
    filter_.steps.emplace_back();
    Step step;
    step.term = &term;
    step.estimate = rows();
    if (depth > kMaxDepth || at >= kMaxSteps) {
      filter_.steps[at] = std::move(step);  // row by row
      return at;
    }
    // Composites too large for the budget are tested row by row as a whole.
    if (filter_.steps.size() + term.children.size() > kMaxSteps) {
      filter_.steps[at] = std::move(step);
      return at;
    }
    switch (term.kind) {
      case Kind::true_: step.method = Method::all; break;
      case Kind::false_: step.method = Method::none; step.estimate = 0; break;
      case Kind::and_: allOf(term, depth, step); break;
      case Kind::or_: anyOf(term, depth, step); break;
      case Kind::not_: negate(term, depth, step); break;
      case Kind::text: text(term, step); break;
      case Kind::ext: extension(term, step); break;
      case Kind::parent: parent(term, step); break;
      case Kind::volume: volume(term, step); break;
      case Kind::size:
      case Kind::modified:
      case Kind::created:
      case Kind::allocated:
      case Kind::file:
      case Kind::folder:
        step.method = Method::numeric;
        QueryOptimizer::merge(step.numeric, term);
        step.estimate = numericEstimate(step.numeric);
        break;
    }
    if (filter_.steps.size() > kMaxSteps) {
      // Over budget below: the whole subtree row by row.
      filter_.steps.resize(at + 1);
      step = Step();
      step.term = &term;
      step.estimate = rows();
    }
    filter_.steps[at] = std::move(step);
    return at;
  }

 private:
  std::int64_t rows() const noexcept { return index_.catalog().count(); }

  // Collapses a composite to a leaf method when its operands decide it.
  void collapse(Step& step, Method method) {
    step.method = method;
    step.children.clear();
    step.estimate = method == Method::none ? 0 : rows();
  }

  void allOf(const Term& term, int depth, Step& step) {
    step.method = Method::allOf;
    const Query::NumericFilter* numeric = term.numericFilter ? &*term.numericFilter : nullptr;
    if (numeric != nullptr) {
      Step merged;
      merged.method = Method::numeric;
      merged.term = &term;
      merged.numeric = *numeric;
      merged.estimate = numericEstimate(merged.numeric);
      step.children.push_back(static_cast<std::uint32_t>(filter_.steps.size()));
      filter_.steps.push_back(std::move(merged));
    }
    for (const Query::TermPtr& child : term.children) {
      if (numeric != nullptr && QueryOptimizer::isNumeric(*child)) continue;
      const std::uint32_t c = compile(*child, depth + 1);
      const Method m = filter_.steps[c].method;
      if (m == Method::none) return collapse(step, Method::none);
      if (m != Method::all) step.children.push_back(c);
    }
    if (step.children.empty()) return collapse(step, Method::all);
    if (step.children.size() == 1) return adopt(step);
    order(step);
    step.estimate = filter_.steps[step.children.front()].estimate;
    for (const std::uint32_t c : step.children) step.estimate = std::min(step.estimate, filter_.steps[c].estimate);
  }

  void anyOf(const Term& term, int depth, Step& step) {
    step.method = Method::anyOf;
    step.estimate = 0;
    std::vector<bool> covered(term.children.size(), false);
    if (term.literalOr) {
      Step literals;
      literals.method = Method::literalOr;
      literals.term = &term;
      literals.estimate = rows() / 8;
      for (const std::size_t i : term.literalOr->literalChildren) covered[i] = true;
      for (const MultiLiteralOr::Literal& literal : term.literalOr->literals)
        literals.firsts.push_back(units().of(literal.text[0], literal.sensitive));
      step.children.push_back(static_cast<std::uint32_t>(filter_.steps.size()));
      filter_.steps.push_back(std::move(literals));
    }
    for (std::size_t i = 0; i < term.children.size(); ++i) {
      if (covered[i]) continue;
      const std::uint32_t c = compile(*term.children[i], depth + 1);
      const Method m = filter_.steps[c].method;
      if (m == Method::all) return collapse(step, Method::all);
      if (m != Method::none) step.children.push_back(c);
    }
    if (step.children.empty()) return collapse(step, Method::none);
    if (step.children.size() == 1) return adopt(step);
    for (const std::uint32_t c : step.children) step.estimate += filter_.steps[c].estimate;
    step.estimate = std::min(step.estimate, rows());
  }

  void negate(const Term& term, int depth, Step& step) {
    // Only the first operand counts, as in Query::matches; none is true.
    if (term.children.empty()) return collapse(step, Method::all);
    const std::uint32_t c = compile(*term.children.front(), depth + 1);
    const Method m = filter_.steps[c].method;
    if (m == Method::all) return collapse(step, Method::none);
    if (m == Method::none) return collapse(step, Method::all);
    step.method = Method::negate;
    step.children.push_back(c);
    step.estimate = rows();
  }

  // The folder count is known exactly; a value range is guessed to keep half.
  std::int64_t numericEstimate(const Query::NumericFilter& filter) const noexcept {
    const std::int64_t folders = index_.catalog().folderCount();
    const std::int64_t typed = filter.types == 3 ? rows() : filter.types == 2 ? folders
                             : filter.types == 1 ? rows() - folders : 0;
    return filter.fields != 0 ? typed / 2 : typed;
  }

  // A composite left with one operand becomes that operand.
  void adopt(Step& step) {
    const Step only = filter_.steps[step.children.front()];
    step = only;
  }

  // Most selective first; row-by-row operands last, whatever they select.
  void order(Step& step) {
    auto weight = [&](std::uint32_t c) {
      const Step& s = filter_.steps[c];
      return std::pair<int, std::int64_t>(s.method == Method::rows ? 1 : 0, s.estimate);
    };
    std::stable_sort(step.children.begin(), step.children.end(),
                     [&](std::uint32_t x, std::uint32_t y) { return weight(x) < weight(y); });
  }

  // The candidates of a literal start (prefix) or end (suffix) of names.
  bool nameRanges(const Term& term, std::size_t prefix, std::size_t suffix, Step& step) {
    const NameCandidates* names = index_.names();
    if (names == nullptr || term.text.size() != term.raw.size()) return false;
    const Compatibility& table = index_.compatibility();
    // Folded, as the orders are; a sensitive term is checked per row after.
    const Text folded = term.sensitive ? table.fold(term.text) : term.text;
    std::int64_t best = rows() / 4 + 1;
    bool chosen = false;
    if (prefix > 0) {
      if (auto ranges = names->prefixRanges(TextView(folded).substr(0, prefix))) {
        const std::int64_t size = (*ranges)[0].size() + (*ranges)[1].size();
        if (size < best) {
          best = size;
          step.method = Method::prefix;
          step.ranges = *ranges;
          chosen = true;
        }
      }
    }
    if (suffix > 0) {
      const auto range = names->suffixRange(TextView(folded).substr(folded.size() - suffix));
      if (range.size() < best) {
        best = range.size();
        step.method = Method::suffix;
        step.ranges = {range, NameCandidates::Range{}};
        chosen = true;
      }
    }
    if (chosen) step.estimate = best + static_cast<std::int64_t>(names->nulNames().size());
    return chosen;
  }

  void text(const Term& term, Step& step) {
    if (term.text.empty()) {
      step.method = Method::all;
      return;
    }
    if (term.fullPath) {
      if (!term.wildcard && !term.whole && term.text.size() == term.raw.size()) path(term, step);
      return;  // otherwise row by row
    }
    const std::int64_t n = rows();
    if (term.wildcard) {
      // The literal start and end of the pattern, up to the first and from
      // the last wildcard.
      const Text& raw = term.raw;
      const std::size_t first = raw.find_first_of(u"*?");
      const std::size_t last = raw.find_last_of(u"*?");
      if (nameRanges(term, first, raw.size() - 1 - last, step)) {
        // "abc*" and "*abc": the range itself is the answer, as the ranges
        // compare folded units exactly as the matcher does.
        const bool oneStar = first == last && raw[first] == u'*';
        step.exact = !term.sensitive && oneStar &&
                     ((step.method == Method::suffix && first == 0) ||
                      (step.method == Method::prefix && last == raw.size() - 1));
        return;
      }
      if (term.nameGrams != 0) {
        step.method = Method::pattern;
        step.mask = term.nameGrams;
        step.estimate = n / 8;
      }
      return;
    }
    if (term.whole && nameRanges(term, term.text.size(), 0, step)) return;
    if (term.text.size() == 1 && !term.whole) {
      if (auto set = units().of(term.text[0], term.sensitive)) {
        step.units = *set;
        step.method = Method::units;
        step.estimate = n / 2;
        return;
      }
    }
    step.method = Method::literal;
    step.mask = term.nameGrams;
    step.estimate = n / 16;
    step.firsts.push_back(units().of(term.text[0], term.sensitive));
  }

  void extension(const Term& term, Step& step) {
    if (!term.extensionHits) return;  // not prepared: row by row
    step.method = Method::extension;
    std::int64_t estimate = 0;
    const auto& counts = index_.extensionCounts();
    const auto& hits = *term.extensionHits;
    for (std::size_t id = 0; id < hits.size() && id < SearchIndex::kExtensionOverflow; ++id)
      if (hits[id] && id < counts.size()) estimate += counts[id];
    if (index_.hasOverflowExtensions()) estimate += 1;
    if (estimate == 0) return collapse(step, Method::none);
    step.estimate = estimate;
  }

  void parent(const Term& term, Step& step) {
    if (!term.parentHits) return;  // not prepared: row by row
    step.method = Method::parent;
    std::int64_t estimate = 0;
    const auto& hits = *term.parentHits;
    const auto& counts = index_.parentRowCounts();
    for (std::size_t p = 0; p < hits.size(); ++p)
      if (hits[p]) estimate += p < counts.size() ? counts[p] : rows();
    if (estimate == 0) return collapse(step, Method::none);
    step.estimate = estimate;
  }

  void volume(const Term& term, Step& step) {
    if (!term.deviceHits) return;  // not prepared: row by row
    const auto& hits = *term.deviceHits;
    if (!index_.catalog().parts().deviceIds || std::find(hits.begin(), hits.end(), true) == hits.end())
      return collapse(step, Method::none);
    step.method = Method::volume;
    step.estimate = rows() / 2;
  }

  void path(const Term& term, Step& step) {
    PathTerm p;
    p.text = term.text;
    p.sensitive = term.sensitive;
    p.mask = SearchIndex::gramMask(index_.compatibility(), term.raw);
    const Catalog& catalog = index_.catalog();
    const PathFlavor flavor = catalog.pathFlavor();
    const std::size_t m = p.text.size();
    // Units of the text that only separators fold to (or are); per start k,
    // whether text[k..m) holds one.
    const std::vector<bool>& separatorOnly = separatorOnlyUnits(p.sensitive, flavor);
    std::vector<bool> tailNeeds(m + 1, false);
    for (std::size_t i = m; i-- > 0;) tailNeeds[i] = tailNeeds[i + 1] || separatorOnly[p.text[i]];
    p.needsSeparator = tailNeeds[0];
    p.failure.assign(m, 0);
    for (std::size_t i = 1, k = 0; i < m; ++i) {
      while (k > 0 && p.text[i] != p.text[k]) k = static_cast<std::size_t>(p.failure[k - 1]);
      if (p.text[i] == p.text[k]) ++k;
      p.failure[i] = static_cast<std::int32_t>(k);
    }
    // A match finishing in the name starts in the parent at one of the
    // borders of the parent's state, or lies within the name entirely.
    p.separatorBound.assign(m + 1, false);
    // The borders of a state are the state itself and the borders of its
    // longest proper border, so one pass in increasing order suffices.
    for (std::size_t state = 1; state < m; ++state) {
      const auto border = static_cast<std::size_t>(p.failure[state - 1]);
      p.separatorBound[state] = tailNeeds[state] && (border == 0 || p.separatorBound[border]);
    }
    const std::int32_t parents = catalog.parentCount();
    p.parentState.assign(static_cast<std::size_t>(std::max(parents, 0)), 0);
    const Compatibility& table = index_.compatibility();
    const std::optional<name_literal::UnitSet> first = units().of(p.text[0], p.sensitive);
    const std::uint16_t* fold = table.searchTable().data();
    Parallel::chunks(parents, 1, 1 << 12, [&](std::int64_t begin, std::int64_t end) {
      for (auto i = begin; i < end; ++i) {
        TextView units = catalog.parentUnits(static_cast<std::uint32_t>(i));
        // The displayed path ends at a NUL, without the name.
        const std::size_t nul = name_literal::findZero(units.data(), units.size());
        const bool cut = nul < units.size();
        units = units.substr(0, nul);
        const bool found = first ? name_literal::contains(units, p.text, *first, fold)
                                 : name_literal::contains(units, p.text, p.sensitive, fold);
        std::int32_t state = 0;
        if (!found && !cut) {
          // The part of the text left pending: the longest end of the parent
          // that starts the text, which lies within its last m - 1 units.
          for (const Unit unit : units.substr(units.size() - std::min(units.size(), m - 1)))
            state = ExecutionPlanner::Filter::advance(p, state, unit, table);
        }
        p.parentState[static_cast<std::size_t>(i)] = found ? kFound : cut ? kCut : state;
      }
    });
    step.method = Method::path;
    step.path = static_cast<std::uint32_t>(filter_.paths.size());
    step.estimate = p.needsSeparator ? rows() / 8 : rows() / 4;
    filter_.paths.push_back(std::move(p));
  }

  // Built on first use, once per plan, so each term costs no pass over the
  // tables.
  const name_literal::UnitIndex& units() {
    if (!units_) units_.emplace(index_.compatibility());
    return *units_;
  }

  // Per compared unit: something folds to (or is) it, and only separators.
  const std::vector<bool>& separatorOnlyUnits(bool sensitive, PathFlavor flavor) {
    std::vector<bool>& table = separatorOnly_[sensitive ? 1 : 0];
    if (!table.empty()) return table;
    std::vector<std::uint8_t> seen(65536, 0);  // bit 0: a separator, bit 1: another unit
    const auto& fold = index_.compatibility().searchTable();
    for (std::uint32_t u = 0; u < 65536; ++u)
      seen[sensitive ? u : fold[u]] |= path_flavor::isSeparator(flavor, static_cast<Unit>(u)) ? 1 : 2;
    table.resize(65536);
    for (std::size_t x = 0; x < 65536; ++x) table[x] = seen[x] == 1;
    return table;
  }

  const SearchIndex& index_;
  ExecutionPlanner::Filter& filter_;
  std::optional<name_literal::UnitIndex> units_;
  std::vector<bool> separatorOnly_[2];
};

ExecutionPlanner::Strategy strategyOf(Method method) noexcept {
  using S = ExecutionPlanner::Strategy;
  switch (method) {
    case Method::all: return S::all;
    case Method::none: return S::none;
    case Method::rows: return S::scan;
    case Method::literal: return S::nameLiteral;
    case Method::literalOr: return S::literalOr;
    case Method::units: return S::nameUnits;
    case Method::prefix: return S::namePrefix;
    case Method::suffix: return S::nameSuffix;
    case Method::pattern: return S::gramScan;
    case Method::extension: return S::extension;
    case Method::parent: return S::parent;
    case Method::path: return S::path;
    case Method::volume: return S::volume;
    case Method::numeric: return S::filterScan;
    case Method::allOf:
    case Method::anyOf:
    case Method::negate: return S::combined;
  }
  return S::scan;
}

// Runs the steps of one plan as bitsets over the source's rows. A pool
// (absent: every row) limits every step to its members.
class Evaluator {
 public:
  Evaluator(const SearchIndex& index, const ExecutionPlanner::Filter& filter, ExecutionPlanner::Groups& groups,
            std::int64_t minimum)
      : index_(index),
        catalog_(index.catalog()),
        table_(index.compatibility()),
        filter_(filter),
        groups_(groups),
        n_(catalog_.count()),
        minimum_(minimum),
        fold_(table_.searchTable().data()) {}

  Bitset run(std::uint32_t at, const Bitset* pool) {
    const Step& step = filter_.steps[at];
    switch (step.method) {
      case Method::all: return pool ? *pool : everyRow();
      case Method::none: return Bitset(n_);
      case Method::rows:
        return perRow(pool, [&](std::int32_t r) { return Query::matches(*step.term, catalog_, r, table_); });
      case Method::literal: return literal(step, pool);
      case Method::literalOr: return literalOr(step, pool);
      case Method::units: return units(step, pool);
      case Method::prefix:
      case Method::suffix: return candidates(step, pool);
      case Method::pattern: {
        const std::uint64_t* masks = index_.nameGramMasks().data();
        return perRow(pool, [&](std::int32_t r) {
          return (masks[r] & step.mask) == step.mask && Query::wildcard(*step.term, catalog_.nameUnits(r), table_);
        });
      }
      case Method::extension: return extension(step, pool);
      case Method::parent: return parent(step, pool);
      case Method::path: return path(step, pool);
      case Method::volume: {
        const auto& hits = *step.term->deviceHits;
        return perRow(pool, [&](std::int32_t r) {
          const std::uint16_t id = catalog_.deviceId(r);
          return id < hits.size() && hits[id];
        });
      }
      case Method::numeric: return numeric(step.numeric, pool);
      case Method::allOf: {
        Bitset acc = run(step.children.front(), pool);
        for (std::size_t i = 1; i < step.children.size() && !acc.none(); ++i) acc = run(step.children[i], &acc);
        return acc;
      }
      case Method::anyOf: {
        Bitset acc = run(step.children.front(), pool);
        for (std::size_t i = 1; i < step.children.size(); ++i) acc.unite(run(step.children[i], pool));
        return acc;
      }
      case Method::negate: {
        Bitset out = pool ? *pool : everyRow();
        out.subtract(run(step.children.front(), pool));
        return out;
      }
    }
    return Bitset(n_);
  }

 private:
  Bitset everyRow() const {
    Bitset all(n_);
    all.setRange(0, n_);
    return all;
  }

  // The pool's word w, or every row of word w.
  std::uint64_t poolWord(const Bitset* pool, std::int64_t w) const noexcept {
    if (pool) return pool->words()[static_cast<std::size_t>(w)];
    const std::int64_t left = n_ - (w << 6);
    return left >= 64 ? ~std::uint64_t(0) : (std::uint64_t(1) << left) - 1;
  }

  static std::int64_t members(const Bitset* pool) { return pool ? pool->count() : -1; }

  // Rows of the pool for which `test` holds, in parallel chunks of whole words.
  template <class Test>
  Bitset perRow(const Bitset* pool, Test test) const {
    Bitset out(n_);
    std::uint64_t* words = out.words().data();
    Parallel::chunks(n_, 64, minimum_, [&](std::int64_t begin, std::int64_t end) {
      for (std::int64_t w = begin >> 6; w << 6 < end; ++w) {
        std::uint64_t candidates = poolWord(pool, w);
        std::uint64_t bits = 0;
        if (candidates == ~std::uint64_t(0)) {
          // A full word: every row in turn, without branching on the pool.
          const auto first = static_cast<std::int32_t>(w << 6);
          for (int b = 0; b < 64; ++b) bits |= std::uint64_t(test(first + b) ? 1 : 0) << b;
          words[w] = bits;
          continue;
        }
        while (candidates != 0) {
          const int b = std::countr_zero(candidates);
          candidates &= candidates - 1;
          if (test(static_cast<std::int32_t>((w << 6) + b))) bits |= std::uint64_t(1) << b;
        }
        words[w] = bits;
      }
    });
    return out;
  }

  // Rows whose name-bigram mask holds `mask`, in the pool, then `test`.
  template <class Test>
  Bitset maskScan(const Bitset* pool, std::uint64_t mask, Test test) const {
    const std::uint64_t* masks = index_.nameGramMasks().data();
    Bitset out(n_);
    std::uint64_t* words = out.words().data();
    Parallel::chunks(n_, 64, minimum_, [&](std::int64_t begin, std::int64_t end) {
      for (std::int64_t w = begin >> 6; w << 6 < end; ++w) {
        const std::int64_t first = w << 6;
        std::uint64_t candidates = poolWord(pool, w);
        if (candidates == 0) {
          words[w] = 0;
          continue;
        }
        // Branch-free over the word's masks, then the few survivors.
        std::uint64_t held = 0;
        const std::int64_t count = std::min<std::int64_t>(64, n_ - first);
        for (std::int64_t i = 0; i < count; ++i)
          held |= std::uint64_t((masks[first + i] & mask) == mask) << i;
        candidates &= held;
        std::uint64_t bits = 0;
        while (candidates != 0) {
          const int b = std::countr_zero(candidates);
          candidates &= candidates - 1;
          if (test(static_cast<std::int32_t>(first + b))) bits |= std::uint64_t(1) << b;
        }
        words[w] = bits;
      }
    });
    return out;
  }

  // The merged numeric filter with its columns resolved once: per row a type
  // bit and, per field, one load and two comparisons, all inlined.
  Bitset numeric(const Query::NumericFilter& filter, const Bitset* pool) const {
    struct Field {
      const std::uint64_t* values;  // null: the column is absent (all unknown)
      Query::Bounds bounds;
    };
    const Catalog::Parts& parts = catalog_.parts();
    std::array<Field, 4> fields{};
    std::size_t count = 0;
    auto add = [&](int bit, const std::uint64_t* values, const Query::Bounds& bounds) {
      if (filter.fields & bit) fields[count++] = {values, bounds};
    };
    add(1, parts.sizes.data(), filter.size);
    add(2, parts.modifiedTimes.data(), filter.modified);
    add(4, parts.createdTimes ? parts.createdTimes->data() : nullptr, filter.created);
    add(8, parts.allocations ? parts.allocations->data() : nullptr, filter.allocated);
    const std::uint32_t* tags = parts.parentTags.data();
    const int types = filter.types;
    return perRow(pool, [&](std::int32_t r) {
      const int type = (tags[r] & kFolderBit) != 0 ? 2 : 1;
      if ((types & type) == 0) return false;
      for (std::size_t i = 0; i < count; ++i) {
        const Field& f = fields[i];
        const std::uint64_t v = f.values != nullptr ? f.values[r] : kUnknown64;
        if (f.bounds.unknown && v != kUnknown64) return false;
        if (f.bounds.known && (v == kUnknown64 || v < f.bounds.low || v > f.bounds.high)) return false;
      }
      return true;
    });
  }

  Bitset literal(const Step& step, const Bitset* pool) const {
    const Term& term = *step.term;
    const TextView text = term.text;
    if (term.whole)
      return maskScan(pool, step.mask, [&](std::int32_t r) { return Query::textMatches(term, catalog_.nameUnits(r), table_); });
    if (!step.firsts.empty() && step.firsts.front()) {
      const name_literal::UnitSet& first = *step.firsts.front();
      return maskScan(pool, step.mask,
                      [&](std::int32_t r) { return name_literal::contains(catalog_.nameUnits(r), text, first, fold_); });
    }
    const bool sensitive = term.sensitive;
    return maskScan(pool, step.mask, [&](std::int32_t r) {
      return name_literal::contains(catalog_.nameUnits(r), text, sensitive, fold_);
    });
  }

  Bitset literalOr(const Step& step, const Bitset* pool) const {
    const MultiLiteralOr& alternatives = *step.term->literalOr;
    const std::uint64_t* masks = index_.nameGramMasks().data();
    return maskScan(pool, alternatives.commonMask, [&](std::int32_t r) {
      const std::uint64_t m = masks[r];
      const TextView name = catalog_.nameUnits(r);
      for (std::size_t i = 0; i < alternatives.literals.size(); ++i) {
        const MultiLiteralOr::Literal& literal = alternatives.literals[i];
        if ((m & literal.mask) != literal.mask) continue;
        const auto& first = step.firsts[i];
        if (first ? name_literal::contains(name, literal.text, *first, fold_)
                  : name_literal::contains(name, literal.text, literal.sensitive, fold_))
          return true;
      }
      return false;
    });
  }

  Bitset units(const Step& step, const Bitset* pool) const {
    // A sparse pool is cheaper to test row by row than to scan all names.
    if (pool && pool->count() * 8 < n_) {
      const Term& term = *step.term;
      return perRow(pool, [&](std::int32_t r) {
        return name_literal::contains(catalog_.nameUnits(r), term.text, term.sensitive, fold_);
      });
    }
    Bitset out(n_);
    std::uint64_t* words = out.words().data();
    const std::uint64_t* poolWords = pool ? pool->words().data() : nullptr;
    Parallel::chunks(n_, 64, minimum_, [&](std::int64_t begin, std::int64_t end) {
      name_literal::scanUnits(catalog_, step.units, begin, end, poolWords, words);
    });
    return out;
  }

  // Sets the rows of `rows` that are in the pool and pass `test`; chunks
  // share words, so bits are set atomically.
  template <class Test>
  void setCandidates(std::span<const std::int32_t> rows, const Bitset* pool, Bitset& out, Test test) const {
    std::uint64_t* words = out.words().data();
    const std::uint64_t* poolWords = pool ? pool->words().data() : nullptr;
    Parallel::chunks(static_cast<std::int64_t>(rows.size()), 1, minimum_, [&](std::int64_t begin, std::int64_t end) {
      for (auto i = begin; i < end; ++i) {
        const std::int32_t r = rows[static_cast<std::size_t>(i)];
        // Lists mapped from an index file are not checked at load: an entry
        // past the rows (a damaged file) is skipped, not looked up.
        if (static_cast<std::uint64_t>(r) >= static_cast<std::uint64_t>(n_)) continue;
        const std::uint64_t bit = std::uint64_t(1) << (r & 63);
        if (poolWords && (poolWords[r >> 6] & bit) == 0) continue;
        if (!test(r)) continue;
        std::atomic_ref<std::uint64_t>(words[r >> 6]).fetch_or(bit, std::memory_order_relaxed);
      }
    });
  }

  // Candidates from the name order or the reversed-name order, then the
  // term's own rule on each; names holding NUL units are tested on their own.
  Bitset candidates(const Step& step, const Bitset* pool) const {
    const Term& term = *step.term;
    auto test = [&](std::int32_t r) { return Query::textMatches(term, catalog_.nameUnits(r), table_); };
    if (pool && pool->count() < step.estimate) return perRow(pool, test);
    const NameCandidates& names = *index_.names();
    const Column<std::int32_t>& order = step.method == Method::prefix ? names.nameOrder() : names.reverseOrder();
    Bitset out(n_);
    for (const NameCandidates::Range& range : step.ranges) {
      if (range.size() <= 0) continue;
      const std::span<const std::int32_t> rows(order.data() + range.begin, static_cast<std::size_t>(range.size()));
      if (step.exact) setCandidates(rows, pool, out, [](std::int32_t) { return true; });
      else setCandidates(rows, pool, out, test);
    }
    setCandidates(names.nulNames().span(), pool, out, test);
    return out;
  }

  Bitset extension(const Step& step, const Bitset* pool) const {
    const Term& term = *step.term;
    if (pool && pool->count() < step.estimate)
      return perRow(pool, [&](std::int32_t r) { return Query::matches(term, catalog_, r, table_); });
    std::call_once(groups_.extensionOnce, [&] {
      const std::uint16_t* ids = index_.extensionIds().data();
      groups_.byExtension = RowGroups::build(static_cast<std::int32_t>(n_), 65536, [&](std::int32_t r) { return ids[r]; });
    });
    Bitset out(n_);
    const auto& hits = *term.extensionHits;
    auto file = [&](std::int32_t r) { return !catalog_.isDirectory(r); };
    for (std::size_t id = 0; id < hits.size() && id < SearchIndex::kExtensionOverflow; ++id)
      if (hits[id]) setCandidates(groups_.byExtension.of(id), pool, out, file);
    if (index_.hasOverflowExtensions())
      setCandidates(groups_.byExtension.of(SearchIndex::kExtensionOverflow), pool, out,
                    [&](std::int32_t r) { return Query::matches(term, catalog_, r, table_); });
    return out;
  }

  void ensureParents() const {
    std::call_once(groups_.parentOnce, [&] {
      groups_.byParent = RowGroups::build(static_cast<std::int32_t>(n_),
                                          static_cast<std::size_t>(std::max(catalog_.parentCount(), 0)),
                                          [&](std::int32_t r) { return catalog_.parentIndex(r); });
    });
  }

  Bitset parent(const Step& step, const Bitset* pool) const {
    const auto& hits = *step.term->parentHits;
    if (pool && pool->count() < step.estimate)
      return perRow(pool, [&](std::int32_t r) { return static_cast<bool>(hits[catalog_.parentIndex(r)]); });
    ensureParents();
    Bitset out(n_);
    for (std::size_t p = 0; p < hits.size(); ++p)
      if (hits[p]) setCandidates(groups_.byParent.of(p), pool, out, [](std::int32_t) { return true; });
    return out;
  }

  Bitset path(const Step& step, const Bitset* pool) const {
    const PathTerm& term = filter_.paths[step.path];
    auto test = [&](std::int32_t r) { return ExecutionPlanner::Filter::pathMatches(term, index_, r); };
    if (!term.needsSeparator) return perRow(pool, test);
    // A row whose parent leaves only parts that need a separator from the
    // name matches only if its name holds one: most rows are decided by
    // their parent's state and one bit, without reading the name.
    const std::span<const std::uint64_t> separatorWords = index_.separatorNames();
    auto separatorTest = [&](std::int32_t r) {
      const std::int32_t state = term.parentState[catalog_.parentIndex(r)];
      if (state == kFound) return true;
      if (state == kCut) return false;
      const bool bound = state == 0 || term.separatorBound[static_cast<std::size_t>(state)];
      // Words missing from a damaged file say nothing: the row is read.
      const auto w = static_cast<std::size_t>(r >> 6);
      if (bound && w < separatorWords.size() && (separatorWords[w] >> (r & 63) & 1) == 0) return false;
      return ExecutionPlanner::Filter::pathMatches(term, index_, r);
    };
    // Only rows whose parent holds the text, rows whose parent leaves a part
    // that a name without separators can finish, and rows whose name holds
    // a separator can match.
    auto open = [&](std::int32_t state) {
      return state == kFound || (state > 0 && !term.separatorBound[static_cast<std::size_t>(state)]);
    };
    std::int64_t pending = 0;
    const auto& counts = index_.parentRowCounts();
    for (std::size_t p = 0; p < term.parentState.size(); ++p)
      if (open(term.parentState[p])) pending += p < counts.size() ? counts[p] : n_;
    if (pending > n_ / 4 || (pool && pool->count() < pending)) return perRow(pool, separatorTest);
    ensureParents();
    Bitset out(n_);
    for (std::size_t p = 0; p < term.parentState.size(); ++p) {
      const std::int32_t state = term.parentState[p];
      if (!open(state)) continue;
      if (state == kFound) setCandidates(groups_.byParent.of(p), pool, out, [](std::int32_t) { return true; });
      else setCandidates(groups_.byParent.of(p), pool, out, test);
    }
    // Rows with a separator in the name, whatever their parent.
    const std::span<const std::uint64_t> separators = index_.separatorNames();
    Bitset named(std::vector<std::uint64_t>(separators.begin(), separators.end()));
    named.words().resize(Bitset::wordCount(n_), 0);
    // Bits past the last row (a damaged file) name no row.
    if (n_ % 64 != 0 && !named.words().empty()) named.words().back() &= (std::uint64_t(1) << (n_ % 64)) - 1;
    if (pool) named.intersect(*pool);
    out.unite(perRow(&named, test));
    return out;
  }

  const SearchIndex& index_;
  const Catalog& catalog_;
  const Compatibility& table_;
  const ExecutionPlanner::Filter& filter_;
  ExecutionPlanner::Groups& groups_;
  std::int64_t n_;
  std::int64_t minimum_;
  const std::uint16_t* fold_;
};

}  // namespace

ExecutionPlanner::ExecutionPlanner(SearchIndexPtr index, std::int64_t scanMinimum)
    : index_(std::move(index)), scanMinimum_(scanMinimum < 1 ? 1 : scanMinimum), groups_(std::make_shared<Groups>()) {}

std::string_view ExecutionPlanner::name(Strategy strategy) noexcept {
  switch (strategy) {
    case Strategy::all: return "all";
    case Strategy::none: return "none";
    case Strategy::scan: return "scan";
    case Strategy::gramScan: return "gram-scan";
    case Strategy::filterScan: return "filter-scan";
    case Strategy::nameLiteral: return "name-literal";
    case Strategy::literalOr: return "literal-or";
    case Strategy::nameUnits: return "name-units";
    case Strategy::namePrefix: return "name-prefix";
    case Strategy::nameSuffix: return "name-suffix";
    case Strategy::extension: return "extension";
    case Strategy::parent: return "parent";
    case Strategy::path: return "path";
    case Strategy::volume: return "volume";
    case Strategy::combined: return "combined";
  }
  return "scan";
}

ExecutionPlanner::Plan ExecutionPlanner::plan(TextView query, std::optional<Query::Moment> moment) const {
  const Catalog& catalog = index_->catalog();
  Plan plan;
  plan.root = Query::parse(query, index_->compatibility(), catalog.pathFlavor(), moment);
  Query::markSizeSemantics(*plan.root, catalog.directorySizes());
  if (plan.root->kind == Kind::true_) {
    plan.strategy = Strategy::all;
    return plan;
  }
  QueryOptimizer::prepare(*plan.root, *index_);
  auto filter = std::make_shared<Filter>();
  Compiler(*index_, *filter).compile(*plan.root, 0);
  plan.strategy = strategyOf(filter->steps.front().method);
  plan.filter = std::move(filter);
  return plan;
}

ExecutionPlanner::Selection ExecutionPlanner::run(const Plan& plan) const {
  const std::int64_t n = index_->catalog().count();
  Selection selection;
  selection.strategy = plan.strategy;
  if (plan.strategy == Strategy::all || !plan.filter) {
    selection.rows = Bitset(n);
    selection.rows.setRange(0, n);
    selection.count = n;
    return selection;
  }
  Evaluator evaluator(*index_, *plan.filter, *groups_, scanMinimum_);
  selection.rows = evaluator.run(0, nullptr);
  selection.count = selection.rows.count();
  return selection;
}

}  // namespace tarv
