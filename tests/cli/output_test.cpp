// The command line's printed forms, checked on hand-made rows: the exact JSON
// keys of a row, values no small source produces (extreme dates and sizes),
// and the rounding of the search time. Whole outputs of `search` and `status`
// are compared on the built executable.

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "cli/date_formatter.h"
#include "cli/search_result.h"

namespace tarv::cli {
namespace {

TEST(DateFormatter, FormatsUtcWholeSeconds) {
  struct DateCase {
    const char* label;
    std::int64_t ms;
    const char* expected;
  };
  const std::vector<DateCase> cases = {
      {"epoch", 0, "1970-01-01T00:00:00Z"},
      {"fraction dropped", 999, "1970-01-01T00:00:00Z"},
      {"example instant", 1790856000000, "2026-10-01T12:00:00Z"},
      {"one ms before epoch", -1, "1969-12-31T23:59:59Z"},
      {"one second before epoch", -1000, "1969-12-31T23:59:59Z"},
      {"just past a second before", -1001, "1969-12-31T23:59:58Z"},
      {"leap day", 951782400000, "2000-02-29T00:00:00Z"},
      {"day after a century's February", -2203891200000, "1900-03-01T00:00:00Z"},
      {"FILETIME origin", -11644473600000, "1601-01-01T00:00:00Z"},
      {"last four-digit second", 253402300799000, "9999-12-31T23:59:59Z"},
      {"five-digit year", 253402300800000, "10000-01-01T00:00:00Z"},
      {"year zero", -62167219200000, "0000-01-01T00:00:00Z"},
      {"year before zero", -62167219200001, "-0001-12-31T23:59:59Z"},
  };
  for (const DateCase& c : cases) EXPECT_EQ(formatInternetDate(c.ms), c.expected) << c.label;
}

TEST(DateFormatter, ExtremesStayWellFormed) {
  for (std::int64_t ms : {std::numeric_limits<std::int64_t>::min(), std::numeric_limits<std::int64_t>::max()}) {
    std::string text = formatInternetDate(ms);
    ASSERT_GE(text.size(), 20u) << ms;
    EXPECT_EQ(text.back(), 'Z') << text;
    EXPECT_EQ(text.substr(text.size() - 10, 1), "T") << text;
  }
}

ResultRow fullRow() {
  ResultRow row;
  row.id = 7;
  row.sourceId = "disk";
  row.name = "report.pdf";
  row.path = "/Users/me/report.pdf";
  row.kind = 0;
  row.size = 2048;
  row.modifiedMs = 1790856000000;
  row.createdMs = -1;
  row.sizeOnDisk = 4096;
  row.device = "Macintosh HD";
  return row;
}

TEST(RowObject, HasExactlyTheKeysTheRowCarries) {
  struct RowCase {
    const char* label;
    ResultRow row;
    const char* expected;
  };
  ResultRow bare;
  bare.sourceId = "nas";
  bare.name = "Photos";
  bare.path = "\\\\nas\\Photos";
  bare.kind = kFolderKind;
  bare.sizeOnDisk = 1;  // never printed
  ResultRow link = bare;
  link.kind = 2;
  ResultRow huge = bare;
  huge.kind = 0;
  huge.size = std::numeric_limits<std::uint64_t>::max();
  ResultRow zero = bare;
  zero.size = 0;
  zero.modifiedMs = 0;

  const std::vector<RowCase> cases = {
      {"every optional field", fullRow(),
       R"({"created":"1969-12-31T23:59:59Z","modified":"2026-10-01T12:00:00Z","name":"report.pdf",)"
       R"("path":"/Users/me/report.pdf","size":2048,"source":"disk","type":"file","volume":"Macintosh HD"})"},
      {"folder without optional fields", bare,
       R"({"name":"Photos","path":"\\\\nas\\Photos","source":"nas","type":"folder"})"},
      {"other kinds are files", link, R"({"name":"Photos","path":"\\\\nas\\Photos","source":"nas","type":"file"})"},
      {"largest size", huge,
       R"({"name":"Photos","path":"\\\\nas\\Photos","size":18446744073709551615,"source":"nas","type":"file"})"},
      {"zero values are present", zero,
       R"({"modified":"1970-01-01T00:00:00Z","name":"Photos","path":"\\\\nas\\Photos","size":0,"source":"nas",)"
       R"("type":"folder"})"},
  };
  for (const RowCase& c : cases) EXPECT_EQ(json::encode(rowObject(c.row)), c.expected) << c.label;
}

TEST(SearchTime, RoundsToHundredthsHalfAwayFromZero) {
  struct RoundCase {
    double in;
    double out;
  };
  // Halves chosen to be exact in binary, so the rounding rule alone decides.
  const std::vector<RoundCase> cases = {{0, 0},          {0.004, 0},     {0.125, 0.13},  {0.375, 0.38},
                                        {-0.125, -0.13}, {1.234, 1.23},  {0.0025, 0},    {12.999, 13},
                                        {0.29, 0.29},    {1e6 + 0.5, 1e6 + 0.5}};
  for (const RoundCase& c : cases) EXPECT_DOUBLE_EQ(roundToHundredths(c.in), c.out) << c.in;
}

}  // namespace
}  // namespace tarv::cli
