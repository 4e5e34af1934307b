#include "kernel/query/execution_planner.h"

#include <bit>
#include <utility>
#include <vector>

#include "kernel/query/parallel.h"

namespace tarv {
namespace {

using Kind = Query::Kind;
using Term = Query::Term;

// Whether a row must contain the term's text as a run of its name: a text
// term on names that is neither a wildcard pattern nor empty. Both folded and
// case-sensitive terms qualify: units equal as typed are equal folded too, so
// every folded bigram of `raw` is a folded bigram of a matching name.
bool isNameLiteral(const Term& term) {
  return term.kind == Kind::text && !term.fullPath && !term.wildcard && term.raw.size() >= 2 &&
         term.text.size() == term.raw.size();
}

// The bits a name must hold for the whole tree to match: the union of the
// masks of the name literals that an AND chain from the root requires.
std::uint64_t requiredGrams(const Term& root, const Compatibility& compatibility) {
  std::uint64_t mask = 0;
  std::vector<const Term*> pending{&root};
  while (!pending.empty()) {
    const Term* term = pending.back();
    pending.pop_back();
    if (term->kind == Kind::and_) {
      for (const auto& child : term->children) pending.push_back(child.get());
    } else if (isNameLiteral(*term)) {
      // `raw` folds unit by unit to `text`, so this is the mask of the
      // folded literal as the names' masks are made.
      mask |= SearchIndex::gramMask(compatibility, term->raw);
    }
  }
  return mask;
}

}  // namespace

ExecutionPlanner::ExecutionPlanner(SearchIndexPtr index, std::int64_t scanMinimum)
    : index_(std::move(index)), scanMinimum_(scanMinimum < 1 ? 1 : scanMinimum) {}

std::string_view ExecutionPlanner::name(Strategy strategy) noexcept {
  switch (strategy) {
    case Strategy::all: return "all";
    case Strategy::scan: return "scan";
    case Strategy::gramScan: return "gram-scan";
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
  plan.gramMask = requiredGrams(*plan.root, index_->compatibility());
  plan.strategy = plan.gramMask != 0 ? Strategy::gramScan : Strategy::scan;
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
  std::vector<std::uint64_t>& words = selection.rows.words();
  const std::uint64_t need = plan.strategy == Strategy::gramScan ? plan.gramMask : 0;
  const std::uint64_t* masks = index_->nameGramMasks().data();
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
        if ((masks[row] & need) != need) continue;
        if (Query::matches(root, catalog, static_cast<std::int32_t>(row), compatibility))
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
