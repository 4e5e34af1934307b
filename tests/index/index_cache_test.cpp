#include "kernel/index/index_cache.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <thread>

#include "kernel/base/sha256.h"
#include "kernel/catalog/catalog_file.h"
#include "kernel/index/index_file.h"
#include "kernel/index/pending_writes.h"
#include "tests/index/cache_fixture.h"

namespace tarv {
namespace {

using namespace std::string_literals;
using testing::entriesOf;
using testing::TempDir;

// Everything a search can see of a loaded source, for comparing loads.
void expectSameLoad(const IndexCache::Loaded& a, const IndexCache::Loaded& b) {
  ASSERT_EQ(a.catalog->count(), b.catalog->count());
  EXPECT_EQ(a.fingerprint, b.fingerprint);
  EXPECT_EQ(a.key, b.key);
  for (std::int32_t row = 0; row < a.catalog->count(); ++row) {
    ASSERT_EQ(a.catalog->displayPath(row), b.catalog->displayPath(row)) << row;
    ASSERT_EQ(a.catalog->sizeBytes(row), b.catalog->sizeBytes(row)) << row;
    ASSERT_EQ(a.catalog->deviceName(row), b.catalog->deviceName(row)) << row;
  }
  for (const SortKey key : {SortKey::name, SortKey::path, SortKey::size, SortKey::modified}) {
    const auto x = a.index->order(key).span(), y = b.index->order(key).span();
    EXPECT_TRUE(std::equal(x.begin(), x.end(), y.begin(), y.end())) << sortKeyName(key);
  }
}

class IndexCacheTest : public ::testing::Test {
 protected:
  TempDir dir;
  std::filesystem::path cacheDir = dir / "cache";
  std::filesystem::path sourceFile = dir.write("disk.gfind", testing::gfindRecords(300));
  Configuration::Source source = testing::gfindSource(sourceFile);
  std::shared_ptr<const Compatibility> table = testing::shippedTable();
};

TEST(IndexCacheDirectory, OnlyAbsoluteValuesNameACache) {
  struct Case {
    const char* label;
    std::optional<std::string> value;
    std::optional<std::filesystem::path> expected;
  } cases[] = {
      {"unset", std::nullopt, std::nullopt},
      {"empty", "", std::nullopt},
      {"relative", "cache/here", std::nullopt},
      {"dot relative", "./cache", std::nullopt},
      {"tilde is not expanded", "~/cache", std::nullopt},
      {"absolute", "/var/tmp/tarv-cache", std::filesystem::path("/var/tmp/tarv-cache")},
      {"root", "/", std::filesystem::path("/")},
  };
  for (const auto& c : cases) {
    testing::ScopedVariable variable("TARV_INDEX_CACHE", c.value);
    EXPECT_EQ(IndexCache::environmentDirectory(), c.expected) << c.label;
    EXPECT_EQ(IndexCache().directory(), c.expected) << c.label;
  }
}

TEST_F(IndexCacheTest, WithoutCacheEveryLoadIsFreshAndNothingIsWritten) {
  for (const std::optional<std::string>& value : {std::optional<std::string>(), std::optional<std::string>("cache")}) {
    testing::ScopedVariable variable("TARV_INDEX_CACHE", value);
    // A relative value must not be taken relative to the working directory.
    const std::string previous = std::filesystem::current_path().string();
    std::filesystem::current_path(dir.path());
    const IndexCache cache;
    const auto first = cache.load(source, table);
    cache.store(first);
    cache.storeInBackground({first}, {first.key});
    ASSERT_TRUE(PendingWrites::waitUntilDone(std::chrono::seconds(10)));
    const auto second = cache.load(source, table);
    std::filesystem::current_path(previous);
    EXPECT_FALSE(first.cached);
    EXPECT_FALSE(second.cached);
    EXPECT_EQ(first.key.size(), 32u);  // the key exists even without a cache
    EXPECT_EQ(entriesOf(dir.path()), std::vector<std::string>{"disk.gfind"}) << value.value_or("unset");
  }
}

TEST_F(IndexCacheTest, KeyIsTheDigestOfTheTwelveValues) {
  struct stat info {};
  ASSERT_EQ(::stat(sourceFile.c_str(), &info), 0);
  source.virtualDirectory = "D:\\share";
  // Written out by hand: compact, forward slashes escaped, in this order.
  std::string escapedPath;
  for (char c : sourceFile.string()) escapedPath += c == '/' ? "\\/"s : std::string(1, c);
  const std::string text = "[4,\"" + escapedPath + "\"," + std::to_string(info.st_size) + "," +
                           std::to_string(info.st_mtim.tv_sec) + "," + std::to_string(info.st_mtim.tv_nsec) + "," +
                           std::to_string(info.st_ino) + "," + std::to_string(info.st_dev) +
                           ",\"disk\",\"gfind7\",\"\\/\",\"D:\\\\share\",\"" + table->fingerprint() + "\"]";
  Sha256 digest;
  digest.update(text.data(), text.size());
  EXPECT_EQ(IndexCache::key(source, *table), digest.finishHex().substr(0, 32));
}

TEST_F(IndexCacheTest, KeyFollowsTheFileAndTheDeclarationButNotTheLabel) {
  const std::string base = IndexCache::key(source, *table);
  EXPECT_EQ(base.size(), 32u);
  EXPECT_EQ(base.find_first_not_of("0123456789abcdef"), std::string::npos);
  auto other = Compatibility::fromTables(table->searchTable(), table->orderTable(), table->letterCaseTable());

  struct Case {
    const char* label;
    std::function<void(Configuration::Source&)> change;
    bool sameKey;
  } cases[] = {
      {"label", [](auto& s) { s.label = "Renamed"; }, true},
      {"device labels", [](auto& s) { s.deviceLabels = {{"2049", "Other"}}; }, true},
      {"state and scan date", [](auto& s) { s.state = "partial", s.scannedAt = "2026-01-01T00:00:00Z"; }, true},
      {"empty virtual directory reads as none", [](auto& s) { s.virtualDirectory = ""; }, true},
      {"root", [](auto& s) { s.root = "/mnt"; }, false},
      {"format", [](auto& s) { s.format = "gfind"; }, false},
      {"id", [](auto& s) { s.id = "disk2"; }, false},
      {"virtual directory", [](auto& s) { s.virtualDirectory = "E:\\x"; }, false},
  };
  for (const auto& c : cases) {
    Configuration::Source changed = source;
    c.change(changed);
    EXPECT_EQ(IndexCache::key(changed, *table) == base, c.sameKey) << c.label;
  }
  EXPECT_NE(IndexCache::key(source, *other), base) << "comparison table";

  // A copy of the file elsewhere (same bytes, other path and inode).
  const auto copy = dir.write("copy.gfind", testing::readFile(sourceFile));
  Configuration::Source copied = source;
  copied.file = copy;
  EXPECT_NE(IndexCache::key(copied, *table), base) << "other file";

  // A touch: same bytes, new modification time; nanoseconds alone count too.
  testing::ageFile(sourceFile, 100, 0);
  const std::string touched = IndexCache::key(source, *table);
  EXPECT_NE(touched, base) << "touch";
  testing::ageFile(sourceFile, 100, 1);
  EXPECT_NE(IndexCache::key(source, *table), touched) << "nanoseconds";
}

TEST_F(IndexCacheTest, UnreadableSourceFailsWithItsId) {
  source.file = dir / "missing.gfind";
  EXPECT_EQ(testing::errorOf([&] { IndexCache::key(source, *table); }), "Cannot read source disk");
  const IndexCache cache(cacheDir);
  EXPECT_EQ(testing::errorOf([&] { cache.load(source, table); }), "Cannot read source disk");
}

TEST_F(IndexCacheTest, StoredLoadIsMappedNextTime) {
  const IndexCache cache(cacheDir / "nested" / "deeper");
  const auto fresh = cache.load(source, table);
  EXPECT_FALSE(fresh.cached);
  EXPECT_EQ(fresh.fingerprint, Configuration::sha256(sourceFile));
  EXPECT_EQ(fresh.catalog->deviceName(fresh.catalog->count() - 1), "Data disk");

  ::testing::internal::CaptureStderr();
  cache.store(fresh);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
  const auto file = cache.fileOf(fresh.key);
  ASSERT_TRUE(std::filesystem::exists(file));
  EXPECT_EQ(entriesOf(*cache.directory()), std::vector<std::string>{fresh.key + ".tarvidx"});
  EXPECT_EQ(testing::permissionsOf(file), 0600u);
  for (const auto& folder : {cacheDir, cacheDir / "nested", cacheDir / "nested" / "deeper"})
    EXPECT_EQ(testing::permissionsOf(folder), 0700u) << folder;

  // The mapped load touches its file so pruning sees it in use.
  testing::ageFile(file, 10 * 86400);
  const auto mapped = cache.load(source, table);
  EXPECT_TRUE(mapped.cached);
  expectSameLoad(fresh, mapped);
  struct stat info {};
  ASSERT_EQ(::stat(file.c_str(), &info), 0);
  EXPECT_LT(std::time(nullptr) - info.st_mtime, 60);

  // Storing a cached load writes nothing.
  std::filesystem::remove(file);
  cache.store(mapped);
  EXPECT_FALSE(std::filesystem::exists(file));
}

TEST_F(IndexCacheTest, CachedLoadTakesTheCurrentLabels) {
  const IndexCache cache(cacheDir);
  cache.store(cache.load(source, table));
  struct Case {
    const char* label;
    std::map<std::string, std::string> labels;
    std::optional<std::string> expected;
  } cases[] = {
      {"renamed", {{"2049", "Renamed disk"}}, "Renamed disk"},
      {"removed", {}, std::nullopt},
      {"other device only", {{"7", "Seven"}}, std::nullopt},
  };
  for (const auto& c : cases) {
    source.deviceLabels = c.labels;
    const auto loaded = cache.load(source, table);
    ASSERT_TRUE(loaded.cached) << c.label;
    const auto& catalog = *loaded.catalog;
    std::int32_t fileRow = -1;
    for (std::int32_t row = 0; row < catalog.count() && fileRow < 0; ++row)
      if (catalog.displayPath(row) == "/data/dir0a/file0a.txt") fileRow = row;
    ASSERT_GE(fileRow, 0);
    EXPECT_EQ(catalog.deviceName(fileRow), c.expected) << c.label;
  }
}

TEST_F(IndexCacheTest, TouchedSourceLoadsFreshAndItsOldFileIsPrunedAfterThreeDays) {
  const IndexCache cache(cacheDir);
  const auto first = cache.load(source, table);
  cache.store(first);
  testing::ageFile(sourceFile, 50);
  const auto second = cache.load(source, table);
  EXPECT_FALSE(second.cached);
  EXPECT_NE(second.key, first.key);
  EXPECT_EQ(second.fingerprint, first.fingerprint);
  cache.store(second);

  // Recently used: survives although its key is gone.
  cache.pruneStale({second.key});
  EXPECT_TRUE(std::filesystem::exists(cache.fileOf(first.key)));
  testing::ageFile(cache.fileOf(first.key), 259'200 - 120);
  cache.pruneStale({second.key});
  EXPECT_TRUE(std::filesystem::exists(cache.fileOf(first.key))) << "just under three days";
  testing::ageFile(cache.fileOf(first.key), 259'200 + 120);
  testing::ageFile(cache.fileOf(second.key), 30 * 86400);
  cache.pruneStale({second.key});
  EXPECT_FALSE(std::filesystem::exists(cache.fileOf(first.key))) << "over three days";
  EXPECT_TRUE(std::filesystem::exists(cache.fileOf(second.key))) << "kept keys survive any age";
}

TEST_F(IndexCacheTest, PruneLooksOnlyAtIndexNames) {
  const IndexCache cache(cacheDir);
  createCacheDirectory(cacheDir);
  struct Case {
    const char* name;
    long age;
    bool survives;
  } cases[] = {
      {"old.tarvidx", 4 * 86400, false},
      {"old.tarvidx.partial", 4 * 86400, false},
      {"new.tarvidx", 3600, true},
      {"new.tarvidx.partial", 3600, true},
      {"kept.tarvidx", 40 * 86400, true},
      {"kept.tarvidx.partial", 40 * 86400, true},
      {"notes.txt", 40 * 86400, true},
      {"old.tarvidxx", 40 * 86400, true},
      {"old.tarvidx.bak", 40 * 86400, true},
      {".tarvidx", 40 * 86400, false},
  };
  for (const auto& c : cases) {
    testing::writeBytes(cacheDir / c.name, "x");
    testing::ageFile(cacheDir / c.name, c.age);
  }
  cache.pruneStale({"kept"});
  for (const auto& c : cases) EXPECT_EQ(std::filesystem::exists(cacheDir / c.name), c.survives) << c.name;
  // A missing directory is no error.
  IndexCache(dir / "absent").pruneStale({});
}

// Writes an index file by hand under `file`: the given meta, then optionally
// the catalog and index sections of `loaded`.
void writeIndexFile(const std::filesystem::path& file, const json::Value& meta, const IndexCache::Loaded& catalogOf,
                    const IndexCache::Loaded* indexOf) {
  IndexFile::Writer writer(file);
  for (const auto& [name, value] : meta.items()) writer.meta()[name] = value;
  writeCatalog(writer, *catalogOf.catalog);
  if (indexOf) indexOf->index->write(writer);
  writer.finish();
}

TEST_F(IndexCacheTest, UnusableCacheFilesAreDeletedAndRebuiltSilently) {
  const IndexCache cache(cacheDir);
  const auto fresh = cache.load(source, table);
  cache.store(fresh);
  const auto file = cache.fileOf(fresh.key);
  const std::string valid = testing::readFile(file);
  ASSERT_GT(valid.size(), 1000u);
  const auto otherFile = dir.write("other.gfind", testing::gfindRecords(40, 3, "b"));
  const auto other = IndexCache(std::nullopt).load(testing::gfindSource(otherFile), table);

  std::string wrongMagic = valid;
  wrongMagic[3] = 'X';
  std::string badTrailer = valid;
  badTrailer.back() = '#';
  std::string hugeOffset = valid;
  hugeOffset[15] = '\x7f';

  struct Case {
    const char* label;
    std::function<void()> plant;
  } cases[] = {
      {"empty", [&] { testing::writeBytes(file, ""); }},
      {"15 bytes", [&] { testing::writeBytes(file, valid.substr(0, 15)); }},
      {"truncated", [&] { testing::writeBytes(file, valid.substr(0, valid.size() / 2)); }},
      {"truncated trailer", [&] { testing::writeBytes(file, valid.substr(0, valid.size() - 3)); }},
      {"wrong magic", [&] { testing::writeBytes(file, wrongMagic); }},
      {"trailer not JSON", [&] { testing::writeBytes(file, badTrailer); }},
      {"trailer offset past the end", [&] { testing::writeBytes(file, hugeOffset); }},
      {"without fingerprint", [&] { writeIndexFile(file, json::Value::object(), fresh, &fresh); }},
      {"fingerprint not a string", [&] { writeIndexFile(file, {{"fingerprint", 5}}, fresh, &fresh); }},
      {"catalog without index", [&] { writeIndexFile(file, {{"fingerprint", fresh.fingerprint}}, fresh, nullptr); }},
      {"index of another catalog",
       [&] { writeIndexFile(file, {{"fingerprint", fresh.fingerprint}}, other, &fresh); }},
  };
  for (const auto& c : cases) {
    c.plant();
    ::testing::internal::CaptureStderr();
    const auto loaded = cache.load(source, table);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "") << c.label;
    EXPECT_FALSE(loaded.cached) << c.label;
    EXPECT_FALSE(std::filesystem::exists(file)) << c.label;
    EXPECT_EQ(loaded.catalog->count(), fresh.catalog->count()) << c.label;
    cache.store(loaded);
    const auto again = cache.load(source, table);
    EXPECT_TRUE(again.cached) << c.label;
    expectSameLoad(fresh, again);
  }
}

TEST_F(IndexCacheTest, FailedWriteReportsOneLineAndTheLoadStillAnswers) {
  const auto blocker = dir.write("blocker", "not a folder");
  struct Case {
    const char* label;
    std::filesystem::path directory;
    std::function<void(const std::string& key)> plant;
    std::string expected;
  } cases[] = {
      {"cache folder below a file", blocker / "cache", [](const std::string&) {},
       "Tarv: index file not written (Cannot create cache directory " + blocker.string() + ": Not a directory)\n"},
      {"side file name taken by a folder", cacheDir,
       [&](const std::string& key) { std::filesystem::create_directories(cacheDir / (key + ".tarvidx.partial")); },
       "Tarv: index file not written (Cannot create index file)\n"},
  };
  for (const auto& c : cases) {
    const IndexCache cache(c.directory);
    const auto loaded = cache.load(source, table);
    ASSERT_FALSE(loaded.cached) << c.label;
    EXPECT_GT(loaded.catalog->count(), 300) << c.label;
    c.plant(loaded.key);
    ::testing::internal::CaptureStderr();
    cache.store(loaded);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), c.expected) << c.label;
    EXPECT_FALSE(std::filesystem::exists(c.directory / (loaded.key + ".tarvidx"))) << c.label;
    EXPECT_FALSE(cache.load(source, table).cached) << c.label;
  }
}

TEST_F(IndexCacheTest, TwoConfigurationsSharingACacheKeepBoth) {
  const auto secondFile = dir.write("second.gfind", testing::gfindRecords(120, 4, "s"));
  const auto second = testing::gfindSource(secondFile, "second");
  const IndexCache cache(cacheDir);
  std::string firstKey, secondKey;
  for (int round = 0; round < 3; ++round) {
    for (const Configuration::Source* declared : {static_cast<const Configuration::Source*>(&source), &second}) {
      const auto loaded = cache.load(*declared, table);
      EXPECT_EQ(loaded.cached, round > 0) << declared->id << " round " << round;
      (declared == &source ? firstKey : secondKey) = loaded.key;
      // As a snapshot does: store in the background, then prune with only
      // this configuration's keys.
      cache.storeInBackground({loaded}, {loaded.key});
      ASSERT_TRUE(PendingWrites::waitUntilDone(std::chrono::seconds(20)));
    }
  }
  EXPECT_EQ(PendingWrites::count(), 0);
  EXPECT_EQ(entriesOf(cacheDir), (std::vector<std::string>{std::min(firstKey, secondKey) + ".tarvidx",
                                                           std::max(firstKey, secondKey) + ".tarvidx"}));
}

TEST_F(IndexCacheTest, ConcurrentWritersOfOneKeyLeaveOneValidFile) {
  // Big enough that unserialised writers would overlap on the side file.
  const auto big = testing::gfindSource(dir.write("big.gfind", testing::gfindRecords(20000, 64)));
  const IndexCache cache(cacheDir);
  const auto fresh = cache.load(big, table);
  for (int round = 0; round < 4; ++round) {
    std::filesystem::remove(cache.fileOf(fresh.key));
    ::testing::internal::CaptureStderr();
    std::vector<std::thread> writers;
    for (int w = 0; w < 3; ++w) writers.emplace_back([&] { cache.store(fresh); });
    for (auto& writer : writers) writer.join();
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "") << round;
    EXPECT_EQ(entriesOf(cacheDir), std::vector<std::string>{fresh.key + ".tarvidx"}) << round;
    EXPECT_TRUE(cache.load(big, table).cached) << round;
  }
}

}  // namespace
}  // namespace tarv
