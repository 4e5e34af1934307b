#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "kernel/base/kernel_error.h"
#include "kernel/query/name_collation.h"
#include "kernel/query/parallel_sort.h"
#include "kernel/query/prefix_sort.h"
#include "kernel/query/radix_order.h"
#include "kernel/query/row_order.h"
#include "kernel/query/search_index.h"
#include "kernel/query/sort_key.h"
#include "kernel/query/sort_spec.h"
#include "tests/support/synthetic_catalog.h"

namespace tarv {
namespace {

using testing::makeCatalog;
using testing::SyntheticRecord;
using testing::syntheticTable;

struct ParseCase {
  const char* name;
  SortKey key;
  bool descending;
  bool supported;
};

TEST(SortSpec, ParsesByPrefixInOrder) {
  const std::vector<ParseCase> cases = {
      {"name-asc", SortKey::name, false, true},
      {"name-desc", SortKey::name, true, true},
      {"path-asc", SortKey::path, false, true},
      {"path-desc", SortKey::path, true, true},
      {"size-asc", SortKey::size, false, true},
      {"size-desc", SortKey::size, true, true},
      {"date-modified-asc", SortKey::modified, false, true},
      {"date-modified-desc", SortKey::modified, true, true},
      {"date-created-asc", SortKey::created, false, true},
      {"date-created-desc", SortKey::created, true, true},
      {"size-on-disk-asc", SortKey::allocated, false, true},
      {"size-on-disk-desc", SortKey::allocated, true, true},
      {"volume-label-asc", SortKey::device, false, true},
      {"volume-label-desc", SortKey::device, true, true},
      {"none", SortKey::none, false, false},
      {"none-desc", SortKey::name, true, false},
      {"name-ascending", SortKey::name, false, false},
      {"pathological", SortKey::path, false, false},
      {"sizeable-desc", SortKey::size, true, false},
      {"-desc", SortKey::name, false, false},
      {"x-desc", SortKey::name, true, false},
      {"", SortKey::name, false, false},
      {"NAME-ASC", SortKey::name, false, false},
  };
  for (const auto& c : cases) {
    const SortSpec spec = SortSpec::parse(c.name);
    EXPECT_EQ(spec.key, c.key) << c.name;
    EXPECT_EQ(spec.descending, c.descending) << c.name;
    EXPECT_EQ(SortSpec::isSupported(c.name), c.supported) << c.name;
    EXPECT_EQ(spec.packed(), rawValue(c.key) + (c.descending ? 256 : 0)) << c.name;
    EXPECT_EQ(SortSpec::unpack(spec.packed()), spec) << c.name;
    if (c.supported) {
      EXPECT_EQ(SortSpec::validated(c.name), spec) << c.name;
      continue;
    }
    try {
      SortSpec::validated(c.name);
      ADD_FAILURE() << "accepted " << c.name;
    } catch (const KernelError& e) {
      EXPECT_EQ(e.kind(), KernelError::Kind::invalid) << c.name;
      EXPECT_EQ(e.message(), std::string("Unsupported sort: ") + c.name);
    }
  }
  EXPECT_EQ(kSortNames.size(), 14u);
  // Packed values from a file that name no key read as no sort.
  EXPECT_EQ(SortSpec::unpack(8).key, SortKey::none);
  for (const int raw : {-1, 8, 255}) EXPECT_FALSE(sortKeyFromRaw(raw).has_value()) << raw;
}

// The inline walks must agree with the table's own collation, or stored
// orders would disagree with compare().
TEST(NameCollation, InlineWalksAgreeWithTheTable) {
  const auto table = syntheticTable();
  const auto catalog = testing::randomCatalog(3, PathFlavor::posix, 300);
  const name_collation::PrefixCodes codes(*table);
  auto sign = [](int v) { return (v > 0) - (v < 0); };
  const std::vector<Text> extra = {u"", Text(1, 0), u"a", Text(u"a") + Unit(0), Text(u"a") + Unit(0) + u"b", u"aB",
                                   u"ab", u"\xD800", u"\xFFFF"};
  std::vector<Text> names(extra);
  for (std::int32_t r = 0; r < catalog->count(); ++r) names.emplace_back(catalog->nameUnits(r));
  for (const Text& a : names) {
    for (const Text& b : names) {
      const int one = table->compareLevel1(a, b);
      ASSERT_EQ(sign(name_collation::level1(table->orderTable(), a, b)), sign(one));
      ASSERT_EQ(sign(name_collation::level2(table->letterCaseTable(), a, b)), sign(table->compareLevel2(a, b)));
      ASSERT_EQ(sign(name_collation::level3(a, b)), sign(Compatibility::compareLevel3(a, b)));
      std::uint64_t ah, al, bh, bl;
      codes.slice(a, 0, ah, al);
      codes.slice(b, 0, bh, bl);
      if (ah != bh || al != bl) {
        ASSERT_EQ(std::pair(ah, al) < std::pair(bh, bl) ? -1 : 1, sign(one)) << "slices disagree with level 1";
      } else if ((al & 0xFFFF) == codes.endCode()) {
        ASSERT_EQ(one, 0) << "equal ended slices must mean equal names";
      }
    }
  }
}

struct Row {
  const char16_t* parent;
  const char16_t* name;
  bool folder;
  std::uint64_t size;
};

// A catalog whose rows spell out the comparison rule.
std::shared_ptr<const Catalog> ruleCatalog(bool withCreated) {
  const std::vector<Row> rows = {
      {u"/b/", u"x", false, 10},         // 0
      {u"/a/", u"x", false, 10},         // 1: same name, earlier folder
      {u"/a/", u"X", false, 10},         // 2: differs from 1 only in letter case
      {u"/a/", u"y", false, kUnknown64}, // 3: unknown size
      {u"/a/", u"w", true, 99},          // 4: a folder
      {u"/a/", u"z", false, 0},          // 5
      {u"/", u"x", false, 10},           // 6: parent "/" sorts before "/a/"
  };
  std::vector<SyntheticRecord> records;
  for (const auto& r : rows) {
    SyntheticRecord s;
    s.parent = r.parent;
    s.name = r.name;
    s.folder = r.folder;
    s.size = r.size;
    s.created = withCreated ? 5 : kUnknown64;
    records.push_back(s);
  }
  return makeCatalog(records);
}

std::vector<std::int32_t> ordered(const SearchIndex& index, SortSpec spec) {
  const auto column = index.order(spec.key);
  std::vector<std::int32_t> rows(column.begin(), column.end());
  if (spec.descending) std::reverse(rows.begin(), rows.end());
  return rows;
}

TEST(RowOrder, ComparisonRuleCases) {
  const auto table = syntheticTable();
  SearchIndex index(ruleCatalog(false), table);
  struct Case {
    const char* sort;
    std::vector<std::int32_t> expected;
  };
  const std::vector<Case> cases = {
      // Folder 4 first; then names by weight (X and x tie at level 1), the
      // parent rank ("/" < "/a/" < "/b/"), then letter case (X before x).
      {"name-asc", {4, 6, 2, 1, 0, 3, 5}},
      {"name-desc", {5, 3, 0, 1, 2, 6, 4}},
      // Files: unknown size first, then 0, then the 10s by the tie-break.
      {"size-asc", {4, 3, 5, 6, 2, 1, 0}},
      {"size-desc", {0, 1, 2, 6, 5, 3, 4}},
      {"path-asc", {4, 6, 2, 1, 3, 5, 0}},
      // No creation column: the step is skipped, the name order remains.
      {"date-created-asc", {4, 6, 2, 1, 0, 3, 5}},
      {"size-on-disk-desc", {5, 3, 0, 1, 2, 6, 4}},
      // No devices: the volume-label order is the name order.
      {"volume-label-asc", {4, 6, 2, 1, 0, 3, 5}},
  };
  for (const auto& c : cases) {
    const SortSpec spec = SortSpec::validated(c.sort);
    EXPECT_EQ(ordered(index, spec), c.expected) << c.sort;
    const auto& e = c.expected;
    for (std::size_t i = 0; i + 1 < e.size(); ++i) EXPECT_LT(index.compare(e[i], e[i + 1], spec), 0) << c.sort << " at " << i;
  }
  EXPECT_EQ(index.compare(3, 3, SortSpec::parse("size-desc")), 0);
}

TEST(RowOrder, DeviceLabelsAbsentFirstThenCollated) {
  std::vector<SyntheticRecord> records;
  auto add = [&](const char16_t* name, std::optional<std::uint64_t> device, bool folder = false) {
    SyntheticRecord r;
    r.parent = u"/";
    r.name = name;
    r.device = device;
    r.folder = folder;
    records.push_back(r);
  };
  add(u"a", 1);             // 0: label "disk"
  add(u"b", 2);             // 1: label "Disk"
  add(u"c", std::nullopt);  // 2: no device
  add(u"d", 3);             // 3: device without label
  add(u"e", 4);             // 4: label "alpha"
  add(u"f", 1, true);       // 5: folder
  testing::SyntheticOptions options;
  options.labels = {{1, u"disk"}, {2, u"Disk"}, {4, u"alpha"}};
  SearchIndex index(makeCatalog(records, options), syntheticTable());
  // Absent labels (2, 3) by name; then alpha; then Disk before disk (letter case).
  EXPECT_EQ(ordered(index, SortSpec::parse("volume-label-asc")), (std::vector<std::int32_t>{5, 2, 3, 4, 1, 0}));
  EXPECT_EQ(ordered(index, SortSpec::parse("volume-label-desc")), (std::vector<std::int32_t>{0, 1, 4, 3, 2, 5}));
  const auto first = index.order(SortKey::device);
  EXPECT_EQ(index.order(SortKey::device).data(), first.data()) << "built once and kept";
  EXPECT_EQ(RowOrder::labelRanks(index.catalog(), index.compatibility()), (std::vector<std::int32_t>{3, 2, 0, 1}));
}

// Every order of every sort name, on random catalogs of both flavors: a
// permutation whose adjacent rows compare strictly in order.
TEST(RowOrder, EverySortNameGivesASortedPermutation) {
  const auto table = syntheticTable();
  int checked = 0;
  for (std::uint32_t seed = 1; seed <= 6; ++seed) {
    for (PathFlavor flavor : {PathFlavor::posix, PathFlavor::windows}) {
      const bool optional = seed % 2 == 0;
      const auto catalog = testing::randomCatalog(seed, flavor, 400, optional, optional, seed % 3 != 0);
      SearchIndex index(catalog, table);
      EXPECT_EQ(index.stores(SortKey::created), optional);
      EXPECT_EQ(index.stores(SortKey::allocated), optional);
      for (auto name : kSortNames) {
        const SortSpec spec = SortSpec::parse(name);
        const auto rows = ordered(index, spec);
        ASSERT_EQ(rows.size(), static_cast<std::size_t>(catalog->count()));
        std::vector<std::int32_t> sorted(rows);
        std::sort(sorted.begin(), sorted.end());
        for (std::size_t i = 0; i < sorted.size(); ++i) ASSERT_EQ(sorted[i], static_cast<std::int32_t>(i)) << name;
        for (std::size_t i = 0; i + 1 < rows.size(); ++i)
          ASSERT_LT(index.compare(rows[i], rows[i + 1], spec), 0) << name << " seed " << seed << " at " << i;
        ++checked;
      }
    }
  }
  EXPECT_EQ(checked, 6 * 2 * 14);
}

// Long names that share most of their units (and duplicates in many folders)
// make the name sorts refine slice after slice; the result must still be the
// comparison order, for the name order and the reversed-name order alike.
TEST(RowOrder, LongSharedPrefixesSortLikeTheComparator) {
  std::mt19937 random(17);
  std::vector<SyntheticRecord> records;
  const std::vector<Unit> tail = {u'a', u'A', u'b', 0xE9, u'.'};
  for (int i = 0; i < 3000; ++i) {
    SyntheticRecord r;
    r.parent = u"/f" + utf16(std::to_string(random() % 40)) + u"/";
    r.name = Text(random() % 30, u'x');
    const int extra = static_cast<int>(random() % 12);
    for (int k = 0; k < extra; ++k) r.name.push_back(tail[random() % tail.size()]);
    if (random() % 50 == 0) r.name.insert(r.name.begin() + static_cast<std::ptrdiff_t>(random() % (r.name.size() + 1)), Unit(0));
    records.push_back(std::move(r));
  }
  std::sort(records.begin(), records.end(), [](const auto& a, const auto& b) {
    return std::pair(a.parent, a.name) < std::pair(b.parent, b.name);
  });
  records.erase(std::unique(records.begin(), records.end(),
                            [](const auto& a, const auto& b) { return a.parent == b.parent && a.name == b.name; }),
                records.end());
  std::shuffle(records.begin(), records.end(), random);
  SearchIndex index(makeCatalog(records), syntheticTable());
  const auto order = ordered(index, SortSpec::parse("name-asc"));
  for (std::size_t i = 0; i + 1 < order.size(); ++i)
    ASSERT_LT(index.compare(order[i], order[i + 1], SortSpec::parse("name-asc")), 0) << i;
  const auto& reverse = index.names()->reverseOrder();
  for (std::size_t i = 0; i + 1 < reverse.size(); ++i) {
    const int r = NameCandidates::compareReversed(index.compatibility(), index.catalog().nameUnits(reverse[i]),
                                                  index.catalog().nameUnits(reverse[i + 1]));
    ASSERT_TRUE(r < 0 || (r == 0 && reverse[i] < reverse[i + 1])) << i;
  }
}

// The slice-by-slice sort against a plain sort of the same texts, with runs
// refined both one per task and on the whole pool (a tiny large-run size).
TEST(PrefixSort, AgreesWithAPlainSortOfTheTexts) {
  std::mt19937 random(23);
  std::vector<Text> texts;
  for (int i = 0; i < 5000; ++i) {
    Text t(random() % 20, u'q');
    const int extra = static_cast<int>(random() % 8);
    for (int k = 0; k < extra; ++k) t.push_back(static_cast<Unit>(u'a' + random() % 3));
    texts.push_back(std::move(t));
  }
  // Two units per 16-bit slot pair: unit + 1, 0 past the end; 6 per slice.
  struct Access {
    const std::vector<Text>& texts;
    PrefixSlice sliceAt(std::int32_t row, int depth) const {
      const Text& t = texts[static_cast<std::size_t>(row)];
      std::uint64_t k[2] = {0, 0};
      for (std::size_t j = 0; j < 6; ++j) {
        const std::size_t at = static_cast<std::size_t>(depth) * 6 + j;
        k[j / 3] = (k[j / 3] << 17) | (at < t.size() ? std::uint64_t(t[at]) + 1 : 0);
      }
      return {k[0], k[1]};
    }
    void locate(std::int32_t) const {}
    void prefetch(std::int32_t, int) const {}
    bool ended(const PrefixSlice& s) const { return (s.low & 0x1FFFF) == 0; }
    bool finalLess(const PrefixItem& x, const PrefixItem& y) const { return x.row < y.row; }
  } access{texts};
  std::vector<std::int32_t> expected(texts.size());
  std::iota(expected.begin(), expected.end(), 0);
  std::sort(expected.begin(), expected.end(), [&](std::int32_t a, std::int32_t b) {
    return std::pair(texts[static_cast<std::size_t>(a)], a) < std::pair(texts[static_cast<std::size_t>(b)], b);
  });
  for (std::size_t largeRun : {std::size_t(100), std::size_t(1) << 16}) {
    Buffer<PrefixItem> items(texts.size());
    for (std::size_t i = 0; i < items.size(); ++i) items[i].row = static_cast<std::int32_t>(i);
    prefixSort(items, access, largeRun);
    std::vector<std::int32_t> got;
    for (const auto& item : items) got.push_back(item.row);
    EXPECT_EQ(got, expected) << "large runs from " << largeRun;
  }
}

// Fold codes keep the order of folded values and leave 0 free; a table whose
// folds cover all 65536 values needs 17-bit slots, and the reversed-name and
// parent-prefix orders must come out right with either width.
TEST(FoldCodes, KeepOrderAndWidenWhenEveryValueIsAFold) {
  const name_collation::FoldCodes narrow(*syntheticTable());
  EXPECT_EQ(narrow.unitsPerSlice(), 8u);
  EXPECT_EQ(narrow.code(u'A'), narrow.code(u'a'));
  EXPECT_LT(narrow.code(u'a'), narrow.code(u'b'));
  EXPECT_GE(narrow.code(0), 1u);
  auto identity = std::make_unique<Compatibility::Table>();
  for (std::uint32_t u = 0; u < 65536; ++u) (*identity)[u] = static_cast<std::uint16_t>(u);
  const auto wideTable = Compatibility::fromTables(*identity, *identity, *identity);
  const name_collation::FoldCodes wide(*wideTable);
  EXPECT_EQ(wide.unitsPerSlice(), 6u);
  EXPECT_EQ(wide.code(0xFFFF), 65536u);
  for (const auto& table : {syntheticTable(), wideTable}) {
    SearchIndex index(testing::randomCatalog(41, PathFlavor::windows, 800), table);
    const Catalog& c = index.catalog();
    const auto& reverse = index.names()->reverseOrder();
    for (std::size_t i = 0; i + 1 < reverse.size(); ++i) {
      const int r = NameCandidates::compareReversed(*table, c.nameUnits(reverse[i]), c.nameUnits(reverse[i + 1]));
      ASSERT_TRUE(r < 0 || (r == 0 && reverse[i] < reverse[i + 1])) << i;
    }
    const auto& prefix = index.parentPrefixOrder();
    for (std::size_t i = 0; i + 1 < prefix.size(); ++i)
      ASSERT_LE(table->fold(c.parentUnits(static_cast<std::uint32_t>(prefix[i]))),
                table->fold(c.parentUnits(static_cast<std::uint32_t>(prefix[i + 1]))));
  }
}

TEST(RadixOrder, IsAStableSortForAnyWidth) {
  std::mt19937_64 random(11);
  for (int bits : {0, 1, 2, 11, 12, 23, 33, 63, 64}) {
    for (std::size_t n : {std::size_t(0), std::size_t(1), std::size_t(1000), std::size_t(70000)}) {
      std::vector<std::uint64_t> keys(n);
      const std::uint64_t mask = bits == 64 ? ~0ull : (1ull << bits) - 1;
      for (auto& k : keys) k = (random() % 3 == 0 ? random() % 4 : random()) & mask;
      std::vector<std::int32_t> input(n);
      std::iota(input.begin(), input.end(), 0);
      std::shuffle(input.begin(), input.end(), random);
      auto expected = input;
      std::stable_sort(expected.begin(), expected.end(), [&](std::int32_t a, std::int32_t b) {
        return keys[static_cast<std::size_t>(a)] < keys[static_cast<std::size_t>(b)];
      });
      const auto got = radixOrder(std::span<const std::int32_t>(input), bits,
                                  [&](std::int32_t row) { return keys[static_cast<std::size_t>(row)]; });
      ASSERT_EQ(got, expected) << bits << " bits, " << n << " rows";
    }
  }
}

TEST(ParallelSort, AgreesWithStdSort) {
  std::mt19937 random(5);
  for (std::size_t n : {std::size_t(0), std::size_t(5), std::size_t(16384), std::size_t(16385), std::size_t(300001)}) {
    std::vector<std::uint64_t> items(n);
    for (std::size_t i = 0; i < n; ++i) items[i] = (std::uint64_t(random() % 1000) << 32) | i;  // distinct
    auto expected = items;
    std::sort(expected.begin(), expected.end());
    parallelSort(items, std::less<>(), 1000);
    ASSERT_EQ(items, expected) << n;
  }
}

}  // namespace
}  // namespace tarv
