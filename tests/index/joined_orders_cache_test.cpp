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
using Joined = JoinedOrdersStore::Joined;
using Request = JoinedOrdersStore::Request;
using testing::TempDir;

constexpr std::int64_t kTotal = 5000;
const std::vector<SortKey> kKeys = {SortKey::name, SortKey::path, SortKey::size, SortKey::modified};
const std::string kJoinKey = "0123456789abcdef0123456789abcdef";
const std::vector<std::int64_t> kParents = {40, 25, 35};  // three sources, 100 parent texts

Request request(std::string joinKey = kJoinKey, std::vector<SortKey> keys = kKeys,
                std::vector<std::int64_t> parents = kParents, std::int64_t total = kTotal) {
  return {std::move(joinKey), std::move(keys), total, std::move(parents)};
}

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

bool same(const Joined& a, const Joined& b) {
  return sameOrders(a.orders, b.orders) && sameOrders(a.parentRanks, b.parentRanks);
}

// Orders for kTotal rows and ranks for kParents texts (ranks shared between
// sources, as equal texts of two sources share one).
Joined derived(unsigned seed) {
  Joined joined{permutations(kTotal, kKeys.size(), seed), {}};
  std::mt19937 random(seed);
  for (const std::int64_t count : kParents) {
    std::vector<std::int32_t> ranks(static_cast<std::size_t>(count));
    for (auto& rank : ranks) rank = static_cast<std::int32_t>(random() % 100);
    joined.parentRanks.push_back(Column<std::int32_t>::owned(std::move(ranks)));
  }
  return joined;
}

class JoinedOrdersCacheTest : public ::testing::Test {
 protected:
  // Obtains through the cache, counting merges, and waits for the background write.
  Joined obtain(const Request& asked, const Joined& answer) {
    Joined result = cache.obtain(asked, [&] {
      ++merges;
      return answer;
    });
    EXPECT_TRUE(PendingWrites::waitUntilDone(std::chrono::seconds(20)));
    return result;
  }

  TempDir dir;
  JoinedOrdersCache cache{dir / "cache"};
  Joined merged = derived(7);
  int merges = 0;
};

TEST_F(JoinedOrdersCacheTest, MergedStateIsStoredAndMappedNextTime) {
  const Joined first = obtain(request(), merged);
  EXPECT_EQ(merges, 1);
  EXPECT_TRUE(same(first, merged));
  const auto file = dir / "cache" / (kJoinKey + ".tarvidx");
  ASSERT_TRUE(std::filesystem::exists(file));
  EXPECT_EQ(testing::permissionsOf(file), 0600u);
  EXPECT_EQ(testing::permissionsOf(dir / "cache"), 0700u);

  // One Int32 section per key and per source, and the values that identify the join.
  IndexFile::Reader reader(file);
  for (const SortKey key : kKeys) EXPECT_TRUE(reader.has("order." + std::string(sortKeyName(key))));
  for (const char* ranks : {"parentRanks.0", "parentRanks.1", "parentRanks.2"}) EXPECT_TRUE(reader.has(ranks));
  EXPECT_EQ(reader.integer("joinSources"), 3);
  EXPECT_EQ(reader.integer("joinTotal"), kTotal);
  EXPECT_EQ(reader.meta().at("joinKey"), kJoinKey);

  testing::ageFile(file, 10 * 86400);
  const Joined second = obtain(request(), derived(99));
  EXPECT_EQ(merges, 1) << "mapped, not merged";
  EXPECT_TRUE(same(second, merged));
  struct stat info {};
  ASSERT_EQ(::stat(file.c_str(), &info), 0);
  EXPECT_LT(std::time(nullptr) - info.st_mtime, 60) << "a mapped file is marked in use";

  // A subset of the stored keys is served from the same file.
  const Joined subset = obtain(request(kJoinKey, {SortKey::size}), merged);
  EXPECT_EQ(merges, 1);
  EXPECT_TRUE(std::equal(subset.orders[0].begin(), subset.orders[0].end(), merged.orders[2].begin(),
                         merged.orders[2].end()));
}

TEST_F(JoinedOrdersCacheTest, NothingIsKeptForOneSourceOrWithoutAJoinKey) {
  obtain(request(kJoinKey, kKeys, {100}), merged);
  obtain(request(kJoinKey, kKeys, {100}), merged);
  obtain(request(""), merged);
  EXPECT_EQ(merges, 3);
  EXPECT_FALSE(std::filesystem::exists(dir / "cache"));
}

