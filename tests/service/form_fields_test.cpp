#include "kernel/service/form_fields.h"

#include <gtest/gtest.h>

#include <limits>

#include "kernel/base/kernel_error.h"

namespace tarv {
namespace {

std::string errorOf(std::string_view encoded, std::initializer_list<std::string_view> required) {
  try {
    form::parse(encoded, required);
    return "";
  } catch (const KernelError& error) {
    return error.message();
  }
}

TEST(FormFields, DecodesEscapesAndPlus) {
  struct Case {
    const char* label;
    const char* encoded;
    std::string decoded;
  };
  const Case cases[] = {
      {"plain", "abc", "abc"},
      {"plus is space", "a+b", "a b"},
      {"escaped plus stays", "a%2Bb", "a+b"},
      {"mixed-case hex", "%c3%A9", "\xC3\xA9"},
      {"escaped percent", "100%25", "100%"},
      {"escaped ampersand and equals", "%26%3D", "&="},
      {"NUL byte", "a%00b", std::string("a\0b", 3)},
      {"empty", "", ""},
  };
  for (const Case& c : cases) EXPECT_EQ(form::decode(c.encoded), c.decoded) << c.label;
}

TEST(FormFields, ParsesExactlyTheRequiredKeys) {
  const auto fields = form::parse("sort=name-asc&query=ext%3Apdf+report", {"query", "sort"});
  ASSERT_EQ(fields.size(), 2u);
  EXPECT_EQ(fields.at("query"), "ext:pdf report");
  EXPECT_EQ(fields.at("sort"), "name-asc");
  EXPECT_EQ(form::parse("query=&sort=", {"query", "sort"}).at("query"), "");
  EXPECT_EQ(form::parse("query=a=b&sort=x", {"query", "sort"}).at("query"), "a=b") << "only the first = splits";
}

TEST(FormFields, ErrorsCarryTheirOwnMessages) {
  const std::string expected = "Expected fields: query, sort";
  const std::string badEscape = "URLDecoder: Illegal hex characters in escape (%) pattern";
  struct Case {
    const char* label;
    const char* encoded;
    std::string message;
  };
  const Case cases[] = {
      {"pair without =", "query&sort=x", "Expected key=value"},
      {"empty pair between &", "query=a&&sort=x", "Expected key=value"},
      {"trailing &", "query=a&sort=x&", "Expected key=value"},
      {"key twice", "query=a&query=b", "Duplicate parameter"},
      {"key twice after decoding", "query=a&%71uery=b&sort=x", "Duplicate parameter"},
      {"missing key", "query=a", expected},
      {"extra key", "query=a&sort=b&limit=3", expected},
      {"wrong key", "query=a&order=b", expected},
      {"empty input", "", expected},
      {"keys differ in case", "Query=a&sort=b", expected},
      {"non-hex escape", "query=%zz&sort=x", badEscape},
      {"half escape", "query=%4&sort=x", badEscape},
      {"escape at the end", "sort=x&query=%", badEscape},
      {"bad escape in a key", "qu%eGry=a&sort=x", badEscape},
  };
  for (const Case& c : cases) EXPECT_EQ(errorOf(c.encoded, {"query", "sort"}), c.message) << c.label;
  EXPECT_EQ(errorOf("a=1", {"version", "offset", "limit"}), "Expected fields: version, offset, limit");
}

TEST(FormFields, IntegersParseOrFailWithForInputString) {
  struct Good {
    const char* text;
    std::int64_t value;
  };
  const Good good[] = {{"0", 0},   {"512", 512}, {"-1", -1},   {"+7", 7}, {"007", 7},
                       {"9223372036854775807", std::numeric_limits<std::int64_t>::max()},
                       {"-9223372036854775808", std::numeric_limits<std::int64_t>::min()}};
  for (const Good& g : good) EXPECT_EQ(form::integer(g.text), g.value) << g.text;

  for (const char* bad : {"", "-", "+", "1.5", " 1", "1 ", "0x10", "1e3", "abc", "9223372036854775808",
                          "-9223372036854775809", "99999999999999999999999", "--1"}) {
    try {
      form::integer(bad);
      ADD_FAILURE() << "accepted '" << bad << "'";
    } catch (const KernelError& error) {
      EXPECT_EQ(error.message(), "For input string") << bad;
    }
  }
}

}  // namespace
}  // namespace tarv
