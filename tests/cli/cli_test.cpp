// The built `tarv` executable run as a child process: exact output, error
// lines and exit statuses. Every run gets its own home, support and settings
// folders, so the real ones are never read or written.

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "tests/support/process.h"
#include "tests/support/temp_dir.h"

namespace tarv {
namespace {

using testing::ProcessOptions;
using testing::ProcessResult;
using testing::TempDir;
using Words = std::vector<std::string>;

const std::string kUsage =
    "Usage:\n"
    "  tarv search QUERY [--sort SORT] [--limit N] [--offset N] [--json | --count]\n"
    "  tarv status [--json]\n"
    "  tarv syntax\n"
    "  tarv ai DESCRIPTION [--search] [--json]   turn a description into a query with the AI set up in "
    "Tarv \xE2\x80\xBA Settings \xE2\x80\xBA AI\n"
    "  tarv mcp                  MCP server on stdin/stdout (tools: search_files, index_status, search_syntax)\n"
    "\n"
    "QUERY uses Vantor's syntax (see `tarv syntax`), e.g.  tarv search 'ext:pdf invoice dm:2026'\n"
    "SORT: name-asc (default), name-desc, path-asc, path-desc, size-asc, size-desc, date-modified-asc, "
    "date-modified-desc, ...\n"
    "Without --json, prints one full path per line. Options: --config FILE (default: the configuration the Tarv app "
    "uses).";

const std::string kGuide = R"(Tarv search syntax (Vantor 1.4 compatible). Matching is on file and folder names, case-insensitive, unless noted.

  report 2026          AND: both words in the name (space)
  jpg | png            OR
  !tmp                 NOT
  <a | b> c            grouping
  "my file"            exact phrase (quotes keep spaces)
  *.log  data?.csv     wildcards (whole name must match)
  /Users/me/Projects/  a term with "/" matches the full path; path: makes any term match the full path
  file:  folder:       only files / only folders
  ext:pdf;docx         extensions of files (no dot, ; separated); app bundles are folders: folder: *.app
  size:>10mb  size:1mb..50mb  size:<4kb  size:unknown      units: kb mb gb (1024-based)
  dm:today  dm:yesterday  dm:2026  dm:2026-10  dm:2026-10-01  dm:>2026-09-01  dm:2026-01..2026-06
                       date modified (dc: date created, same forms; local time)
  parent:/Users/me/Downloads   direct children of a folder
  volume-label:"Macintosh HD"  files on a disk with that name
  case:  nocase:  wfn: (whole file name)  path:  nopath:     modifiers before a term, e.g. case:README wfn:Makefile
  audio:  video:  pic:  doc:  exe:  zip:                    file type groups (extension lists)

Not supported: content search, regex:, dm:lastweek-style keywords (use dates), attributes.
Examples:
  ext:pdf dm:2026-10 invoice          PDFs modified in October 2026 with "invoice" in the name
  folder: node_modules                folders named like node_modules
  video: size:>1gb                    videos over 1 GB
  path:/Users/me/Projects ext:rs !test)";

const char* kSource = R"({"id":"disk","label":"Disk","format":"gfind","file":"disk.txt","root":"/","state":"complete",)"
                      R"("scannedAt":null,"virtualDirectory":null})";

std::string config(const std::string& sources) { return R"({"schema":1,"sources":[)" + sources + "]}"; }

class TarvCommand : public ::testing::Test {
 protected:
  std::filesystem::path support() const { return dir_ / "support"; }
  ProcessOptions options() const { return testing::isolatedOptions(dir_.path()); }
  ProcessResult tarv(const Words& arguments) const { return tarv(arguments, options()); }
  ProcessResult tarv(const Words& arguments, const ProcessOptions& custom) const {
    return testing::run(testing::tarvBinary(), arguments, custom);
  }

  std::string noIndexYet(const std::filesystem::path& path) const {
    return "tarv: No index yet: open Tarv and choose the folders to search (" + path.string() + ").\n";
  }

