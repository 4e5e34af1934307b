#include "kernel/query/execution_planner.h"

#include <algorithm>
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

enum class Op : std::uint8_t {
  yes, no, maybe, gram, name, extension, file, folder, path, parent, volume, number, allOf, anyOf, negate
};

// Names longer than this are left to Query::matches by the name test.
constexpr std::size_t kFoldBuffer = 256;

// Whole-text equality as text, parent and volume terms compare.
bool equalsText(const Query::Term& term, TextView subject, const Compatibility& table) {
  if (subject.size() != term.text.size()) return false;
  for (std::size_t i = 0; i < subject.size(); ++i)
    if (term.text[i] != (term.sensitive ? subject[i] : table.fold(subject[i]))) return false;
  return true;
}

// Deeper or larger trees are cut off as "maybe", so the filter stays a few
// dozen steps per row and its walk a bounded recursion.
constexpr int kMaxDepth = 32;
constexpr std::size_t kMaxNodes = 256;

// Parent states of a path term: the text occurs within the parent's part of
// the path, or the path ends inside the parent text (a NUL cuts it).
constexpr std::int32_t kFound = -1;
constexpr std::int32_t kCut = -2;

}  // namespace

struct ExecutionPlanner::Filter {
  struct Node {
    Op op = Op::maybe;
    std::uint64_t mask = 0;   // gram
    std::uint32_t table = 0;  // extension, parent, volume: hits; path: paths
    // number: the term (size, date and size-on-disk rules).
    Query::Kind field = Query::Kind::size;
    std::uint64_t low = 0, high = 0;
    bool unknown = false, sizeFolders = false;
    // name: the compared text (folded unless sensitive).
    Text text;
    bool sensitive = false, whole = false;
    int cost = 0;             // rough work per row, for ordering operands
    std::vector<std::uint32_t> children;  // allOf / anyOf / negate, cheapest first
  };

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
  };

  std::vector<Node> nodes;  // nodes[0] is the root
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

  // A plain name term: the text as a run of the name (or the whole name),
  // compared unit by unit with the name folded unless the term is sensitive.
  static Answer nameContains(const Node& node, TextView name, const Compatibility& table) noexcept {
    TextView subject = name;
    std::array<Unit, kFoldBuffer> folded;
    if (!node.sensitive) {
      if (name.size() > folded.size()) return kMaybe;
      for (std::size_t i = 0; i < name.size(); ++i) folded[i] = table.fold(name[i]);
      subject = TextView(folded.data(), name.size());
    }
    if (node.whole) return subject == TextView(node.text) ? kYes : kNo;
    return subject.find(node.text) != TextView::npos ? kYes : kNo;
  }

  // Operands are read cheapest first and the walk stops as soon as the
  // answer is known. The tree is at most kMaxDepth deep.
  Answer decide(const SearchIndex& index, std::int32_t row, std::uint32_t at = 0) const noexcept {
    const Node& node = nodes[at];
    const Catalog& catalog = index.catalog();
    switch (node.op) {
      case Op::yes: return kYes;
      case Op::no: return kNo;
      case Op::maybe: return kMaybe;
      case Op::gram:
        return (index.nameGramMasks()[static_cast<std::size_t>(row)] & node.mask) == node.mask ? kMaybe : kNo;
      case Op::name:
        if ((index.nameGramMasks()[static_cast<std::size_t>(row)] & node.mask) != node.mask) return kNo;
        return nameContains(node, catalog.nameUnits(row), index.compatibility());
      case Op::extension: {
        if (catalog.isDirectory(row)) return kNo;
        const std::uint16_t id = index.extensionIds()[static_cast<std::size_t>(row)];
        if (id == SearchIndex::kExtensionOverflow) return kMaybe;
        return hits[node.table][id] ? kYes : kNo;
      }
      case Op::file: return catalog.isDirectory(row) ? kNo : kYes;
      case Op::folder: return catalog.isDirectory(row) ? kYes : kNo;
      case Op::path: {
        const PathTerm& term = paths[node.table];
        std::int32_t state = term.parentState[catalog.parentIndex(row)];
        if (state == kFound) return kYes;
        if (state == kCut) return kNo;
        if (state == 0 && (index.nameGramMasks()[static_cast<std::size_t>(row)] & term.mask) != term.mask) return kNo;
        const auto m = static_cast<std::int32_t>(term.text.size());
        for (const Unit unit : catalog.nameUnits(row)) {
          if (unit == 0) break;  // the displayed path ends at a NUL of the name
          state = advance(term, state, unit, index.compatibility());
          if (state == m) return kYes;
        }
        return kNo;
      }
      case Op::parent: return hits[node.table][catalog.parentIndex(row)] ? kYes : kNo;
      case Op::volume: {
        const std::uint16_t id = catalog.deviceId(row);
        return id != kNoDevice && id < hits[node.table].size() && hits[node.table][id] ? kYes : kNo;
      }
      case Op::number: {
        std::uint64_t value = kUnknown64;
        switch (node.field) {
          case Kind::size: value = catalog.rawSize(row); break;
          case Kind::modified: value = catalog.rawModified(row); break;
          case Kind::created: value = catalog.rawCreated(row); break;
          default: value = catalog.rawAllocated(row); break;
        }
        if (node.unknown) {
          if (value != kUnknown64) return kNo;
          // Without real folder sizes a folder's unknown size says nothing.
          return node.field == Kind::size && !node.sizeFolders && catalog.isDirectory(row) ? kNo : kYes;
        }
        return value != kUnknown64 && node.low <= value && value <= node.high ? kYes : kNo;
      }
      case Op::allOf: {
        Answer all = kYes;
        for (const std::uint32_t child : node.children) {
          const Answer a = decide(index, row, child);
          if (a == kNo) return kNo;
          if (a == kMaybe) all = kMaybe;
        }
        return all;
      }
      case Op::anyOf: {
        Answer any = kNo;
        for (const std::uint32_t child : node.children) {
          const Answer a = decide(index, row, child);
          if (a == kYes) return kYes;
          if (a == kMaybe) any = kMaybe;
        }
        return any;
      }
      case Op::negate: {
        const Answer a = decide(index, row, node.children.front());
        return a == kMaybe ? kMaybe : a == kYes ? kNo : kYes;
      }
    }
    return kMaybe;
  }
};

