#include "kernel/config/internet_date_time.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace tarv {
namespace {

struct DateCase {
  const char* label;
  std::string text;
  bool accepted;
};

TEST(InternetDateTime, AcceptsOnlyFullDateTimes) {
  const std::vector<DateCase> cases = {
      {"whole seconds UTC", "2026-10-01T12:00:00Z", true},
      {"milliseconds", "2026-10-01T12:00:00.250Z", true},
      {"one fraction digit", "2026-10-01T12:00:00.5Z", true},
      {"nine fraction digits", "2026-10-01T12:00:00.123456789Z", true},
      {"positive offset", "2026-10-01T12:00:00+02:00", true},
      {"negative offset", "2026-10-01T12:00:00-09:30", true},
      {"lower-case separators", "2026-10-01t12:00:00z", true},
      {"leap day", "2024-02-29T00:00:00Z", true},
      {"leap day of a 400 year", "2000-02-29T00:00:00Z", true},
      {"end of day", "1999-12-31T23:59:59Z", true},
      {"year zero", "0000-01-01T00:00:00Z", true},
      {"bare date", "2026-10-01", false},
      {"no zone", "2026-10-01T12:00:00", false},
      {"no seconds", "2026-10-01T12:00Z", false},
      {"space separator", "2026-10-01 12:00:00Z", false},
      {"empty fraction", "2026-10-01T12:00:00.Z", false},
      {"comma fraction", "2026-10-01T12:00:00,5Z", false},
      {"offset without colon", "2026-10-01T12:00:00+0200", false},
      {"offset hours only", "2026-10-01T12:00:00+02", false},
      {"offset hour 24", "2026-10-01T12:00:00+24:00", false},
      {"offset minute 60", "2026-10-01T12:00:00+01:60", false},
      {"trailing text", "2026-10-01T12:00:00Zx", false},
      {"trailing after offset", "2026-10-01T12:00:00+01:00 ", false},
      {"leading space", " 2026-10-01T12:00:00Z", false},
      {"month 13", "2026-13-01T12:00:00Z", false},
      {"month 00", "2026-00-01T12:00:00Z", false},
      {"day 00", "2026-10-00T12:00:00Z", false},
      {"31 April", "2026-04-31T12:00:00Z", false},
      {"29 February of a common year", "2026-02-29T12:00:00Z", false},
      {"29 February of a century", "1900-02-29T12:00:00Z", false},
      {"hour 24", "2026-10-01T24:00:00Z", false},
      {"minute 60", "2026-10-01T12:60:00Z", false},
      {"second 60", "2026-10-01T12:00:60Z", false},
      {"five-digit year", "20260-10-01T12:00:00Z", false},
      {"one-digit month", "2026-1-01T12:00:00Z", false},
      {"sign in a field", "2026-+1-01T12:00:00Z", false},
      {"empty", "", false},
      {"truncated", "2026-10-01T12:00:0", false},
  };
  for (const DateCase& c : cases) EXPECT_EQ(isInternetDateTime(c.text), c.accepted) << c.label << ": " << c.text;
}

TEST(InternetDateTime, EveryPrefixOfAValidTextIsRejected) {
  const std::string full = "2026-10-01T12:34:56.789+05:45";
  ASSERT_TRUE(isInternetDateTime(full));
  for (std::size_t length = 0; length < full.size(); ++length)
    EXPECT_FALSE(isInternetDateTime(full.substr(0, length))) << full.substr(0, length);
}

}  // namespace
}  // namespace tarv
