// The load trace of `tarv search` names the planner's strategy per source
// and the rows each source matched, so a slow query can be explained.

#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <vector>

#include "tests/support/process.h"
#include "tests/support/temp_dir.h"

namespace tarv {
namespace {

using namespace std::string_literals;

const std::string kConfig = R"({"schema": 1, "sources": [
  {"id": "work", "label": "Work", "format": "gfind", "file": "work.gfind", "root": "/work",
   "state": "complete", "scannedAt": null, "virtualDirectory": null},
  {"id": "home", "label": "Home", "format": "gfind", "file": "home.gfind", "root": "/home",
   "state": "complete", "scannedAt": null, "virtualDirectory": null}]})";

std::string records(const std::string& root, int files) {
  std::string text = "d 0 1700000000 " + root + "/docs\0"s;
  for (int i = 0; i < files; ++i)
    text += "f " + std::to_string(i) + " 1700000000 " + root + "/docs/note" + std::to_string(i) +
            (i % 2 ? ".txt" : ".md") + '\0';
  return text;
}

TEST(QueryPlanTrace, EachSourceReportsItsStrategyAndRows) {
  testing::TempDir dir;
  dir.write("work.gfind", records("/work", 30));
  dir.write("home.gfind", records("/home", 20));
  const std::string config = dir.write("config.json", kConfig).string();
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
    testing::ProcessOptions options;
    options.env["TARV_SUPPORT_DIRECTORY"] = (dir / "support").string();
    options.env["HOME"] = (dir / "home").string();
    options.env["XDG_CONFIG_HOME"] = (dir / "xdg-config").string();
    options.env["TARV_INDEX_CACHE"] = (dir / "cache").string();
    options.env["TARV_LOAD_TRACE"] = "1";
    options.workingDirectory = dir.path().string();
    options.timeoutSeconds = 60;
    const auto result = testing::run(testing::tarvBinary(), {"search", "--count", c.query, "--config", config}, options);
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
