// Folded-name lookups: the folded name order and its prefix and whole-name
// ranges, the reversed-name ranges of pattern ends holding `?`, and the
// planner's use of both, each answer checked against a plain scan or
// Query::matches row by row, with the shipped table (accents fold to their
// base letter but sort apart) and with synthetic ones.

#include <gtest/gtest.h>

#include <filesystem>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "kernel/base/text.h"
#include "kernel/index/index_file.h"
#include "kernel/query/execution_planner.h"
#include "kernel/query/name_candidates.h"
#include "kernel/query/query.h"
#include "kernel/query/search_index.h"
#include "tests/support/process.h"
#include "tests/support/synthetic_catalog.h"
#include "tests/support/temp_dir.h"
#include "tests/query/query_test_support.h"

namespace tarv {
namespace {

// One row per name, spread over a few folders, every fifth one a folder (so
// folders and files share the lookups). Names may hold NUL units.
SearchIndexPtr indexOfNames(const std::vector<Text>& names, std::shared_ptr<const Compatibility> table) {
  std::vector<testing::SyntheticRecord> records;
  for (std::size_t i = 0; i < names.size(); ++i) {
    testing::SyntheticRecord r;
    r.parent = u"/d" + utf16(std::to_string(i % 7)) + u"/";
    r.name = names[i];
    r.folder = i % 5 == 0;
    r.kind = r.folder ? 1 : 0;
    r.size = i;
    records.push_back(std::move(r));
  }
  return std::make_shared<const SearchIndex>(testing::makeCatalog(records), std::move(table));
}

// Names of every shape the folded comparisons meet: case, accents that fold
// away, a NUL inside, prefixes of one another, a sharp s, surrogates.
std::vector<Text> trickyNames() {
  std::vector<Text> names = {u"README", u"readme", u"ReadMe.md", u"README.txt", u"readme\u00e9", u"READ",
                             u"Café", u"cafe", u"CAFÉ.txt", u"cafés", u"caf", u"Makefile", u"makefile.am",
                             u"GNUmakefile", u"Makefile.in", u"x.py", u"x.pyc", u"y.PYO", u"z.py.", u"a.pyd",
                             u"Straße", u"strasse", u"\U0001F600.py", u"lib.a", u"libz.a", u"libz.so",
                             u"akefile", u"Bakefile", u"lakefile", u"\u00e9", u"E", u"e"};
  // Longer than the folded order's key, sharing its units or all but the last.
  for (const char16_t* name : {u"python3-distutils-extra", u"PYTHON3-DISTUTILS-EXTRA-x", u"python3-distutils-e",
                               u"abcdefghijklmnop", u"abcdefghijklmnopq", u"ABCDEFGHIJKLMNO", u"abcdefghijklmnoq"})
    names.push_back(name);
  names.push_back(Text(u"read") + Unit(0) + u"me");
  names.push_back(Text(u"cafe") + Unit(0));
  names.push_back(Text(u"x.py") + Unit(0));
  return names;
}

std::set<std::int32_t> rowsOf(const Column<std::int32_t>& order, const std::vector<NameCandidates::Range>& ranges) {
  std::set<std::int32_t> rows;
  for (const NameCandidates::Range& r : ranges)
    for (auto k = r.begin; k < r.end; ++k) rows.insert(order[static_cast<std::size_t>(k)]);
  return rows;
}

TEST(NameLookup, FoldedOrderSortsFoldedNamesThenRows) {
  for (const auto& table : {testing::shippedTable(), testing::syntheticTable()}) {
    const auto index = indexOfNames(trickyNames(), table);
    const NameCandidates& names = *index->names();
    const Catalog& c = index->catalog();
    ASSERT_TRUE(names.hasFoldedOrder());
    const auto& order = names.foldedOrder();
    ASSERT_EQ(order.size(), static_cast<std::size_t>(c.count()));
    std::set<std::int32_t> distinct(order.begin(), order.end());
    EXPECT_EQ(distinct.size(), order.size());
    for (std::size_t k = 0; k + 1 < order.size(); ++k) {
      const int cmp = NameCandidates::compareFolded(*table, c.nameUnits(order[k]), c.nameUnits(order[k + 1]));
      ASSERT_LE(cmp, 0) << k;
      if (cmp == 0) {
        ASSERT_LT(order[k], order[k + 1]) << k;
      }
    }
  }
}

TEST(NameLookup, CompareFoldedCases) {
  struct Case {
    const char* label;
    Text a;
    Text b;
    int expected;
  };
  const std::vector<Case> cases = {
      {"equal", u"abc", u"abc", 0},
      {"case folds away", u"ABC", u"abc", 0},
      {"accent folds to its base", u"café", u"CAFE", 0},
      {"shorter first", u"ab", u"abc", -1},
      {"longer last", u"abcd", u"abc", 1},
      {"unit decides", u"abd", u"abc", 1},
      {"NUL is a unit, not an end", Text(u"ab") + Unit(0), u"ab", 1},
      {"empty first", u"", u"a", -1},
      {"past the key units are not compared", u"abcdefghijklmnopX", u"ABCDEFGHIJKLMNOPy", 0},
      {"within the key they are", u"abcdefghijklmnoX", u"ABCDEFGHIJKLMNOy", -1},
      {"a longer name equals its key", u"abcdefghijklmnopq", u"abcdefghijklmnop", 0},
  };
  for (const Case& c : cases) EXPECT_EQ(NameCandidates::compareFolded(*testing::shippedTable(), c.a, c.b), c.expected) << c.label;
  // Without the cut, whole names compare.
  EXPECT_EQ(NameCandidates::compareFolded(*testing::shippedTable(), u"abcdefghijklmnopq", u"abcdefghijklmnop", 100), 1);
}

// Prefix and whole-name ranges against a scan of the folded names.
void expectFoldedRangesMatchScans(const SearchIndex& index, const std::vector<Text>& probes) {
  const Catalog& c = index.catalog();
  const Compatibility& t = index.compatibility();
  const NameCandidates& names = *index.names();
  for (const Text& probe : probes) {
    const Text folded = t.fold(probe);
    // Beyond the key, the range is that of the key's units.
    const Text key = folded.substr(0, NameCandidates::kFoldedKeyUnits);
    std::set<std::int32_t> prefixScan, wholeScan, keyScan;
    for (std::int32_t r = 0; r < c.count(); ++r) {
      const Text name = t.fold(c.nameUnits(r));
      if (name.starts_with(folded)) prefixScan.insert(r);
      if (name == folded) wholeScan.insert(r);
      if (name.starts_with(key)) keyScan.insert(r);
    }
    const bool prefixExact = NameCandidates::foldedRangeIsExact(folded.size(), false);
    const bool wholeExact = NameCandidates::foldedRangeIsExact(folded.size(), true);
    EXPECT_EQ(rowsOf(names.foldedOrder(), {names.foldedRange(folded, false)}), prefixExact ? prefixScan : keyScan)
        << "prefix " << utf8(probe);
    EXPECT_EQ(rowsOf(names.foldedOrder(), {names.foldedRange(folded, true)}), wholeExact ? wholeScan : keyScan)
        << "whole " << utf8(probe);
  }
}

TEST(NameLookup, FoldedRangesEqualScans) {
  const std::vector<Text> probes = {u"",     u"r",      u"README", u"readme.", u"café", u"CAFE", u"caf",
                                    u"Make", u"makefile", u"x.py",  u"zz",      u"é",    u"e",    u"straß",
                                    Text(u"read") + Unit(0), Text(u"cafe") + Unit(0), u"\U0001F600",
                                    u"python3-distutils-extra", u"Python3-Distutils-Extra-X", u"abcdefghijklmnop",
                                    u"abcdefghijklmnopq", u"abcdefghijklmno", u"abcdefghijklmnoq"};
  expectFoldedRangesMatchScans(*indexOfNames(trickyNames(), testing::shippedTable()), probes);
  const auto table = testing::syntheticTable();
  for (std::uint32_t seed = 1; seed <= 6; ++seed) {
    SearchIndex index(testing::randomCatalog(seed, PathFlavor::posix, 400), table);
    std::mt19937 random(seed);
    std::vector<Text> randomProbes;
    const Catalog& c = index.catalog();
    // Probes cut from real names (so ranges are non-empty) and a few others.
    for (int i = 0; i < 30; ++i) {
      const TextView name = c.nameUnits(static_cast<std::int32_t>(random() % static_cast<unsigned>(c.count())));
      randomProbes.emplace_back(name.substr(0, random() % (name.size() + 1)));
    }
    randomProbes.push_back(u"zzzz");
    randomProbes.push_back(u"\xE9");
    expectFoldedRangesMatchScans(index, randomProbes);
  }
}

// A pattern end as the lookup takes it: read backwards, `?` as any unit.
std::vector<std::int32_t> tailPattern(const Compatibility& t, TextView tail) {
  std::vector<std::int32_t> pattern;
  for (std::size_t k = tail.size(); k-- > 0;)
    pattern.push_back(tail[k] == u'?' ? NameCandidates::kAnyUnit : static_cast<std::int32_t>(t.fold(tail[k])));
  return pattern;
}

bool endsLike(const Compatibility& t, TextView name, TextView tail) {
  if (name.size() < tail.size()) return false;
  const std::size_t from = name.size() - tail.size();
  for (std::size_t k = 0; k < tail.size(); ++k)
    if (tail[k] != u'?' && t.fold(name[from + k]) != t.fold(tail[k])) return false;
  return true;
}

TEST(NameLookup, SuffixRangesWithAnyUnitsEqualScans) {
  const std::vector<Text> tails = {u".py?", u"?", u"??", u".py", u"akefile", u"?akefile", u"?.?", u"lib?.a",
                                   u"É", u"?y?", Text(u"py") + Unit(0), u"q?q"};
  std::vector<SearchIndexPtr> indexes = {indexOfNames(trickyNames(), testing::shippedTable())};
  for (std::uint32_t seed = 11; seed <= 14; ++seed)
    indexes.push_back(std::make_shared<const SearchIndex>(testing::randomCatalog(seed, PathFlavor::posix, 300),
                                                          testing::syntheticTable()));
  for (const SearchIndexPtr& index : indexes) {
    const Catalog& c = index->catalog();
    const Compatibility& t = index->compatibility();
    const NameCandidates& names = *index->names();
    for (const Text& tail : tails) {
      std::set<std::int32_t> scan;
      for (std::int32_t r = 0; r < c.count(); ++r)
        if (endsLike(t, c.nameUnits(r), tail)) scan.insert(r);
      const auto ranges = names.suffixRanges(tailPattern(t, tail), 100000);
      ASSERT_TRUE(ranges.has_value()) << utf8(tail);
      for (std::size_t k = 1; k < ranges->size(); ++k) EXPECT_LE((*ranges)[k - 1].end, (*ranges)[k].begin);
      EXPECT_EQ(rowsOf(names.reverseOrder(), *ranges), scan) << utf8(tail);
    }
  }
}

TEST(NameLookup, SuffixRangesGiveUpBeyondTheirLimit) {
  const auto index = indexOfNames(trickyNames(), testing::shippedTable());
  const NameCandidates& names = *index->names();
  // Every name's last unit: far more than two distinct ones.
  const std::vector<std::int32_t> any = {NameCandidates::kAnyUnit};
  EXPECT_FALSE(names.suffixRanges(any, 2).has_value());
  EXPECT_TRUE(names.suffixRanges(any, 1000).has_value());
  // Several any-unit positions share one budget of splits, so the walk
  // stays bounded however many positions come before a literal unit.
  const std::vector<std::int32_t> deep = {NameCandidates::kAnyUnit, NameCandidates::kAnyUnit,
                                          NameCandidates::kAnyUnit, u'x'};
  EXPECT_FALSE(names.suffixRanges(deep, 20).has_value());
  EXPECT_TRUE(names.suffixRanges(deep, 100000).has_value());
}

// Many plain rows, so lookups are clearly cheaper than scans, plus the
// tricky names.
SearchIndexPtr plannerIndex() {
  static const SearchIndexPtr index = [] {
    std::vector<Text> names = trickyNames();
    for (int i = 0; i < 2000; ++i) names.push_back(utf16("file" + std::to_string(i) + ".txt"));
    return indexOfNames(names, testing::shippedTable());
  }();
  return index;
}

TEST(NameLookup, PlannerUsesTheLookupsAndStaysExact) {
  struct Case {
    const char* query;
    const char* strategy;
  };
  const std::vector<Case> cases = {
      {"README*", "name-prefix"},
      {"caf*", "name-prefix"},
      {"CAFÉ*", "name-prefix"},
      {"READ*E", "name-prefix"},
      {"read*me", "name-suffix"},
      {"rea?me*", "name-prefix"},
      {"case:README*", "name-prefix"},
      {"wfn:Makefile", "name-prefix"},
      {"wfn:café", "name-prefix"},
      {"case:wfn:README", "name-prefix"},
      {"wfn:read", "name-prefix"},
      {"wfn:abcdefghijklmnop", "name-prefix"},
      {"wfn:abcdefghijklmno", "name-prefix"},
      {"python3-distutils-e*", "name-prefix"},
      {"python3-distutils-extra*", "name-prefix"},
      {"*.py?", "name-suffix"},
      {"*.PY?", "name-suffix"},
      {"case:*.py?", "name-suffix"},
      {"*a.py?", "name-suffix"},
      {"?akefile", "name-suffix"},
      {"??kefile", "name-suffix"},
      {"*.py", "name-suffix"},
      {"lib?.a", "name-suffix"},
      // More ? units than the split budget allows on 2000 names: whichever
      // way is taken, the answer stays exact.
      {"*????????.txt", ""},
      {"??????????.txt", ""},
      {"*????.????", ""},
      // Nothing literal to look up: no lookup strategy.
      {"*", nullptr},
      {"*?", nullptr},
      {"?", nullptr},
  };
  const ExecutionPlanner planner(plannerIndex());
  for (const Case& c : cases) {
    const std::string strategy(ExecutionPlanner::name(planner.plan(utf16(c.query)).strategy));
    if (c.strategy != nullptr && *c.strategy == 0) {
      // any strategy
    } else if (c.strategy != nullptr) EXPECT_EQ(strategy, c.strategy) << c.query;
    else EXPECT_TRUE(strategy != "name-prefix" && strategy != "name-suffix") << c.query << " " << strategy;
    testing::expectPlannerExact(planner, c.query);
  }
}

// Ors of literals are tested in one pass over the mask columns: a row is
// read when it holds both masks of any one literal (up to a limit on the
// literals, beyond which the shared bigrams decide).
TEST(NameLookup, LiteralOrsStayExact) {
  struct Case {
    const char* label;
    const char* query;
  };
  const std::vector<Case> cases = {
      {"two words", "README|Makefile"},
      {"case on one side", "case:README|makefile"},
      {"case on both", "case:<ReadMe|MAKEFILE>"},
      {"case with accents", "case:Café|case:CAFÉ.txt"},
      {"accents fold", "café|straße"},
      {"one literal matches nothing", "README|qqqqqq"},
      {"a one-unit literal", "README|x"},
      {"many literals", "a.py|b.py|readme|cafe|lib|make|file1|file2|file3|strasse"},
      {"beside other terms", "README|Makefile|*.py"},
  };
  const ExecutionPlanner planner(plannerIndex());
  for (const Case& c : cases) testing::expectPlannerExact(planner, c.query);
  EXPECT_EQ(std::string(ExecutionPlanner::name(planner.plan(u"README|Makefile").strategy)), "literal-or");
}

TEST(NameLookup, RandomPatternsOnRandomCatalogsStayExact) {
  std::mt19937 random(7);
  const std::vector<std::string> pieces = {"a", "b", "A", "e", "E", "\xc3\xa9", ".", "?", "*", "z", "1"};
  for (std::uint32_t seed = 21; seed <= 24; ++seed) {
    const ExecutionPlanner planner(std::make_shared<const SearchIndex>(
        testing::randomCatalog(seed, PathFlavor::posix, 500), testing::syntheticTable()));
    for (int i = 0; i < 60; ++i) {
      std::string query;
      const int length = 1 + static_cast<int>(random() % 5);
      for (int k = 0; k < length; ++k) query += pieces[random() % pieces.size()];
      const int modifier = static_cast<int>(random() % 4);
      if (modifier == 1) query = "wfn:" + query;
      if (modifier == 2) query = "case:" + query;
      testing::expectPlannerExact(planner, query);
    }
  }
}

TEST(NameLookup, FoldedOrderSurvivesWriteAndRead) {
  const auto table = testing::shippedTable();
  const auto built = indexOfNames(trickyNames(), table);
  testing::TempDir dir;
  {
    IndexFile::Writer writer(dir / "n.tarvidx");
    built->write(writer);
    writer.finish();
  }
  IndexFile::Reader reader(dir / "n.tarvidx");
  ASSERT_TRUE(reader.has("foldedOrder"));
  SearchIndex read(reader, built->catalogPointer(), table);
  const auto& a = built->names()->foldedOrder();
  const auto& b = read.names()->foldedOrder();
  EXPECT_EQ(std::vector<std::int32_t>(a.begin(), a.end()), std::vector<std::int32_t>(b.begin(), b.end()));
}

}  // namespace
}  // namespace tarv