  TempDir dir_;
};

TEST_F(TarvCommand, UsageOnStandardOutputForHelpWords) {
  for (const Words& words : {Words{}, Words{"help"}, Words{"--help"}, Words{"-h"}, Words{"help", "search"},
                             Words{"--config", "elsewhere.json"}}) {
    ProcessResult result = tarv(words);
    const std::string label = words.empty() ? "(none)" : words.front();
    EXPECT_EQ(result.status, 0) << label;
    EXPECT_EQ(result.out, kUsage + "\n") << label;
    EXPECT_EQ(result.err, "") << label;
  }
}

TEST_F(TarvCommand, UnknownCommandPrintsUsageOnStandardError) {
  for (const std::string word : {"frobnicate", "Search", "--json", ""}) {
    ProcessResult result = tarv({word, "x"});
    EXPECT_EQ(result.status, 2) << word;
    EXPECT_EQ(result.out, "") << word;
    EXPECT_EQ(result.err, "tarv: unknown command " + word + "\n" + kUsage + "\n") << word;
  }
}

TEST_F(TarvCommand, SyntaxPrintsTheGuide) {
  ProcessResult result = tarv({"syntax"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out, kGuide + "\n");
  EXPECT_EQ(result.err, "");
}

TEST_F(TarvCommand, OptionErrorsExitWithStatusTwo) {
  const std::string range = "tarv: --limit must be at least 1 and --offset at least 0\n";
  struct OptionCase {
    const char* label;
    Words words;
    std::string err;
  };
  // Every message is checked in-process with the option readers; one row per
  // kind shows each reaches standard error with the prefix and status 2.
  const std::vector<OptionCase> cases = {
      {"range", {"search", "q", "--limit", "0"}, range},
      {"value missing", {"search", "q", "--limit"}, "tarv: --limit needs a value\n"},
      {"global option value missing", {"status", "--config"}, "tarv: --config needs a value\n"},
      {"unknown option", {"search", "report", "--colour", "red"}, "tarv: unknown option --colour\n"},
  };
  for (const OptionCase& c : cases) {
    ProcessResult result = tarv(c.words);
    EXPECT_EQ(result.status, 2) << c.label;
    EXPECT_EQ(result.out, "") << c.label;
    EXPECT_EQ(result.err, c.err) << c.label;
  }
}

TEST_F(TarvCommand, NoConfigurationNamesTheDefaultPath) {
  const std::filesystem::path expected = support() / "config.json";
  for (const Words& words : {Words{"status"}, Words{"status", "--json"}, Words{"search", "-draft", "report"},
                             Words{"search", "--count"}}) {
    ProcessResult result = tarv(words);
    EXPECT_EQ(result.status, 2) << words.front();
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, noIndexYet(expected)) << words.back();
  }
}

TEST_F(TarvCommand, RelativeConfigIsTakenFromTheWorkingDirectory) {
  ProcessResult result = tarv({"status", "--config", "sub/missing.json"});
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.err, noIndexYet(dir_ / "sub/missing.json"));
}

TEST_F(TarvCommand, ConfigMayStandAnywhere) {
  const auto path = dir_.write("bad.json", "[]");
  for (const Words& words : {Words{"--config", path.string(), "status"}, Words{"status", "--config", path.string()},
                             Words{"status", "--json", "--config", path.string()},
                             Words{"search", "a", "--config", path.string(), "b", "--limit", "3"}}) {
    ProcessResult result = tarv(words);
    EXPECT_EQ(result.status, 2) << words.front();
    EXPECT_EQ(result.err, "tarv: Expected JSON object\n") << words.front();
  }
}

