// The date operands written for each period. These are the forms the
// assistant promises (see core/ai/period.h): explicit local dates, weeks from
// Monday to Sunday, "last N days" counting today, months and years by name.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "core/ai/period.h"
#include "tests/ai/time_zone.h"

namespace tarv::AISearch {
namespace {

using testing::LocalTimeZone;
using testing::utcSeconds;

struct Case {
  const char* label;
  const char* period;
  std::optional<std::string> operand;
};

void expectOperands(const std::vector<Case>& cases, std::chrono::system_clock::time_point now) {
  for (const Case& c : cases) EXPECT_EQ(periodOperand(c.period, now), c.operand) << c.label;
}

// Sunday 2026-11-22 10:00:00 UTC.
constexpr long long kSundayMorning = 1795341600;

TEST(Period, KeywordsOnASundayInUtc) {
  LocalTimeZone zone("UTC0");
  expectOperands(
      {
          {"today", "today", "2026-11-22"},
          {"yesterday", "yesterday", "2026-11-21"},
          {"this week runs Monday to Sunday", "this week", "2026-11-16..2026-11-22"},
          {"last week is the week before", "last week", "2026-11-09..2026-11-15"},
          {"last 7 days end today", "last 7 days", "2026-11-16..2026-11-22"},
          {"last 30 days", "last 30 days", "2026-10-24..2026-11-22"},
          {"last 1 days is today", "last 1 days", "2026-11-22..2026-11-22"},
          {"last 0 days is nothing", "last 0 days", std::nullopt},
          {"last N days before 1601 is clamped", "last 99999999999999999999 days", "1601-01-01..2026-11-22"},
          {"this month", "this month", "2026-11"},
          {"last month", "last month", "2026-10"},
          {"this year", "this year", "2026"},
          {"last year", "last year", "2025"},
          {"upper case and extra spaces", "  Last  Week ", "2026-11-09..2026-11-15"},
          {"unknown keyword", "recently", std::nullopt},
          {"keyword written together", "lastweek", std::nullopt},
          {"last days without N", "last days", std::nullopt},
          {"negative N", "last -3 days", std::nullopt},
      },
      utcSeconds(kSundayMorning));
}

TEST(Period, LocalTimeZoneDecidesTheDay) {
  // 2026-11-22 20:00 UTC is already Monday 04:00 at UTC+8 and still Sunday
  // 12:00 at UTC-8.
  const auto now = utcSeconds(kSundayMorning + 10 * 3600);
  {
    LocalTimeZone zone("CST-8");
    expectOperands({{"today east", "today", "2026-11-23"},
                    {"a new week east", "this week", "2026-11-23..2026-11-29"},
                    {"last week east", "last week", "2026-11-16..2026-11-22"}},
                   now);
  }
  {
    LocalTimeZone zone("PST8");
    expectOperands({{"today west", "today", "2026-11-22"},
                    {"this week west", "this week", "2026-11-16..2026-11-22"}},
                   now);
  }
}

TEST(Period, BoundariesOfMonthsAndYears) {
  LocalTimeZone zone("UTC0");
  // Thursday 2026-01-01 00:30 UTC.
  const auto newYear = utcSeconds(1767227400);
  expectOperands({{"yesterday crosses the year", "yesterday", "2025-12-31"},
                  {"last month crosses the year", "last month", "2025-12"},
                  {"the week starts in the old year", "this week", "2025-12-29..2026-01-04"},
                  {"last week", "last week", "2025-12-22..2025-12-28"},
                  {"last 3 days", "last 3 days", "2025-12-30..2026-01-01"}},
                 newYear);
  // Sunday 2028-03-05: last 7 days cross 29 February of a leap year.
  expectOperands({{"leap February", "last 7 days", "2028-02-28..2028-03-05"}}, utcSeconds(1835827200));
}

TEST(Period, ExplicitDates) {
  LocalTimeZone zone("UTC0");
  expectOperands(
      {
          {"year", "2026", "2026"},
          {"month", "2026-10", "2026-10"},
          {"day", "2026-10-01", "2026-10-01"},
          {"range", "2026-01-01..2026-06-30", "2026-01-01..2026-06-30"},
          {"leap day", "2028-02-29", "2028-02-29"},
          {"no leap day", "2026-02-29", std::nullopt},
          {"month 13", "2026-13", std::nullopt},
          {"day 0", "2026-10-00", std::nullopt},
          {"year before the syntax allows", "1600", std::nullopt},
          {"five-digit year", "20260", std::nullopt},
          {"short month", "2026-1", std::nullopt},
          {"range of months is not a listed form", "2026-01..2026-06", std::nullopt},
          {"open range", "2026-01-01..", std::nullopt},
          {"operator", ">2026-01-01", std::nullopt},
          {"time of day", "2026-10-01T10:00", std::nullopt},
          {"syntax characters", "2026 | <x>", std::nullopt},
      },
      utcSeconds(kSundayMorning));
}

}  // namespace
}  // namespace tarv::AISearch
