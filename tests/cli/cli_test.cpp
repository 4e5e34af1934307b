// The built `tarv` executable run as a child process: exact output, error
// lines and exit statuses. Every run gets its own home, support and settings
// folders, so the real ones are never read or written.

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <optional>
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

TEST_F(TarvCommand, SyntaxPrintsTheGuide) {
  ProcessResult result = tarv({"syntax"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out, kGuide + "\n");
  EXPECT_EQ(result.err, "");
}

// Every failure is one line on standard error (the usage text follows an
// unknown command) and status 2. The messages themselves are checked where
// they arise; these rows show each kind reaches the person unchanged, and
// where the configuration is looked for.
TEST_F(TarvCommand, FailuresExitWithStatusTwo) {
  const std::string bad = dir_.write("bad.json", "[]").string();
  const std::string notAnObject = "tarv: Expected JSON object\n";
  const std::string defaultMissing = noIndexYet(support() / "config.json");
  const std::string range = "tarv: --limit must be at least 1 and --offset at least 0\n";
  const std::string chosen = dir_.write("chosen/config.json", "\"not an object\"").string();
  const std::string badTable = dir_.write("bad-table.json", "{\"sort\":[1,2]}").string();
  std::string bareDate = kSource;
  bareDate.replace(bareDate.find("null"), 4, "\"2026-10-01\"");
  auto configFile = [&](const std::string& name, const std::string& text) { return dir_.write(name, text).string(); };
  auto naming = [](const std::string& path) { return "{\"configurationPath\": \"" + path + "\"}"; };
  struct Case {
    const char* label;
    Words words;
    std::string err;
    std::optional<std::string> settings = std::nullopt;  // the defaults file, when there is one
    std::map<std::string, std::optional<std::string>> env = {};
  };
  const std::vector<Case> cases = {
      {"unknown command", {"frobnicate", "x"}, "tarv: unknown command frobnicate\n" + kUsage + "\n"},
      {"commands are case-sensitive", {"Search", "x"}, "tarv: unknown command Search\n" + kUsage + "\n"},
      {"an option is no command", {"--json", "x"}, "tarv: unknown command --json\n" + kUsage + "\n"},
      {"empty command", {"", "x"}, "tarv: unknown command \n" + kUsage + "\n"},
      {"range", {"search", "q", "--limit", "0"}, range},
      {"value missing", {"search", "q", "--limit"}, "tarv: --limit needs a value\n"},
      {"global option value missing", {"status", "--config"}, "tarv: --config needs a value\n"},
      {"unknown option", {"search", "report", "--colour", "red"}, "tarv: unknown option --colour\n"},
      {"no configuration names the default", {"status"}, defaultMissing},
      {"status --json", {"status", "--json"}, defaultMissing},
      {"a word with one hyphen is query text", {"search", "-draft", "report"}, defaultMissing},
      {"count", {"search", "--count"}, defaultMissing},
      {"relative --config from the working directory", {"status", "--config", "sub/missing.json"},
       noIndexYet(dir_ / "sub/missing.json")},
      {"relative support folder falls back to the data home", {"status"},
       noIndexYet(dir_ / "xdg-data/Tarv/config.json"), std::nullopt, {{"TARV_SUPPORT_DIRECTORY", "relative/support"}}},
      {"--config before the command", {"--config", bad, "status"}, notAnObject},
      {"--config after the command", {"status", "--config", bad}, notAnObject},
      {"--config after a flag", {"status", "--json", "--config", bad}, notAnObject},
      {"--config between query words", {"search", "a", "--config", bad, "b", "--limit", "3"}, notAnObject},
      {"repeated source id", {"status", "--config", configFile("repeated.json", config(std::string(kSource) + "," + kSource))},
       "tarv: Invalid or repeated source id\n"},
      {"bare date", {"status", "--config", configFile("bare-date.json", config(bareDate))},
       "tarv: Text '2026-10-01' could not be parsed\n"},
      {"the settings name an existing configuration", {"status"}, notAnObject, naming(chosen)},
      {"the settings name a missing one: the default", {"status"}, defaultMissing, naming((dir_ / "gone.json").string())},
      {"--config wins over the settings", {"status", "--config", (dir_ / "other.json").string()},
       noIndexYet(dir_ / "other.json"), naming(chosen)},
      {"a bad comparison table", {"status", "--compatibility", badTable}, "tarv: Compatibility table missing: search\n"},
      // The option is global: with search it names the table and never
      // reaches the query or the unknown-option check.
      {"a bad comparison table with search", {"search", "x", "--compatibility", badTable},
       "tarv: Compatibility table missing: search\n"},
  };
  for (const Case& c : cases) {
    std::filesystem::remove(dir_ / "xdg-config/tarv/defaults.json");
    if (c.settings) dir_.write("xdg-config/tarv/defaults.json", *c.settings);
    ProcessOptions custom = options();
    for (const auto& [name, value] : c.env) custom.env[name] = value;
    ProcessResult result = tarv(c.words, custom);
    EXPECT_EQ(result.status, 2) << c.label;
    EXPECT_EQ(result.out, "") << c.label;
    EXPECT_EQ(result.err, c.err) << c.label;
  }
}

// Failures whose wording comes from elsewhere (the JSON parser, the system):
// still one line with the prefix, naming what failed.
TEST_F(TarvCommand, ForeignMessagesStayOneLine) {
  ProcessOptions absentTable = options();
  absentTable.env["TARV_COMPATIBILITY"] = (dir_ / "absent-table.json").string();
  const std::string broken = dir_.write("broken.json", "{\"schema\":").string();
  const ProcessResult results[] = {tarv({"search", "--config", broken}), tarv({"search", "x"}, absentTable)};
  const std::string starts[] = {"tarv: Invalid configuration JSON: ", "tarv: "};
  for (int i = 0; i < 2; ++i) {
    const ProcessResult& result = results[i];
    EXPECT_EQ(result.status, 2) << i;
    EXPECT_EQ(result.err.rfind(starts[i], 0), 0u) << result.err;
    EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
  }
  EXPECT_NE(results[1].err.find("absent-table.json"), std::string::npos) << results[1].err;
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

}  // namespace
}  // namespace tarv
