// Reading the search command's options off the argument list: what each
// option consumes, and the validation messages. What the command then prints
// for the options is checked end to end on the built executable.

#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <vector>

#include "cli/argument_list.h"
#include "cli/search_options.h"

namespace tarv::cli {
namespace {

using Words = std::vector<std::string>;

TEST(WholeNumber, ReadsSignedDecimalsOnly) {
  struct NumberCase {
    const char* text;
    std::int64_t expected;
  };
  const std::vector<NumberCase> cases = {
      {"5", 5},        {"+5", 5},         {"-5", -5},   {"05", 5},   {"0", 0},
      {" 5", -1},      {"5 ", -1},        {"", -1},     {"+", -1},   {"-", -1},
      {"+-5", -1},     {"--5", -1},       {"1e3", -1},  {"1.0", -1}, {"0x10", -1},
      {"ten", -1},     {"9223372036854775807", 9223372036854775807}, {"9223372036854775808", -1},
      {"-9223372036854775808", std::numeric_limits<std::int64_t>::min()},
  };
  for (const NumberCase& c : cases) EXPECT_EQ(wholeNumberOr(std::string(c.text), 77), c.expected) << c.text;
  EXPECT_EQ(wholeNumberOr(std::nullopt, 77), 77);
}

TEST(SearchOptions, ReadsDefaultsValuesAndQuery) {
  struct OptionCase {
    const char* label;
    Words words;
    std::string sort;
    std::int64_t limit;
    std::int64_t offset;
    bool json;
    bool count;
    std::string query;
  };
  const std::vector<OptionCase> cases = {
      {"defaults", {}, "name-asc", 100, 0, false, false, ""},
      {"all options", {"--count", "--json", "--offset", "5", "--limit", "7", "--sort", "size-desc"},
       "size-desc", 7, 5, true, true, ""},
      {"query joined by one space", {"ext:pdf", "--limit", "3", "in voice", "2026"}, "name-asc", 3, 0, false, false,
       "ext:pdf in voice 2026"},
      {"one hyphen is query text", {"-draft", "!tmp"}, "name-asc", 100, 0, false, false, "-draft !tmp"},
      {"plus sign", {"--limit", "+2"}, "name-asc", 2, 0, false, false, ""},
      {"sort is not checked here", {"--sort", "sideways"}, "sideways", 100, 0, false, false, ""},
      {"a value may look like an option", {"--sort", "--json"}, "--json", 100, 0, false, false, ""},
      {"empty words stay", {"a", "", "b"}, "name-asc", 100, 0, false, false, "a  b"},
  };
  for (const OptionCase& c : cases) {
    ArgumentList list(c.words);
    SearchOptions options = SearchOptions::read(list);
    EXPECT_EQ(options.sort, c.sort) << c.label;
    EXPECT_EQ(options.limit, c.limit) << c.label;
    EXPECT_EQ(options.offset, c.offset) << c.label;
    EXPECT_EQ(options.json, c.json) << c.label;
    EXPECT_EQ(options.count, c.count) << c.label;
    EXPECT_EQ(options.query, c.query) << c.label;
  }
}

TEST(SearchOptions, RejectsWithExactMessages) {
  const std::string range = "--limit must be at least 1 and --offset at least 0";
  struct RejectCase {
    const char* label;
    Words words;
    std::string message;
  };
  const std::vector<RejectCase> cases = {
      {"limit zero", {"--limit", "0"}, range},
      {"limit word", {"--limit", "all"}, range},
      {"limit fraction", {"--limit", "2.5"}, range},
      {"limit overflow", {"--limit", "99999999999999999999"}, range},
      {"offset negative", {"--offset", "-1"}, range},
      {"offset word", {"--offset", "x"}, range},
      {"limit last", {"q", "--limit"}, "--limit needs a value"},
      {"sort last", {"--sort"}, "--sort needs a value"},
      {"offset last after limit", {"--limit", "3", "--offset"}, "--offset needs a value"},
      {"unknown option", {"q", "--bogus"}, "unknown option --bogus"},
      {"first unknown option", {"--zz", "--aa"}, "unknown option --zz"},
      {"option with value sign", {"--json=1"}, "unknown option --json=1"},
      {"bare double hyphen", {"--"}, "unknown option --"},
      {"range before unknown", {"--bogus", "--limit", "0"}, range},
      {"second --count stays", {"--count", "--count"}, "unknown option --count"},
      {"second --sort stays", {"--sort", "a", "q", "--sort", "b"}, "unknown option --sort"},
  };
  for (const RejectCase& c : cases) {
    ArgumentList list(c.words);
    try {
      SearchOptions::read(list);
      ADD_FAILURE() << c.label << ": accepted";
    } catch (const UsageError& error) {
      EXPECT_EQ(error.message(), c.message) << c.label;
    }
  }
}

}  // namespace
}  // namespace tarv::cli
