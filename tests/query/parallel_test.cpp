#include "kernel/query/parallel.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "core/platform/system_info.h"
#include "tests/support/process.h"

namespace tarv {
namespace {

struct PlanCase {
  const char* label;
  std::int64_t count, alignment, minimum, workers;
  std::optional<std::int64_t> override;
  bool serial;
  std::int64_t length, chunks;
};

TEST(ParallelPlan, FollowsTheChunkingRule) {
  const std::vector<PlanCase> cases = {
      {"empty range", 0, 64, 10, 4, {}, true, 0, 1},
      {"below the minimum", 9, 1, 10, 4, {}, true, 9, 1},
      {"one minimum's worth", 15, 1, 10, 4, {}, true, 15, 1},
      {"two minimums", 20, 1, 10, 4, {}, false, 10, 2},
      {"one worker: four chunks", 1000, 1, 10, 1, {}, false, 250, 4},
      {"aligned to 64, last is remainder", 1000, 64, 10, 1, {}, false, 256, 4},
      {"eight workers: at most 32 chunks", 1000000, 64, 1, 8, {}, false, 31296, 32},
      {"rounding leaves fewer chunks", 130, 64, 1, 8, {}, false, 64, 3},
      {"override replaces the minimum", 1000, 1, 10, 4, 500, false, 500, 2},
      {"override keeps small ranges serial", 1000, 1, 1, 4, 5000, true, 1000, 1},
      {"override 0 reads as 1", 3, 1, 100, 4, 0, false, 1, 3},
      {"negative override reads as 1", 2, 1, 100, 4, -7, false, 1, 2},
      {"alignment 0 reads as 1", 100, 0, 10, 1, {}, false, 25, 4},
  };
  for (const auto& c : cases) {
    Parallel::Settings s{c.workers, c.override};
    const auto p = Parallel::plan(c.count, c.alignment, c.minimum, s);
    EXPECT_EQ(p.serial, c.serial) << c.label;
    EXPECT_EQ(p.length, c.length) << c.label;
    EXPECT_EQ(p.chunks, c.chunks) << c.label;
    if (!p.serial) {
      EXPECT_LE(p.chunks, 4 * c.workers) << c.label;
      EXPECT_LT((p.chunks - 1) * p.length, c.count) << c.label << ": no empty chunk";
      EXPECT_GE(p.chunks * p.length, c.count) << c.label << ": whole range covered";
    }
  }
}

struct SettingsCase {
  const char* label;
  const char* workers;
  const char* minimum;
  int processors;
  std::int64_t expectedWorkers;
  std::optional<std::int64_t> expectedOverride;
};

TEST(ParallelSettings, ParseEnvironmentValues) {
  const std::vector<SettingsCase> cases = {
      {"unset", nullptr, nullptr, 3, 3, {}},
      {"one", "1", nullptr, 8, 1, {}},
      {"leading plus", "+4", nullptr, 8, 4, {}},
      {"not a number", "abc", nullptr, 6, 6, {}},
      {"zero raised to one", "0", nullptr, 8, 1, {}},
      {"negative raised to one", "-3", nullptr, 8, 1, {}},
      {"empty text", "", nullptr, 5, 5, {}},
      {"leading space", " 2", nullptr, 5, 5, {}},
      {"trailing junk", "2x", nullptr, 5, 5, {}},
      {"lone sign", "+", nullptr, 5, 5, {}},
      {"too large for 64 bits", "99999999999999999999", nullptr, 5, 5, {}},
      {"no processors reported", nullptr, nullptr, 0, 1, {}},
      {"minimum set", nullptr, "500", 2, 2, 500},
      {"minimum negative kept", nullptr, "-1", 2, 2, -1},
      {"minimum with plus", nullptr, "+7", 2, 2, 7},
      {"minimum not a number", nullptr, "x", 2, 2, {}},
  };
  for (const auto& c : cases) {
    const auto s = Parallel::parseSettings(c.workers, c.minimum, c.processors);
    EXPECT_EQ(s.workers, c.expectedWorkers) << c.label;
    EXPECT_EQ(s.minimumOverride, c.expectedOverride) << c.label;
  }
}

// Runs chunks() and returns the ranges it called the body with, sorted.
std::vector<std::pair<std::int64_t, std::int64_t>> ranges(std::int64_t count, std::int64_t alignment,
                                                          std::int64_t minimum) {
  std::mutex lock;
  std::vector<std::pair<std::int64_t, std::int64_t>> seen;
  Parallel::chunks(count, alignment, minimum, [&](std::int64_t begin, std::int64_t end) {
    std::lock_guard guard(lock);
    seen.emplace_back(begin, end);
  });
  std::sort(seen.begin(), seen.end());
  return seen;
}

TEST(ParallelChunks, CoverTheRangeExactlyOnceAsPlanned) {
  for (std::int64_t count : {0, 1, 63, 64, 1000, 4097, 100000}) {
    for (std::int64_t alignment : {1, 64}) {
      const auto seen = ranges(count, alignment, 16);
      const auto p = Parallel::plan(count, alignment, 16);
      ASSERT_EQ(static_cast<std::int64_t>(seen.size()), p.chunks) << count;
      std::int64_t next = 0;
      for (const auto& [begin, end] : seen) {
        EXPECT_EQ(begin, next) << count;
        EXPECT_LE(end, count);
        if (end != count) {
          EXPECT_EQ(end % alignment, 0) << count;
        }
        next = end;
      }
      EXPECT_EQ(next, count);
    }
  }
}

TEST(ParallelChunks, SmallRangesRunAsOneCallOnTheCallingThread) {
  const auto caller = std::this_thread::get_id();
  int calls = 0;
  Parallel::chunks(0, 64, 1000, [&](std::int64_t begin, std::int64_t end) {
    EXPECT_EQ(std::this_thread::get_id(), caller);
    EXPECT_EQ(begin, 0);
    EXPECT_EQ(end, 0);
    ++calls;
  });
  Parallel::chunks(999, 64, 1000, [&](std::int64_t begin, std::int64_t end) {
    EXPECT_EQ(std::this_thread::get_id(), caller);
    EXPECT_EQ(end - begin, 999);
    ++calls;
  });
  EXPECT_EQ(calls, 2);
}

TEST(ParallelChunks, NestedCallsFinishWithoutTheirOwnPool) {
  const std::int64_t outer = 64, inner = 4096;
  std::vector<std::int64_t> sums(outer, 0);
  Parallel::chunks(outer, 1, 1, [&](std::int64_t begin, std::int64_t end) {
    for (std::int64_t i = begin; i < end; ++i) {
      std::atomic<std::int64_t> sum{0};
      Parallel::chunks(inner, 64, 1, [&](std::int64_t b, std::int64_t e) {
        EXPECT_TRUE(Parallel::insideBody());
        std::int64_t local = 0;
        for (std::int64_t k = b; k < e; ++k) local += k;
        sum += local;
      });
      sums[static_cast<std::size_t>(i)] = sum;
    }
  });
  for (auto s : sums) EXPECT_EQ(s, inner * (inner - 1) / 2);
  EXPECT_FALSE(Parallel::insideBody());
}

TEST(ParallelChunks, ManyCallersAtOnceEachGetTheirOwnResult) {
  std::vector<std::thread> callers;
  std::atomic<int> wrong{0};
  for (int t = 0; t < 4; ++t) {
    callers.emplace_back([&, t] {
      for (int round = 0; round < 50; ++round) {
        const std::int64_t count = 1000 + t * 100 + round;
        std::vector<std::int64_t> out(static_cast<std::size_t>(count), -1);
        Parallel::chunks(count, 1, 1, [&](std::int64_t b, std::int64_t e) {
          for (std::int64_t k = b; k < e; ++k) out[static_cast<std::size_t>(k)] = k * 3 + t;
        });
        for (std::int64_t k = 0; k < count; ++k)
          if (out[static_cast<std::size_t>(k)] != k * 3 + t) ++wrong;
      }
    });
  }
  for (auto& c : callers) c.join();
  EXPECT_EQ(wrong.load(), 0);
}

TEST(ParallelChunks, AnExceptionReachesTheCallerAfterAllChunksRan) {
  std::atomic<std::int64_t> covered{0};
  EXPECT_THROW(Parallel::chunks(10000, 1, 1,
                                [&](std::int64_t b, std::int64_t e) {
                                  covered += e - b;
                                  if (b == 0) throw std::runtime_error("first chunk failed");
                                }),
               std::runtime_error);
  EXPECT_EQ(covered.load(), 10000);
  // The pool is still usable afterwards.
  EXPECT_EQ(ranges(10000, 1, 1).back().second, 10000);
}

// Environment settings are read once per process, so each case runs this
// test binary again with the variables set.
TEST(ParallelEnvironment, WorkersAndMinimumComeFromTheEnvironment) {
  if (const char* expected = std::getenv("TARV_TEST_EXPECT_WORKERS")) {
    EXPECT_EQ(Parallel::workers(), std::stoll(expected));
    if (const char* minimum = std::getenv("TARV_TEST_EXPECT_MINIMUM")) {
      EXPECT_EQ(Parallel::minimumOverride(), std::stoll(minimum));
      // The override wins over the caller's minimum: 10 rows per chunk.
      EXPECT_EQ(ranges(40, 1, 1000000).size(), 4u);
    } else {
      EXPECT_FALSE(Parallel::minimumOverride().has_value());
    }
    if (Parallel::workers() == 1) {
      // One worker still splits a large input into four chunks on the pool.
      const auto seen = ranges(1000000, 64, 1);
      EXPECT_EQ(seen.size(), 4u);
    }
    return;
  }
  const std::string processors = std::to_string(platform::activeProcessorCount());
  struct Case {
    const char* workers;
    const char* minimum;
    std::string expected;
  };
  // The parsing rules have their own table above; these show the values reach the pool.
  const std::vector<Case> cases = {{"1", nullptr, "1"}, {"abc", nullptr, processors}, {"+3", "10", "3"}};
  for (const auto& c : cases) {
    testing::ProcessOptions options;
    options.env["TARV_WORKERS"] = c.workers;
    options.env["TARV_PARALLEL_MINIMUM"] = c.minimum ? std::optional<std::string>(c.minimum) : std::nullopt;
    options.env["TARV_TEST_EXPECT_WORKERS"] = c.expected;
    options.env["TARV_TEST_EXPECT_MINIMUM"] = c.minimum ? std::optional<std::string>(c.minimum) : std::nullopt;
    const auto result = testing::run("/proc/self/exe",
                                     {"--gtest_filter=ParallelEnvironment.WorkersAndMinimumComeFromTheEnvironment"},
                                     options);
    EXPECT_EQ(result.status, 0) << "TARV_WORKERS=" << c.workers << "\n" << result.out << result.err;
    EXPECT_NE(result.out.find("[  PASSED  ] 1 test"), std::string::npos) << result.out;
  }
}

}  // namespace
}  // namespace tarv
