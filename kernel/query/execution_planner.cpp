#include "kernel/query/execution_planner.h"

#include <array>
#include <bit>
#include <utility>
#include <vector>

#include "kernel/query/parallel.h"

namespace tarv {
namespace {

using Kind = Query::Kind;
using Term = Query::Term;

enum Answer : std::uint8_t { kNo = 0, kYes = 1, kMaybe = 2 };

enum class Op : std::uint8_t { yes, no, maybe, gram, extension, file, folder, path, allOf, anyOf, negate };

// Deeper or larger trees are cut off as "maybe": the filter stays a few
// dozen steps per row, and its stack a fixed array.
constexpr int kMaxDepth = 32;
constexpr std::size_t kMaxSteps = 256;

// Parent states of a path term: the text occurs within the parent's part of
// the path, or the path ends inside the parent text (a NUL cuts it).
constexpr std::int32_t kFound = -1;
constexpr std::int32_t kCut = -2;

}  // namespace

struct ExecutionPlanner::Filter {
  struct Step {
    Op op = Op::maybe;
    std::uint32_t arity = 0;  // allOf / anyOf
    std::uint64_t mask = 0;   // gram
    std::uint32_t table = 0;  // extension: hits; path: paths
  };

  // A substring term over full paths, decided with a prefix automaton: the
  // state after each parent text is computed once, and only the name is read
  // per row.
  struct PathTerm {
    Text text;  // compared units: folded, or as typed when sensitive
    bool sensitive = false;
    std::vector<std::int32_t> failure;      // longest proper border of text[0..i]
    std::vector<std::int32_t> parentState;  // state, kFound or kCut per parent
  };

  std::vector<Step> steps;  // postfix
  std::vector<std::vector<std::uint8_t>> hits;
  std::vector<PathTerm> paths;
  bool grams = false;

  std::int32_t advance(const PathTerm& term, std::int32_t state, Unit unit, const Compatibility& table) const noexcept {
    const Unit x = term.sensitive ? unit : table.fold(unit);
    while (state > 0 && term.text[static_cast<std::size_t>(state)] != x)
      state = term.failure[static_cast<std::size_t>(state) - 1];
    if (term.text[static_cast<std::size_t>(state)] == x) ++state;
    return state;
  }

  Answer decide(const SearchIndex& index, std::int32_t row) const noexcept {
    const Catalog& catalog = index.catalog();
    std::array<std::uint8_t, kMaxSteps + 1> stack;
    std::size_t top = 0;
    for (const Step& step : steps) {
      std::uint8_t value = kMaybe;
      switch (step.op) {
        case Op::yes: value = kYes; break;
        case Op::no: value = kNo; break;
        case Op::maybe: value = kMaybe; break;
        case Op::gram:
          value = (index.nameGramMasks()[static_cast<std::size_t>(row)] & step.mask) == step.mask ? kMaybe : kNo;
          break;
        case Op::extension: {
          if (catalog.isDirectory(row)) {
            value = kNo;
            break;
          }
          const std::uint16_t id = index.extensionIds()[static_cast<std::size_t>(row)];
          value = id == SearchIndex::kExtensionOverflow ? kMaybe : hits[step.table][id] ? kYes : kNo;
          break;
        }
        case Op::file: value = catalog.isDirectory(row) ? kNo : kYes; break;
        case Op::folder: value = catalog.isDirectory(row) ? kYes : kNo; break;
        case Op::path: {
          const PathTerm& term = paths[step.table];
          std::int32_t state = term.parentState[catalog.parentIndex(row)];
          if (state == kFound || state == kCut) {
            value = state == kFound ? kYes : kNo;
            break;
          }
          value = kNo;
          const auto m = static_cast<std::int32_t>(term.text.size());
          for (const Unit unit : catalog.nameUnits(row)) {
            if (unit == 0) break;  // the displayed path ends at a NUL of the name
            state = advance(term, state, unit, index.compatibility());
            if (state == m) {
              value = kYes;
              break;
            }
          }
          break;
        }
        case Op::allOf: {
          std::uint8_t all = kYes;
          for (std::uint32_t i = 0; i < step.arity; ++i) {
            const std::uint8_t v = stack[--top];
            if (v == kNo) all = kNo;
            else if (v == kMaybe && all == kYes) all = kMaybe;
          }
          value = all;
          break;
        }
        case Op::anyOf: {
          std::uint8_t any = kNo;
          for (std::uint32_t i = 0; i < step.arity; ++i) {
            const std::uint8_t v = stack[--top];
            if (v == kYes) any = kYes;
            else if (v == kMaybe && any == kNo) any = kMaybe;
          }
          value = any;
          break;
        }
        case Op::negate: {
          const std::uint8_t v = stack[--top];
          value = v == kMaybe ? kMaybe : v == kYes ? kNo : kYes;
          break;
        }
      }
      stack[top++] = value;
    }
    return static_cast<Answer>(stack[0]);
  }
};

namespace {

// Turns a query tree into filter steps. Every step answers exactly as
// Query::matches would for its term, or "maybe".
class FilterCompiler {
 public:
  FilterCompiler(const SearchIndex& index, ExecutionPlanner::Filter& filter) : index_(index), filter_(filter) {}

