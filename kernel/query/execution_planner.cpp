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
#include "kernel/query/plan_evaluator.h"
#include "kernel/query/plan_filter.h"
#include "kernel/query/query_optimizer.h"

namespace tarv {
namespace {

using Kind = Query::Kind;
using Term = Query::Term;

// Deeper or larger trees are evaluated row by row below this point, so the
// plan stays small and its walk a bounded recursion.
constexpr int kMaxDepth = QueryOptimizer::kMaxDepth;
constexpr std::size_t kMaxSteps = 4096;

using planning::kCut;
using planning::kFound;
using planning::Method;
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

  // Relative cost per row read: the name scans read and compare name units
  // (a bigram mask, then the survivors' names); the others read a column
  // word, a group list or a precomputed answer.
  static constexpr std::int64_t kNameReadCost = 8;
  // Literals whose bigram mask has this many bits or more skip the unit
  // masks (measured on a large package tree: "x86_64-linux-gnu" and long
  // words lost time to the second column, "zlib" and "libc" gained).
  static constexpr int kUnitMaskGramLimit = 8;
  std::int64_t costOf(const Step& step) const noexcept {
    switch (step.method) {
      case Method::units: return step.unitBit >= 0 ? 1 : kNameReadCost;
      case Method::literal:
      case Method::literalOr:
      case Method::pattern:
      case Method::path: return kNameReadCost;
      case Method::negate:
      case Method::allOf:
      case Method::anyOf: {
        std::int64_t cost = 1;
        for (const std::uint32_t c : step.children) cost = std::max(cost, costOf(filter_.steps[c]));
        return cost;
      }
      default: return 1;
    }
  }

  // Cheapest first by rows kept times their cost, so that a name scan runs
  // on the rows a cheap column test left (folder: doc reads the folders'
  // names only) unless it keeps far fewer; row-by-row operands last,
  // whatever they select.
  void order(Step& step) {
    auto weight = [&](std::uint32_t c) {
      const Step& s = filter_.steps[c];
      return std::pair<int, std::int64_t>(s.method == Method::rows ? 1 : 0, s.estimate * costOf(s));
    };
    std::stable_sort(step.children.begin(), step.children.end(),
                     [&](std::uint32_t x, std::uint32_t y) { return weight(x) < weight(y); });
  }

  // Longest pattern end (units after the last `*`) looked up unit by unit
  // in the reversed-name order, and the most ranges its `?` units may split
  // it into, beyond which a scan is cheaper than the lookups.
  static constexpr std::size_t kMaxTailUnits = 256;
  static constexpr std::size_t kMaxTailRanges = 512;

  // The candidates of a literal start (prefix) or an end (suffix: literal
  // units and `?`) of names. `prefix` counts the literal units at the start;
  // `tail` the units after the last `*` (all of them without a `*`), which
  // then hold at least one literal unit; `whole`: the name must be exactly
  // the prefix (wfn:) or exactly the tail (a pattern without `*`). Sets
  // `step.exact` when the ranges hold exactly the matching rows.
  bool nameRanges(const Term& term, std::size_t prefix, std::size_t tail, bool whole, Step& step) {
    const NameCandidates* names = index_.names();
    if (names == nullptr || term.text.size() != term.raw.size()) return false;
    const Compatibility& table = index_.compatibility();
    // Folded, as the orders are; a sensitive term is checked per row after.
    const Text folded = term.sensitive ? table.fold(term.text) : term.text;
    std::int64_t best = rows() / 4 + 1;
    bool chosen = false;
    if (prefix > 0) {
      const TextView start = TextView(folded).substr(0, prefix);
      if (names->hasFoldedOrder()) {
        const NameCandidates::Range range = names->foldedRange(start, whole && !term.wildcard);
        if (range.size() < best) {
          best = range.size();
          step.method = Method::prefix;
          step.ranges = {range};
          step.folded = true;
          // A whole name, or "abc*": the range compares folded units
          // exactly as the matcher does.
          step.exact = !term.sensitive &&
                       NameCandidates::foldedRangeIsExact(prefix, whole && !term.wildcard) &&
                       (term.wildcard ? prefix + 1 == term.raw.size() && term.raw.back() == u'*'
                                      : whole && prefix == term.text.size());
          chosen = true;
        }
      } else if (auto ranges = names->prefixRanges(start)) {
        const std::int64_t size = (*ranges)[0].size() + (*ranges)[1].size();
        if (size < best) {
          best = size;
          step.method = Method::prefix;
          step.ranges = {(*ranges)[0], (*ranges)[1]};
          step.folded = false;
          step.exact = !term.sensitive && term.wildcard && prefix + 1 == term.raw.size() && term.raw.back() == u'*';
          chosen = true;
        }
      }
    }
    if (tail > 0 && tail <= kMaxTailUnits) {
      // The tail read backwards: folded units, or any unit for `?`.
      const std::size_t from = folded.size() - tail;
      std::vector<std::int32_t> pattern;
      bool anyUnit = false;
      for (std::size_t k = folded.size(); k-- > from;) {
        const bool any = term.raw[k] == u'?';
        anyUnit = anyUnit || any;
        pattern.push_back(any ? NameCandidates::kAnyUnit : static_cast<std::int32_t>(folded[k]));
      }
      std::optional<std::vector<NameCandidates::Range>> ranges;
      bool exact = !term.sensitive && (whole || (from == 1 && term.raw[0] == u'*'));
      if (!anyUnit && !whole) {
        ranges = std::vector<NameCandidates::Range>{names->suffixRange(TextView(folded).substr(from))};
      } else {
        ranges = names->suffixRanges(pattern, kMaxTailRanges);
        // Without a `*` the name is the tail: only names of that length.
        if (ranges && whole) narrowToLength(*names, *ranges, tail);
      }
      // Too many splits: the literal units after the last wildcard alone
      // ("*???.h" reads the names ending in .h), their rows all tested.
      const std::size_t literalEnd = term.raw.size() - 1 - term.raw.find_last_of(u"*?");
      if (!ranges && literalEnd > 0) {
        ranges = std::vector<NameCandidates::Range>{
            names->suffixRange(TextView(folded).substr(folded.size() - literalEnd))};
        exact = false;
      }
      if (ranges) {
        std::int64_t size = 0;
        for (const NameCandidates::Range& r : *ranges) size += r.size();
        if (size < best) {
          best = size;
          step.method = Method::suffix;
          step.ranges = std::move(*ranges);
          step.folded = false;
          // "*abc", "*.py?" and "?akefile": every unit outside the tail is
          // absorbed by one leading `*`, or there is none.
          step.exact = exact;
          chosen = true;
        }
      }
    }
    if (chosen) step.estimate = best + static_cast<std::int64_t>(names->nulNames().size());
    return chosen;
  }

