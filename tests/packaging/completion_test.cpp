// Shell completions: the bash functions, run in a real bash, offer the
// commands, options, the fourteen sort names, the AI providers and files after
// --config; the zsh file parses and lists the same names.

#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

#include "kernel/query/sort_spec.h"
#include "tests/packaging/tools.h"
#include "tests/support/process.h"
#include "tests/support/temp_dir.h"

namespace tarv::testing {
namespace {

using Words = std::vector<std::string>;

Words sorted(Words words) {
  std::sort(words.begin(), words.end());
  return words;
}

// What the completion offers for the command line `words`, the last word
// being the one under the cursor; sorted.
Words complete(const std::string& bash, const Words& words, const std::string& workingDirectory = {}) {
  static const std::string script =
      "source \"$0\" || exit 9\n"
      "COMP_WORDS=(\"$@\"); COMP_CWORD=$(($# - 1)); COMP_LINE=\"$*\"; COMP_POINT=${#COMP_LINE}\n"
      "if [[ $1 == tarv-service ]]; then _tarv_service; else _tarv; fi\n"
      "(( ${#COMPREPLY[@]} )) && printf '%s\\n' \"${COMPREPLY[@]}\"\n"
      "exit 0\n";
  Words arguments = {"--norc", "--noprofile", "-c", script, sourceDir() + "/completions/tarv.bash"};
  arguments.insert(arguments.end(), words.begin(), words.end());
  ProcessOptions options;
  options.workingDirectory = workingDirectory;
  ProcessResult result = run(bash, arguments, options);
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.err, "");
  return sorted(lines(result.out));
}

Words allSortNames() { return sorted(Words(kSortNames.begin(), kSortNames.end())); }

TEST(BashCompletion, OffersWhatTheCommandLineTakes) {
  const auto bash = findProgram("bash");
  if (!bash) GTEST_SKIP() << "bash is not installed";
  struct Case {
    const char* label;
    Words line;
    Words expected;
  };
  const Case cases[] = {
      {"commands", {"tarv", ""}, {"ai", "help", "mcp", "search", "status", "syntax"}},
      {"commands by prefix", {"tarv", "s"}, {"search", "status", "syntax"}},
      {"command after --config and its value", {"tarv", "--config", "c.json", "st"}, {"status"}},
      {"global options before the command", {"tarv", "--c"}, {"--compatibility", "--config"}},
      {"search options", {"tarv", "search", "--"}, {"--compatibility", "--config", "--count", "--json", "--limit",
                                                     "--offset", "--sort"}},
      {"options after query words", {"tarv", "search", "ext:pdf", "--c"}, {"--compatibility", "--config", "--count"}},
      {"every sort name", {"tarv", "search", "--sort", ""}, allSortNames()},
      {"sort names by prefix", {"tarv", "search", "--sort", "size-"},
       {"size-asc", "size-desc", "size-on-disk-asc", "size-on-disk-desc"}},
      {"sort after other options", {"tarv", "search", "x", "--json", "--sort", "date-c"},
       {"date-created-asc", "date-created-desc"}},
      {"status options", {"tarv", "status", "--j"}, {"--json"}},
      {"ai options", {"tarv", "ai", "--"}, {"--base-url", "--compatibility", "--config", "--json", "--model",
                                             "--provider", "--search"}},
      {"providers", {"tarv", "ai", "--provider", ""}, {"anthropic", "apple", "openAI"}},
      {"providers by prefix", {"tarv", "ai", "--provider", "a"}, {"anthropic", "apple"}},
      {"no guesses for numbers", {"tarv", "search", "--limit", ""}, {}},
      {"query words are free text", {"tarv", "search", "inv"}, {}},
      {"unknown command", {"tarv", "frobnicate", "--"}, {}},
      {"service options", {"tarv-service", "--"}, {"--compatibility", "--config"}},
  };
  for (const Case& c : cases) EXPECT_EQ(complete(*bash, c.line), sorted(c.expected)) << c.label;
}

TEST(BashCompletion, OffersFilesForConfigAndTable) {
  const auto bash = findProgram("bash");
  if (!bash) GTEST_SKIP() << "bash is not installed";
  TempDir dir;
  dir.write("config.json", "{}");
  dir.write("cache/x", "");
  dir.write("notes.txt", "");
  const std::string here = dir.path().string();
  EXPECT_EQ(complete(*bash, {"tarv", "--config", "c"}, here), (Words{"cache", "config.json"}));
  EXPECT_EQ(complete(*bash, {"tarv", "search", "q", "--config", ""}, here),
            (Words{"cache", "config.json", "notes.txt"}));
  EXPECT_EQ(complete(*bash, {"tarv", "--compatibility", "n"}, here), Words{"notes.txt"});
  EXPECT_EQ(complete(*bash, {"tarv-service", "--config", "co"}, here), Words{"config.json"});
}

// The words between "NAME=(" and the closing parenthesis in the zsh file.
Words zshArray(const std::string& text, const std::string& name) {
  std::size_t start = text.find(name + "=(");
  if (start == std::string::npos) return {};
  start += name.size() + 2;
  std::istringstream words(text.substr(start, text.find(')', start) - start));
  Words out;
  for (std::string word; words >> word;) out.push_back(word);
  return sorted(out);
}

TEST(ZshCompletion, ParsesAndListsTheSameNames) {
  const std::string text = readFile(sourceDir() + "/completions/_tarv");
  EXPECT_TRUE(text.starts_with("#compdef tarv tarv-service\n"));
  EXPECT_EQ(zshArray(text, "sorts"), allSortNames());
  EXPECT_NE(text.find("provider:(apple openAI anthropic)"), std::string::npos);
  EXPECT_NE(text.find("--config[kernel configuration file]:configuration file:_files"), std::string::npos);
  const auto zsh = findProgram("zsh");
  if (!zsh) GTEST_SKIP() << "zsh is not installed: only the text was checked";
  ProcessResult parsed = run(*zsh, {"-n", sourceDir() + "/completions/_tarv"});
  EXPECT_EQ(parsed.status, 0) << parsed.err;
  EXPECT_EQ(parsed.err, "");
}

}  // namespace
}  // namespace tarv::testing
