// The built `tarv` seen through its load trace: over the index cache the
// first run loads afresh and leaves cache files, later runs map them and
// print exactly what a run without any cache prints; the query plan names
// each source's strategy and matched rows, so a slow query can be explained.

#include <gtest/gtest.h>

#include <algorithm>
#include <regex>
#include <string>
#include <vector>

#include "tests/support/process.h"
#include "tests/support/temp_dir.h"

namespace tarv {
namespace {

using namespace std::string_literals;
using testing::ProcessOptions;
using testing::ProcessResult;
using testing::TempDir;
using Words = std::vector<std::string>;

const std::string kConfig = R"({"schema": 1, "sources": [
  {"id": "work", "label": "Work", "format": "gfind", "file": "work.gfind", "root": "/work",
   "state": "complete", "scannedAt": null, "virtualDirectory": null},
  {"id": "home", "label": "Home", "format": "gfind", "file": "home.gfind", "root": "/home",
   "state": "complete", "scannedAt": null, "virtualDirectory": null}]})";

// File i has size i, so a size bound picks a known number of files.
std::string records(const std::string& root, int files) {
  std::string text = "d 0 1700000000 " + root + "/docs\0"s;
  for (int i = 0; i < files; ++i)
    text += "f " + std::to_string(i) + " " + std::to_string(1700000000 + i * 7 % 50) + " " + root + "/docs/note" +
            std::to_string(i) + (i % 2 ? ".txt" : ".md") + '\0';
  return text;
}

// Trace lines of one phase and event.
int count(const std::string& trace, const std::string& phase, const std::string& event) {
  const std::string marker = " phase=" + phase + " event=" + event + " ";
  const std::vector<std::string> all = testing::lines(trace);
  return static_cast<int>(std::count_if(all.begin(), all.end(), [&](const std::string& line) {
    return line.find(marker) != std::string::npos;
  }));
}

// The index files in the cache folder (other caches may share the folder).
std::vector<std::string> cacheFiles(const std::filesystem::path& directory) {
  std::vector<std::string> names;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(directory, error))
    if (entry.path().extension() == ".tarvidx") names.push_back(entry.path().filename().string());
  return names;
}

class TracedCommand : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_.write("work.gfind", records("/work", 30));
    dir_.write("home.gfind", records("/home", 20));
    config_ = dir_.write("config.json", kConfig).string();
  }

  ProcessResult tarv(const Words& arguments, const std::optional<std::string>& cache,
                     const std::optional<std::string>& trace = "1") const {
    ProcessOptions options = testing::isolatedOptions(dir_.path());
    options.env["TARV_INDEX_CACHE"] = cache;
    options.env["TARV_LOAD_TRACE"] = trace;
    Words all = arguments;
    all.insert(all.end(), {"--config", config_});
    return testing::run(testing::tarvBinary(), all, options);
  }

  TempDir dir_;
  std::string config_;
};

TEST_F(TracedCommand, SecondRunMapsWhatTheFirstStored) {
  const std::string cache = (dir_ / "cache").string();
  const ProcessResult first = tarv({"search", "note", "--sort", "size-desc"}, cache);
  ASSERT_EQ(first.status, 0) << first.err;
  EXPECT_EQ(count(first.err, "source.sha256", "end"), 2);
  EXPECT_EQ(count(first.err, "source.map", "begin"), 0);
  EXPECT_EQ(count(first.err, "join.orders", "end"), 1);
  // The command waited for its background writes before exiting.
  EXPECT_EQ(count(first.err, "source.store", "end"), 2);
  EXPECT_EQ(count(first.err, "join.store", "end"), 1);
  auto files = cacheFiles(cache);
  EXPECT_EQ(files.size(), 3u);
  for (const auto& name : files) EXPECT_TRUE(std::regex_match(name, std::regex("[0-9a-f]{32}\\.tarvidx"))) << name;

  for (int run = 0; run < 2; ++run) {
    const ProcessResult again = tarv({"search", "note", "--sort", "size-desc"}, cache);
    ASSERT_EQ(again.status, 0) << again.err;
    EXPECT_EQ(again.out, first.out) << run;
    EXPECT_EQ(count(again.err, "source.map", "end"), 2) << again.err;
    EXPECT_EQ(count(again.err, "join.map", "end"), 1) << again.err;
    EXPECT_EQ(count(again.err, "source.sha256", "begin") + count(again.err, "source.store", "begin") +
                  count(again.err, "join.orders", "begin"),
              0)
        << again.err;
  }
  EXPECT_EQ(cacheFiles(cache).size(), 3u);
}

