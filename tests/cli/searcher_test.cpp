// The Searcher against a fake snapshot: paging, reloading on a new
// modification date, and configuration errors that come before any loading.

#include "cli/searcher.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "kernel/base/kernel_error.h"
#include "tests/support/environment_guard.h"
#include "tests/support/temp_dir.h"

namespace tarv::cli {
namespace {

using testing::TempDir;

const char* kValidConfiguration = R"({"schema":1,"sources":[
  {"id":"disk","label":"Disk","format":"gfind","file":"disk.txt","root":"/","state":"complete",
   "scannedAt":"2026-10-01T12:00:00Z","virtualDirectory":null},
  {"id":"nas","label":"NAS","format":"gfind","file":"nas.txt","root":"/nas","state":"partial",
   "scannedAt":null,"virtualDirectory":null}]})";

// Ids 0..n-1 ordered descending; a row's path names its id.
class FakeSnapshot : public LoadedSnapshot {
 public:
  FakeSnapshot(int rows, const Configuration& config, int generation)
      : rows_(rows), sources_(config.sources), generation_(generation) {
    for (std::size_t i = 0; i < sources_.size(); ++i) counts_.push_back(static_cast<std::int64_t>(i) + 10);
  }
  Matches search(const std::string& query, const std::string& sort, std::int64_t wanted) const override {
    if (sort != "name-asc") throw KernelError::invalid("Unsupported sort: " + sort);
    lastQuery = query;
    lastWanted = wanted;
    std::vector<std::int32_t> ids;
    for (int id = rows_ - 1; id >= 0 && static_cast<std::int64_t>(ids.size()) < wanted; --id) ids.push_back(id);
    return {rows_, Column<std::int32_t>::owned(std::move(ids))};
  }
  ResultRow row(std::int32_t id) const override {
    ++rowsBuilt;
    ResultRow row;
    row.id = id;
    row.path = "/g" + std::to_string(generation_) + "/" + std::to_string(id);
    return row;
  }
  std::int64_t totalRecords() const override { return rows_; }
  const std::vector<Configuration::Source>& sources() const override { return sources_; }
  const std::vector<std::int64_t>& counts() const override { return counts_; }
  void finishWrites() const override {}

  mutable std::string lastQuery;
  mutable std::int64_t lastWanted = -1;
  mutable int rowsBuilt = 0;

 private:
  int rows_;
  std::vector<Configuration::Source> sources_;
  std::vector<std::int64_t> counts_;
  int generation_;
};

struct Harness {
  TempDir dir;
  std::filesystem::path config = dir / "config.json";
  int loads = 0;
  bool failNext = false;
  int rows = 5;

  Searcher make() {
    return Searcher(config, nullptr, [this](const Configuration& configuration, const auto&) {
      ++loads;
      if (failNext) throw KernelError::io("Cannot read source disk");
      return std::make_shared<const FakeSnapshot>(rows, configuration, loads);
    });
  }
  void writeConfig(const std::string& text) { dir.write("config.json", text); }
  void touch(int secondsLater) {
    auto stamp = std::filesystem::last_write_time(config);
    std::filesystem::last_write_time(config, stamp + std::chrono::seconds(secondsLater));
  }
};

std::vector<std::string> paths(const SearchResult& result) {
  std::vector<std::string> out;
  for (const auto& row : result.rows) out.push_back(row.path);
  return out;
}

TEST(Searcher, PagesThroughTheMatches) {
  constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();
  struct PageCase {
    const char* label;
    std::int64_t offset;
    std::int64_t limit;
    std::vector<std::string> expected;
    std::int64_t wanted;  // how far the engine is asked to order the matches
  };
  const std::vector<PageCase> cases = {
      {"first page", 0, 2, {"/g1/4", "/g1/3"}, 2},
      {"middle page", 2, 2, {"/g1/2", "/g1/1"}, 4},
      {"short last page", 3, 10, {"/g1/1", "/g1/0"}, 13},
      {"offset at total", 5, 1, {}, 6},
      {"offset beyond total", 9, 1, {}, 10},
      {"limit zero counts only", 0, 0, {}, 0},
      {"huge limit", 1, kMax, {"/g1/3", "/g1/2", "/g1/1", "/g1/0"}, kMax},
      {"huge offset and limit", kMax, kMax, {}, kMax},
  };
  Harness harness;
  harness.writeConfig(kValidConfiguration);
  Searcher searcher = harness.make();
  for (const PageCase& c : cases) {
    SearchResult result = searcher.search("q", "name-asc", c.offset, c.limit);
    EXPECT_EQ(result.total, 5) << c.label;
    EXPECT_EQ(paths(result), c.expected) << c.label;
    EXPECT_GE(result.searchMs, 0) << c.label;
    EXPECT_EQ(std::static_pointer_cast<const FakeSnapshot>(searcher.current())->lastWanted, c.wanted) << c.label;
  }
  EXPECT_EQ(harness.loads, 1) << "an unchanged configuration is loaded once";
  auto snapshot = std::static_pointer_cast<const FakeSnapshot>(searcher.current());
  EXPECT_EQ(snapshot->rowsBuilt, 10) << "rows are built for the page only";
  EXPECT_EQ(snapshot->lastQuery, "q");
}