  // Keeps, of each range of reverseOrder, the names exactly `length` units
  // long: they sort first among the names sharing those last units.
  static void narrowToLength(const NameCandidates& names, std::vector<NameCandidates::Range>& ranges,
                             std::size_t length) {
    const Catalog& c = names.catalog();
    const std::int32_t* order = names.reverseOrder().data();
    for (NameCandidates::Range& r : ranges) {
      std::int64_t lo = r.begin, hi = r.end;
      while (lo < hi) {
        const std::int64_t mid = lo + (hi - lo) / 2;
        const std::int32_t row = order[mid];
        if (c.hasRow(row) && c.nameUnits(row).size() <= length) lo = mid + 1;
        else hi = mid;
      }
      r.end = lo;
    }
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
      // The literal start, up to the first wildcard; the end after the last
      // `*` (its `?` units included), or the whole pattern when it has no
      // `*`, as long as the end holds a literal unit.
      const Text& raw = term.raw;
      const std::size_t first = raw.find_first_of(u"*?");
      const std::size_t star = raw.find_last_of(u'*');
      const bool starless = star == Text::npos;
      const std::size_t tail = starless ? raw.size() : raw.size() - 1 - star;
      const bool literalInTail = raw.find_first_not_of(u"*?", starless ? 0 : star + 1) != Text::npos;
      if (nameRanges(term, first, literalInTail ? tail : 0, starless, step)) return;
      if (term.nameGrams != 0) {
        step.method = Method::pattern;
        step.mask = term.nameGrams;
        step.estimate = n / 8;
      }
      return;
    }
    if (term.whole && nameRanges(term, term.text.size(), 0, true, step)) return;
    if (term.text.size() == 1 && !term.whole) {
      if (auto set = units().of(term.text[0], term.sensitive)) {
        step.units = *set;
        step.method = Method::units;
        step.estimate = n / 2;
        // A folded unit with a bit of its own: the stored unit masks answer
        // for every row, no name is read.
        if (!term.sensitive && index_.unitBitIsExact(term.text[0]))
          step.unitBit = SearchIndex::unitBit(term.text[0]);
        return;
      }
    }
    step.method = Method::literal;
    step.mask = term.nameGrams;
    // A matching name holds every unit of the text: as typed (sensitive,
    // folded here like the names' units) or one that folds to it. Worth a
    // second column read only for short texts: the bigrams of a long one
    // leave few rows anyway.
    if (std::popcount(step.mask) < kUnitMaskGramLimit)
      step.unitMask = term.sensitive ? SearchIndex::unitMask(index_.compatibility(), term.text)
                                     : SearchIndex::foldedUnitMask(term.text);
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
  selection.rows = planning::evaluate(*index_, *plan.filter, *groups_, scanMinimum_);
  selection.count = selection.rows.count();
  return selection;
}

}  // namespace tarv
