// Resource bounds of searching: results too large for memory fail with one
// clear message before anything large is allocated, the 31-bit limits are
// handled by arithmetic, and very long queries and names neither crash nor
// take more than linear time.

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <ctime>
#include <cstdint>
#include <limits>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "core/platform/memory_budget.h"
#include "kernel/base/kernel_error.h"
#include "kernel/query/joined_search.h"
#include "kernel/query/search_index.h"
#include "kernel/query/search_memory.h"
#include "tests/support/synthetic_catalog.h"

namespace tarv {
namespace {

constexpr std::int64_t kMaxRows = std::numeric_limits<std::int32_t>::max();  // 2^31 - 1

TEST(SearchMemory, ResultBytesByArithmetic) {
  struct Case {
    const char* label;
    std::int64_t total;
    std::int64_t rows;
    bool descending;
    std::uint64_t expected;
  };
  const Case cases[] = {
      {"nothing matches", 0, 1000, false, 0},
      {"nothing matches, descending", 0, 1000, true, 0},
      {"every row ascending is the stored order", 1000, 1000, false, 0},
      {"every row descending is copied", 1000, 1000, true, 4000},
      {"one of 64 rows: id and one bitset word", 1, 64, false, 4 + 8},
      {"one of 65 rows: two bitset words", 1, 65, false, 4 + 16},
      {"every row of the 31-bit limit ascending", kMaxRows, kMaxRows, false, 0},
      {"every row of the 31-bit limit descending", kMaxRows, kMaxRows, true, std::uint64_t{4} * kMaxRows},
      {"one row short of the 31-bit limit", kMaxRows - 1, kMaxRows, false,
       std::uint64_t{4} * (kMaxRows - 1) + std::uint64_t{33554432} * 8},
      {"one match among 2^31 - 1 rows", 1, kMaxRows, true, 4 + std::uint64_t{33554432} * 8},
  };
  for (const Case& c : cases)
    EXPECT_EQ(SearchMemory::resultBytes(c.total, c.rows, c.descending), c.expected) << c.label;
}

TEST(SearchMemory, CheckRefusesOnlyWhatDoesNotFit) {
  EXPECT_NO_THROW(SearchMemory::check(100, std::uint64_t{100}));
  EXPECT_NO_THROW(SearchMemory::check(std::numeric_limits<std::uint64_t>::max(), std::nullopt));
  try {
    SearchMemory::check(101, std::uint64_t{100});
    FAIL() << "101 bytes fitted into 100";
  } catch (const KernelError& error) {
    EXPECT_EQ(error.kind(), KernelError::Kind::invalid);
    EXPECT_EQ(error.message(), SearchMemory::kMessage);
  }
  // The largest result a joined search can have (every id of 2^31 - 1 rows,
  // descending, 8 GiB) against a small machine.
  EXPECT_THROW(SearchMemory::checkResult(kMaxRows, kMaxRows, true, std::uint64_t{4} << 30), KernelError);
  EXPECT_NO_THROW(SearchMemory::checkResult(kMaxRows, kMaxRows, false, std::uint64_t{0}));
}

TEST(MemoryBudget, MemAvailableParsing) {
  struct Case {
    const char* label;
    const char* text;
    std::optional<std::uint64_t> expected;
  };
  const Case cases[] = {
      {"usual layout", "MemTotal:       24000000 kB\nMemFree:  100 kB\nMemAvailable:   22000000 kB\n",
       std::uint64_t{22000000} << 10},
      {"first line", "MemAvailable: 1 kB\n", std::uint64_t{1024}},
      {"missing", "MemTotal: 5 kB\nMemFree: 3 kB\n", std::nullopt},
      {"only inside another name", "XMemAvailable: 5 kB\n", std::nullopt},
      {"no digits", "MemAvailable:  kB\n", std::nullopt},
      {"no unit", "MemAvailable: 12\n", std::nullopt},
      {"cut off", "MemAvailable: 12", std::nullopt},
      {"absurdly large", "MemAvailable: 99999999999999999999999 kB\n", std::nullopt},
      {"empty", "", std::nullopt},
  };
  for (const Case& c : cases) EXPECT_EQ(platform::memAvailableOf(c.text), c.expected) << c.label;
}

TEST(MemoryBudget, AvailableIsTheSmallerRoom) {
  using platform::availableMemoryBytes;
  const std::uint64_t GiB = std::uint64_t{1} << 30;
  EXPECT_EQ(availableMemoryBytes(8 * GiB, std::nullopt, std::nullopt), 8 * GiB);
  EXPECT_EQ(availableMemoryBytes(8 * GiB, 4 * GiB, 1 * GiB), 3 * GiB);
  EXPECT_EQ(availableMemoryBytes(2 * GiB, 4 * GiB, 1 * GiB), 2 * GiB);
  EXPECT_EQ(availableMemoryBytes(std::nullopt, 4 * GiB, 1 * GiB), 3 * GiB);
  EXPECT_EQ(availableMemoryBytes(8 * GiB, 1 * GiB, 4 * GiB), std::uint64_t{0}) << "already above the limit";
  EXPECT_EQ(availableMemoryBytes(std::nullopt, 4 * GiB, std::nullopt), std::nullopt);
  EXPECT_EQ(availableMemoryBytes(std::nullopt, std::nullopt, std::nullopt), std::nullopt);
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define TARV_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define TARV_SANITIZED 1
#endif
#endif

TEST(MemoryBudget, FollowsTheAddressSpaceLimit) {
#ifdef TARV_SANITIZED
  GTEST_SKIP() << "sanitizers reserve terabytes of address space";
#else
  // In a child, so the limit does not outlive the check.
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    const std::optional<std::uint64_t> before = platform::availableMemoryBytes();
    std::FILE* statm = std::fopen("/proc/self/statm", "r");
    unsigned long long pages = 0;
    if (!statm || std::fscanf(statm, "%llu", &pages) != 1) ::_exit(3);
    std::fclose(statm);
    const std::uint64_t room = std::uint64_t{64} << 20;
    const rlimit limit{pages * ::sysconf(_SC_PAGESIZE) + room, RLIM_INFINITY};
    if (::setrlimit(RLIMIT_AS, &limit) != 0) ::_exit(4);
    const std::optional<std::uint64_t> after = platform::availableMemoryBytes();
    if (!before || !after) ::_exit(5);
    ::_exit(*after <= room && *after + (std::uint64_t{16} << 20) >= room ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0) << "1: figure not bounded by the limit; 3-5: could not measure";
#endif
}

testing::SyntheticRecord file(Text parent, Text name) {
  testing::SyntheticRecord record;
  record.parent = std::move(parent);
  record.name = std::move(name);
  return record;
}

// A joined search over `rows` files named f0, f1, ... with the given budget.
struct Budgeted {
  std::shared_ptr<const Catalog> catalog;
  std::unique_ptr<JoinedSearch> search;

  Budgeted(int rows, std::optional<std::uint64_t> budget) {
    std::vector<testing::SyntheticRecord> records;
    for (int i = 0; i < rows; ++i) records.push_back(file(u"/d/", u"f" + utf16(std::to_string(i)) + u".txt"));
    catalog = testing::makeCatalog(records);
    auto index = std::make_shared<const SearchIndex>(catalog, testing::syntheticTable());
    JoinedSearch::Tuning tuning;
    tuning.memoryBudget = budget;
    search = std::make_unique<JoinedSearch>(std::vector<JoinedSearch::Source>{{"s", "S", catalog}},
                                            std::vector<SearchIndexPtr>{index}, std::vector<std::string>{""},
                                            testing::syntheticTable(), tuning);
  }
};

TEST(SearchMemory, JoinedSearchRefusesResultsBeyondItsBudget) {
  // 2000 rows: a membership bitset of 32 words (256 bytes) plus 4 bytes per id.
  const Budgeted world(2000, std::uint64_t{1000});
  struct Case {
    const char* label;
    const char* query;
    const char* sort;
    std::int64_t total;  // -1: refused
  };
  const Case cases[] = {
      {"every row ascending needs nothing", "", "name-asc", 2000},
      {"every row descending needs 8000 bytes", "", "name-desc", -1},
      {"one row", "f1234.txt", "size-asc", 1},
      {"111 rows fit (444 + 256 bytes)", "f19*", "name-asc", 111},
      {"222 rows do not (888 + 256 bytes)", "f19*|f18*", "path-asc", -1},
  };
  for (const Case& c : cases) {
    try {
      const JoinedSearch::Result result = world.search->search(c.query, c.sort);
      EXPECT_EQ(result.total, c.total) << c.label;
      EXPECT_EQ(static_cast<std::int64_t>(result.ids.size()), c.total) << c.label;
    } catch (const KernelError& error) {
      EXPECT_EQ(c.total, -1) << c.label << ": " << error.message();
      EXPECT_EQ(error.message(), SearchMemory::kMessage) << c.label;
    }
  }
  // Without a budget the machine's figure applies, which these results fit.
  const Budgeted unbounded(2000, std::nullopt);
  EXPECT_EQ(unbounded.search->search("", "name-desc").total, 2000);
}

TEST(LongInput, QueriesOfAQuarterMegabyteStayLinear) {
  const Budgeted world(64, std::nullopt);
  struct Case {
    const char* label;
    std::string query;
  };
  const std::size_t n = 1 << 18;
  const Case cases[] = {
      {"one long word", std::string(n, 'a')},
      {"many words", [&] {
         std::string q;
         while (q.size() < n) q += "f1 ";
         return q;
       }()},
      {"deep groups", std::string(n / 2, '<') + "f1" + std::string(n / 2, '>')},
      {"unclosed groups", std::string(n, '<')},
      {"negations", std::string(n, '!') + "f1"},
      {"or chain", [&] {
         std::string q;
         while (q.size() < n) q += "f1|";
         return q;
       }()},
      {"wildcards", std::string(n, '*') + "?"},
      {"functions", [&] {
         std::string q;
         while (q.size() < n) q += "ext:txt;pdf size:>1kb dm:2026 ";
         return q;
       }()},
  };
  // Processor time of the whole process (the search runs on the worker
  // pool), so a busy machine does not count against the search.
  auto cpuSeconds = [] {
    timespec now{};
    ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
  };
  for (const Case& c : cases) {
    const double started = cpuSeconds();
    EXPECT_NO_THROW((void)world.search->search(c.query, "name-asc")) << c.label;
    // Generous for sanitizer builds; a quadratic parse of a quarter megabyte
    // takes minutes.
    EXPECT_LT(cpuSeconds() - started, 20.0) << c.label;
  }
}

TEST(LongInput, LongNamesAndPathsAreSearchedAndShown) {
  const Text longName = Text(100000, u'x') + u"needle.txt";
  Text deepParent = u"/";
  for (int i = 0; i < 2000; ++i) deepParent += u"level" + utf16(std::to_string(i)) + u"/";
  const auto catalog = testing::makeCatalog({file(u"/", longName), file(deepParent, u"deep.pdf"), file(u"/", u"short")});
  auto index = std::make_shared<const SearchIndex>(catalog, testing::syntheticTable());
  const JoinedSearch search({{"s", "S", catalog}}, {index}, {""}, testing::syntheticTable());
  struct Case {
    const char* label;
    std::string query;
    std::int64_t total;
  };
  const Case cases[] = {
      {"substring at the end of a long name", "needle", 1},
      {"wildcard over a long name", "x*needle.txt", 1},
      {"extension of a long name", "ext:txt", 1},
      {"path term deep in a long parent", "level1999/deep", 1},
      {"parent of the deep row", "parent:" + utf8(deepParent), 1},
      {"long literal that is not there", std::string(200000, 'x'), 0},
  };
  for (const Case& c : cases) EXPECT_EQ(search.search(c.query, "path-desc").total, c.total) << c.label;
  const JoinedSearch::Result all = search.search("", "name-asc");
  ASSERT_EQ(all.total, 3);
  std::set<std::string> paths;
  for (std::size_t i = 0; i < all.ids.size(); ++i) paths.insert(search.row(all.ids[i]).path);
  EXPECT_EQ(paths, (std::set<std::string>{"/" + utf8(longName), utf8(deepParent) + "deep.pdf", "/short"}))
      << "long paths are shown whole";
}

}  // namespace
}  // namespace tarv