TEST(Searcher, ReloadsOnlyWhenTheModificationDateChanges) {
  Harness harness;
  harness.writeConfig(kValidConfiguration);
  Searcher searcher = harness.make();
  auto first = searcher.current();
  EXPECT_EQ(searcher.current(), first);
  EXPECT_EQ(harness.loads, 1);

  harness.touch(5);
  auto second = searcher.current();
  EXPECT_NE(second, first);
  EXPECT_EQ(harness.loads, 2);
  EXPECT_EQ(paths(searcher.search("", "name-asc", 0, 1)), std::vector<std::string>{"/g2/4"});

  // A failed reload keeps the held snapshot but not the new date: the next
  // call tries again.
  harness.touch(5);
  harness.failNext = true;
  EXPECT_THROW(searcher.current(), KernelError);
  EXPECT_THROW(searcher.current(), KernelError);
  EXPECT_EQ(harness.loads, 4);
  harness.failNext = false;
  auto third = searcher.current();
  EXPECT_NE(third, second);
  EXPECT_EQ(searcher.current(), third);
  EXPECT_EQ(harness.loads, 5);
}

TEST(Searcher, ErrorsComeBeforeLoadingOrPassThrough) {
  struct Case {
    const char* label;
    std::optional<std::string> configuration;  // none: no file at all
    bool status;                                // status() rather than search()
    std::string sort;
    std::string message;  // {config} stands for the configuration's path
    int loads;
  };
  const std::vector<Case> cases = {
      {"no configuration says where it looked", std::nullopt, false, "name-asc",
       "No index yet: open Tarv and choose the folders to search ({config}).", 0},
      {"configuration errors come before loading", R"({"schema":1,"sources":[]})", true, "name-asc",
       "sources must contain 1..16 entries", 0},
      {"search errors pass through", kValidConfiguration, false, "colour-asc", "Unsupported sort: colour-asc", 1},
  };
  for (const Case& c : cases) {
    Harness harness;
    if (c.configuration) harness.writeConfig(*c.configuration);
    Searcher searcher = harness.make();
    std::string message = c.message;
    if (auto at = message.find("{config}"); at != std::string::npos) message.replace(at, 8, harness.config.string());
    try {
      if (c.status) searcher.status();
      else searcher.search("", c.sort, 0, 10);
      ADD_FAILURE() << c.label << ": no error";
    } catch (const KernelError& error) {
      EXPECT_EQ(error.message(), message) << c.label;
    }
    EXPECT_EQ(harness.loads, c.loads) << c.label;
  }
}

TEST(Searcher, PointsTheIndexCacheAtTheSupportFolderUnlessSet) {
  TempDir dir;
  std::string identity = "[0";
  for (int unit = 1; unit < 65536; ++unit) identity += "," + std::to_string(unit);
  identity += "]";
  const auto table = dir.write("table.json", "{\"search\":" + identity + ",\"sort\":" + identity +
                                                 ",\"case\":" + identity + "}");
  const std::vector<std::string> argv = {"tarv", "status", "--compatibility", table.string()};
  testing::EnvironmentGuard environment;
  environment.set("TARV_SUPPORT_DIRECTORY", dir.path().string());
  environment.set("TARV_COMPATIBILITY", (dir / "not-used.json").string());
  environment.set("TARV_INDEX_CACHE", std::nullopt);
  Searcher searcher(dir / "config.json", argv);
  ASSERT_NE(searcher.compatibility(), nullptr) << "the table named on the command line is loaded";
  EXPECT_EQ(searcher.compatibility()->fold(u'Q'), u'Q');
  EXPECT_EQ(std::string(std::getenv("TARV_INDEX_CACHE")), (dir / "IndexCache").string());

  environment.set("TARV_INDEX_CACHE", "relative/on/purpose");
  Searcher again(dir / "config.json", argv);
  EXPECT_EQ(std::string(std::getenv("TARV_INDEX_CACHE")), "relative/on/purpose");
}

}  // namespace
}  // namespace tarv::cli
