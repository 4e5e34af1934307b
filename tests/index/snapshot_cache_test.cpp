// Snapshots loading through the index cache: what a second snapshot of the
// same configuration maps, and that it searches exactly like the first.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>

#include "kernel/index/index_cache.h"
#include "kernel/index/index_snapshot.h"
#include "kernel/index/joined_orders_cache.h"
#include "kernel/index/pending_writes.h"
#include "tests/index/cache_fixture.h"

namespace tarv {
namespace {

using testing::TempDir;

std::vector<std::int32_t> idsOf(const IndexSnapshot& snapshot, const std::string& query, const std::string& sort) {
  const auto result = snapshot.search().search(query, sort);
  return {result.ids.begin(), result.ids.end()};
}

// What the snapshot's joined search asks its orders store for.
JoinedOrdersStore::Request joinRequest(const IndexSnapshot& snapshot) {
  JoinedOrdersStore::Request request{snapshot.search().joinKey(), snapshot.search().storedKeys(),
                                     snapshot.search().total(), {}};
  for (const auto& index : snapshot.search().indexes())
    request.parentCounts.push_back(static_cast<std::int64_t>(index->parentRanks().size()));
  return request;
}

class SnapshotCacheTest : public ::testing::Test {
 protected:
  Configuration twoSources() const {
    Configuration configuration;
    configuration.sources.push_back(testing::gfindSource(dir / "one.gfind", "one"));
    configuration.sources.push_back(testing::gfindSource(dir / "two.gfind", "two"));
    configuration.sources[1].root = "/mnt";
    return configuration;
  }

  TempDir dir;
  std::filesystem::path cacheDir = dir / "cache";
  std::filesystem::path one = dir.write("one.gfind", testing::gfindRecords(400, 6, "x"));
  std::filesystem::path two = dir.write("two.gfind", testing::gfindRecords(250, 5, "y"));
};

TEST_F(SnapshotCacheTest, SecondSnapshotMapsSourcesAndJoinedOrders) {
  testing::ScopedVariable cache("TARV_INDEX_CACHE", cacheDir.string());
  const Configuration configuration = twoSources();
  const IndexSnapshot first(configuration, testing::shippedTable());
  IndexSnapshot::finishWrites();
  EXPECT_EQ(PendingWrites::count(), 0);

  // Two source files and the joined orders, named by their keys.
  const IndexCache files(cacheDir);
  const std::string joined = first.search().joinKey();
  for (const std::string& key : {first.keys()[0], first.keys()[1], joined}) {
    ASSERT_TRUE(std::filesystem::exists(files.fileOf(key))) << key;
    testing::ageFile(files.fileOf(key), 5 * 86400);
  }
  ASSERT_TRUE(JoinedOrdersCache(cacheDir).map(joinRequest(first)).has_value());

  const IndexSnapshot second(configuration, testing::shippedTable());
  IndexSnapshot::finishWrites();
  EXPECT_EQ(second.keys(), first.keys());
  EXPECT_EQ(second.fingerprints(), first.fingerprints());
  EXPECT_EQ(second.counts(), first.counts());
  EXPECT_EQ(second.search().joinKey(), joined);
  // Mapping marks every file in use.
  for (const std::string& key : {first.keys()[0], first.keys()[1], joined}) {
    struct stat info {};
    ASSERT_EQ(::stat(files.fileOf(key).c_str(), &info), 0);
    EXPECT_LT(std::time(nullptr) - info.st_mtime, 3600) << key;
  }
  for (const std::string& sort : JoinedSearch::sorts())
    for (const std::string query : {"", "file1", "ext:txt", "size:>5kb"})
      EXPECT_EQ(idsOf(second, query, sort), idsOf(first, query, sort)) << sort << " " << query;
}

TEST_F(SnapshotCacheTest, StoredJoinedOrdersAreWhatTheNextSnapshotSearches) {
  testing::ScopedVariable cache("TARV_INDEX_CACHE", cacheDir.string());
  const IndexSnapshot first(twoSources(), testing::shippedTable());
  IndexSnapshot::finishWrites();
  // Replace the stored orders with their reverses: a snapshot that maps them
  // (rather than merging again) returns every row backwards.
  const JoinedOrdersCache orders(cacheDir);
  const auto request = joinRequest(first);
  auto planted = orders.map(request);
  ASSERT_TRUE(planted.has_value());
  for (auto& order : planted->orders) order = Column<std::int32_t>::owned({order.span().rbegin(), order.span().rend()});
  std::filesystem::remove(orders.fileOf(request.joinKey));
  orders.store(request, *planted);

  const IndexSnapshot second(twoSources(), testing::shippedTable());
  IndexSnapshot::finishWrites();
  for (const std::string sort : {"name-asc", "size-asc", "date-modified-asc"}) {
    auto expected = idsOf(first, "", sort);
    std::reverse(expected.begin(), expected.end());
    EXPECT_EQ(idsOf(second, "", sort), expected) << sort;
  }
}

TEST_F(SnapshotCacheTest, ChangingOneSourceRebuildsOnlyItAndTheJoin) {
  testing::ScopedVariable cache("TARV_INDEX_CACHE", cacheDir.string());
  const IndexSnapshot first(twoSources(), testing::shippedTable());
  IndexSnapshot::finishWrites();
  testing::writeBytes(two, testing::gfindRecords(260, 5, "z"));
  const IndexSnapshot second(twoSources(), testing::shippedTable());
  IndexSnapshot::finishWrites();
  EXPECT_EQ(second.keys()[0], first.keys()[0]);
  EXPECT_NE(second.keys()[1], first.keys()[1]);
  EXPECT_NE(second.search().joinKey(), first.search().joinKey());
  EXPECT_EQ(second.counts()[1], first.counts()[1] + 10);
  // The new global order agrees with a load that never saw a cache.
  testing::ScopedVariable none("TARV_INDEX_CACHE", std::nullopt);
  const IndexSnapshot uncached(twoSources(), testing::shippedTable());
  for (const std::string sort : {"name-asc", "path-desc", "size-asc", "date-modified-desc"})
    EXPECT_EQ(idsOf(second, "", sort), idsOf(uncached, "", sort)) << sort;
}

// A store that hands back whatever it was given, without checking it.
class HandingStore final : public JoinedOrdersStore {
 public:
  explicit HandingStore(Joined joined) : joined_(std::move(joined)) {}
  Joined obtain(const Request&, const std::function<Joined()>&) const override { return joined_; }

