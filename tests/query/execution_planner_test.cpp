// The planner's strategies on catalogs built so that each structure is the
// cheapest choice, each answer checked against Query::matches row by row;
// the literal search loops on their own; the merged numeric filter against
// the terms it replaces; and hostile queries (huge, deep, long) that must
// stay exact and bounded.

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "kernel/base/text.h"
#include "kernel/catalog/catalog_builder.h"
#include "kernel/query/execution_planner.h"
#include "kernel/query/name_literal.h"
#include "kernel/query/query.h"
#include "kernel/query/query_optimizer.h"
#include "kernel/query/search_index.h"
#include "tests/query/query_test_support.h"
#include "tests/support/process.h"

namespace tarv {
namespace {

struct Entry {
  Entry(std::string p, bool isFolder = false, std::uint64_t bytes = 100,
        std::optional<std::uint64_t> deviceId = std::nullopt)
      : path(std::move(p)), folder(isFolder), size(bytes), device(deviceId) {}
  std::string path;
  bool folder;
  std::uint64_t size;
  std::optional<std::uint64_t> device;
};

SearchIndexPtr indexOf(const std::vector<Entry>& entries, PathFlavor flavor = PathFlavor::posix,
                       std::map<std::string, std::string> labels = {},
                       std::shared_ptr<const Compatibility> table = testing::shippedTable()) {
  NativeCatalogBuilder builder("t", flavor, false);
  for (const Entry& e : entries)
    builder.add(utf16(e.path), e.folder ? 1 : 0, e.size, kUnixEpochTicks, kUnknown64, kUnknown64, e.device);
  auto catalog = std::make_shared<Catalog>(builder.finish());
  catalog->applyDeviceLabels(labels);
  return std::make_shared<const SearchIndex>(catalog, std::move(table));
}

// A tree with many plain files, so candidate lists are clearly cheaper than
// scans, and a few names of every interesting shape.
SearchIndexPtr bigIndex() {
  static const SearchIndexPtr index = [] {
    std::vector<Entry> entries;
    entries.push_back({"/usr", true});
    entries.push_back({"/usr/share", true});
    entries.push_back({"/usr/share/doc", true});
    entries.push_back({"/usr/bin", true});
    for (int i = 0; i < 3000; ++i) {
      const std::string n = std::to_string(i);
      entries.push_back({"/usr/share/doc/file" + n + ".txt", false, static_cast<std::uint64_t>(i),
                         i % 2 == 0 ? std::optional<std::uint64_t>(7) : std::nullopt});
      entries.push_back({"/usr/bin/tool" + n, false, kUnknown64});
    }
    for (const char* name : {"libz.so", "libc.so.6", "Makefile", "makefile.am", "README", "readme.md", "x", "K",
                             "\xe2\x84\xaa" "elvin", "Stra\xc3\x9f" "e", "photo.JPG"})
      entries.push_back({std::string("/usr/") + name});
    return indexOf(entries, PathFlavor::posix, {{"7", "Disk"}});
  }();
  return index;
}

TEST(ExecutionPlanner, EachQueryClassUsesItsStructure) {
  struct Case {
    const char* label;
    const char* query;
    const char* strategy;
  };
  const std::vector<Case> cases = {
      {"empty", "", "all"},
      {"plain literal", "tool12", "name-literal"},
      {"one unit", "k", "name-units"},
      {"or of literals", "README|Makefile", "literal-or"},
      {"suffix pattern", "*.so", "name-suffix"},
      {"suffix after a one-unit wildcard", "?akefile", "name-suffix"},
      // The shipped table folds accents away but weighs them apart: folded
      // prefixes and whole names come from the folded-name order.
      {"prefix pattern", "README*", "name-prefix"},
      {"whole name", "wfn:Makefile", "name-prefix"},
      {"pattern without literal ends", "*ake*", "gram-scan"},
      {"extension", "ext:txt", "extension"},
      {"type macro", "pic:", "extension"},
      {"unknown extension", "ext:nothing", "none"},
      {"parent", "parent:/usr/bin", "parent"},
      {"unknown parent", "parent:/nowhere", "none"},
      {"path literal with a separator", "/usr/share/doc/", "path"},
      {"path literal without one", "path:share", "path"},
      {"size", "size:>10", "filter-scan"},
      {"size and type merged", "file: size:<5", "filter-scan"},
      {"volume", "volume-label:disk", "volume"},
      {"unknown volume", "volume-label:none", "none"},
      {"and", "ext:txt file1", "combined"},
      {"not", "!ext:txt", "combined"},
      {"full-path pattern", "path:*doc*", "scan"},
  };
  const ExecutionPlanner planner(bigIndex());
  for (const Case& c : cases) {
    EXPECT_EQ(std::string(ExecutionPlanner::name(planner.plan(utf16(c.query)).strategy)), c.strategy) << c.label;
    testing::expectPlannerExact(planner, c.query, c.label);
  }
}

TEST(ExecutionPlanner, NameOrderRangesServePrefixesWhereFoldingAgreesWithOrder) {
  std::vector<Entry> entries;
  for (int i = 0; i < 500; ++i) entries.push_back({"/d/tool" + std::to_string(i)});
  for (const char* name : {"Makefile", "makefile.am", "MAKE", "README", "readme.md", "Read"})
    entries.push_back({std::string("/d/") + name});
  const auto index = indexOf(entries, PathFlavor::posix, {}, testing::asciiTable());
  ASSERT_TRUE(index->names()->prefixClassesCompatible());
  struct Case {
    const char* query;
    const char* strategy;
    std::int64_t count;
  };
  const std::vector<Case> cases = {{"README*", "name-prefix", 2},    {"wfn:Makefile", "name-prefix", 1},
                                   {"case:Make*", "name-prefix", 1}, {"make*.am", "name-suffix", 1},
                                   {"wfn:read", "name-prefix", 1},   {"tool1*", "name-prefix", 111}};
  for (const std::int64_t minimum : {1, 1 << 13}) {
    const ExecutionPlanner planner(index, minimum);
    for (const Case& c : cases) {
      EXPECT_EQ(std::string(ExecutionPlanner::name(planner.plan(utf16(c.query)).strategy)), c.strategy) << c.query;
      EXPECT_EQ(planner.select(utf16(c.query)).count, c.count) << c.query;
      testing::expectPlannerExact(planner, c.query, c.query);
    }
  }
}

TEST(ExecutionPlanner, NamesHoldingNulUnitsAreTestedOnTheirOwn) {
  // A NUL ends a name's place in the name order, so prefix and suffix
  // candidates cannot find these rows; they must still be found. Leniently
  // read lists are where such names come from.
  CatalogBuilder builder("t", PathFlavor::windows, /*inferAncestors=*/true, /*directorySizes=*/false);
  auto add = [&](const std::string& path) {
    (void)builder.add(utf16(path), false, 1, kUnixEpochTicks, kUnknown64, std::nullopt, 0, kUnknown64, std::nullopt);
  };
  for (int i = 0; i < 200; ++i) add("C:\\d\\plain" + std::to_string(i));
  add(std::string("C:\\d\\ab\0cd.so", 13));
  add(std::string("C:\\d\\\0abc", 9));
  add(std::string("C:\\d\\abc\0", 9));
  auto catalog = std::make_shared<Catalog>(builder.finish());
  const ExecutionPlanner planner(std::make_shared<const SearchIndex>(catalog, testing::shippedTable()));
  for (const char* q : {"ab*", "*.so", "*cd.so", "abc*", "*abc", "wfn:abc", "c", "ab"})
    testing::expectPlannerExact(planner, q, q);
  EXPECT_EQ(planner.select(u"*.so").count, 1);
}

TEST(ExecutionPlanner, PathTermsFindSeparatorsInsideNames) {
  // Windows names may hold "/" (only "\" splits the lists read as such), so a
  // path text with a separator can match inside a single name.
  std::vector<Entry> entries = {{"C:\\a", true}, {"C:\\a\\b/c.txt"}, {"C:\\a\\bc.txt"}, {"C:\\x\\y\\z"}};
  for (int i = 0; i < 100; ++i) entries.push_back({"C:\\a\\f" + std::to_string(i)});
  const ExecutionPlanner planner(indexOf(entries, PathFlavor::windows));
  for (const char* q : {"b/c", "a\\b", "\\a\\", "y\\z", "x\\", "C:\\"}) testing::expectPlannerExact(planner, q, q);
}

TEST(ExecutionPlanner, PathTermsDecidedByParentStatesStayExact) {
  // Most rows lie below a folder that holds the text, so rows are decided by
  // their parent's state and separator bit; others end their parent in a
  // part of the text (C:\usr\share\ for \share\doc\) that a name can
  // finish only through a separator of its own. Parent texts also end in
  // partial matches of the texts (sh\ for sh\are1, docs\ for doc\).
  for (const PathFlavor flavor : {PathFlavor::windows, PathFlavor::posix}) {
    const bool windows = flavor == PathFlavor::windows;
    const std::string root = windows ? "C:\\usr" : "/usr";
    const std::string s = windows ? "\\" : "/";
    std::vector<Entry> entries = {{root, true}, {root + s + "share", true}, {root + s + "share" + s + "doc", true},
                                  {root + s + "share" + s + "docs", true}, {root + s + "sh", true}};
    for (int i = 0; i < 40; ++i) {
      const std::string pkg = root + s + "share" + s + "doc" + s + "p" + std::to_string(i);
      entries.push_back({pkg, true});
      for (int j = 0; j < 6; ++j) entries.push_back({pkg + s + "f" + std::to_string(j) + ".txt"});
      entries.push_back({root + s + "share" + s + "docs" + s + "d" + std::to_string(i)});
      entries.push_back({root + s + "sh" + s + "are" + std::to_string(i)});
    }
    if (windows) {
      for (const char* name : {"doc/x", "doc\\y", "are/doc/z", "a/b"}) entries.push_back({root + s + "share" + s + name});
    }
    const ExecutionPlanner planner(indexOf(entries, flavor));
    for (std::string q : {"\\share\\doc\\", "share\\doc\\p1", "doc\\", "\\", "e\\doc", "sh\\are1",
                          "usr\\share\\docs\\d3", "/doc/", "c/", "path:doc/x"}) {
      if (!windows) std::replace(q.begin(), q.end(), '\\', '/');
      testing::expectPlannerExact(planner, q, (windows ? "windows " : "posix ") + q);
    }
  }
}

TEST(ExecutionPlanner, QueriesBeyondTheBudgetsStayExact) {
  const ExecutionPlanner planner(bigIndex());
  std::string wide;
  for (int i = 0; i < 5000; ++i) wide += (i > 0 ? "|" : "") + std::string("tool") + std::to_string(i * 7);
  std::string deep;
  for (int i = 0; i < 5000; ++i) deep += i % 2 == 0 ? "<" : "!";
  deep += "ext:txt";
  std::string longText(100000, 'a');
  std::string parents;
  for (int i = 0; i < 300; ++i) parents += "parent:/usr/x" + std::to_string(i) + "|";
  parents += "parent:/usr/bin";
  // A text whose every prefix is a border of the next: quadratic work per
  // state would show here.
  const std::string longPath = "path:" + std::string(50000, 'o') + "/";
  for (const std::string& q : {wide, deep, longText, parents, longPath, std::string(3000, '!') + "x"})
    testing::expectPlannerExact(planner, q, q.substr(0, 40));
  // Quadratic work on these would run for hours and meet ctest's time-out;
  // the linear bound itself is measured in CPU time by the resource-bounds
  // test, not by the wall clock of a shared or instrumented machine.
}

TEST(NameLiteral, ContainsFoldsNamesNotTexts) {
  const auto& fold = testing::shippedTable()->searchTable();
  struct Case {
    const char* label;
    std::u16string name;
    std::u16string text;
    bool sensitive;
    bool expected;
  };
  const std::vector<Case> cases = {
      {"folded match", u"ReadMe.TXT", u"me.txt", false, true},
      {"at the very end", u"abc", u"bc", false, true},
      {"longer than the name", u"ab", u"abc", false, false},
      {"first unit repeats", u"aaab", u"aab", false, true},
      {"sensitive mismatch", u"ReadMe", u"readme", true, false},
      {"sensitive match", u"ReadMe", u"adM", true, true},
      {"kelvin sign folds to k", u"\u212Aelvin", u"kel", false, true},
      {"empty text", u"x", u"", false, true},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(name_literal::contains(c.name, c.text, c.sensitive, fold.data()), c.expected) << c.label;
    if (c.text.empty()) continue;
    // The anchored form: the first unit found eight at a time.
    const auto first = name_literal::unitsMatching(c.text[0], c.sensitive, *testing::shippedTable());
    ASSERT_TRUE(first.has_value()) << c.label;
    EXPECT_EQ(name_literal::contains(c.name, c.text, *first, fold.data()), c.expected) << c.label;
  }
}

TEST(NameLiteral, AnchoredSearchAgreesOnLongAndMixedNames) {
  // Names across the eight-unit blocks, the wanted unit at every offset,
  // accented and wide units around it.
  const auto& fold = testing::shippedTable()->searchTable();
  const std::u16string filler = u"abcdefghij\u00e9\u212Aklmnopqrstuvwxyz0123456789";
  for (const std::u16string text : {u"kl", u"qrs", u"\u00e9k", u"9", u"xyz0123456789"}) {
    const auto first = name_literal::unitsMatching(fold[text[0]], false, *testing::shippedTable());
    ASSERT_TRUE(first.has_value());
    std::u16string folded;
    for (Unit u : text) folded += static_cast<Unit>(fold[u]);
    for (std::size_t length = 0; length <= filler.size(); ++length) {
      const std::u16string name = filler.substr(filler.size() - length);
      EXPECT_EQ(name_literal::contains(name, folded, *first, fold.data()),
                name_literal::contains(name, folded, false, fold.data()))
          << utf8(text) << " in " << utf8(name);
    }
  }
}

TEST(NameLiteral, UnitsMatchingListsEveryFoldedForm) {
  const auto k = name_literal::unitsMatching(u'k', false, *testing::shippedTable());
  ASSERT_TRUE(k.has_value());
  EXPECT_EQ(std::vector<Unit>(k->ascii, k->ascii + k->asciiCount), (std::vector<Unit>{u'K', u'k'}));
  EXPECT_TRUE(k->wide);  // the Kelvin sign, and accented forms
  EXPECT_TRUE(k->accepts(u'\u212A'));
  EXPECT_FALSE(k->accepts(u'x'));
  const auto sensitive = name_literal::unitsMatching(u'K', true, *testing::shippedTable());
  ASSERT_TRUE(sensitive.has_value());
  EXPECT_EQ(sensitive->asciiCount, 1u);
  EXPECT_FALSE(sensitive->wide);
  EXPECT_FALSE(sensitive->accepts(u'k'));
  EXPECT_FALSE(name_literal::unitsMatching(0, false, *testing::shippedTable()).has_value());
}

TEST(NameLiteral, UnitIndexGivesTheSetsOfTheTableWalk) {
  const name_literal::UnitIndex index(*testing::shippedTable());
  for (std::uint32_t u = 0; u < 65536; u += 97) {
    for (const bool sensitive : {false, true}) {
      const Unit unit = static_cast<Unit>(sensitive ? u : testing::shippedTable()->fold(static_cast<Unit>(u)));
      const auto walked = name_literal::unitsMatching(unit, sensitive, *testing::shippedTable());
      const auto indexed = index.of(unit, sensitive);
      ASSERT_EQ(walked.has_value(), indexed.has_value()) << u;
      if (!walked) continue;
      EXPECT_EQ(std::vector<Unit>(walked->ascii, walked->ascii + walked->asciiCount),
                std::vector<Unit>(indexed->ascii, indexed->ascii + indexed->asciiCount))
          << u;
      EXPECT_EQ(walked->wide, indexed->wide) << u;
    }
  }
}

TEST(NameLiteral, ScanUnitsStaysInsideDamagedOffsets) {
  // Offsets from a damaged file: out of order, negative, past the units.
  std::vector<Entry> entries;
  for (int i = 0; i < 200; ++i) entries.push_back({"/d/qq" + std::to_string(i)});
  const auto good = indexOf(entries);
  Catalog::Parts parts = good->catalog().parts();
  std::vector<std::int32_t> starts(parts.nameStarts.begin(), parts.nameStarts.end());
  std::mt19937 random(7);
  for (std::size_t i = 1; i + 1 < starts.size(); i += 3)
    starts[i] = static_cast<std::int32_t>(random() % 3 == 0 ? -5 : random() % 100000);
  parts.nameStarts = Column<std::int32_t>::owned(std::move(starts));
  const Catalog damaged(std::move(parts));
  const auto q = name_literal::unitsMatching(u'q', false, *testing::shippedTable());
  ASSERT_TRUE(q.has_value());
  std::vector<std::uint64_t> words(Bitset::wordCount(damaged.count()) + 1, 0);
  const std::int64_t found = name_literal::scanUnits(damaged, *q, 0, damaged.count(), nullptr, words.data());
  EXPECT_LE(found, damaged.count());
  EXPECT_EQ(words.back(), 0u);  // nothing set past the rows
  EXPECT_EQ(Bitset::count(words), found);
}

TEST(NameLiteral, ScanUnitsAgreesWithTheFoldOnMixedNamesAndRanges) {
  // Names of 0 to 150 units over the 64-unit blocks and the row batches:
  // ASCII runs, accented letters, the Kelvin sign and wider units among
  // them, so both the byte compares and the unit-by-unit blocks are used.
  std::mt19937 random(20261122);
  const std::u16string alphabet = u"abcdeEKkz019_.-\u00e9\u00c9\u212A\u0436\u0416\u4e2d";
  std::vector<Entry> entries;
  for (int i = 0; i < 9000; ++i) {
    std::u16string name = utf16(std::to_string(i) + "_");
    const std::size_t length = random() % 4 == 0 ? random() % 150 : random() % 24;
    const bool ascii = random() % 3 != 0;
    for (std::size_t k = 0; k < length; ++k) name += alphabet[random() % (ascii ? 15 : alphabet.size())];
    entries.push_back({"/d/" + utf8(name)});
  }
  const auto index = indexOf(entries);
  const Catalog& c = index->catalog();
  struct Case {
    const char* label;
    Unit unit;
    bool sensitive;
  };
  const std::vector<Case> cases = {
      {"letter in both cases and accented", u'e', false}, {"letter with the Kelvin sign", u'k', false},
      {"digit", u'1', false},         {"sensitive capital", u'E', true},
      {"sensitive wide unit", u'\u212A', true}, {"wide target, no ASCII form", u'\u0436', false},
      {"absent everywhere", u'q', false},
  };
  for (const Case& t : cases) {
    const auto set = name_literal::unitsMatching(t.unit, t.sensitive, *testing::shippedTable());
    ASSERT_TRUE(set.has_value()) << t.label;
    for (const auto& [begin, end] : std::vector<std::pair<std::int64_t, std::int64_t>>{
             {0, c.count()}, {64, 4097}, {4096, 8192}, {128, 129}, {8960, c.count()}}) {
      std::vector<std::uint64_t> words(Bitset::wordCount(c.count()), 0);
      std::vector<std::uint64_t> pool(words.size(), 0);
      for (auto& w : pool) w = (std::uint64_t(random()) << 32) | random();
      for (const bool pooled : {false, true}) {
        std::fill(words.begin(), words.end(), 0);
        const std::int64_t found =
            name_literal::scanUnits(c, *set, begin, end, pooled ? pool.data() : nullptr, words.data());
        std::int64_t expected = 0;
        for (std::int32_t r = 0; r < c.count(); ++r) {
          bool holds = false;
          for (const Unit u : c.nameUnits(r)) holds = holds || (u != 0 && set->accepts(u));
          const bool want = r >= begin && r < end && holds && (!pooled || Bitset::test(pool, r));
          expected += want ? 1 : 0;
          if (Bitset::test(words, r) != want) {
            ADD_FAILURE() << t.label << ": row " << r << " of " << begin << ".." << end << (pooled ? " pooled" : "");
            break;
          }
        }
        EXPECT_EQ(found, expected) << t.label << " " << begin << ".." << end;
      }
    }
  }
}

TEST(QueryOptimizer, MergedNumericFilterAgreesWithItsTerms) {
  std::vector<Entry> entries = {{"/d", true, kUnknown64}, {"/d/a", false, 0}, {"/d/b", false, 1024},
                                {"/d/c", false, kUnknown64}, {"/e", true, 5000}, {"/d/f", false, 5000}};
  const auto index = indexOf(entries);
  const std::vector<std::string> combos = {"file: size:>0",     "folder: size:unknown", "size:unknown",
                                           "size:1kb size:<=1024", "size:>10 size:<10",  "file: folder:",
                                           "size:unknown size:0", "dm:>1960 size:<5000", "size:<=1024 dc:unknown",
                                           // Columns this catalog lacks (every value unknown), empty ranges,
                                           // a range at the top of the value space.
                                           "dc:2020", "file: size-on-disk:unknown", "size-on-disk:>0 size:>0",
                                           "size:5000..1", "size:>=5000 size:<=5000", "size:>18446744073709551614",
                                           "folder: dm:unknown"};
  for (const std::string& q : combos) {
    auto root = Query::parse(utf16(q), index->compatibility(), PathFlavor::posix);
    Query::markSizeSemantics(*root, false);
    Query::NumericFilter filter;
    const std::vector<Query::TermPtr> terms =
        root->kind == Query::Kind::and_ ? root->children : std::vector<Query::TermPtr>{root};
    for (const auto& t : terms) {
      ASSERT_TRUE(QueryOptimizer::isNumeric(*t)) << q;
      QueryOptimizer::merge(filter, *t);
    }
    for (std::int32_t r = 0; r < index->catalog().count(); ++r)
      EXPECT_EQ(QueryOptimizer::passes(filter, index->catalog(), r),
                Query::matches(*root, index->catalog(), r, index->compatibility()))
          << q << " row " << r;
    testing::expectPlannerExact(ExecutionPlanner(index), q, q);
  }
}

}  // namespace
}  // namespace tarv