  void compile(const Term& term, int depth) {
    using Step = ExecutionPlanner::Filter::Step;
    if (depth > kMaxDepth || filter_.steps.size() >= kMaxSteps) {
      push({Op::maybe});
      return;
    }
    const std::size_t mark = filter_.steps.size();
    switch (term.kind) {
      case Kind::true_: push({Op::yes}); return;
      case Kind::false_: push({Op::no}); return;
      case Kind::and_:
      case Kind::or_: {
        if (mark + term.children.size() + 1 > kMaxSteps) {
          push({Op::maybe});
          return;
        }
        for (const auto& child : term.children) compile(*child, depth + 1);
        Step step{term.kind == Kind::and_ ? Op::allOf : Op::anyOf};
        step.arity = static_cast<std::uint32_t>(term.children.size());
        push(step);
        collapseBeyondBudget(mark);
        return;
      }
      case Kind::not_:
        // Only the first operand counts, as in Query::matches.
        if (term.children.empty()) {
          push({Op::yes});
          return;
        }
        compile(*term.children.front(), depth + 1);
        push({Op::negate});
        collapseBeyondBudget(mark);
        return;
      case Kind::text: text(term); return;
      case Kind::ext: extension(term); return;
      case Kind::file: push({Op::file}); return;
      case Kind::folder: push({Op::folder}); return;
      default: push({Op::maybe}); return;
    }
  }

 private:
  void push(ExecutionPlanner::Filter::Step step) { filter_.steps.push_back(step); }

  // A subtree whose steps overran the budget answers "maybe" as a whole, so
  // the program (and the evaluation stack) never exceeds kMaxSteps.
  void collapseBeyondBudget(std::size_t mark) {
    if (filter_.steps.size() <= kMaxSteps) return;
    filter_.steps.resize(mark);
    push({Op::maybe});
  }

  void text(const Term& term) {
    if (term.text.empty()) {
      push({Op::yes});
      return;
    }
    if (term.fullPath) {
      if (term.wildcard || term.whole || term.text.size() != term.raw.size()) {
        push({Op::maybe});
        return;
      }
      path(term);
      return;
    }
    // Names: every literal run of the term (the whole text, or the runs
    // between wildcards) occurs in a matching name, and `raw` folds unit by
    // unit to `text`, so a matching name's mask holds every run's mask.
    std::uint64_t mask = 0;
    const Text& raw = term.raw;
    std::size_t begin = 0;
    for (std::size_t i = 0; i <= raw.size(); ++i) {
      const bool end = i == raw.size() || (term.wildcard && (raw[i] == u'*' || raw[i] == u'?'));
      if (!end) continue;
      if (i - begin >= 2) mask |= SearchIndex::gramMask(index_.compatibility(), TextView(raw).substr(begin, i - begin));
      begin = i + 1;
    }
    if (mask == 0) {
      push({Op::maybe});
      return;
    }
    filter_.grams = true;
    ExecutionPlanner::Filter::Step step{Op::gram};
    step.mask = mask;
    push(step);
  }

  void extension(const Term& term) {
    std::vector<std::uint8_t> hits(65536, 0);
    for (const Text& listed : term.extensions)
      for (const std::int32_t id : index_.extensionIdsMatching(listed, term.sensitive))
        if (id >= 0 && id < 65536) hits[static_cast<std::size_t>(id)] = 1;
    ExecutionPlanner::Filter::Step step{Op::extension};
    step.table = static_cast<std::uint32_t>(filter_.hits.size());
    filter_.hits.push_back(std::move(hits));
    push(step);
  }

