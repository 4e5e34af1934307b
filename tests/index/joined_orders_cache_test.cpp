#include "kernel/index/joined_orders_cache.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>
#include <random>

#include "kernel/index/index_file.h"
#include "kernel/index/pending_writes.h"
#include "tests/index/cache_fixture.h"

namespace tarv {
namespace {

using Orders = JoinedOrdersStore::Orders;
using testing::TempDir;

constexpr std::int64_t kTotal = 5000;
const std::vector<SortKey> kKeys = {SortKey::name, SortKey::path, SortKey::size, SortKey::modified};
const std::string kJoinKey = "0123456789abcdef0123456789abcdef";

// Distinct permutations of 0 ..< total, one per key.
Orders permutations(std::int64_t total, std::size_t count, unsigned seed) {
  std::mt19937 random(seed);
  Orders orders;
  for (std::size_t k = 0; k < count; ++k) {
    std::vector<std::int32_t> ids(static_cast<std::size_t>(total));
    std::iota(ids.begin(), ids.end(), 0);
    std::shuffle(ids.begin(), ids.end(), random);
    orders.push_back(Column<std::int32_t>::owned(std::move(ids)));
  }
  return orders;
}

bool sameOrders(const Orders& a, const Orders& b) {
  if (a.size() != b.size()) return false;
  for (std::size_t k = 0; k < a.size(); ++k)
    if (!std::equal(a[k].begin(), a[k].end(), b[k].begin(), b[k].end())) return false;
  return true;
}

class JoinedOrdersCacheTest : public ::testing::Test {
 protected:
  // Obtains through the cache, counting merges, and waits for the background write.
  Orders obtain(const std::string& joinKey, std::vector<SortKey> keys, std::size_t sources, std::int64_t total,
                const Orders& answer) {
    Orders result = cache.obtain(joinKey, keys, sources, total, [&] {
      ++merges;
      return answer;
    });
    EXPECT_TRUE(PendingWrites::waitUntilDone(std::chrono::seconds(20)));
    return result;
  }

