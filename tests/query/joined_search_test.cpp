#include "kernel/query/joined_search.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "kernel/base/kernel_error.h"
#include "kernel/catalog/catalog_builder.h"
#include "kernel/query/path_order.h"
#include "tests/support/process.h"

namespace tarv {
namespace {

std::shared_ptr<const Compatibility> table() {
  static const auto loaded =
      Compatibility::load(std::filesystem::path(testing::sourceDir()) / "data" / "vantor-v1.json");
  return loaded;
}

constexpr std::uint64_t kTicksPerMs = 10000;
std::uint64_t ticksAtMs(std::int64_t ms) {
  return static_cast<std::uint64_t>(static_cast<std::int64_t>(kUnixEpochTicks) + ms * std::int64_t(kTicksPerMs));
}

struct Record {
  Record(std::string p, std::uint8_t k = 0, std::uint64_t s = kUnknown64, std::uint64_t m = kUnknown64,
         std::uint64_t c = kUnknown64, std::optional<std::uint64_t> d = std::nullopt)
      : path(std::move(p)), kind(k), size(s), modified(m), created(c), device(d) {}
  std::string path;
  std::uint8_t kind;
  std::uint64_t size;
  std::uint64_t modified;
  std::uint64_t created;
  std::optional<std::uint64_t> device;
};

CatalogPtr catalogOf(const std::string& id, PathFlavor flavor, const std::vector<Record>& records,
                     const std::map<std::string, std::string>& labels = {}) {
  NativeCatalogBuilder builder(id, flavor, /*directorySizes=*/false);
  for (const Record& r : records) builder.add(utf16(r.path), r.kind, r.size, r.modified, r.created, kUnknown64, r.device);
  auto catalog = std::make_shared<Catalog>(builder.finish());
  catalog->applyDeviceLabels(labels);
  return catalog;
}

std::unique_ptr<JoinedSearch> join(const std::vector<CatalogPtr>& catalogs, std::vector<std::string> keys = {},
                                   JoinedSearch::Tuning tuning = JoinedSearch::Tuning()) {
  std::vector<JoinedSearch::Source> sources;
  std::vector<SearchIndexPtr> indexes;
  for (const CatalogPtr& c : catalogs) {
    sources.push_back({c->sourceId(), "Label " + c->sourceId(), c});
    indexes.push_back(std::make_shared<const SearchIndex>(c, table()));
  }
  if (keys.empty()) keys.assign(catalogs.size(), "");
  return std::make_unique<JoinedSearch>(std::move(sources), std::move(indexes), std::move(keys), table(), tuning);
}

std::vector<std::string> pathsOf(const JoinedSearch& search, const JoinedSearch::Result& result) {
  std::vector<std::string> paths;
  for (const std::int32_t id : result.ids) paths.push_back(search.row(id).path);
  return paths;
}

// Two sources: a posix one and a windows one, with names that interleave.
std::unique_ptr<JoinedSearch> twoSources() {
  const auto posix = catalogOf("home", PathFlavor::posix,
                               {{"/home", 1, 0, ticksAtMs(1000)},
                                {"/home/beta.txt", 0, 20, ticksAtMs(3000), ticksAtMs(5)},
                                {"/home/Delta.md", 0, kUnknown64, ticksAtMs(-86400000)},
                                {"/home/alpha.txt", 0, 5, kUnknown64}});
  const auto windows = catalogOf("disk", PathFlavor::windows,
                                 {{"C:\\Data", 1},
                                  {"C:\\Data\\Alpha.txt", 0, 7, ticksAtMs(2000)},
                                  {"C:\\Data\\gamma.txt", 0, 1, ticksAtMs(500)}});
  return join({posix, windows});
}

TEST(JoinedSearch, UnknownSortFailsBeforeSearching) {
  const auto search = twoSources();
  for (const std::string sort : {"name-ascending", "NAME-ASC", "", "none", "size", "date-modified"}) {
    try {
      search->search("alpha", sort);
      ADD_FAILURE() << "accepted " << sort;
    } catch (const KernelError& error) {
      EXPECT_EQ(error, KernelError::invalid("Unsupported sort: " + sort));
    }
  }
  EXPECT_EQ(JoinedSearch::sorts().size(), 14u);
}

TEST(JoinedSearch, EmptyQueryReturnsEveryIdInKeyOrder) {
  const auto search = twoSources();
  ASSERT_EQ(search->total(), 7);
  EXPECT_EQ(search->starts(), (std::vector<std::int64_t>{0, 4, 7}));
  const auto byName = search->search("", "name-asc");
  EXPECT_EQ(byName.total, 7);
  EXPECT_EQ(byName.strategies.size(), 2u) << "one strategy per source";
  EXPECT_EQ(pathsOf(*search, byName),
            (std::vector<std::string>{"C:\\Data", "/home", "/home/alpha.txt", "C:\\Data\\Alpha.txt",
                                      "/home/beta.txt", "/home/Delta.md", "C:\\Data\\gamma.txt"}));
  // Unknown sizes first among the files, the folders before them.
  EXPECT_EQ(pathsOf(*search, search->search("", "size-asc")),
            (std::vector<std::string>{"C:\\Data", "/home", "/home/Delta.md", "C:\\Data\\gamma.txt",
                                      "/home/alpha.txt", "C:\\Data\\Alpha.txt", "/home/beta.txt"}));
  EXPECT_EQ(pathsOf(*search, search->search("", "date-modified-asc")),
            (std::vector<std::string>{"C:\\Data", "/home", "/home/alpha.txt", "/home/Delta.md",
                                      "C:\\Data\\gamma.txt", "C:\\Data\\Alpha.txt", "/home/beta.txt"}));
  // Only the posix source has a creation column: the windows rows count as unknown.
  EXPECT_EQ(pathsOf(*search, search->search("", "date-created-asc")),
            (std::vector<std::string>{"C:\\Data", "/home", "/home/alpha.txt", "C:\\Data\\Alpha.txt",
                                      "/home/Delta.md", "C:\\Data\\gamma.txt", "/home/beta.txt"}));
}

// Tunings that send every result down the walk over the whole order, down
// the gather-and-sort path, and the defaults.
std::vector<JoinedSearch::Tuning> everyOrderingPath() {
  JoinedSearch::Tuning walk;
  walk.sortAtMost = 0;
  walk.sortRatio = std::int64_t(1) << 40;
  walk.walkMinimum = 1;
  JoinedSearch::Tuning sorted;
  sorted.sortAtMost = std::int64_t(1) << 40;
  return {walk, sorted, JoinedSearch::Tuning()};
}

// A page or a count asks for the first `wanted` ids only: they must be
// exactly the head of the full result, on the sorting and the walking paths,
// in every sort, with the full count.
TEST(JoinedSearch, FirstIdsAreTheHeadOfTheFullResult) {
  std::mt19937 random(17);
  std::vector<Record> posixRecords{{"/r", 1}};
  std::vector<Record> windowsRecords{{"C:\\r", 1}};
  const std::vector<std::string> words{"x", "Y", "xy", "yx", "z"};
  for (int i = 0; i < 60; ++i) {
    const std::string name = words[random() % words.size()] + std::to_string(i) + (i % 5 ? ".txt" : "");
    const auto kind = static_cast<std::uint8_t>(i % 5 == 0 ? 1 : 0);
    const std::uint64_t size = random() % 4 == 0 ? kUnknown64 : random() % 9;
    const std::uint64_t modified = ticksAtMs(static_cast<std::int64_t>(random() % 5) * 1000);
    if (i % 2) posixRecords.push_back({"/r/" + name, kind, size, modified});
    else windowsRecords.push_back({"C:\\r\\" + name, kind, size, modified});
  }
  const auto posix = catalogOf("p", PathFlavor::posix, posixRecords);
  const auto windows = catalogOf("w", PathFlavor::windows, windowsRecords);
  for (const auto& tuning : everyOrderingPath()) {
    const auto search = join({posix, windows}, {}, tuning);
    for (const std::string query : {"", "x", "!y", "nothing-matches"}) {
      for (const std::string_view sort : kSortNames) {
        const auto full = search->search(query, sort);
        ASSERT_EQ(static_cast<std::int64_t>(full.ids.size()), full.total);
        for (const std::int64_t wanted : {std::int64_t(0), std::int64_t(1), std::int64_t(7), full.total, full.total + 3}) {
          const auto head = search->search(query, sort, wanted);
          EXPECT_EQ(head.total, full.total) << query << " " << sort << " " << wanted;
          const auto made = std::min(wanted, full.total);
          EXPECT_EQ(std::vector<std::int32_t>(head.ids.begin(), head.ids.end()),
                    std::vector<std::int32_t>(full.ids.begin(), full.ids.begin() + made))
              << query << " " << sort << " " << wanted;
          EXPECT_EQ(head.counts, full.counts) << query << " " << sort;
        }
      }
    }
  }
}

TEST(JoinedSearch, RowsCarryTheirSourceAndOptionalFields) {
  const auto search = twoSources();
  const JoinedSearch::Row first = search->row(4);  // the windows source's row 0
  EXPECT_EQ(first.id, 4);
  EXPECT_EQ(first.sourceId, "disk");
  EXPECT_EQ(first.name, "Data");
  EXPECT_EQ(first.path, "C:\\Data");
  EXPECT_EQ(first.kind, 1);
  EXPECT_FALSE(first.size.has_value());
  EXPECT_FALSE(first.modifiedMs.has_value());
  EXPECT_FALSE(first.createdMs.has_value());  // no creation column in that source

  const JoinedSearch::Row beta = search->row(1);
  EXPECT_EQ(beta.sourceId, "home");
  EXPECT_EQ(beta.path, "/home/beta.txt");
  EXPECT_EQ(beta.size, std::optional<std::uint64_t>(20));
  EXPECT_EQ(beta.modifiedMs, std::optional<std::int64_t>(3000));
  EXPECT_EQ(beta.createdMs, std::optional<std::int64_t>(5));
  EXPECT_FALSE(beta.sizeOnDisk.has_value());

  const JoinedSearch::Row delta = search->row(2);
  EXPECT_FALSE(delta.size.has_value());
  EXPECT_EQ(delta.modifiedMs, std::optional<std::int64_t>(-86400000));  // the day before 1970
  EXPECT_FALSE(delta.createdMs.has_value());                           // unknown in a source with the column

  for (const std::int64_t bad : {std::int64_t(-1), std::int64_t(7), std::int64_t(1) << 40}) {
    EXPECT_THROW(search->row(bad), KernelError) << bad;
  }
}

TEST(JoinedSearch, EmptySourcesKeepIdsDense) {
  const auto empty = catalogOf("e", PathFlavor::posix, {});
  const auto one = catalogOf("o", PathFlavor::posix, {{"/one.txt", 0, 1}});
  const auto two = catalogOf("t", PathFlavor::windows, {{"C:\\two.txt", 0, 2}, {"C:\\zero.txt", 0, 0}});
  const auto search = join({empty, one, empty, two, empty});
  EXPECT_EQ(search->starts(), (std::vector<std::int64_t>{0, 0, 1, 1, 3, 3}));
  EXPECT_EQ(search->row(0).sourceId, "o");
  EXPECT_EQ(search->row(1).sourceId, "t");
  EXPECT_EQ(search->row(2).path, "C:\\zero.txt");
  EXPECT_EQ(pathsOf(*search, search->search("", "size-desc")),
            (std::vector<std::string>{"C:\\two.txt", "/one.txt", "C:\\zero.txt"}));
  const auto none = join({empty});
  EXPECT_EQ(none->total(), 0);
  EXPECT_EQ(none->search("", "volume-label-desc").total, 0);
}

TEST(JoinedSearch, EqualRowsOfTwoSourcesFollowSourceOrder) {
  const auto first = catalogOf("first", PathFlavor::posix, {{"/same/file.txt", 0, 1}});
  const auto second = catalogOf("second", PathFlavor::posix, {{"/same/file.txt", 0, 1}});
  const auto search = join({first, second});
  for (const std::string_view sort : kSortNames) {
    const auto result = search->search("file", sort);
    ASSERT_EQ(result.total, 2);
    const bool descending = sort.ends_with("-desc");
    EXPECT_EQ(search->row(result.ids[0]).sourceId, descending ? "second" : "first") << sort;
  }
}

TEST(JoinedSearch, VolumeLabelOrderRanksLabelsOfAllSources) {
  const auto a = catalogOf("a", PathFlavor::posix,
                           {{"/m/one", 0, 1, kUnknown64, kUnknown64, 1},
                            {"/m/two", 0, 1, kUnknown64, kUnknown64, 2},
                            {"/m/three", 0, 1, kUnknown64, kUnknown64, std::nullopt},
                            {"/m/dir", 1, 0, kUnknown64, kUnknown64, 2}},
                           {{"1", "zulu"}, {"2", "Alpha"}});
  const auto b = catalogOf("b", PathFlavor::posix,
                           {{"/n/four", 0, 1, kUnknown64, kUnknown64, 5}, {"/n/five", 0, 1, kUnknown64, kUnknown64, 6}},
                           {{"5", "alpha"}, {"6", "Mike"}});
  const auto search = join({a, b});
  // Folders first; absent labels first; "alpha" before "Alpha" by letter case.
  EXPECT_EQ(pathsOf(*search, search->search("", "volume-label-asc")),
            (std::vector<std::string>{"/m/dir", "/m/three", "/n/four", "/m/two", "/n/five", "/m/one"}));
  // Built once, under concurrent first use.
  const auto again = join({a, b});
  std::vector<std::vector<std::int32_t>> seen(4);
  std::vector<std::thread> threads;
  for (std::size_t t = 0; t < seen.size(); ++t)
    threads.emplace_back([&, t] {
      const auto r = again->search("", "volume-label-desc");
      seen[t].assign(r.ids.begin(), r.ids.end());
    });
  for (auto& thread : threads) thread.join();
  for (const auto& ids : seen) EXPECT_EQ(ids, seen.front());
  EXPECT_EQ(again->order(SortKey::device).data(), again->order(SortKey::device).data());
}

TEST(JoinedSearch, OneSourceSharesItsOwnOrders) {
  const auto c = catalogOf("solo", PathFlavor::posix, {{"/b", 0, 2}, {"/a", 0, 1}});
  std::vector<SearchIndexPtr> indexes{std::make_shared<const SearchIndex>(c, table())};
  const JoinedSearch search({{"solo", "Solo", c}}, indexes, {""}, table());
  for (const SortKey key : {SortKey::name, SortKey::path, SortKey::size, SortKey::modified})
    EXPECT_EQ(search.order(key).data(), indexes[0]->order(key).data()) << sortKeyName(key);
  // The whole order is handed out without a copy for an every-row ascending search.
  EXPECT_EQ(search.search("", "size-asc").ids.data(), indexes[0]->order(SortKey::size).data());
}

TEST(JoinedSearch, ConstructionChecksItsInputs) {
  const auto c = catalogOf("c", PathFlavor::posix, {{"/x", 0, 1}});
  const auto other = catalogOf("d", PathFlavor::posix, {{"/y", 0, 1}});
  auto index = std::make_shared<const SearchIndex>(other, table());
  EXPECT_THROW(JoinedSearch({{"c", "C", c}}, {index}, {""}, table()), KernelError);
  EXPECT_THROW(JoinedSearch({{"c", "C", c}}, {}, {}, table()), KernelError);
}

TEST(JoinedSearch, JoinKeyFollowsTheCacheKeys) {
  const auto c = catalogOf("c", PathFlavor::posix, {{"/x", 0, 1}});
  const auto d = catalogOf("d", PathFlavor::posix, {{"/y", 0, 1}});
  const auto k1 = join({c, d}, {"aa", "bb"})->joinKey();
  EXPECT_EQ(k1.size(), 32u);
  EXPECT_EQ(k1.find_first_not_of("0123456789abcdef"), std::string::npos);
  EXPECT_EQ(join({c, d}, {"aa", "bb"})->joinKey(), k1);
  EXPECT_NE(join({c, d}, {"aa", "bc"})->joinKey(), k1);
  EXPECT_NE(join({c, d}, {"bb", "aa"})->joinKey(), k1);
  EXPECT_NE(join({c, d}, {"aab", ""})->joinKey(), join({c, d}, {"aa", "b"})->joinKey());
}

TEST(ComparePaths, CrossFlavorCases) {
  const auto& t = *table();
  struct Case {
    const char* label;
    PathFlavor fa;
    std::u16string a;
    PathFlavor fb;
    std::u16string b;
    int expected;
  };
  const auto W = PathFlavor::windows;
  const auto P = PathFlavor::posix;
  const std::vector<Case> cases = {
      {"backslash separates only on windows", W, u"x\\b\\", P, u"x\\b/", -1},
      {"slash separates on both", W, u"x/b", P, u"x/b", 0},
      {"same text same flavor", P, u"/a/", P, u"/a/", 0},
      {"trailing separators dropped per flavor, then raw units", W, u"C:\\", P, u"C:/", 1},
      {"separator below any unit", P, u"/a/b/", W, u"/a-b\\", -1},
      {"end below a separator", W, u"a\\", P, u"a/b/", -1},
      {"letter case after the parent path", P, u"/A/", W, u"/a\\", 1},
      {"raw units last", W, u"x/y\\", W, u"x\\y\\", -1},
  };
  for (const Case& c : cases) {
    const int r = GlobalOrder::comparePaths(t, c.fa, c.a, c.fb, c.b);
    EXPECT_EQ((r > 0) - (r < 0), c.expected) << c.label;
    const int back = GlobalOrder::comparePaths(t, c.fb, c.b, c.fa, c.a);
    EXPECT_EQ((back > 0) - (back < 0), -c.expected) << c.label << " (swapped)";
  }
}

TEST(ComparePaths, AgreesWithTheSingleFlavorOrder) {
  const auto& t = *table();
  std::mt19937 random(7);
  const std::u16string alphabet = u"aAbB\\/:.-_ é\u00C9\u00DF日\xD83D\xDE00";
  auto text = [&] {
    std::u16string s;
    const int n = static_cast<int>(random() % 7);
    for (int i = 0; i < n; ++i) s += alphabet[random() % alphabet.size()];
    return s;
  };
  for (int i = 0; i < 20000; ++i) {
    const auto flavor = i % 2 == 0 ? PathFlavor::windows : PathFlavor::posix;
    const std::u16string a = text(), b = text();
    const int expected = PathOrder::compare(t, flavor, a, b);
    const int got = GlobalOrder::comparePaths(t, flavor, a, flavor, b);
    ASSERT_EQ((got > 0) - (got < 0), (expected > 0) - (expected < 0)) << utf8(a) << " vs " << utf8(b);
  }
}

}  // namespace
}  // namespace tarv
