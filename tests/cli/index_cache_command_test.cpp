// The built `tarv` over the index cache: the first run loads afresh and
// leaves cache files, later runs map them (as the load trace shows) and print
// exactly what a run without any cache prints.

#include <gtest/gtest.h>

#include <algorithm>
#include <regex>
#include <sstream>
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

std::string records(const std::string& root, int files) {
  std::string text = "d 0 1700000000 " + root + "/docs\0"s;
  for (int i = 0; i < files; ++i)
    text += "f " + std::to_string(i * 97 % 1000) + " " + std::to_string(1700000000 + i * 7 % 50) + " " + root +
            "/docs/note" + std::to_string(i) + (i % 2 ? ".txt" : ".md") + '\0';
  return text;
}

// Trace lines of one phase and event.
int count(const std::string& trace, const std::string& phase, const std::string& event) {
  int found = 0;
  std::istringstream in(trace);
  for (std::string line; std::getline(in, line);)
    if (line.find(" phase=" + phase + " event=" + event + " ") != std::string::npos) ++found;
  return found;
}

std::vector<std::string> cacheFiles(const std::filesystem::path& directory) {
  std::vector<std::string> names;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(directory, error))
    names.push_back(entry.path().filename().string());
  return names;
}

class IndexCacheCommand : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_.write("work.gfind", records("/work", 30));
    dir_.write("home.gfind", records("/home", 20));
    config_ = dir_.write("config.json", kConfig).string();
  }

  ProcessResult tarv(const Words& arguments, const std::optional<std::string>& cache,
                     const std::optional<std::string>& trace = "1") const {
    ProcessOptions options;
    options.env["TARV_SUPPORT_DIRECTORY"] = (dir_ / "support").string();
    options.env["HOME"] = (dir_ / "home").string();
    options.env["XDG_CONFIG_HOME"] = (dir_ / "xdg-config").string();
    options.env["XDG_DATA_HOME"] = (dir_ / "xdg-data").string();
    options.env["TARV_INDEX_CACHE"] = cache;
    options.env["TARV_LOAD_TRACE"] = trace;
    options.workingDirectory = dir_.path().string();
    options.timeoutSeconds = 60;
    Words all = arguments;
    all.insert(all.end(), {"--config", config_});
    return testing::run(testing::tarvBinary(), all, options);
  }

  TempDir dir_;
  std::string config_;
};

TEST_F(IndexCacheCommand, SecondRunMapsWhatTheFirstStored) {
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

TEST_F(IndexCacheCommand, CachedAndUncachedRunsPrintTheSame) {
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
    const std::regex timing("\"searchMs\": [0-9.e+-]+");
    EXPECT_EQ(std::regex_replace(cached.out, timing, "searchMs"), std::regex_replace(plain.out, timing, "searchMs"))
        << command[0] << " " << command[1];
    EXPECT_EQ(cached.err, "");
    EXPECT_FALSE(std::filesystem::exists(dir_ / "cache-here"));
  }
}

TEST_F(IndexCacheCommand, TraceNeedsExactlyOne) {
  for (const std::string value : {"true", "yes", "on", "2"}) {
    const ProcessResult result = tarv({"status"}, (dir_ / "cache").string(), value);
    EXPECT_EQ(result.status, 0) << value;
    EXPECT_EQ(result.err, "") << value;
  }
  const ProcessResult traced = tarv({"status"}, (dir_ / "cache").string(), "1");
  const std::regex line(R"(\d{4}-\d\d-\d\dT[\d:.]+Z pid=\d+ elapsedMs=\d+\.\d{3} phase=[a-z0-9.]+ event=[a-z]+ rssMiB=\d+\.\d .*)");
  std::istringstream in(traced.err);
  int lines = 0;
  for (std::string text; std::getline(in, text); ++lines) EXPECT_TRUE(std::regex_match(text, line)) << text;
  EXPECT_GE(lines, 4);
}

}  // namespace
}  // namespace tarv