TEST_F(TracedCommand, CachedAndUncachedRunsPrintTheSame) {
  const std::string cache = (dir_ / "cache").string();
  for (const Words& command : {Words{"search", "", "--sort", "path-asc"}, Words{"search", "note1", "--count"},
                               Words{"search", "ext:txt", "--sort", "date-modified-desc", "--json"},
                               Words{"status"}}) {
    // A relative cache path means no cache at all.
    const ProcessResult plain = tarv(command, "cache-here", std::nullopt);
    tarv(command, cache, std::nullopt);
    const ProcessResult cached = tarv(command, cache, std::nullopt);
    ASSERT_EQ(plain.status, 0) << plain.err;
    // The search's own time is the one thing allowed to differ.
    EXPECT_EQ(testing::withoutSearchTime(cached.out), testing::withoutSearchTime(plain.out))
        << command[0] << " " << command[1];
    EXPECT_EQ(cached.err, "");
    EXPECT_FALSE(std::filesystem::exists(dir_ / "cache-here"));
  }
}

TEST_F(TracedCommand, TraceNeedsExactlyOne) {
  for (const std::string value : {"true", "yes", "on", "2"}) {
    const ProcessResult result = tarv({"status"}, (dir_ / "cache").string(), value);
    EXPECT_EQ(result.status, 0) << value;
    EXPECT_EQ(result.err, "") << value;
  }
  const ProcessResult traced = tarv({"status"}, (dir_ / "cache").string(), "1");
  const std::regex line(R"(\d{4}-\d\d-\d\dT[\d:.]+Z pid=\d+ elapsedMs=\d+\.\d{3} phase=[a-z0-9.]+ event=[a-z]+ rssMiB=\d+\.\d .*)");
  const std::vector<std::string> traceLines = testing::lines(traced.err);
  for (const std::string& text : traceLines) EXPECT_TRUE(std::regex_match(text, line)) << text;
  EXPECT_GE(traceLines.size(), 4u);
}

TEST_F(TracedCommand, QueryPlanNamesEachSourcesStrategyAndRows) {
  struct Case {
    const char* query;
    const char* strategy;
    int workRows;
    int homeRows;
  };
  const std::vector<Case> cases = {
      {"note1", "name-literal", 11, 11}, {"ext:txt", "extension", 15, 10}, {"size:<3", "filter-scan", 3, 3},
      {"ext:md note2", "combined", 6, 1}, {"parent:/nowhere", "none", 0, 0},
  };
  for (const Case& c : cases) {
    const ProcessResult result = tarv({"search", "--count", c.query}, (dir_ / "cache").string());
    ASSERT_EQ(result.status, 0) << result.err;
    for (const auto& [source, rows] : {std::pair{"work", c.workRows}, std::pair{"home", c.homeRows}}) {
      const std::regex line(" phase=query\\.plan event=source .*source="s + source + " strategy=" + c.strategy +
                            " rows=" + std::to_string(rows) + " records=\\d+");
      EXPECT_TRUE(std::regex_search(result.err, line)) << c.query << " " << source << "\n" << result.err;
    }
    EXPECT_TRUE(std::regex_search(result.err, std::regex(" phase=query\\.plan event=total .*rows=" +
                                                         std::to_string(c.workRows + c.homeRows))))
        << c.query;
  }
}

}  // namespace
}  // namespace tarv
