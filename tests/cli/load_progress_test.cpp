// The terminal progress line: when it is shown at all, what it says, how
// often it is redrawn, and that it is erased before anything else is printed.

#include "cli/load_progress.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/process.h"
#include "tests/support/temp_dir.h"

namespace tarv::cli {
namespace {

using Phase = LoadProgress::Phase;
using Report = LoadProgress::Report;
using namespace std::chrono_literals;

constexpr std::uint64_t kMiB = 1 << 20;

TEST(LoadProgressDisplay, ShownOnlyOnATerminalWithTheTraceOff) {
  struct Case {
    const char* label;
    bool terminal;
    const char* trace;
    bool shown;
  };
  const Case cases[] = {
      {"terminal, no trace variable", true, nullptr, true},
      {"terminal, trace on", true, "1", false},
      {"terminal, trace variable not exactly 1", true, "true", true},
      {"terminal, trace 0", true, "0", true},
      {"terminal, empty trace", true, "", true},
      {"pipe or file", false, nullptr, false},
      {"pipe with trace on", false, "1", false},
  };
  for (const Case& c : cases) EXPECT_EQ(LoadProgressDisplay::wanted(c.terminal, c.trace), c.shown) << c.label;
}

TEST(LoadProgressDisplay, LineTexts) {
  struct Case {
    const char* label;
    Report report;
    double seconds;
    int columns;
    std::string expected;
  };
  const Case cases[] = {
      {"reading with percent and rate", {"usr", Phase::reading, 256 * kMiB, 512 * kMiB, 1234567, false}, 2.0, 200,
       "tarv: loading usr: 1,234,567 records  50% of 512.0 MiB  617,284 records/s"},
      {"reading, no size known", {"usr", Phase::reading, 4096, 0, 999, false}, 1.0, 200,
       "tarv: loading usr: 999 records  999 records/s"},
      {"reading, too early for a rate", {"usr", Phase::reading, 1, 3, 1000, false}, 0.01, 200,
       "tarv: loading usr: 1,000 records  33% of 3 B"},
      {"percent rounds down and stops at 100", {"a", Phase::reading, 5 * kMiB, 4 * kMiB, 0, false}, 0.0, 200,
       "tarv: loading a: 0 records  100% of 4.0 MiB"},
      {"fingerprint shows bytes per second", {"nas", Phase::fingerprint, 256 * kMiB, 512 * kMiB, 0, false}, 1.0, 200,
       "tarv: loading nas: checking  50% of 512.0 MiB  256.0 MiB/s"},
      {"fingerprint of a gibibyte file", {"nas", Phase::fingerprint, 0, 3 * 1024 * kMiB / 2, 0, false}, 0.0, 200,
       "tarv: loading nas: checking  0% of 1.5 GiB"},
      {"indexing shows only the records", {"usr", Phase::indexing, 0, 0, 7900000, false}, 3.0, 200,
       "tarv: loading usr: indexing 7,900,000 records"},
      {"cut to one column less than the terminal", {"usr", Phase::reading, 256 * kMiB, 512 * kMiB, 1234567, false},
       2.0, 30, "tarv: loading usr: 1,234,567 "},
      {"very narrow terminals still get twenty columns", {"usr", Phase::indexing, 0, 0, 12, false}, 3.0, 5,
       "tarv: loading usr: "},
  };
  for (const Case& c : cases)
    EXPECT_EQ(LoadProgressDisplay::formatLine(c.report, c.seconds, c.columns), c.expected) << c.label;
}

// A display that records what it would write, driven by a hand-set clock.
struct Recorder {
  std::vector<std::string> writes;
  LoadProgressDisplay display{[this](std::string_view text) { writes.emplace_back(text); }, 120};
  LoadProgressDisplay::Clock::time_point start{};

