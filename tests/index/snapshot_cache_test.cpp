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
  const auto& keys = first.search().storedKeys();
  const std::int64_t total = first.search().total();
  ASSERT_TRUE(JoinedOrdersCache(cacheDir).map(joined, keys, 2, total).has_value());

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
  const std::string joined = first.search().joinKey();
  const auto& keys = first.search().storedKeys();
  JoinedOrdersStore::Orders planted;
  for (const SortKey key : keys) {
    const Column<std::int32_t> order = first.search().order(key);
    planted.push_back(Column<std::int32_t>::owned({order.span().rbegin(), order.span().rend()}));
  }
  std::filesystem::remove(orders.fileOf(joined));
  orders.store(joined, keys, 2, first.search().total(), planted);

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

}  // namespace
}  // namespace tarv