 private:
  Joined joined_;
};

TEST_F(SnapshotCacheTest, RanksThatDoNotFitAreNeverTrusted) {
  testing::ScopedVariable none("TARV_INDEX_CACHE", std::nullopt);
  const IndexSnapshot plain(twoSources(), testing::shippedTable());
  const JoinedSearch& search = plain.search();
  JoinedOrdersStore::Joined reversed;
  for (const SortKey key : search.storedKeys()) {
    const Column<std::int32_t> order = search.order(key);
    reversed.orders.push_back(Column<std::int32_t>::owned({order.span().rbegin(), order.span().rend()}));
  }
  std::vector<std::int32_t> tooMany(search.indexes()[0]->parentRanks().size() + 1, 0);
  const std::vector<std::int32_t> zeros(search.indexes()[1]->parentRanks().size(), 0);
  struct Case {
    const char* label;
    JoinedOrdersStore::Orders ranks;
  } cases[] = {
      {"one source's ranks missing", {Column<std::int32_t>::owned(zeros)}},
      {"too many ranks", {Column<std::int32_t>::owned(tooMany), Column<std::int32_t>::owned(zeros)}},
  };
  for (const auto& c : cases) {
    const HandingStore store({reversed.orders, c.ranks});
    const JoinedSearch joined(search.sources(), search.indexes(), search.cacheKeys(), testing::shippedTable(),
                              JoinedSearch::Tuning(), &store);
    for (const std::string sort : {"name-asc", "path-asc", "size-desc"}) {
      const auto expected = search.search("", sort), actual = joined.search("", sort);
      EXPECT_TRUE(std::equal(actual.ids.begin(), actual.ids.end(), expected.ids.begin(), expected.ids.end()))
          << c.label << " " << sort;
    }
  }
  // Ranks of the right shape are taken without reading them (that would be a
  // pass over every parent at load). They are only compared, so values out
  // of range give some order of the same rows, nothing worse.
  const std::vector<std::int32_t> negative(tooMany.size() - 1, -1);
  const HandingStore store({reversed.orders, {Column<std::int32_t>::owned(negative), Column<std::int32_t>::owned(zeros)}});
  const JoinedSearch joined(search.sources(), search.indexes(), search.cacheKeys(), testing::shippedTable(),
                            JoinedSearch::Tuning(), &store);
  for (const std::string sort : {"name-asc", "path-asc", "size-desc", "volume-label-asc"}) {
    const auto expected = search.search("", sort), actual = joined.search("", sort);
    std::vector<std::int32_t> a(actual.ids.begin(), actual.ids.end()), e(expected.ids.begin(), expected.ids.end());
    std::sort(a.begin(), a.end());
    std::sort(e.begin(), e.end());
    EXPECT_EQ(a, e) << sort;
  }
}

}  // namespace
}  // namespace tarv