TEST_F(TarvCommand, InvalidConfigurationsFailWithTheirMessage) {
  struct ConfigCase {
    const char* label;
    std::string text;
    std::string message;
  };
  // Each rule and its message is checked where the configuration is read;
  // here a few rows show the message reaches the person unchanged.
  std::string bareDate = kSource;
  bareDate.replace(bareDate.find("null"), 4, "\"2026-10-01\"");
  const std::vector<ConfigCase> cases = {
      {"not an object", "[1]", "Expected JSON object"},
      {"repeated id", config(std::string(kSource) + "," + kSource), "Invalid or repeated source id"},
      {"bare date", config(bareDate), "Text '2026-10-01' could not be parsed"},
  };
  for (const ConfigCase& c : cases) {
    const auto path = dir_.write("config-case.json", c.text);
    ProcessResult result = tarv({"status", "--config", path.string()});
    EXPECT_EQ(result.status, 2) << c.label;
    EXPECT_EQ(result.out, "") << c.label;
    EXPECT_EQ(result.err, "tarv: " + c.message + "\n") << c.label;
  }
  ProcessResult broken = tarv({"search", "--config", dir_.write("broken.json", "{\"schema\":").string()});
  EXPECT_EQ(broken.status, 2);
  EXPECT_EQ(broken.err.rfind("tarv: Invalid configuration JSON: ", 0), 0u) << broken.err;
  EXPECT_EQ(std::count(broken.err.begin(), broken.err.end(), '\n'), 1) << broken.err;
}

TEST_F(TarvCommand, SettingsNameTheConfigurationOnlyWhenItExists) {
  const auto chosen = dir_.write("chosen/config.json", "\"not an object\"");
  dir_.write("xdg-config/tarv/defaults.json", "{\"configurationPath\": \"" + chosen.string() + "\"}");
  ProcessResult result = tarv({"status"});
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.err, "tarv: Expected JSON object\n");

  dir_.write("xdg-config/tarv/defaults.json", "{\"configurationPath\": \"" + (dir_ / "gone.json").string() + "\"}");
  result = tarv({"status"});
  EXPECT_EQ(result.err, noIndexYet(support() / "config.json"));

  // --config wins over the settings.
  dir_.write("xdg-config/tarv/defaults.json", "{\"configurationPath\": \"" + chosen.string() + "\"}");
  result = tarv({"status", "--config", (dir_ / "other.json").string()});
  EXPECT_EQ(result.err, noIndexYet(dir_ / "other.json"));
}

TEST_F(TarvCommand, MalformedSettingsWarnOnceAndAreIgnored) {
  dir_.write("xdg-config/tarv/defaults.json", "{not json");
  ProcessResult result = tarv({"status"});
  EXPECT_EQ(result.status, 2);
  const std::string& err = result.err;
  ASSERT_EQ(std::count(err.begin(), err.end(), '\n'), 2) << err;
  EXPECT_EQ(err.rfind("tarv: ", 0), 0u) << err;
  EXPECT_NE(err.find("defaults.json"), std::string::npos) << err;
  EXPECT_EQ(err.substr(err.find('\n') + 1), noIndexYet(support() / "config.json"));
}

TEST_F(TarvCommand, RelativeSupportDirectoryFallsBackToTheDataHome) {
  ProcessOptions custom = options();
  custom.env["TARV_SUPPORT_DIRECTORY"] = "relative/support";
  ProcessResult result = tarv({"status"}, custom);
  EXPECT_EQ(result.err, noIndexYet(dir_ / "xdg-data/Tarv/config.json"));
}

TEST_F(TarvCommand, CompatibilityTableProblemsAreReported) {
  const auto bad = dir_.write("bad-table.json", "{\"sort\":[1,2]}");
  ProcessResult result = tarv({"status", "--compatibility", bad.string()});
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.err, "tarv: Compatibility table missing: search\n");
  // The option is global: with search it names the table and never reaches
  // the query or the unknown-option check.
  result = tarv({"search", "x", "--compatibility", bad.string()});
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.err, "tarv: Compatibility table missing: search\n");

  ProcessOptions custom = options();
  custom.env["TARV_COMPATIBILITY"] = (dir_ / "absent-table.json").string();
  result = tarv({"search", "x"}, custom);
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.err.rfind("tarv: ", 0), 0u) << result.err;
  EXPECT_NE(result.err.find("absent-table.json"), std::string::npos) << result.err;
}

}  // namespace
}  // namespace tarv