namespace {

// Turns a query tree into a filter tree. Every node answers exactly as
// Query::matches would for its term, or "maybe".
class FilterCompiler {
 public:
  using Node = ExecutionPlanner::Filter::Node;

  FilterCompiler(const SearchIndex& index, ExecutionPlanner::Filter& filter) : index_(index), filter_(filter) {}

  // Appends the node of `term` (and its operands) and returns its index.
  std::uint32_t compile(const Term& term, int depth) {
    const auto at = static_cast<std::uint32_t>(filter_.nodes.size());
    filter_.nodes.emplace_back();
    if (depth > kMaxDepth || at >= kMaxNodes) return at;  // maybe
    Node node;
    switch (term.kind) {
      case Kind::true_: node.op = Op::yes; break;
      case Kind::false_: node.op = Op::no; break;
      case Kind::and_:
      case Kind::or_:
      case Kind::not_: {
        if (term.kind == Kind::not_) {
          // Only the first operand counts, as in Query::matches.
          if (term.children.empty()) {
            node.op = Op::yes;
            break;
          }
          node.op = Op::negate;
        } else {
          node.op = term.kind == Kind::and_ ? Op::allOf : Op::anyOf;
        }
        if (at + term.children.size() >= kMaxNodes) return at;  // maybe
        const std::size_t operands = term.kind == Kind::not_ ? 1 : term.children.size();
        for (std::size_t i = 0; i < operands; ++i) {
          const std::uint32_t child = compile(*term.children[i], depth + 1);
          node.children.push_back(child);
          node.cost += filter_.nodes[child].cost;
        }
        if (filter_.nodes.size() > kMaxNodes) {
          // Over budget: the whole subtree answers "maybe".
          filter_.nodes.resize(at + 1);
          return at;
        }
        std::stable_sort(node.children.begin(), node.children.end(), [&](std::uint32_t x, std::uint32_t y) {
          return filter_.nodes[x].cost < filter_.nodes[y].cost;
        });
        break;
      }
      case Kind::text: text(term, node); break;
      case Kind::ext: extension(term, node); break;
      case Kind::parent: parent(term, node); break;
      case Kind::volume: volume(term, node); break;
      case Kind::size:
      case Kind::modified:
      case Kind::created:
      case Kind::allocated:
        node.op = Op::number;
        node.field = term.kind;
        node.low = term.low;
        node.high = term.high;
        node.unknown = term.unknown;
        node.sizeFolders = term.sizeFolders;
        node.cost = 1;
        break;
      case Kind::file: node.op = Op::file; node.cost = 1; break;
      case Kind::folder: node.op = Op::folder; node.cost = 1; break;
      default: break;  // maybe
    }
    filter_.nodes[at] = std::move(node);
    return at;
  }

