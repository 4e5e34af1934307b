#pragma once
// QueryOptimizer: prepares a parsed, marked query tree for evaluation over
// one search index by filling the optimizer fields of its terms:
//   nameGrams       per text term, the bigram mask every matching name holds
//                   (the literal runs of a pattern; 0 when nothing is known);
//   extensionHits   per ext term, per extension id: does the id match;
//   parentHits      per parent term, per parent index: does the folder match;
//   deviceHits      per volume term, per device: does the label match;
//   literalOr       per or term, its alternatives that are plain name
//                   literals, tested together in one pass;
//   numericFilter   per and term, its size, date, file: and folder: operands
//                   merged into one per-row test (numericAnd set).
// The fields only ever restate the match rules of Query::matches in a form
// that is cheaper per row; the tree's meaning does not change.
//
// Not thread-safe while preparing (it writes the tree); the prepared tree is
// read-only afterwards. Throws only std::bad_alloc. Trees deeper than
// kMaxDepth are prepared down to that depth only; deeper terms keep their
// parse-time fields and are evaluated row by row, as are the terms past the
// first kMaxTerms.

#include <cstddef>
#include <cstdint>
#include <vector>

#include "kernel/base/text.h"
#include "kernel/query/query.h"

namespace tarv {

class SearchIndex;

// The alternatives of an or term that are plain name literals (no pattern,
// not whole, not over full paths, at least two units).
struct MultiLiteralOr {
  struct Literal {
    Text text;  // folded, or as typed when sensitive
    bool sensitive = false;
    std::uint64_t mask = 0;  // bigram mask; a matching name holds every bit
    std::uint64_t units = 0;  // name-unit mask; a matching name holds every bit too
  };
  std::vector<Literal> literals;
  std::vector<std::size_t> literalChildren;  // positions in the or's children
  std::uint64_t commonMask = 0;              // the bits all literals share
};

class QueryOptimizer {
 public:
  static constexpr int kMaxDepth = 48;
  // Terms beyond this many are left unprepared (evaluated row by row).
  static constexpr std::size_t kMaxTerms = 8192;

  // Fills the fields above throughout `root`.
  static void prepare(Query::Term& root, const SearchIndex& index);

  // Whether `term` is a plain literal over names (see MultiLiteralOr).
  static bool isNameLiteral(const Query::Term& term) noexcept;
  // Whether `term` can join a numeric filter (size, date, file:, folder:).
  static bool isNumeric(const Query::Term& term) noexcept;
  // Merges `term` (isNumeric) into `filter`.
  static void merge(Query::NumericFilter& filter, const Query::Term& term);
  // The numeric filter's verdict on one row.
  static bool passes(const Query::NumericFilter& filter, const class Catalog& catalog, std::int32_t row) noexcept;
  // The bigram mask of the literal runs of a name text term (between
  // wildcards for patterns).
  static std::uint64_t literalRunMask(const Query::Term& term, const SearchIndex& index);
};

}  // namespace tarv