TEST_F(JoinedOrdersCacheTest, MisshapenFilesAreDeletedAndMergedAgain) {
  const auto file = dir / "cache" / (kJoinKey + ".tarvidx");
  // Writes a file by hand with the given meta values and columns.
  auto plant = [&](const std::string& joinKey, std::int64_t sources, std::int64_t total, const Joined& joined,
                   const std::vector<SortKey>& keys) {
    std::filesystem::create_directories(dir / "cache");
    IndexFile::Writer writer(file);
    writer.meta()["joinKey"] = joinKey;
    writer.meta()["joinSources"] = sources;
    writer.meta()["joinTotal"] = total;
    for (std::size_t k = 0; k < keys.size(); ++k)
      writer.add("order." + std::string(sortKeyName(keys[k])), joined.orders[k]);
    for (std::size_t s = 0; s < joined.parentRanks.size(); ++s)
      writer.add("parentRanks." + std::to_string(s), joined.parentRanks[s]);
    writer.finish();
  };
  auto withValue = [&](Orders Joined::*part, std::size_t column, std::size_t at, std::int32_t value) {
    Joined copy = merged;
    std::vector<std::int32_t> values((copy.*part)[column].begin(), (copy.*part)[column].end());
    values[at] = value;
    (copy.*part)[column] = Column<std::int32_t>::owned(std::move(values));
    return copy;
  };
  auto shorter = [&](Orders Joined::*part, std::size_t column) {
    Joined copy = merged;
    const auto& values = (copy.*part)[column];
    (copy.*part)[column] = Column<std::int32_t>(values.data(), values.size() - 1, values.owner());
    return copy;
  };
  auto withoutLastRanks = [&] {
    Joined copy = merged;
    copy.parentRanks.pop_back();
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
      {"short order", [&] { plant(kJoinKey, 3, kTotal, shorter(&Joined::orders, 1), kKeys); }},
      {"ranks of a source missing", [&] { plant(kJoinKey, 3, kTotal, withoutLastRanks(), kKeys); }},
      {"short ranks", [&] { plant(kJoinKey, 3, kTotal, shorter(&Joined::parentRanks, 0), kKeys); }},
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
    const Joined joined = obtain(request(), merged);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "") << c.label;
    EXPECT_EQ(merges, 1) << c.label;
    EXPECT_TRUE(same(joined, merged)) << c.label;
    // Rewritten in the background, and usable again.
    obtain(request(), merged);
    EXPECT_EQ(merges, 1) << c.label;
  }

  // Values are not read when a file is mapped (that would be a pass over
  // every id): out-of-range ids and ranks are handed over as stored, for
  // their users to check where they use them.
  struct Value {
    const char* label;
    Orders Joined::*part;
    std::size_t column, at;
    std::int32_t value;
  } values[] = {
      {"id equal to the total", &Joined::orders, 2, 4000, static_cast<std::int32_t>(kTotal)},
      {"negative id", &Joined::orders, 3, 17, -1},
      {"huge id", &Joined::orders, 0, kTotal - 1, 0x7fffffff},
      {"rank past the parent texts", &Joined::parentRanks, 1, 3, 100},
      {"negative rank", &Joined::parentRanks, 2, 0, -5},
  };
  for (const auto& v : values) {
    const Joined damaged = withValue(v.part, v.column, v.at, v.value);
    plant(kJoinKey, 3, kTotal, damaged, kKeys);
    merges = 0;
    const Joined joined = obtain(request(), merged);
    EXPECT_EQ(merges, 0) << v.label;
    EXPECT_EQ((joined.*v.part)[v.column][v.at], v.value) << v.label;
    EXPECT_TRUE(same(joined, damaged)) << v.label;
  }
}

TEST_F(JoinedOrdersCacheTest, FailedWriteReportsOneLineAndKeepsTheState) {
  const auto blocker = dir.write("blocker", "");
  const JoinedOrdersCache blocked(blocker / "cache");
  ::testing::internal::CaptureStderr();
  const Joined joined = blocked.obtain(request(), [&] { return merged; });
  ASSERT_TRUE(PendingWrites::waitUntilDone(std::chrono::seconds(20)));
  EXPECT_EQ(::testing::internal::GetCapturedStderr(),
            "Tarv: index file not written (Cannot create cache directory " + blocker.string() +
                ": Not a directory)\n");
  EXPECT_TRUE(same(joined, merged));
}

}  // namespace
}  // namespace tarv