  void path(const Term& term) {
    ExecutionPlanner::Filter::PathTerm p;
    p.text = term.text;
    p.sensitive = term.sensitive;
    const std::size_t m = p.text.size();
    p.failure.assign(m, 0);
    for (std::size_t i = 1, k = 0; i < m; ++i) {
      while (k > 0 && p.text[i] != p.text[k]) k = static_cast<std::size_t>(p.failure[k - 1]);
      if (p.text[i] == p.text[k]) ++k;
      p.failure[i] = static_cast<std::int32_t>(k);
    }
    const Catalog& catalog = index_.catalog();
    const std::int32_t parents = catalog.parentCount();
    p.parentState.assign(static_cast<std::size_t>(std::max(parents, 0)), 0);
    const ExecutionPlanner::Filter& filter = filter_;
    Parallel::chunks(parents, 1, 1 << 12, [&](std::int64_t begin, std::int64_t end) {
      for (auto i = begin; i < end; ++i) {
        const TextView units = catalog.parentUnits(static_cast<std::uint32_t>(i));
        std::int32_t state = 0;
        bool cut = false;
        for (const Unit unit : units) {
          if (unit == 0) {  // the displayed path ends here, without the name
            cut = true;
            break;
          }
          state = filter.advance(p, state, unit, index_.compatibility());
          if (state == static_cast<std::int32_t>(m)) break;
        }
        p.parentState[static_cast<std::size_t>(i)] =
            state == static_cast<std::int32_t>(m) ? kFound : cut ? kCut : state;
      }
    });
    ExecutionPlanner::Filter::Step step{Op::path};
    step.table = static_cast<std::uint32_t>(filter_.paths.size());
    filter_.paths.push_back(std::move(p));
    push(step);
  }

  const SearchIndex& index_;
  ExecutionPlanner::Filter& filter_;
};

}  // namespace

ExecutionPlanner::ExecutionPlanner(SearchIndexPtr index, std::int64_t scanMinimum)
    : index_(std::move(index)), scanMinimum_(scanMinimum < 1 ? 1 : scanMinimum) {}

std::string_view ExecutionPlanner::name(Strategy strategy) noexcept {
  switch (strategy) {
    case Strategy::all: return "all";
    case Strategy::scan: return "scan";
    case Strategy::gramScan: return "gram-scan";
    case Strategy::filterScan: return "filter-scan";
  }
  return "scan";
}

ExecutionPlanner::Plan ExecutionPlanner::plan(TextView query) const {
  const Catalog& catalog = index_->catalog();
  Plan plan;
  plan.root = Query::parse(query, index_->compatibility(), catalog.pathFlavor());
  Query::markSizeSemantics(*plan.root, catalog.directorySizes());
  if (plan.root->kind == Kind::true_) {
    plan.strategy = Strategy::all;
    return plan;
  }
  auto filter = std::make_shared<Filter>();
  FilterCompiler(*index_, *filter).compile(*plan.root, 0);
  if (filter->steps.size() == 1 && filter->steps.front().op == Op::maybe) {
    plan.strategy = Strategy::scan;
    return plan;
  }
  plan.strategy = filter->grams ? Strategy::gramScan : Strategy::filterScan;
  plan.filter = std::move(filter);
  return plan;
}

ExecutionPlanner::Selection ExecutionPlanner::run(const Plan& plan) const {
  const Catalog& catalog = index_->catalog();
  const Compatibility& compatibility = index_->compatibility();
  const std::int64_t n = catalog.count();
  Selection selection;
  selection.strategy = plan.strategy;
  selection.rows = Bitset(n);
  if (plan.strategy == Strategy::all) {
    selection.rows.setRange(0, n);
    selection.count = n;
    return selection;
  }

  const Term& root = *plan.root;
  const Filter* filter = plan.filter.get();
  std::vector<std::uint64_t>& words = selection.rows.words();
  // Chunks own whole words (alignment 64), so they write without sharing.
  const Parallel::Plan chunking = Parallel::plan(n, 64, scanMinimum_);
  std::vector<std::int64_t> counts(static_cast<std::size_t>(chunking.chunks), 0);
  Parallel::chunks(n, 64, scanMinimum_, [&](std::int64_t begin, std::int64_t end) {
    std::int64_t found = 0;
    for (std::int64_t w = begin >> 6; w << 6 < end; ++w) {
      std::uint64_t bits = 0;
      const std::int64_t first = w << 6;
      const std::int64_t last = std::min(first + 64, end);
      for (std::int64_t row = first; row < last; ++row) {
        const auto r = static_cast<std::int32_t>(row);
        const Answer answer = filter != nullptr ? filter->decide(*index_, r) : kMaybe;
        if (answer == kYes || (answer == kMaybe && Query::matches(root, catalog, r, compatibility)))
          bits |= std::uint64_t(1) << (row - first);
      }
      words[static_cast<std::size_t>(w)] = bits;
      found += std::popcount(bits);
    }
    const auto chunk = chunking.serial ? 0 : static_cast<std::size_t>(begin / chunking.length);
    counts[chunk] = found;
  });
  for (const std::int64_t c : counts) selection.count += c;
  return selection;
}

}  // namespace tarv
