#include "kernel/query/path_order.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>
#include <random>
#include <set>
#include <vector>

#include "kernel/base/text.h"
#include "tests/support/synthetic_catalog.h"

namespace tarv {
namespace {

using testing::syntheticTable;

TEST(PathOrder, DropsOneTrailingSeparatorByFlavor) {
  struct Case {
    PathFlavor flavor;
    const char16_t* text;
    const char16_t* trimmed;
  };
  const std::vector<Case> cases = {
      {PathFlavor::windows, u"C:\\", u"C:"},     {PathFlavor::windows, u"\\", u""},
      {PathFlavor::windows, u"", u""},           {PathFlavor::windows, u"C:\\a\\\\", u"C:\\a\\"},
      {PathFlavor::windows, u"C:/", u"C:/"},     {PathFlavor::posix, u"/", u"/"},
      {PathFlavor::posix, u"/a/", u"/a"},        {PathFlavor::posix, u"", u""},
      {PathFlavor::posix, u"a\\", u"a\\"},       {PathFlavor::posix, u"//", u"/"},
  };
  for (const auto& c : cases)
    EXPECT_EQ(Text(PathOrder::trimmed(c.flavor, c.text)), Text(c.trimmed)) << utf8(c.text);
}

TEST(PathOrder, SeparatorsWeighLessThanUnitsAndMoreThanTheEnd) {
  const auto table = syntheticTable();
  struct Case {
    const char* label;
    PathFlavor flavor;
    const char16_t* a;
    const char16_t* b;  // a sorts before b
  };
  const std::vector<Case> cases = {
      {"parent before child", PathFlavor::posix, u"/a/", u"/a/b/"},
      {"separator before hyphen", PathFlavor::posix, u"/a/b/", u"/a-b/"},
      {"separator before space", PathFlavor::posix, u"/a/z/", u"/a b/"},
      {"end before separator", PathFlavor::posix, u"/a/", u"/a//"},
      {"empty before root", PathFlavor::posix, u"", u"/"},
      {"root before folders", PathFlavor::posix, u"/", u"/a/"},
      {"letter case at level 2", PathFlavor::posix, u"/A/", u"/a/"},
      {"weight before letter case", PathFlavor::posix, u"/a/x/", u"/B/"},
      {"equal weight, raw at level 3", PathFlavor::posix, u"/\u00C9/", u"/\u00E9/"},
      {"backslash is a unit on posix", PathFlavor::posix, u"/a/", u"/a\\/"},
      {"windows: backslash separates", PathFlavor::windows, u"C:\\a\\", u"C:\\a-\\"},
      {"windows: slash separates too", PathFlavor::windows, u"C:\\a/b\\", u"C:\\a-\\"},
      {"windows: both separators tie until raw", PathFlavor::windows, u"a/b\\", u"a\\b\\"},
      {"UNC root and empty parent tie until raw", PathFlavor::windows, u"", u"\\"},
      {"drive before its folders", PathFlavor::windows, u"C:\\", u"C:\\a\\"},
      {"surrogates after other units", PathFlavor::posix, u"/\uFFFF/", u"/\xD800/"},
  };
  for (const auto& c : cases) {
    EXPECT_LT(PathOrder::compare(*table, c.flavor, c.a, c.b), 0) << c.label;
    EXPECT_GT(PathOrder::compare(*table, c.flavor, c.b, c.a), 0) << c.label;
    EXPECT_EQ(PathOrder::compare(*table, c.flavor, c.a, c.a), 0) << c.label;
  }
  // The trimmed comparison alone sees the UNC root and the empty parent as equal.
  EXPECT_EQ(PathOrder::compareTrimmed(*table, PathFlavor::windows, PathOrder::trimmed(PathFlavor::windows, u"\\"), u""), 0);
}

// Long parent texts that share most units, with NULs and both separators:
// the ranks (built slice by slice) must match a plain sort by compare().
TEST(PathOrder, RanksOfLongSimilarTextsMatchAPlainSort) {
  const auto table = syntheticTable();
  std::mt19937 random(12);
  const std::vector<Unit> alphabet = {u'/', u'\\', u'a', u'A', u'-', 0, 0xE9, 0xC9};
  for (PathFlavor flavor : {PathFlavor::posix, PathFlavor::windows}) {
    std::vector<testing::SyntheticRecord> records;
    std::set<Text> seen;
    while (records.size() < 600) {
      Text parent(random() % 14, u'a');
      const int length = static_cast<int>(random() % 10);
      for (int k = 0; k < length; ++k) parent.push_back(alphabet[random() % alphabet.size()]);
      if (!seen.insert(parent).second) continue;
      testing::SyntheticRecord r;
      r.parent = parent;
      r.name.push_back(u'n');
      records.push_back(r);
    }
    testing::SyntheticOptions options;
    options.flavor = flavor;
    const auto catalog = testing::makeCatalog(records, options);
    std::vector<std::int32_t> expected(static_cast<std::size_t>(catalog->parentCount()));
    std::iota(expected.begin(), expected.end(), 0);
    std::sort(expected.begin(), expected.end(), [&](std::int32_t x, std::int32_t y) {
      return PathOrder::compare(*table, flavor, catalog->parentUnits(static_cast<std::uint32_t>(x)),
                                catalog->parentUnits(static_cast<std::uint32_t>(y))) < 0;
    });
    const auto ranks = PathOrder::ranks(*catalog, *table);
    for (std::size_t k = 0; k < expected.size(); ++k)
      ASSERT_EQ(ranks[static_cast<std::size_t>(expected[k])], static_cast<std::int32_t>(k)) << k;
  }
}

// Random texts over separators, case pairs and NULs: the comparison is a
// total order (antisymmetric, transitive through sorting, 0 only when equal).
TEST(PathOrder, IsATotalOrderOnRandomTexts) {
  const auto table = syntheticTable();
  std::mt19937 random(9);
  const std::vector<Unit> alphabet = {u'/', u'\\', u'a', u'A', u'-', 0, 0xE9, 0xC9, 0xD800};
  for (PathFlavor flavor : {PathFlavor::posix, PathFlavor::windows}) {
    std::vector<Text> texts;
    for (int i = 0; i < 300; ++i) {
      Text t;
      const int length = static_cast<int>(random() % 6);
      for (int k = 0; k < length; ++k) t.push_back(alphabet[random() % alphabet.size()]);
      texts.push_back(t);
    }
    for (const Text& a : texts)
      for (const Text& b : texts) {
        const int ab = PathOrder::compare(*table, flavor, a, b);
        ASSERT_EQ(ab, -PathOrder::compare(*table, flavor, b, a));
        ASSERT_EQ(ab == 0, a == b);
      }
    std::sort(texts.begin(), texts.end(),
              [&](const Text& a, const Text& b) { return PathOrder::compare(*table, flavor, a, b) < 0; });
    for (std::size_t i = 0; i + 1 < texts.size(); ++i)
      for (std::size_t j = i + 1; j < std::min(texts.size(), i + 40); ++j)
        ASSERT_LE(PathOrder::compare(*table, flavor, texts[i], texts[j]), 0);
  }
}

}  // namespace
}  // namespace tarv