 private:
  void text(const Term& term, Node& node) {
    if (term.text.empty()) {
      node.op = Op::yes;
      return;
    }
    if (term.fullPath) {
      if (!term.wildcard && !term.whole && term.text.size() == term.raw.size()) path(term, node);
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
    if (mask == 0 && term.wildcard) return;
    filter_.grams = filter_.grams || mask != 0;
    node.mask = mask;
    node.cost = 1;
    if (term.wildcard) {
      node.op = Op::gram;
      return;
    }
    // A plain text is decided here: the bigram test, then the text itself.
    node.op = Op::name;
    node.text = term.text;
    node.sensitive = term.sensitive;
    node.whole = term.whole;
    node.cost = 3;
  }

  void extension(const Term& term, Node& node) {
    std::vector<std::uint8_t> hits(65536, 0);
    for (const Text& listed : term.extensions)
      for (const std::int32_t id : index_.extensionIdsMatching(listed, term.sensitive))
        if (id >= 0 && id < 65536) hits[static_cast<std::size_t>(id)] = 1;
    node.op = Op::extension;
    node.table = static_cast<std::uint32_t>(filter_.hits.size());
    node.cost = 2;
    filter_.hits.push_back(std::move(hits));
  }

  // parent: the row's parent text, trimmed as a folder path, equals the text.
  void parent(const Term& term, Node& node) {
    const Catalog& catalog = index_.catalog();
    std::vector<std::uint8_t> hits(static_cast<std::size_t>(std::max(catalog.parentCount(), 0)), 0);
    for (std::size_t p = 0; p < hits.size(); ++p) {
      const TextView text = catalog.parentUnits(static_cast<std::uint32_t>(p));
      hits[p] = equalsText(term, path_flavor::trimParent(catalog.pathFlavor(), text), index_.compatibility()) ? 1 : 0;
    }
    node.op = Op::parent;
    node.table = static_cast<std::uint32_t>(filter_.hits.size());
    node.cost = 1;
    filter_.hits.push_back(std::move(hits));
  }

  // volume-label: the label of the row's device equals the text.
  void volume(const Term& term, Node& node) {
    const auto& labels = index_.catalog().parts().deviceLabels;
    std::vector<std::uint8_t> hits(labels.size(), 0);
    for (std::size_t d = 0; d < labels.size(); ++d)
      hits[d] = labels[d] && equalsText(term, *labels[d], index_.compatibility()) ? 1 : 0;
    node.op = Op::volume;
    node.table = static_cast<std::uint32_t>(filter_.hits.size());
    node.cost = 1;
    filter_.hits.push_back(std::move(hits));
  }

  void path(const Term& term, Node& node) {
    ExecutionPlanner::Filter::PathTerm p;
    p.text = term.text;
    p.sensitive = term.sensitive;
    p.mask = SearchIndex::gramMask(index_.compatibility(), term.raw);
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
    node.op = Op::path;
    node.table = static_cast<std::uint32_t>(filter_.paths.size());
    node.cost = 16;
    filter_.paths.push_back(std::move(p));
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

ExecutionPlanner::Plan ExecutionPlanner::plan(TextView query, std::optional<Query::Moment> moment) const {
  const Catalog& catalog = index_->catalog();
  Plan plan;
  plan.root = Query::parse(query, index_->compatibility(), catalog.pathFlavor(), moment);
  Query::markSizeSemantics(*plan.root, catalog.directorySizes());
  if (plan.root->kind == Kind::true_) {
    plan.strategy = Strategy::all;
    return plan;
  }
  auto filter = std::make_shared<Filter>();
  FilterCompiler(*index_, *filter).compile(*plan.root, 0);
  if (filter->nodes.front().op == Op::maybe) {
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
  const std::uint64_t* masks = index_->nameGramMasks().data();
  // A root that is one bigram test (a pattern or a plain name text): rows
  // without the bits are passed over before anything else is read.
  const Op rootOp = filter != nullptr ? filter->nodes.front().op : Op::maybe;
  const std::uint64_t onlyGrams = rootOp == Op::gram || rootOp == Op::name ? filter->nodes.front().mask : 0;
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
      if (onlyGrams != 0) {
        // One bigram test decides most rows: a tight loop over the masks.
        for (std::int64_t row = first; row < last; ++row) {
          if ((masks[row] & onlyGrams) != onlyGrams) continue;
          const auto r = static_cast<std::int32_t>(row);
          const Answer answer = filter->decide(*index_, r);
          if (answer == kYes || (answer == kMaybe && Query::matches(root, catalog, r, compatibility)))
            bits |= std::uint64_t(1) << (row - first);
        }
      } else {
        for (std::int64_t row = first; row < last; ++row) {
          const auto r = static_cast<std::int32_t>(row);
          const Answer answer = filter != nullptr ? filter->decide(*index_, r) : kMaybe;
          if (answer == kYes || (answer == kMaybe && Query::matches(root, catalog, r, compatibility)))
            bits |= std::uint64_t(1) << (row - first);
        }
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
