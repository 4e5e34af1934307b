// Cache files started while the search index is still being built
// (IndexCache::loadStoring): the file must be exactly the one a plain store()
// writes, appear only complete, be waited for by store(), and never hold up
// a load when it cannot be written.

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <thread>

#include "kernel/index/index_cache.h"
#include "kernel/index/pending_writes.h"
#include "tests/index/cache_fixture.h"

namespace tarv {
namespace {

using testing::entriesOf;
using testing::TempDir;

void expectSameOrders(const IndexCache::Loaded& a, const IndexCache::Loaded& b, const std::string& label) {
  ASSERT_EQ(a.catalog->count(), b.catalog->count()) << label;
  for (const SortKey key : a.index->storedKeys()) {
    const auto x = a.index->order(key).span(), y = b.index->order(key).span();
    EXPECT_TRUE(std::equal(x.begin(), x.end(), y.begin(), y.end())) << label << " " << sortKeyName(key);
  }
}

struct Shape {
  const char* label;
  int files;
  int folders;
};

constexpr Shape kShapes[] = {
    {"a few files", 20, 2},
    {"many chunks of rows", 5000, 30},
    {"folders only", 0, 4},
};

TEST(EarlyStore, WritesTheSameBytesAsAPlainStore) {
  const auto table = testing::shippedTable();
  for (const Shape& shape : kShapes) {
    TempDir dir;
    const auto source = testing::gfindSource(dir.write("disk.gfind", testing::gfindRecords(shape.files, shape.folders)));
    const IndexCache plain{dir / "plain"};
    const IndexCache early{dir / "early"};

    const auto plainLoad = plain.load(source, table);
    EXPECT_EQ(plainLoad.writing, nullptr) << shape.label;
    plain.store(plainLoad);
    const auto earlyLoad = early.loadStoring(source, table);
    EXPECT_NE(earlyLoad.writing, nullptr) << shape.label;
    early.store(earlyLoad);

    ASSERT_EQ(plainLoad.key, earlyLoad.key) << shape.label;
    const std::string plainBytes = testing::readFile(plain.fileOf(plainLoad.key));
    ASSERT_FALSE(plainBytes.empty()) << shape.label;
    EXPECT_TRUE(plainBytes == testing::readFile(early.fileOf(earlyLoad.key))) << shape.label;
    expectSameOrders(plainLoad, earlyLoad, shape.label);
  }
  ASSERT_TRUE(PendingWrites::waitUntilDone(std::chrono::seconds(10)));
}

TEST(EarlyStore, StoreReturnsOnlyOnceTheFileIsInPlace) {
  const auto table = testing::shippedTable();
  TempDir dir;
  const auto source = testing::gfindSource(dir.write("disk.gfind", testing::gfindRecords(3000, 12)));
  const IndexCache cache{dir / "cache"};
  const auto fresh = cache.loadStoring(source, table);
  EXPECT_FALSE(fresh.cached);
  cache.store(fresh);
  // No waiting on the group: store() itself waited for the early write.
  EXPECT_EQ(entriesOf(dir / "cache"), std::vector<std::string>{fresh.key + ".tarvidx"});

  const auto mapped = cache.loadStoring(source, table);
  EXPECT_TRUE(mapped.cached);
  EXPECT_EQ(mapped.writing, nullptr);
  EXPECT_EQ(mapped.fingerprint, fresh.fingerprint);
  expectSameOrders(fresh, mapped, "mapped");
  ASSERT_TRUE(PendingWrites::waitUntilDone(std::chrono::seconds(10)));
}

TEST(EarlyStore, GroupCoversTheWriteUntilTheFileIsInPlace) {
  const auto table = testing::shippedTable();
  TempDir dir;
  const auto source = testing::gfindSource(dir.write("disk.gfind", testing::gfindRecords(2000, 10)));
  const IndexCache cache{dir / "cache"};
  std::string key;
  {
    // The load is dropped at once: the background write owns what it needs.
    const auto fresh = cache.loadStoring(source, table);
    key = fresh.key;
  }
  ASSERT_TRUE(PendingWrites::waitUntilDone(std::chrono::seconds(10)));
  EXPECT_EQ(entriesOf(dir / "cache"), std::vector<std::string>{key + ".tarvidx"});
  EXPECT_TRUE(IndexCache(dir / "cache").load(source, table).cached);
}

TEST(EarlyStore, NothingIsStartedWithoutADirectory) {
  const auto table = testing::shippedTable();
  TempDir dir;
  const auto source = testing::gfindSource(dir.write("disk.gfind", testing::gfindRecords(50)));
  const IndexCache none{std::nullopt};
  const auto loaded = none.loadStoring(source, table);
  EXPECT_FALSE(loaded.cached);
  EXPECT_EQ(loaded.writing, nullptr);
  none.store(loaded);
  ASSERT_TRUE(PendingWrites::waitUntilDone(std::chrono::seconds(10)));
  EXPECT_EQ(entriesOf(dir.path()), std::vector<std::string>{"disk.gfind"});
}

TEST(EarlyStore, AWriteThatFailsReportsOnceAndKeepsTheLoad) {
  const auto table = testing::shippedTable();
  struct Case {
    const char* label;
    std::function<std::filesystem::path(TempDir&)> directory;
  };
  const Case cases[] = {
      {"a file where the directory should be", [](TempDir& d) { return d.write("blocker", "x"); }},
      {"a file where a parent should be", [](TempDir& d) { return d.write("parent", "x") / "cache"; }},
  };
  for (const Case& c : cases) {
    TempDir dir;
    const auto source = testing::gfindSource(dir.write("disk.gfind", testing::gfindRecords(400, 5)));
    const IndexCache cache{c.directory(dir)};
    ::testing::internal::CaptureStderr();
    const auto loaded = cache.loadStoring(source, table);
    cache.store(loaded);
    ASSERT_TRUE(PendingWrites::waitUntilDone(std::chrono::seconds(10))) << c.label;
    const std::string errors = ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(loaded.catalog->count(), 405) << c.label;
    ASSERT_NE(loaded.index, nullptr) << c.label;
    EXPECT_EQ(loaded.index->order(SortKey::name).size(), 405u) << c.label;
    // One failed write, one line, however many times store() is asked.
    const std::string line = "Tarv: index file not written (";
    EXPECT_EQ(errors.find(line), 0u) << c.label << ": " << errors;
    EXPECT_EQ(errors.find(line, 1), std::string::npos) << c.label << ": " << errors;
  }
}

TEST(EarlyStore, ParallelLoadsOfOneSourceLeaveOneCompleteFile) {
  const auto table = testing::shippedTable();
  TempDir dir;
  const auto source = testing::gfindSource(dir.write("disk.gfind", testing::gfindRecords(2500, 9)));
  const IndexCache cache{dir / "cache"};
  std::vector<IndexCache::Loaded> loads(3);
  std::vector<std::thread> threads;
  for (auto& slot : loads) threads.emplace_back([&] { slot = cache.loadStoring(source, table); });
  for (auto& t : threads) t.join();
  for (const auto& loaded : loads) cache.store(loaded);
  ASSERT_TRUE(PendingWrites::waitUntilDone(std::chrono::seconds(20)));
  EXPECT_EQ(entriesOf(dir / "cache"), std::vector<std::string>{loads[0].key + ".tarvidx"});
  const auto mapped = cache.load(source, table);
  ASSERT_TRUE(mapped.cached);
  for (const auto& loaded : loads) expectSameOrders(loaded, mapped, "parallel");
}

}  // namespace
}  // namespace tarv
