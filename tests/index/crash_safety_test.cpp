// A writer killed at any moment leaves either no cache file or a complete one
// under the final name, and the next run works. The writer is this test
// executable itself, started as a child that stores cache files in a loop
// until it is killed.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <random>
#include <thread>

#include "kernel/catalog/catalog_file.h"
#include "kernel/index/index_cache.h"
#include "kernel/index/index_file.h"
#include "kernel/index/joined_orders_cache.h"
#include "tests/index/cache_fixture.h"

extern char** environ;

namespace tarv {
namespace {

using testing::TempDir;

constexpr int kRecords = 20000;
const std::string kJoinKey = "00112233445566778899aabbccddeeff";

// The request the child stores under and the parent maps with.
JoinedOrdersStore::Request joinRequest(const SearchIndex& index) {
  return {kJoinKey, {SortKey::name, SortKey::path, SortKey::size, SortKey::modified}, index.catalog().count(),
          {static_cast<std::int64_t>(index.parentRanks().size()), 0}};
}

TEST(CrashSafetyChild, StoreUntilKilled) {
  const char* cacheDir = std::getenv("TARV_CRASH_CHILD_CACHE");
  const char* sourceFile = std::getenv("TARV_CRASH_CHILD_SOURCE");
  if (cacheDir == nullptr || sourceFile == nullptr) GTEST_SKIP() << "runs as a child of CrashSafety.KilledWriters";
  const auto source = testing::gfindSource(sourceFile);
  const IndexCache cache{std::filesystem::path(cacheDir)};
  const auto loaded = IndexCache(std::nullopt).load(source, testing::shippedTable());
  const JoinedOrdersCache joined{std::filesystem::path(cacheDir)};
  // The source's own orders and ranks stand in for joined ones (of two
  // sources, the second empty): the file is what matters here, not how it
  // was merged.
  const JoinedOrdersStore::Request request = joinRequest(*loaded.index);
  JoinedOrdersStore::Joined state;
  for (const SortKey key : request.keys) state.orders.push_back(loaded.index->order(key));
  state.parentRanks = {loaded.index->parentRanks(), Column<std::int32_t>::owned({})};
  std::printf("CHILD-READY\n");
  std::fflush(stdout);
  // Bounded in case the parent dies without killing this process.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (std::chrono::steady_clock::now() < deadline) {
    std::filesystem::remove(cache.fileOf(loaded.key));
    cache.store(loaded);
    std::filesystem::remove(joined.fileOf(kJoinKey));
    joined.store(request, state);
  }
}

struct Child {
  pid_t pid = -1;
  int output = -1;
};

Child startChild(const std::string& cacheDir, const std::string& sourceFile) {
  char self[4096];
  const ssize_t length = ::readlink("/proc/self/exe", self, sizeof self - 1);
  if (length <= 0) throw std::runtime_error("no /proc/self/exe");
  self[length] = '\0';
  std::vector<std::string> env;
  for (char** e = environ; *e; ++e) env.emplace_back(*e);
  env.push_back("TARV_CRASH_CHILD_CACHE=" + cacheDir);
  env.push_back("TARV_CRASH_CHILD_SOURCE=" + sourceFile);
  env.push_back("TARV_LOAD_TRACE=0");
  std::vector<char*> envp;
  for (auto& entry : env) envp.push_back(entry.data());
  envp.push_back(nullptr);
  std::string filter = "--gtest_filter=CrashSafetyChild.*";
  char* argv[] = {self, filter.data(), nullptr};

  int pipeEnds[2];
  if (::pipe2(pipeEnds, O_CLOEXEC) != 0) throw std::runtime_error("pipe");
  const pid_t pid = ::fork();
  if (pid < 0) throw std::runtime_error("fork");
  if (pid == 0) {
    // Only async-signal-safe calls between fork and exec.
    ::dup2(pipeEnds[1], 1);
    ::execve(self, argv, envp.data());
    ::_exit(127);
  }
  ::close(pipeEnds[1]);
  return {pid, pipeEnds[0]};
}

// Reads the child's output until its ready line (or the end, or 30 s).
bool waitUntilReady(int output) {
  std::string seen;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  char buffer[4096];
  while (seen.find("CHILD-READY\n") == std::string::npos) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now()).count();
    if (left <= 0) return false;
    pollfd ready{output, POLLIN, 0};
    if (::poll(&ready, 1, static_cast<int>(left)) <= 0) continue;
    const ssize_t n = ::read(output, buffer, sizeof buffer);
    if (n <= 0) return false;
    seen.append(buffer, static_cast<std::size_t>(n));
  }
  return true;
}

TEST(CrashSafety, KilledWritersLeaveNoFileOrAValidOne) {
  TempDir dir;
  const auto sourceFile = dir.write("disk.gfind", testing::gfindRecords(kRecords, 64));
  const auto source = testing::gfindSource(sourceFile);
  const auto table = testing::shippedTable();
  const auto cacheDir = dir / "cache";
  const IndexCache cache(cacheDir);
  const JoinedOrdersCache joined(cacheDir);
  const std::string key = IndexCache::key(source, *table);
  const auto expected = IndexCache(std::nullopt).load(source, table);

  std::mt19937 random(20240611);
  std::uniform_int_distribution<int> delayMicros(0, 40000);
  int complete = 0, absent = 0, partial = 0;
  for (int round = 0; round < 10; ++round) {
    const Child child = startChild(cacheDir.string(), sourceFile.string());
    const bool ready = waitUntilReady(child.output);
    if (ready) std::this_thread::sleep_for(std::chrono::microseconds(delayMicros(random)));
    ::kill(child.pid, SIGKILL);
    int status = 0;
    ::waitpid(child.pid, &status, 0);
    ::close(child.output);
    ASSERT_TRUE(ready) << "round " << round;
    ASSERT_TRUE(WIFSIGNALED(status)) << "round " << round;

    // Under the final names: nothing, or a file that reads completely.
    const auto file = cache.fileOf(key);
    if (std::filesystem::exists(file)) {
      ++complete;
      IndexFile::Reader reader(file);
      ASSERT_TRUE(reader.meta().contains("fingerprint")) << "round " << round;
      const auto catalog = std::make_shared<const Catalog>(readCatalog(reader, {}, source.id));
      EXPECT_NO_THROW(SearchIndex(reader, catalog, table)) << "round " << round;
    } else {
      ++absent;
    }
    if (std::filesystem::exists(joined.fileOf(kJoinKey))) {
      EXPECT_TRUE(joined.map(joinRequest(*expected.index)).has_value()) << "round " << round;
    }
    if (std::filesystem::exists(cacheDir / (key + ".tarvidx.partial")) ||
        std::filesystem::exists(cacheDir / (kJoinKey + ".tarvidx.partial")))
      ++partial;

    // The next run maps the file when there is one, loads afresh when not,
    // and leaves a usable cache behind either way.
    ::testing::internal::CaptureStderr();
    const auto reloaded = cache.load(source, table);
    EXPECT_EQ(reloaded.catalog->count(), expected.catalog->count());
    cache.store(reloaded);
    EXPECT_TRUE(cache.load(source, table).cached) << "round " << round;
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "") << "round " << round;
  }
  // For the record: how often the kill fell into a write.
  std::printf("complete %d, absent %d, side files left %d\n", complete, absent, partial);
}

}  // namespace
}  // namespace tarv
