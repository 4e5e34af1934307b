// Query::Parser: grammar, tokens, modifiers, functions and macros, shown as
// term trees; robustness on random input and on very deep or long queries.

#include "kernel/query/query_parser.h"

#include <gtest/gtest.h>

#include <ctime>

#include <algorithm>
#include <chrono>
#include <random>
#include <string>
#include <vector>

#include "tests/query/query_test_support.h"

namespace tarv {
namespace {

using testing::asciiTable;
using testing::parseWith;
using testing::shape;
using Kind = Query::Kind;

struct ShapeCase {
  const char* label;
  const char* query;
  const char* expected;
};

void expectShapes(const std::vector<ShapeCase>& cases, PathFlavor flavor = PathFlavor::posix) {
  for (const auto& c : cases) EXPECT_EQ(shape(c.query, flavor), c.expected) << c.label << ": " << c.query;
}

TEST(QueryParserGrammar, PrecedenceBracketsAndNegation) {
  expectShapes({
      {"empty query", "", "true"},
      {"only whitespace", " \t ", "true"},
      {"one word", "a", "(text \"a\")"},
      {"or binds tighter than space", "a b|c", "(and (text \"a\") (or (text \"b\") (text \"c\")))"},
      {"group then or", "<a b>|c", "(or (and (text \"a\") (text \"b\")) (text \"c\"))"},
      {"or chain is one term", "a|b|c", "(or (text \"a\") (text \"b\") (text \"c\"))"},
      {"and chain is one term", "a b c", "(and (text \"a\") (text \"b\") (text \"c\"))"},
      {"spaces around bar", "a | b", "(or (text \"a\") (text \"b\"))"},
      {"left group and flattens", "<a b> c", "(and (text \"a\") (text \"b\") (text \"c\"))"},
      {"right group and stays nested", "c <a b>", "(and (text \"c\") (and (text \"a\") (text \"b\")))"},
      {"left group or flattens", "<a|b>|c", "(or (text \"a\") (text \"b\") (text \"c\"))"},
      {"single operand group unwraps", "<<a>>", "(text \"a\")"},
      {"empty group", "<>", "true"},
      {"unmatched > ends the query", "a > b", "(text \"a\")"},
      {"lone >", ">", "true"},
      {"missing > tolerated", "<a b", "(and (text \"a\") (text \"b\"))"},
      {"extra > after group ends the query", "<a>>b", "(text \"a\")"},
      {"negation", "!a", "(not (text \"a\"))"},
      {"space after bang", "! a", "(not (text \"a\"))"},
      {"double negation", "!!a", "(not (not (text \"a\")))"},
      {"negated group", "!<a b>", "(not (and (text \"a\") (text \"b\")))"},
      {"bang at end", "!", "(not true)"},
      {"less-than splits a word", "a<b", "(and (text \"a\") (text \"b\"))"},
      {"unknown name before group", "x:<a>", "(and (text \"x:\") (text \"a\"))"},
      {"leading bar", "|a", "(and true (text \"a\"))"},
      {"trailing bar", "a|", "(or (text \"a\") true)"},
      {"double bar", "a||b", "(and (or (text \"a\") true) (text \"b\"))"},
  });
}

TEST(QueryParserGrammar, UnmatchedGreaterThanLeavesPosition) {
  Query::Parser parser(u"a > b", *asciiTable(), PathFlavor::posix);
  parser.parseAnd();
  EXPECT_EQ(parser.position, 2u);
  Query::Parser nested(u"<a> b", *asciiTable(), PathFlavor::posix);
  auto unary = nested.parseUnary();
  EXPECT_EQ(Query::describe(*unary), "(text \"a\")");
  EXPECT_EQ(nested.position, 3u);
  Query::Parser past(u"ab", *asciiTable(), PathFlavor::posix);
  past.position = 99;  // a caller's stale position is clamped, never read past
  EXPECT_EQ(Query::describe(*past.parseAnd()), "true");
  EXPECT_EQ(past.position, 2u);
}

TEST(QueryParserGrammar, WhitespaceSetIsExact) {
  const std::vector<std::pair<char16_t, bool>> units = {
      {0x09, true},   {0x0A, true},   {0x0B, true},   {0x0C, true},   {0x0D, true},   {0x1C, true},
      {0x1D, true},   {0x1E, true},   {0x1F, true},   {0x20, true},   {0x1680, true}, {0x2000, true},
      {0x2003, true}, {0x2006, true}, {0x2008, true}, {0x2009, true}, {0x200A, true}, {0x2028, true},
      {0x2029, true}, {0x205F, true}, {0x3000, true}, {0x00A0, false}, {0x2007, false}, {0x202F, false},
      {0x200B, false}, {0x08, false}, {0x0E, false}, {0x1B, false}, {u'#', false}};
  for (const auto& [unit, separates] : units) {
    const Text query = Text(u"a") + unit + u"b";
    const auto term = Query::parse(query, *asciiTable(), PathFlavor::posix);
    if (separates) {
      EXPECT_EQ(Query::describe(*term), "(and (text \"a\") (text \"b\"))") << "U+" << std::hex << int(unit);
    } else {
      EXPECT_EQ(term->raw, query) << "U+" << std::hex << int(unit);
    }
  }
}

TEST(QueryParserTokens, QuotesBangsAndAngles) {
  expectShapes({
      {"quoted space", "\"my file\"", "(text \"my file\")"},
      {"quote inside a word", "my\"  \"file", "(text \"my  file\")"},
      {"empty quotes are true", "\"\"", "true"},
      {"empty quotes then word", "\"\" a", "(and true (text \"a\"))"},
      {"quoted operators are literal", "\"a|b<c>!d\"", "(text \"a|b<c>!d\")"},
      {"unterminated quote runs to the end", "\"open x", "(text \"open x\")"},
      {"adjacent quotes vanish", "a\"\"b", "(text \"ab\")"},
      {"quoted colon still names a function", "\"file\":x", "(and file (text \"x\"))"},
      {"bang inside a word", "foo!bar", "(text \"foo!bar\")"},
      {"bang after unknown name", "foo:!x", "(text \"foo:!x\")"},
      {"bang after modifier ends the token", "case:!tmp", "(not (text \"tmp\" case))"},
      {"modifier name is folded", "Case:!x", "(not (text \"x\" case))"},
      {"size keeps >", "size:>10mb", "(size 10485761 18446744073709551615)"},
      {"size keeps = after >", "size:>=1mb", "(size 1047553 18446744073709551615)"},
      {"second > ends the token", "size:>>1mb", "(size 1 18446744073709551615)"},
      {"folded date name keeps <", "DM:<1602", "(modified 0 315287999999999)"},
  });
}

TEST(QueryParserTokens, ReadTokenRemovesQuotes) {
  Query::Parser parser(u"\"a b\"c d", *asciiTable(), PathFlavor::posix);
  EXPECT_EQ(parser.readToken(), u"a bc");
  EXPECT_EQ(parser.position, 6u);
  Query::Parser bar(u"|x", *asciiTable(), PathFlavor::posix);
  EXPECT_EQ(bar.readToken(), u"");
  EXPECT_EQ(bar.position, 0u);
}

TEST(QueryParserModifiers, ApplicationAndReach) {
  expectShapes({
      {"insensitive by default", "README", "(text \"README\" \"readme\")"},
      {"case keeps raw", "case:README", "(text \"README\" case)"},
      {"leftmost modifier wins", "case:nocase:X", "(text \"X\" case)"},
      {"leftmost wins the other way", "nocase:case:X", "(text \"X\" \"x\")"},
      {"chained modifiers", "case:wfn:readme", "(text \"readme\" case whole)"},
      {"long name", "WholeFileName:a", "(text \"a\" whole)"},
      {"path modifier", "path:a", "(text \"a\" path)"},
      {"separator wins over nopath", "nopath:a/b", "(text \"a/b\" path)"},
      {"nopath on a group clears", "nopath:<a/b>", "(text \"a/b\")"},
      {"modifier then space reaches nothing", "case: readme", "(and (text \"\") (text \"readme\"))"},
      {"modifier at the end", "case:", "(text \"\")"},
      {"modifier over a group", "nocase:<A|B>", "(or (text \"A\" \"a\") (text \"B\" \"b\"))"},
      {"modifier over a negated group", "case:!<A B>", "(not (and (text \"A\" case) (text \"B\" case)))"},
      {"modifier then unknown function", "case:foo:Bar", "(text \"foo:Bar\" case)"},
      {"modifiers skip sizes", "case:size:5", "(size 5 5)"},
      {"flattened and does not spread",
       "case:<A B> C",
       "(and (text \"A\" case) (text \"B\" case) (text \"C\" \"c\"))"},
      {"flattened or does not spread", "case:<A|B>|C", "(or (text \"A\" case) (text \"B\" case) (text \"C\" \"c\"))"},
      {"group then or keeps path inside", "path:<a b>|c",
       "(or (and (text \"a\" path) (text \"b\" path)) (text \"c\"))"},
      {"outer modifier wins over inner", "nocase:<case:<A B> C>",
       "(and (text \"A\" \"a\") (text \"B\" \"b\") (text \"C\" \"c\"))"},
      {"outer wins over inner on a leaf", "case:<nocase:<A> B>", "(and (text \"A\" case) (text \"B\" case))"},
      {"inner flags the outer leaves alone", "path:<wfn:<a> b>", "(and (text \"a\" path whole) (text \"b\" path))"},
      {"before file with value", "case:file:X", "(and file (text \"X\" case))"},
      {"before macro", "case:exe:", "(ext \"bat\" \"cmd\" \"com\" \"exe\" \"msi\" \"msp\" \"scr\" case)"},
      {"modifier before file keeps later words apart", "case:file:X Y",
       "(and file (text \"X\" case) (text \"Y\" \"y\"))"},
  });
}

TEST(QueryParserModifiers, ModifyRecursesAndRecomputes) {
  auto term = parseWith("<A <B|volume-label:C> ext:D size:1 parent:/E/>");
  Query::Parser parser(u"", *asciiTable(), PathFlavor::posix);
  parser.modify(*term, Query::Modifier::matchCase);
  EXPECT_EQ(Query::describe(*term),
            "(and (text \"A\" case) (or (text \"B\" case) (volume \"C\" case)) (ext \"D\" case) (size 1 1) "
            "(parent \"/E\" case path whole))");
  parser.modify(*term, Query::Modifier::noCase);
  parser.modify(*term, Query::Modifier::wholeName);
  EXPECT_EQ(Query::describe(*term),
            "(and (text \"A\" \"a\" whole) (or (text \"B\" \"b\" whole) (volume \"C\" \"c\")) (ext \"D\") (size 1 1) "
            "(parent \"/E\" \"/e\" path whole))");
}

TEST(QueryParserFunctions, FunctionsMacrosAndPathFlags) {
  expectShapes({
      {"bare file", "file:", "file"},
      {"bare folder", "Folder:", "folder"},
      {"folder with value", "folder:node_modules", "(and folder (text \"node_modules\"))"},
      {"file with group", "file:<a|b>", "(and file (or (text \"a\") (text \"b\")))"},
      {"quoted value is a whole sub-query", "file:\"a b\"", "(and file (and (text \"a\") (text \"b\")))"},
      {"following word flattens into it", "file:x y", "(and file (text \"x\") (text \"y\"))"},
      {"greater-than ends token and query", "file:a>b", "(and file (text \"a\"))"},
      {"greater-than ends only the sub-query", "file:\"a>b\" c", "(and file (text \"a\") (text \"c\"))"},
      {"nested functions", "file:folder:x", "(and file (and folder (text \"x\")))"},
      {"chained values nest level by level", "file:!file:!x", "(and file (not (and file (not (text \"x\")))))"},
      {"negation inside the value", "file:!x", "(and file (not (text \"x\")))"},
      // The bang after "case:" ends the outer token, so the value is a bare
      // modifier and the negation belongs to the top level.
      {"modifier inside the value ends the token", "file:case:!X",
       "(and file (text \"\") (not (text \"X\" \"x\")))"},
      {"quoted modifier inside the value", "file:\"case:!X\"", "(and file (not (text \"X\" case)))"},
      {"trailing semicolon dropped once", "ext:pdf;docx;", "(ext \"pdf\" \"docx\")"},
      {"empty value", "ext:", "(ext \"\")"},
      {"lone semicolon", "ext:;", "(ext \"\")"},
      {"two trailing semicolons", "ext:a;;", "(ext \"a\" \"\")"},
      {"leading empty entry", "ext:;a", "(ext \"\" \"a\")"},
      {"kept as typed", "ext:PDF", "(ext \"PDF\")"},
      {"case modifier", "case:ext:PDF", "(ext \"PDF\" case)"},
      {"macro with a value is literal", "audio:x", "(text \"audio:x\")"},
      {"macro literal keeps its modifiers", "case:audio:X", "(text \"audio:X\" case)"},
      {"exe macro", "EXE:", "(ext \"bat\" \"cmd\" \"com\" \"exe\" \"msi\" \"msp\" \"scr\")"},
      {"unknown function is literal", "foo:bar", "(text \"foo:bar\")"},
      {"several colons", "x:y:z", "(text \"x:y:z\")"},
      {"lone colon", ":", "(text \":\")"},
      {"size without value is zero bytes", "size:", "(size 0 0)"},
      {"unknown size", "size:UNKNOWN", "(size unknown)"},
      {"zero kilobytes is empty", "size:0kb", "(size 18446744073709550593 0)"},
      {"size on disk", "size-on-disk:1kb", "(allocated 1 1024)"},
      {"unknown creation date", "dc:unknown", "(created unknown)"},
      {"bad month matches nothing", "date-modified:2026-13",
       "(modified 18446744073709551615 18446744073709551615)"},
      {"volume label folded", "volume-label:Backup", "(volume \"Backup\" \"backup\")"},
      {"volume label case", "case:volume-label:Backup", "(volume \"Backup\" case)"},
      {"parent trims the separator", "parent:/home/me/", "(parent \"/home/me\" path whole)"},
      {"parent root stays", "parent:/", "(parent \"/\" path whole)"},
      {"empty parent", "parent:", "(parent \"\" whole)"},
      {"slash is a separator", "a/b", "(text \"a/b\" path)"},
      {"backslash is not a posix separator", "a\\b", "(text \"a\\\\b\")"},
      {"drive is not special on posix", "C:", "(text \"C:\" \"c:\")"},
      {"star", "*.txt", "(text \"*.txt\" wild)"},
      {"question mark", "a?b", "(text \"a?b\" wild)"},
  });
  expectShapes(
      {
          {"windows drive parent", "parent:C:\\", "(parent \"C:\" \"c:\" path whole)"},
          {"windows parent folder", "parent:C:\\Users\\", "(parent \"C:\\\\Users\" \"c:\\\\users\" path whole)"},
          {"backslash separates on windows", "a\\b", "(text \"a\\\\b\" path)"},
          {"slash separates on windows", "a/b", "(text \"a/b\" path)"},
          {"drive is a path", "C:", "(text \"C:\" \"c:\" path)"},
          {"three units are not a drive", "C:x", "(text \"C:x\" \"c:x\")"},
          {"colon must be second", ":C", "(text \":C\" \":c\")"},
      },
      PathFlavor::windows);
}

// The extension text is kept as typed; the macro lists are the documented ones.
TEST(QueryParserFunctions, ExtensionTextAndMacroLists) {
  auto ext = parseWith("ext:PDF");
  EXPECT_EQ(ext->text, u"PDF");
  EXPECT_TRUE(ext->raw.empty());

  struct MacroCase {
    const char* macro;
    std::size_t count;
    const char16_t* first;
    const char16_t* last;
  };
  const MacroCase macros[] = {{"audio:", 41, u"aac", u"xm"}, {"video:", 31, u"3g2", u"wmv"},
                              {"image:", 44, u"ani", u"xpm"}, {"pic:", 44, u"ani", u"xpm"},
                              {"doc:", 39, u"csv", u"xml"},   {"zip:", 25, u"7z", u"zip"}};
  for (const auto& m : macros) {
    auto term = parseWith(m.macro);
    ASSERT_EQ(term->kind, Kind::ext) << m.macro;
    EXPECT_EQ(term->extensions.size(), m.count) << m.macro;
    EXPECT_EQ(term->extensions.front(), m.first) << m.macro;
    EXPECT_EQ(term->extensions.back(), m.last) << m.macro;
  }
}

// ---- Robustness -------------------------------------------------------------

// Every text term keeps the invariants the matcher relies on.
void checkInvariants(const Query::Term& root, const Compatibility& table) {
  std::vector<const Query::Term*> stack{&root};
  while (!stack.empty()) {
    const Query::Term* t = stack.back();
    stack.pop_back();
    for (const auto& child : t->children) {
      ASSERT_NE(child, nullptr);
      stack.push_back(child.get());
    }
    if (t->kind == Kind::not_) { ASSERT_EQ(t->children.size(), 1u); }
    if (t->kind == Kind::and_ || t->kind == Kind::or_) { ASSERT_GE(t->children.size(), 2u); }
    if (t->kind == Kind::text || t->kind == Kind::parent || t->kind == Kind::volume) {
      ASSERT_EQ(t->text, t->sensitive ? t->raw : table.fold(t->raw));
    }
    if (t->kind == Kind::text) { ASSERT_EQ(t->wildcard, t->raw.find_first_of(u"*?") != Text::npos); }
    if (t->kind == Kind::ext) { ASSERT_FALSE(t->extensions.empty()); }
  }
}

Text randomQuery(std::mt19937& rng) {
  static const std::vector<std::u16string> pieces = {
      u"a", u"B", u" ", u"|", u"<", u">", u"!", u"\"", u":", u"*", u"?", u"/", u"\\", u";", u"-", u"..",
      u"case:", u"nocase:", u"path:", u"wfn:", u"file:", u"folder:", u"ext:", u"size:", u"dm:", u"dc:",
      u"audio:", u"parent:", u"volume-label:", u"today", u"kb", u"1.5", u"2026-10-01T14:30", u"unknown",
      std::u16string(1, u'\0'), std::u16string(1, char16_t(0xD800)), std::u16string(1, char16_t(0xDC00)),
      std::u16string(1, char16_t(0x3000)), std::u16string(1, char16_t(0xFFFF))};
  std::uniform_int_distribution<int> length(0, 40);
  std::uniform_int_distribution<std::size_t> pick(0, pieces.size() - 1);
  Text query;
  int n = length(rng);
  for (int i = 0; i < n; ++i) query += pieces[pick(rng)];
  return query;
}

// Queries built from grammar pieces (and, every other round, from random
// units with the special ones mixed in) always give a consistent tree, the
// same one each time.
TEST(QueryParserRobustness, RandomInputAlwaysYieldsAConsistentTree) {
  std::mt19937 rng(20240611);
  const auto& table = *asciiTable();
  const char16_t specials[] = {u'<', u'>', u'!', u'"', u'|', u':', u' ', 0, 0xD801, 0xDFFF};
  for (int round = 0; round < 6000; ++round) {
    Text query;
    if (round % 2 == 0) {
      query = randomQuery(rng);
    } else {
      for (int n = static_cast<int>(rng() % 65); n > 0; --n)
        query += rng() % 2 ? specials[rng() % std::size(specials)] : static_cast<char16_t>(rng() % 65536);
    }
    for (PathFlavor flavor : {PathFlavor::posix, PathFlavor::windows}) {
      Query::Parser parser(query, table, flavor);
      parser.moment = testing::kFixedMoment;
      auto root = parser.parseAnd();
      ASSERT_NE(root, nullptr);
      ASSERT_LE(parser.position, query.size());
      checkInvariants(*root, table);
      Query::Parser again(query, table, flavor);
      again.moment = testing::kFixedMoment;
      ASSERT_EQ(Query::describe(*again.parseAnd()), Query::describe(*root));
    }
  }
}

// A value read without quotes is parsed exactly as the same value in quotes:
// the reader's shortcut inside such values must not change any token.
TEST(QueryParserRobustness, UnquotedValuesParseLikeQuotedOnes) {
  std::mt19937 rng(99);
  const std::vector<std::u16string> pieces = {u"a", u"x", u":", u"!", u"<", u">", u"case", u"size",
                                              u"dm",  u"file", u"wfn:", u"ext:", u"nocase:!", u"size:>"};
  std::uniform_int_distribution<std::size_t> pick(0, pieces.size() - 1);
  std::uniform_int_distribution<int> length(1, 12);
  int compared = 0;
  for (int round = 0; round < 5000; ++round) {
    Text value;
    for (int i = length(rng); i > 0; --i) value += pieces[pick(rng)];
    Text plain = u"file:" + value;
    Query::Parser reader(plain, *asciiTable(), PathFlavor::posix);
    if (reader.readToken().size() != plain.size()) continue;  // not one token: nothing to compare
    ++compared;
    Text quoted = u"file:\"" + value + u"\"";
    ASSERT_EQ(Query::describe(*Query::parse(plain, *asciiTable(), PathFlavor::posix)),
              Query::describe(*Query::parse(quoted, *asciiTable(), PathFlavor::posix)))
        << utf8(plain);
  }
  EXPECT_GT(compared, 1000);
}

TEST(QueryParserDepth, MillionNestedGroupsCollapse) {
  const std::size_t n = 1'000'000;
  Text query(n, u'<');
  query += u"a";
  query += Text(n, u'>');
  Query::Parser parser(query, *asciiTable(), PathFlavor::posix);
  auto root = parser.parseAnd();
  EXPECT_EQ(Query::describe(*root), "(text \"a\")");
  EXPECT_EQ(parser.position, query.size());
  // Unclosed groups are closed at the end.
  EXPECT_EQ(Query::describe(*Query::parse(Text(n, u'<') + u"a b", *asciiTable(), PathFlavor::posix)),
            "(and (text \"a\") (text \"b\"))");
}

TEST(QueryParserDepth, MillionNegationsFormOneChain) {
  const std::size_t n = 1'000'000;
  auto root = Query::parse(Text(n, u'!') + u"a", *asciiTable(), PathFlavor::posix);
  const Query::Term* t = root.get();
  std::size_t depth = 0;
  while (t->kind == Kind::not_) {
    ASSERT_EQ(t->children.size(), 1u);
    t = t->children[0].get();
    ++depth;
  }
  EXPECT_EQ(depth, n);
  EXPECT_EQ(Query::describe(*t), "(text \"a\")");
  root.reset();  // destroyed without recursion
}

// Inputs that would take quadratic time if modifiers were applied eagerly or
// nested values were rescanned level by level. Sixteen times the input must
// cost far less than the 256 times a quadratic parser would need; cache misses
// and a busy machine can make a linear parser look up to a few times worse
// than 16. A ratio holds in any build type, unlike an absolute time, and each
// size takes the best of a few runs to keep page faults out of it.
TEST(QueryParserDepth, LongChainsParseInLinearTime) {
  struct Chain {
    const char16_t* piece;
    Kind outer;
  };
  const Chain chains[] = {{u"case:!", Kind::not_}, {u"file:", Kind::and_}, {u"file:!", Kind::and_},
                          {u"case:<", Kind::text},  {u"nocase:file:", Kind::and_}};
  auto parseChain = [](const Chain& chain, std::size_t n, double& seconds) {
    Text query;
    for (std::size_t i = 0; i < n; ++i) query += chain.piece;
    query += u"X";
    // The thread's CPU time, not wall time: on a loaded machine (CI runs
    // tests side by side) preemption must not look like quadratic work.
    auto cpuSeconds = [] {
      timespec now{};
      clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
      return double(now.tv_sec) + double(now.tv_nsec) * 1e-9;
    };
    const double start = cpuSeconds();
    auto root = Query::parse(query, *asciiTable(), PathFlavor::posix);
    seconds = cpuSeconds() - start;
    return root;
  };
  for (const auto& chain : chains) {
    auto best = [&](std::size_t n, int runs) {
      double fastest = 1e9;
      for (int run = 0; run < runs; ++run) {
        double seconds = 0;
        parseChain(chain, n, seconds);
        fastest = std::min(fastest, seconds);
      }
      return fastest;
    };
    const double small = best(2'500, 5);
    const double large = best(40'000, 3);
    EXPECT_LT(large, 100 * small + 0.01) << utf8(chain.piece) << ": " << small << " s, then " << large << " s";
    double ignored = 0;
    auto root = parseChain(chain, 1'000, ignored);
    EXPECT_EQ(root->kind, chain.outer) << utf8(chain.piece);
    // The innermost text carries the outermost modifier.
    const Query::Term* t = root.get();
    while (!t->children.empty()) t = t->children.back().get();
    EXPECT_EQ(t->raw, u"X") << utf8(chain.piece);
    EXPECT_EQ(t->sensitive, chain.piece[0] == u'c') << utf8(chain.piece);
  }
}

}  // namespace
}  // namespace tarv