  TempDir dir;
  JoinedOrdersCache cache{dir / "cache"};
  Orders merged = permutations(kTotal, kKeys.size(), 7);
  int merges = 0;
};

TEST_F(JoinedOrdersCacheTest, MergedOrdersAreStoredAndMappedNextTime) {
  const Orders first = obtain(kJoinKey, kKeys, 3, kTotal, merged);
  EXPECT_EQ(merges, 1);
  EXPECT_TRUE(sameOrders(first, merged));
  const auto file = dir / "cache" / (kJoinKey + ".tarvidx");
  ASSERT_TRUE(std::filesystem::exists(file));
  EXPECT_EQ(testing::permissionsOf(file), 0600u);
  EXPECT_EQ(testing::permissionsOf(dir / "cache"), 0700u);

  // One Int32 section per key, and the values that identify the join.
  IndexFile::Reader reader(file);
  for (const SortKey key : kKeys) EXPECT_TRUE(reader.has("order." + std::string(sortKeyName(key))));
  EXPECT_EQ(reader.integer("joinSources"), 3);
  EXPECT_EQ(reader.integer("joinTotal"), kTotal);
  EXPECT_EQ(reader.meta().at("joinKey"), kJoinKey);

  testing::ageFile(file, 10 * 86400);
  const Orders second = obtain(kJoinKey, kKeys, 3, kTotal, permutations(kTotal, kKeys.size(), 99));
  EXPECT_EQ(merges, 1) << "mapped, not merged";
  EXPECT_TRUE(sameOrders(second, merged));
  struct stat info {};
  ASSERT_EQ(::stat(file.c_str(), &info), 0);
  EXPECT_LT(std::time(nullptr) - info.st_mtime, 60) << "a mapped file is marked in use";

  // A subset of the stored keys is served from the same file.
  const Orders subset = obtain(kJoinKey, {SortKey::size}, 3, kTotal, merged);
  EXPECT_EQ(merges, 1);
  EXPECT_TRUE(std::equal(subset[0].begin(), subset[0].end(), merged[2].begin(), merged[2].end()));
}

TEST_F(JoinedOrdersCacheTest, NothingIsKeptForOneSourceOrWithoutAJoinKey) {
  obtain(kJoinKey, kKeys, 1, kTotal, merged);
  obtain(kJoinKey, kKeys, 1, kTotal, merged);
  obtain("", kKeys, 2, kTotal, merged);
  EXPECT_EQ(merges, 3);
  EXPECT_FALSE(std::filesystem::exists(dir / "cache"));
}

TEST_F(JoinedOrdersCacheTest, UnusableFilesAreDeletedAndMergedAgain) {
  const auto file = dir / "cache" / (kJoinKey + ".tarvidx");
  // Writes an orders file by hand with the given meta values and columns.
  auto plant = [&](const std::string& joinKey, std::int64_t sources, std::int64_t total, const Orders& orders,
                   const std::vector<SortKey>& keys) {
    std::filesystem::create_directories(dir / "cache");
    IndexFile::Writer writer(file);
    writer.meta()["joinKey"] = joinKey;
    writer.meta()["joinSources"] = sources;
    writer.meta()["joinTotal"] = total;
    for (std::size_t k = 0; k < keys.size(); ++k) writer.add("order." + std::string(sortKeyName(keys[k])), orders[k]);
    writer.finish();
  };
  auto withValue = [&](std::size_t key, std::size_t at, std::int32_t value) {
    Orders copy = merged;
    std::vector<std::int32_t> ids(copy[key].begin(), copy[key].end());
    ids[at] = value;
    copy[key] = Column<std::int32_t>::owned(std::move(ids));
    return copy;
  };
  auto shorter = [&] {
    Orders copy = merged;
    copy[1] = Column<std::int32_t>(copy[1].data(), copy[1].size() - 1, copy[1].owner());
    return copy;
  };

  struct Case {
    const char* label;
    std::function<void()> write;
  } cases[] = {
      {"other join key", [&] { plant("ffffffffffffffffffffffffffffffff", 3, kTotal, merged, kKeys); }},
      {"other source count", [&] { plant(kJoinKey, 2, kTotal, merged, kKeys); }},
      {"other total", [&] { plant(kJoinKey, 3, kTotal + 1, merged, kKeys); }},
      {"key missing", [&] { plant(kJoinKey, 3, kTotal, merged, {SortKey::name, SortKey::path, SortKey::size}); }},
      {"short section", [&] { plant(kJoinKey, 3, kTotal, shorter(), kKeys); }},
      {"id equal to the total", [&] { plant(kJoinKey, 3, kTotal, withValue(2, 4000, kTotal), kKeys); }},
      {"negative id", [&] { plant(kJoinKey, 3, kTotal, withValue(3, 17, -1), kKeys); }},
      {"huge id", [&] { plant(kJoinKey, 3, kTotal, withValue(0, kTotal - 1, 0x7fffffff), kKeys); }},
      {"not an index file", [&] { testing::writeBytes(file, std::string(200, 'x')); }},
      {"truncated", [&] {
         plant(kJoinKey, 3, kTotal, merged, kKeys);
         testing::writeBytes(file, testing::readFile(file).substr(0, 30000));
       }},
  };
  for (const auto& c : cases) {
    c.write();
    merges = 0;
    ::testing::internal::CaptureStderr();
    const Orders orders = obtain(kJoinKey, kKeys, 3, kTotal, merged);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "") << c.label;
    EXPECT_EQ(merges, 1) << c.label;
    EXPECT_TRUE(sameOrders(orders, merged)) << c.label;
    // Rewritten in the background, and usable again.
    obtain(kJoinKey, kKeys, 3, kTotal, merged);
    EXPECT_EQ(merges, 1) << c.label;
  }
}

TEST_F(JoinedOrdersCacheTest, FailedWriteReportsOneLineAndKeepsTheOrders) {
  const auto blocker = dir.write("blocker", "");
  const JoinedOrdersCache blocked(blocker / "cache");
  ::testing::internal::CaptureStderr();
  const Orders orders = blocked.obtain(kJoinKey, kKeys, 2, kTotal, [&] { return merged; });
  ASSERT_TRUE(PendingWrites::waitUntilDone(std::chrono::seconds(20)));
  EXPECT_EQ(::testing::internal::GetCapturedStderr(),
            "Tarv: index file not written (Cannot create cache directory " + blocker.string() +
                ": Not a directory)\n");
  EXPECT_TRUE(sameOrders(orders, merged));
}

}  // namespace
}  // namespace tarv
