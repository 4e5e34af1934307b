// The manual pages: groff and man render them without a single warning, and
// they cover what the command line actually offers (every sort name, option
// and environment variable), so a new option cannot go undocumented quietly.

#include <gtest/gtest.h>

#include <regex>
#include <set>
#include <sstream>
#include <string>

#include "cli/usage_text.h"
#include "kernel/query/sort_spec.h"
#include "tests/packaging/tools.h"
#include "tests/support/process.h"
#include "tests/support/temp_dir.h"

namespace tarv::testing {
namespace {

const char* const kPages[] = {"tarv.1", "tarv-service.1"};

std::string pagePath(const char* page) { return sourceDir() + "/docs/man/" + page; }

// The page's source with roff's escaped hyphens made plain.
std::string plainSource(const char* page) {
  std::string text = readFile(pagePath(page));
  for (std::size_t at = text.find("\\-"); at != std::string::npos; at = text.find("\\-", at)) text.erase(at, 1);
  return text;
}

// Whether `word` stands as a whole argument of a bold font macro (.B, .BI,
// .BR, .RB) on some line: that is how the pages introduce every name.
bool emphasised(const std::string& text, const std::string& word) {
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    if (!(line.starts_with(".B ") || line.starts_with(".BI ") || line.starts_with(".BR ") || line.starts_with(".RB ")))
      continue;
    std::istringstream arguments(line.substr(line.find(' ')));
    for (std::string argument; arguments >> argument;) {
      if (argument.size() >= 2 && argument.front() == '"' && argument.back() == '"')
        argument = argument.substr(1, argument.size() - 2);
      if (argument == word) return true;
    }
  }
  return false;
}

TEST(ManPages, GroffWarnsAboutNothing) {
  const auto groff = findProgram("groff");
  if (!groff) GTEST_SKIP() << "groff is not installed";
  for (const char* page : kPages) {
    ProcessResult checked = run(*groff, {"-ww", "-man", "-z", pagePath(page)});
    EXPECT_EQ(checked.status, 0) << page;
    EXPECT_EQ(checked.err, "") << page;
  }
}

TEST(ManPages, ManRendersWithoutWarnings) {
  const auto man = findProgram("man");
  if (!man) GTEST_SKIP() << "man is not installed";
  ProcessOptions options;
  options.env["MANWIDTH"] = "80";
  options.env["MANPAGER"] = "cat";
  options.env["PAGER"] = "cat";
  for (const char* page : kPages) {
    ProcessResult shown = run(*man, {"--warnings", "-l", pagePath(page)}, options);
    EXPECT_EQ(shown.status, 0) << page;
    EXPECT_EQ(shown.err, "") << page;
    EXPECT_NE(shown.out.find("NAME"), std::string::npos) << page;
    EXPECT_NE(shown.out.find("EXIT STATUS"), std::string::npos) << page;
  }
}

TEST(ManPages, CarryTheProjectVersion) {
  for (const char* page : kPages)
    EXPECT_NE(readFile(pagePath(page)).find(std::string("\"tarv ") + TARV_VERSION + "\""), std::string::npos) << page;
}

TEST(ManPages, TarvCoversTheCommandLine) {
  const std::string text = plainSource("tarv.1");
  for (std::string_view sort : kSortNames) EXPECT_NE(text.find(sort), std::string::npos) << sort;

  // Every option and command word of the usage text.
  std::set<std::string> words;
  const std::string usage(cli::kUsageText);
  const std::regex option("--[a-z-]+");
  for (auto it = std::sregex_iterator(usage.begin(), usage.end(), option); it != std::sregex_iterator(); ++it)
    words.insert(it->str());
  EXPECT_GE(words.size(), 7u) << "the usage text lost its options";
  for (const char* more : {"--compatibility", "--provider", "--base-url", "--model", "search", "status", "syntax",
                           "ai", "mcp"})
    words.insert(more);
  for (const std::string& word : words) EXPECT_TRUE(emphasised(text, word)) << word;

  for (const char* variable : {"TARV_SUPPORT_DIRECTORY", "TARV_INDEX_CACHE", "TARV_COMPATIBILITY", "TARV_LOAD_TRACE",
                               "TARV_WORKERS", "TARV_PARALLEL_MINIMUM"})
    EXPECT_TRUE(emphasised(text, variable)) << variable;
  for (const char* section : {".SH QUERY SYNTAX", ".SH SORT ORDERS", ".SH CONFIGURATION", ".SH ENVIRONMENT",
                              ".SH EXIT STATUS"})
    EXPECT_NE(text.find(section), std::string::npos) << section;
}

TEST(ManPages, ServiceCoversItsProtocol) {
  const std::string text = plainSource("tarv-service.1");
  for (const char* word : {"TARV_TOKEN", "/v1/status", "/v1/queries", "--config", "--compatibility", "http.ready",
                           "version_changed", ".SH EXIT STATUS"})
    EXPECT_NE(text.find(word), std::string::npos) << word;
}

}  // namespace
}  // namespace tarv::testing
