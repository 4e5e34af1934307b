#include "kernel/query/query_optimizer.h"

#include <algorithm>
#include <span>
#include <utility>

#include "kernel/catalog/catalog.h"
#include "kernel/query/parallel.h"
#include "kernel/query/search_index.h"

namespace tarv {
namespace {

using Kind = Query::Kind;
using Term = Query::Term;

bool equalsText(const Term& term, TextView subject, const Compatibility& table) noexcept {
  if (subject.size() != term.text.size()) return false;
  for (std::size_t i = 0; i < subject.size(); ++i)
    if (term.text[i] != (term.sensitive ? subject[i] : table.fold(subject[i]))) return false;
  return true;
}

std::vector<bool> extensionHits(const Term& term, const SearchIndex& index) {
  std::vector<bool> hits(index.extensions().size(), false);
  for (const Text& listed : term.extensions)
    for (const std::int32_t id : index.extensionIdsMatching(listed, term.sensitive))
      if (id >= 0 && static_cast<std::size_t>(id) < hits.size()) hits[static_cast<std::size_t>(id)] = true;
  return hits;
}

// Three-way comparison of a parent text, folded unit by unit, with an
// already folded text; a text that is a prefix of the other comes first. The
// order of the index's parent prefix order.
int compareFolded(TextView text, TextView folded, const Compatibility& table) noexcept {
  const std::size_t n = std::min(text.size(), folded.size());
  for (std::size_t k = 0; k < n; ++k) {
    const Unit a = table.fold(text[k]);
    if (a != folded[k]) return a < folded[k] ? -1 : 1;
  }
  return text.size() < folded.size() ? -1 : text.size() > folded.size() ? 1 : 0;
}

// parent: through the parent prefix order. A matching parent's text is the
// term's text, or it with one separator added, so its folded text is one of
// those few texts folded; the parents of one folded text are one run of the
// order, found by binary search, and only they are compared by the rule.
// An order from a damaged file (unsorted, entries out of range) may miss
// parents, never reads past the parents.
std::vector<bool> parentHitsByOrder(const Term& term, const SearchIndex& index) {
  const Catalog& catalog = index.catalog();
  const Compatibility& table = index.compatibility();
  const auto parents = static_cast<std::uint32_t>(std::max(catalog.parentCount(), 0));
  const std::span<const std::int32_t> order = index.parentPrefixOrder().span();
  std::vector<bool> hits(parents, false);
  auto textAt = [&](std::int32_t p) {
    return static_cast<std::uint32_t>(p) < parents ? catalog.parentUnits(static_cast<std::uint32_t>(p)) : TextView();
  };
  const Text folded = term.sensitive ? table.fold(term.text) : term.text;
  std::vector<Text> wanted{folded};
  for (const Unit separator : {u'/', u'\\'})
    if (path_flavor::isSeparator(catalog.pathFlavor(), separator)) wanted.push_back(folded + table.fold(separator));
  for (const Text& text : wanted) {
    // A plain binary search: a damaged order need not be sorted.
    std::size_t low = 0;
    std::size_t high = order.size();
    while (low < high) {
      const std::size_t middle = low + (high - low) / 2;
      if (compareFolded(textAt(order[middle]), text, table) < 0) low = middle + 1;
      else high = middle;
    }
    for (std::size_t at = low; at < order.size() && compareFolded(textAt(order[at]), text, table) == 0; ++at) {
      const auto p = static_cast<std::uint32_t>(order[at]);
      if (p < parents && equalsText(term, path_flavor::trimParent(catalog.pathFlavor(), textAt(order[at])), table))
        hits[p] = true;
    }
  }
  return hits;
}

// parent: the row's parent text, trimmed as a folder path, equals the text.
std::vector<bool> parentHits(const Term& term, const SearchIndex& index) {
  const Catalog& catalog = index.catalog();
  const auto parents = static_cast<std::size_t>(std::max(catalog.parentCount(), 0));
  if (index.parentPrefixOrder().size() == parents) return parentHitsByOrder(term, index);
  // Bytes, not bits, while chunks write side by side.
  std::vector<std::uint8_t> bytes(parents, 0);
  Parallel::chunks(static_cast<std::int64_t>(parents), 1, 1 << 14, [&](std::int64_t begin, std::int64_t end) {
    for (auto p = begin; p < end; ++p) {
      const TextView text = catalog.parentUnits(static_cast<std::uint32_t>(p));
      // A trailing separator is the only thing trimming removes.
      if (text.size() != term.text.size() && text.size() != term.text.size() + 1) continue;
      bytes[static_cast<std::size_t>(p)] =
          equalsText(term, path_flavor::trimParent(catalog.pathFlavor(), text), index.compatibility()) ? 1 : 0;
    }
  });
  return std::vector<bool>(bytes.begin(), bytes.end());
}

std::vector<bool> deviceHits(const Term& term, const SearchIndex& index) {
  const auto& labels = index.catalog().parts().deviceLabels;
  std::vector<bool> hits(labels.size(), false);
  for (std::size_t d = 0; d < labels.size(); ++d)
    hits[d] = labels[d].has_value() && equalsText(term, *labels[d], index.compatibility());
  return hits;
}

void prepareOr(Term& term, const SearchIndex& index) {
  auto literals = std::make_shared<MultiLiteralOr>();
  literals->commonMask = ~std::uint64_t(0);
  for (std::size_t i = 0; i < term.children.size(); ++i) {
    const Term& child = *term.children[i];
    if (!QueryOptimizer::isNameLiteral(child)) continue;
    // A sensitive text holds its units as typed; the rows' masks hold folded ones.
    const std::uint64_t units = child.sensitive ? SearchIndex::unitMask(index.compatibility(), child.text)
                                                : SearchIndex::foldedUnitMask(child.text);
    literals->literals.push_back({child.text, child.sensitive, child.nameGrams, units});
    literals->literalChildren.push_back(i);
    literals->commonMask &= child.nameGrams;
  }
  if (literals->literals.size() >= 2) term.literalOr = std::move(literals);
}

void prepareAnd(Term& term) {
  Query::NumericFilter filter;
  int merged = 0;
  for (const Query::TermPtr& child : term.children) {
    if (!QueryOptimizer::isNumeric(*child)) continue;
    QueryOptimizer::merge(filter, *child);
    ++merged;
  }
  if (merged >= 2) {
    term.numericFilter = filter;
    term.numericAnd = true;
    term.numericFields = filter.fields;
    term.numericTypes = filter.types;
  }
}

}  // namespace

bool QueryOptimizer::isNameLiteral(const Term& term) noexcept {
  return term.kind == Kind::text && !term.fullPath && !term.wildcard && !term.whole && term.text.size() >= 2 &&
         term.text.size() == term.raw.size();
}

bool QueryOptimizer::isNumeric(const Term& term) noexcept {
  switch (term.kind) {
    case Kind::size:
    case Kind::modified:
    case Kind::created:
    case Kind::allocated:
    case Kind::file:
    case Kind::folder: return true;
    default: return false;
  }
}

void QueryOptimizer::merge(Query::NumericFilter& filter, const Term& term) {
  auto field = [&](Query::Bounds& bounds, int bit) {
    filter.fields |= bit;
    if (term.unknown) {
      bounds.unknown = true;
      // Without real folder sizes a folder's unknown size says nothing.
      if (term.kind == Kind::size && !term.sizeFolders) filter.types &= 1;
    } else {
      bounds.known = true;
      bounds.low = std::max(bounds.low, term.low);
      bounds.high = std::min(bounds.high, term.high);
    }
  };
  switch (term.kind) {
    case Kind::file: filter.types &= 1; break;
    case Kind::folder: filter.types &= 2; break;
    case Kind::size: field(filter.size, 1); break;
    case Kind::modified: field(filter.modified, 2); break;
    case Kind::created: field(filter.created, 4); break;
    case Kind::allocated: field(filter.allocated, 8); break;
    default: break;
  }
}

bool QueryOptimizer::passes(const Query::NumericFilter& filter, const Catalog& catalog, std::int32_t row) noexcept {
  const int type = catalog.isDirectory(row) ? 2 : 1;
  if ((filter.types & type) == 0) return false;
  auto within = [](const Query::Bounds& bounds, std::uint64_t value) {
    if (bounds.unknown && value != kUnknown64) return false;
    if (bounds.known && (value == kUnknown64 || value < bounds.low || value > bounds.high)) return false;
    return true;
  };
  if ((filter.fields & 1) && !within(filter.size, catalog.rawSize(row))) return false;
  if ((filter.fields & 2) && !within(filter.modified, catalog.rawModified(row))) return false;
  if ((filter.fields & 4) && !within(filter.created, catalog.rawCreated(row))) return false;
  if ((filter.fields & 8) && !within(filter.allocated, catalog.rawAllocated(row))) return false;
  return true;
}

std::uint64_t QueryOptimizer::literalRunMask(const Term& term, const SearchIndex& index) {
  // Every literal run of the term (the whole text, or the runs between
  // wildcards) occurs in a matching name, and `raw` folds unit by unit to
  // `text`, so a matching name's mask holds every run's mask.
  if (term.kind != Kind::text || term.fullPath || term.text.size() != term.raw.size()) return 0;
  std::uint64_t mask = 0;
  const Text& raw = term.raw;
  std::size_t begin = 0;
  for (std::size_t i = 0; i <= raw.size(); ++i) {
    const bool end = i == raw.size() || (term.wildcard && (raw[i] == u'*' || raw[i] == u'?'));
    if (!end) continue;
    if (i - begin >= 2) mask |= SearchIndex::gramMask(index.compatibility(), TextView(raw).substr(begin, i - begin));
    begin = i + 1;
  }
  return mask;
}

void QueryOptimizer::prepare(Term& root, const SearchIndex& index) {
  // Children first, so an or sees its literals' masks; explicit stack, with
  // the depth bounded so a pathological tree costs no more than its size.
  struct Entry {
    Term* term;
    int depth;
    bool expanded;
  };
  std::vector<Entry> stack{{&root, 0, false}};
  std::size_t expandedTerms = 0;
  while (!stack.empty()) {
    Entry& entry = stack.back();
    Term& term = *entry.term;
    if (!entry.expanded && entry.depth < kMaxDepth && expandedTerms < kMaxTerms &&
        (term.kind == Kind::and_ || term.kind == Kind::or_ || term.kind == Kind::not_)) {
      entry.expanded = true;
      expandedTerms += 1 + term.children.size();
      const int depth = entry.depth;
      for (const Query::TermPtr& child : term.children) stack.push_back({child.get(), depth + 1, false});
      continue;
    }
    const bool expanded = entry.expanded;
    stack.pop_back();
    switch (term.kind) {
      case Kind::text: term.nameGrams = literalRunMask(term, index); break;
      case Kind::ext: term.extensionHits = extensionHits(term, index); break;
      case Kind::parent: term.parentHits = parentHits(term, index); break;
      case Kind::volume: term.deviceHits = deviceHits(term, index); break;
      case Kind::or_:
        if (expanded) prepareOr(term, index);
        break;
      case Kind::and_:
        if (expanded) prepareAnd(term);
        break;
      default: break;
    }
  }
}

}  // namespace tarv
