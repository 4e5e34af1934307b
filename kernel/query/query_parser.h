#pragma once
// Query::Parser: turns one line of query text (UTF-16 units) into a tree of
// Query::Term. It never fails: every input yields a tree. Made fresh for each
// query; single-threaded; holds a reference to the compatibility table, which
// must outlive it. The returned tree owns its texts and does not refer to the
// parser.
//
// The grammar runs on an explicit stack, so nesting depth is limited only by
// memory, and the work is linear in the query length (nested values of file:,
// folder: and type macros included).

#include <cstddef>
#include <optional>
#include <string_view>

#include "kernel/query/query.h"

namespace tarv {

class Query::Parser {
 public:
  Parser(TextView input, const Compatibility& compatibility, PathFlavor pathFlavor);

  Text input;
  const Compatibility& compatibility;
  PathFlavor pathFlavor;
  std::size_t position = 0;  // index into `input`
  // The present moment for date keywords and local offsets; when absent the
  // real clock is read once, at the first date value of the parse.
  std::optional<Moment> moment;

  // The grammar levels, each starting at `position` and leaving it after what
  // was consumed. parseAnd is the entry point (top level and bracket contents):
  // it stops at the end of input or at an unmatched ">", which it leaves
  // unconsumed. parseOr binds tighter than the space; parseUnary reads one
  // group, negation or token.
  TermPtr parseAnd();
  TermPtr parseOr();
  TermPtr parseUnary();

  // Reads one token at `position` with quotes removed and advances past it.
  Text readToken();

  // Applies one modifier to `term` and every term below it (see the kinds each
  // modifier acts on); text, parent and volume terms recompute `text`.
  void modify(Term& term, Modifier modifier) const;

  // The modifier named by already folded units, if any.
  static std::optional<Modifier> modifierNamed(TextView folded);
  // The unit set the grammar skips as whitespace.
  static bool isWhitespace(Unit unit) noexcept;

 private:
  class Machine;
  enum class Level { andLevel, orLevel, unaryLevel };
  TermPtr run(Level level);
  const Moment& currentMoment();
};

}  // namespace tarv