  void at(std::chrono::milliseconds when, const Report& report) { display.reportAt(report, start + when); }
};

Report reading(std::string_view id, std::uint64_t records) { return {id, Phase::reading, records, 100 * records, records, false}; }
Report finished(std::string_view id) { return {id, Phase::reading, 0, 0, 0, true}; }

TEST(LoadProgressDisplay, QuickLoadsDrawNothing) {
  Recorder r;
  r.at(0ms, reading("usr", 0));
  r.at(100ms, reading("usr", 10));
  r.at(249ms, reading("usr", 20));
  r.at(249ms, finished("usr"));
  EXPECT_TRUE(r.writes.empty());
}

TEST(LoadProgressDisplay, RedrawsAtMostTenTimesASecondAndErasesAtTheEnd) {
  Recorder r;
  r.at(0ms, reading("usr", 0));
  r.at(250ms, reading("usr", 1000));
  ASSERT_EQ(r.writes.size(), 1u);
  EXPECT_EQ(r.writes[0], "\r" + LoadProgressDisplay::formatLine(reading("usr", 1000), 0.25, 120) + "\x1b[K");
  r.at(300ms, reading("usr", 2000));
  r.at(349ms, reading("usr", 3000));
  EXPECT_EQ(r.writes.size(), 1u) << "redrawn within 100 ms";
  r.at(350ms, reading("usr", 4000));
  ASSERT_EQ(r.writes.size(), 2u);
  EXPECT_NE(r.writes[1].find("4,000 records"), std::string::npos) << r.writes[1];
  // A new phase is shown at once, with its rate measured from its own start.
  r.at(360ms, {"usr", Phase::indexing, 0, 0, 4000, false});
  ASSERT_EQ(r.writes.size(), 3u);
  EXPECT_NE(r.writes[2].find("indexing 4,000 records"), std::string::npos) << r.writes[2];
  r.at(2000ms, finished("usr"));
  ASSERT_EQ(r.writes.size(), 4u);
  EXPECT_EQ(r.writes[3], "\r\x1b[K");
}

TEST(LoadProgressDisplay, EachSourceWaitsItsOwnQuarterSecond) {
  Recorder r;
  r.at(0ms, reading("a", 0));
  r.at(300ms, reading("a", 5));
  r.at(310ms, finished("a"));
  ASSERT_EQ(r.writes.size(), 2u);
  r.at(320ms, reading("b", 0));
  r.at(500ms, reading("b", 5));
  EXPECT_EQ(r.writes.size(), 2u) << "the second source drew before its own delay";
  r.at(570ms, reading("b", 9));
  ASSERT_EQ(r.writes.size(), 3u);
  EXPECT_NE(r.writes[2].find("loading b:"), std::string::npos);
  // A report of another source without a finish of the first starts afresh.
  r.at(600ms, reading("c", 1));
  EXPECT_EQ(r.writes.size(), 3u);
}

TEST(LoadProgressDisplay, RatesUseThePhaseStart) {
  Recorder r;
  r.at(0ms, {"usr", Phase::fingerprint, 0, 1000, 0, false});
  r.at(1000ms, reading("usr", 0));  // phase change: drawn, rate clock restarts
  r.at(2000ms, reading("usr", 5000));
  ASSERT_EQ(r.writes.size(), 2u);
  EXPECT_NE(r.writes[1].find("  5,000 records/s"), std::string::npos) << r.writes[1];
}

// A fresh load through the real executable with standard error on a pipe:
// scripts see exactly the output they saw before progress existed.
TEST(LoadProgressDisplay, NothingReachesAPipe) {
  testing::TempDir dir;
  std::string list;
  for (int i = 0; i < 20000; ++i)
    list += "f " + std::to_string(i) + " 1795326869.5 1795326869.5 8 2049 /data/file" + std::to_string(i) + ".txt" +
            std::string(1, '\0');
  dir.write("list.gfind7", list);
  dir.write("config.json", R"({"schema": 1, "sources": [{"id": "data", "label": "Data", "format": "gfind7",
    "file": "list.gfind7", "root": "/data", "state": "complete", "scannedAt": null, "virtualDirectory": null}]})");
  testing::ProcessOptions options = testing::isolatedOptions(dir.path());
  options.env["TARV_INDEX_CACHE"] = "off";  // relative: no cache, every load is fresh
  testing::ProcessResult result = testing::run(
      testing::tarvBinary(), {"--config", (dir / "config.json").string(), "search", "--count", "file1"}, options);
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out, "11111\n");
  EXPECT_EQ(result.err, "");
}

}  // namespace
}  // namespace tarv::cli
