#pragma once
// Query: a parsed query bound to the data it runs on (catalog, compatibility
// table, search index and the root term), plus the per-record match rules that
// define which rows a query selects. Query::Term is the node type of parsed
// query trees; Query::Parser (query_parser.h) builds them and Query::Range
// (query_range.h) reads size and date values.
//
// Trees are built by one thread and then mutated only by markSizeSemantics,
// the optimizer and freeze; afterwards they are read-only and may be read by
// any number of threads. Nothing here throws on query text: malformed queries
// degrade to literal text, always-true terms or empty ranges.
//
// Trees may be arbitrarily deep (a million nested groups or negations):
// destruction, matching, marking and describing never recurse on the tree.

#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "kernel/base/path_flavor.h"
#include "kernel/base/text.h"

namespace tarv {

class Catalog;
class Compatibility;
class SearchIndex;
// Prepared alternatives of literals; built and owned by the query optimizer.
struct MultiLiteralOr;

class Query {
 public:
  // Node kinds. The first five carry a trailing underscore because their
  // plain names are C++ keywords or alternative tokens.
  enum class Kind {
    true_,
    false_,
    and_,
    or_,
    not_,
    text,
    ext,
    file,
    folder,
    size,
    modified,
    created,
    allocated,  // size on disk
    volume,     // device label
    parent,
  };

  // The modifiers written as "case:", "nocase:", "path:", "nopath:" and
  // "wfn:"/"wholefilename:".
  enum class Modifier { matchCase, noCase, path, noPath, wholeName };

  // Numeric bounds merged by the optimizer.
  struct Bounds {
    std::uint64_t low = 0;
    std::uint64_t high = std::numeric_limits<std::uint64_t>::max();
    bool known = false;
    bool unknown = false;
  };

  struct NumericFilter {
    int types = 3;  // 1 files, 2 folders
    int fields = 0;
    Bounds size;
    Bounds modified;
    Bounds created;
    Bounds allocated;
  };

  // The present moment as the date keywords and local offsets see it.
  struct Moment {
    std::int64_t unixSeconds = 0;       // seconds since 1970-01-01 UTC
    std::int64_t utcOffsetSeconds = 0;  // local time minus UTC at that moment
    // The real clock: time() and the tm_gmtoff of localtime_r (current TZ).
    static Moment now();
  };

  struct Term;
  using TermPtr = std::shared_ptr<Term>;
  class Parser;
  class Range;

  Query(std::shared_ptr<const Catalog> catalog, std::shared_ptr<const Compatibility> compatibility,
        std::shared_ptr<const SearchIndex> index, TermPtr root);

  const std::shared_ptr<const Catalog>& catalog() const noexcept { return catalog_; }
  const std::shared_ptr<const Compatibility>& compatibility() const noexcept { return compatibility_; }
  const std::shared_ptr<const SearchIndex>& index() const noexcept { return index_; }  // may be null
  const TermPtr& root() const noexcept { return root_; }

  // Whether `row` of the bound catalog matches the root.
  bool matches(std::int32_t row) const;

  // Parses `query` with a fresh parser (the `and` level) and returns the root.
  // `moment` fixes the present for date keywords and local offsets; a search
  // over several sources should read Moment::now() once and pass it to each,
  // so that "today" means the same day everywhere. Absent: the real clock.
  static TermPtr parse(TextView query, const Compatibility& compatibility, PathFlavor pathFlavor,
                       std::optional<Moment> moment = std::nullopt);

  // Sets `sizeFolders` on `root` and every term below it.
  static void markSizeSemantics(Term& root, bool directorySizes);

  // Whether the whole `subject` matches the wildcard pattern of `term` (`*` any
  // run, `?` one unit; single-backtrack greedy). Insensitive terms fold each
  // subject unit and compare it with the folded `text`.
  static bool wildcard(const Term& term, TextView subject, const Compatibility& compatibility);
  // The text rule of a `text` term on one subject (a name or a full path):
  // empty text matches; wildcard patterns match the whole subject; `whole`
  // requires equality; otherwise the text must occur in the subject.
  static bool textMatches(const Term& term, TextView subject, const Compatibility& compatibility);
  // Whether `row` of `catalog` matches `term`: the reference definition of a
  // correct answer. No allocation per call once the thread's scratch stack has
  // grown to the tree's depth.
  static bool matches(const Term& term, const Catalog& catalog, std::int32_t row,
                      const Compatibility& compatibility);

  // A compact s-expression of a tree for tests and diagnostics, e.g.
  // (and (text "README" "readme") (or (ext "pdf" "doc" case) (size 9217 10240))).
  // Texts are UTF-8 in double quotes; a text term shows `raw`, then `text`
  // when it differs; flags follow as words: case, path, whole, wild.
  static std::string describe(const Term& term);

 private:
  std::shared_ptr<const Catalog> catalog_;
  std::shared_ptr<const Compatibility> compatibility_;
  std::shared_ptr<const SearchIndex> index_;
  TermPtr root_;
};

// A node of a parsed query. A reference type: children are shared, never
// copied, and copying a Term copies the references. Destroying a tree of any
// depth uses no recursion.
struct Query::Term {
  static constexpr std::uint64_t kNoLimit = std::numeric_limits<std::uint64_t>::max();

  Kind kind = Kind::true_;
  std::vector<TermPtr> children;  // operands of and / or; the one operand of not
  Text raw;                       // the text as typed, quotes removed
  Text text;                      // raw folded, or raw itself when sensitive
  std::vector<Text> extensions;   // ext: the listed extensions, as typed
  bool sensitive = false;
  bool fullPath = false;
  bool whole = false;
  bool wildcard = false;
  bool unknown = false;      // size/date term selecting unknown values
  bool sizeFolders = false;  // the catalog's directorySizes (markSizeSemantics)

  // Filled by the query optimizer; absent or zero after parsing.
  std::optional<std::vector<bool>> parentHits;
  std::optional<std::vector<bool>> extensionHits;
  std::optional<std::vector<bool>> parentBoundary;
  std::optional<std::vector<bool>> pathGuard;
  std::optional<std::vector<bool>> deviceHits;
  std::vector<int> pathExtraHits;
  bool pathOnly = false;
  bool crossBoundary = false;
  bool numericAnd = false;
  int pathTotal = 0;
  int boundaryOffset = 0;
  int globMode = 0;
  int globBegin = 0;
  int globSize = 0;
  int numericFields = 0;
  int numericTypes = 3;  // 1 files, 2 folders
  std::vector<Bounds> numericBounds;
  std::optional<NumericFilter> numericFilter;
  std::shared_ptr<const MultiLiteralOr> literalOr;

  std::uint64_t low = 0;           // inclusive
  std::uint64_t high = kNoLimit;   // inclusive
  std::uint64_t nameGrams = 0;     // filled by the optimizer
  std::vector<const Term*> frozen; // children laid out by freeze; unowned

  Term() = default;
  explicit Term(Kind k) : kind(k) {}
  Term(const Term&) = default;
  Term(Term&&) = default;
  Term& operator=(const Term&) = default;
  Term& operator=(Term&&) = default;
  ~Term();

  static TermPtr make(Kind kind) { return std::make_shared<Term>(kind); }
};

}  // namespace tarv
