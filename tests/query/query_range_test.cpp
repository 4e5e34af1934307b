// Query::Range: size buckets and operators, date operands, local offsets.

#include "kernel/query/query_range.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <limits>
#include <optional>
#include <string>

#include "tests/query/query_test_support.h"

namespace tarv {
namespace {

using testing::asciiTable;
using testing::kFixedMoment;
constexpr std::uint64_t kMax = std::numeric_limits<std::uint64_t>::max();

struct Bounds {
  std::uint64_t low;
  std::uint64_t high;
};

// The bounds a value gives a fresh term (or nullopt for "unknown").
std::optional<Bounds> parsed(const char16_t* value, bool isDate, Query::Moment moment = kFixedMoment) {
  Query::Term term(Query::Kind::size);
  Query::Range::parse(term, value, isDate, *asciiTable(), moment);
  if (term.unknown) return std::nullopt;
  return Bounds{term.low, term.high};
}

struct RangeCase {
  const char* label;
  const char16_t* value;
  std::uint64_t low;
  std::uint64_t high;
};

void expectRanges(const std::vector<RangeCase>& cases, bool isDate) {
  for (const auto& c : cases) {
    auto bounds = parsed(c.value, isDate);
    ASSERT_TRUE(bounds) << c.label;
    EXPECT_EQ(bounds->low, c.low) << c.label;
    EXPECT_EQ(bounds->high, c.high) << c.label;
  }
}

TEST(QueryRangeSize, BucketsBytesOperatorsAndRanges) {
  expectRanges(
      {
          {"one and a half KB shows as 2 KB", u"1.5kb", 1025, 2048},
          {"half KB shows as 1 KB", u"0.5kb", 1, 1024},
          {"ten KB", u"10kb", 9217, 10240},
          {"ten MB is still one KB wide", u"10mb", 10484737, 10485760},
          {"zero KB wraps to an empty range", u"0kb", 18446744073709550593ull, 0},
          {"units are folded", u"5KB", 4097, 5120},
          {"a hundredth of a MB", u"0.01mb", 10241, 11264},
          {"twenty PB", u"20pb", 22517998136851457ull, 22517998136852480ull},
          {"overflow rounds to the maximum", u"16384pb", kMax - 1023, kMax},
          {"fraction below one byte in KB", u"0.0001kb", 18446744073709550593ull, 0},
          {"bytes", u"5", 5, 5},
          {"explicit b is bytes", u"5b", 5, 5},
          {"unknown unit is bytes", u"5xb", 5, 5},
          {"empty value is zero", u"", 0, 0},
          {"letters are zero", u"abc", 0, 0},
          {"letters then unit are still zero bytes", u"kb", 0, 0},
          {"fraction truncates", u"5.9", 5, 5},
          {"exponent", u"1e3", 1000, 1000},
          {"exponent with unit", u"1E3kb", 1022977, 1024000},
          {"e without digit is a unit", u"1e", 1, 1},
          {"trailing dot", u"1.kb", 1, 1024},
          {"leading dot", u".5kb", 1, 1024},
          {"leading whitespace skipped", u" \t5kb", 4097, 5120},
          {"space before the unit makes it bytes", u"5 kb", 5, 5},
          {"plus sign", u"+5", 5, 5},
          {"too large", u"99999999999999999999", kMax, kMax},
          {"greater than", u">10mb", 10485761, kMax},
          {"greater than one GB", u">1gb", 1073741825, kMax},
          {"less than", u"<4kb", 0, 3072},
          {"at least", u">=1kb", 1, kMax},
          {"at most", u"<=1kb", 0, 1024},
          {"equals", u"=5", 5, 5},
          {"double equals", u"==5", 5, 5},
          {"unknown operator run is equality", u"=>5", 5, 5},
          {"less than zero is empty", u"<0", 1, 0},
          {"greater than the maximum wraps", u">18446744073709551615", 0, kMax},
          {"dotted range", u"1mb..50mb", 1047553, 52428800},
          {"dotted range ignores operators", u">1..<2", 0, 0},
          {"dash range", u"1mb-5mb", 1047553, 5242880},
          {"dash without start", u"-5", 0, 5},
          {"dash without end", u"5-", 5, 0},
          {"dash splits an exponent", u"1e-3kb", 1, 3072},
          {"dots win over dashes", u"1-2..3", 1, 3},
      },
      false);
  EXPECT_EQ(parsed(u"unknown", false), std::nullopt);
  EXPECT_EQ(parsed(u"UnKnown", false), std::nullopt);
}

TEST(QueryRangeDate, CalendarOperandsAndOperators) {
  // kFixedMoment: 2026-03-15 10:00 UTC, local offset +02:00.
  expectRanges(
      {
          {"today", u"today", 134179992000000000, 134180855999999999},
          {"today folded", u"ToDay", 134179992000000000, 134180855999999999},
          {"yesterday", u"yesterday", 134179128000000000, 134179991999999999},
          {"year", u"2026", 134116920000000000, 134432279999999999},
          {"month", u"2026-12", 134405496000000000, 134432279999999999},
          {"day", u"2026-10-01", 134352792000000000, 134353655999999999},
          {"hour", u"2026-10-01T14", 134353296000000000, 134353331999999999},
          {"minute", u"2026-10-01T14:30", 134353314000000000, 134353314599999999},
          {"minute with folded separator", u"2026-10-01t14:30", 134353314000000000, 134353314599999999},
          {"second", u"2026-10-01T14:30:15", 134353314150000000, 134353314159999999},
          {"single digits", u"2026-1-5", 134120376000000000, 134121239999999999},
          {"signed year", u"+2026", 134116920000000000, 134432279999999999},
          {"trailing units ignored", u"2026-10x", 134352792000000000, 134379575999999999},
          {"other separator ends the reading", u"2026-10-01 14:30", 134352792000000000, 134353655999999999},
          {"leap day", u"2024-02-29", 133536312000000000, 133537175999999999},
          {"leap century", u"2000-02-29", 125962488000000000, 125963351999999999},
          {"after a day", u">2026-09-01", 134327736000000000, kMax},
          {"after a month", u">2026-10", 134379576000000000, kMax},
          {"from a month", u">=2026-10", 134352792000000000, kMax},
          {"before a year", u"<2026", 0, 134116919999999999},
          {"up to a year", u"<=2026", 0, 134432279999999999},
          {"month range", u"2026-01..2026-06", 134116920000000000, 134273303999999999},
          {"after an invalid date stays at the maximum", u">2026-13", kMax, kMax},
          {"before an invalid date", u"<2026-13", 0, kMax - 1},
      },
      true);
  // Before the first tick: the low bound is zero, so nothing is before it.
  auto beforeStart = parsed(u"<1601", true, Query::Moment{0, 0});
  ASSERT_TRUE(beforeStart);
  EXPECT_EQ(beforeStart->low, 0u);
  EXPECT_EQ(beforeStart->high, 0u);
}

TEST(QueryRangeDate, InvalidOperandsMatchNothing) {
  const struct {
    const char* label;
    const char16_t* value;
  } cases[] = {
      {"month 13", u"2026-13"},
      {"month 0", u"2026-00"},
      {"year 1600", u"1600"},
      {"negative year", u"-2026"},
      {"year too large", u"1000000000"},
      {"year beyond the tick range", u"99999"},
      {"no leap day", u"2026-02-29"},
      {"no leap day in 1900", u"1900-02-29"},
      {"day 32", u"2026-01-32"},
      {"day 0", u"2026-01-00"},
      {"hour 24", u"2026-10-01T24"},
      {"minute 60", u"2026-10-01T23:60"},
      {"second 60", u"2026-10-01T23:59:60"},
      {"component beyond 32 bits", u"2026-99999999999"},
      {"empty", u""},
      {"letters", u"soon"},
      {"first local second before 1601 UTC", u"1601"},  // offset +02:00
  };
  for (const auto& c : cases) {
    auto bounds = parsed(c.value, true);
    ASSERT_TRUE(bounds) << c.label;
    EXPECT_EQ(bounds->low, kMax) << c.label;
    EXPECT_EQ(bounds->high, kMax) << c.label;
  }
  auto first = parsed(u"1601", true, Query::Moment{0, 0});
  ASSERT_TRUE(first);
  EXPECT_EQ(first->low, 0u);
  EXPECT_EQ(parsed(u"unknown", true), std::nullopt);
}

TEST(QueryRangeDate, EpochDays) {
  EXPECT_EQ(Query::Range::epochDay(1970, 1, 1), 0);
  EXPECT_EQ(Query::Range::epochDay(2026, 3, 15), 20527);
  EXPECT_EQ(Query::Range::epochDay(1601, 1, 1), -134774);
  EXPECT_EQ(Query::Range::epochDay(2000, 2, 29), 11016);
  EXPECT_EQ(Query::Range::epochDay(9999, 12, 31), 2932896);
  EXPECT_EQ(Query::Range::epochDay(1969, 12, 31), -1);
  // Consecutive days stay consecutive across month, leap and century ends.
  std::int64_t previous = Query::Range::epochDay(1600, 1, 1) - 1;
  for (std::int64_t year = 1600; year <= 2404; ++year) {
    bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
    const int lengths[] = {31, leap ? 29 : 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    for (int month = 1; month <= 12; ++month)
      for (int day = 1; day <= lengths[month - 1]; ++day) {
        ASSERT_EQ(Query::Range::epochDay(year, month, day), previous + 1) << year << "-" << month << "-" << day;
        ++previous;
      }
  }
}

// The real clock reads the offset of the process's time zone now.
class QueryRangeTimeZone : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* tz = std::getenv("TZ");
    saved_ = tz ? std::optional<std::string>(tz) : std::nullopt;
  }
  void TearDown() override {
    if (saved_) {
      setenv("TZ", saved_->c_str(), 1);
    } else {
      unsetenv("TZ");
    }
    tzset();
  }
  static void useZone(const char* zone) {
    setenv("TZ", zone, 1);
    tzset();
  }

 private:
  std::optional<std::string> saved_;
};

TEST_F(QueryRangeTimeZone, ClockReportsTheCurrentOffset) {
  useZone("UTC-3");  // POSIX sign: three hours east of UTC
  Query::Moment east = Query::Moment::now();
  EXPECT_EQ(east.utcOffsetSeconds, 3 * 3600);
  EXPECT_NEAR(static_cast<double>(east.unixSeconds), static_cast<double>(std::time(nullptr)), 5.0);
  useZone("UTC+5");
  EXPECT_EQ(Query::Moment::now().utcOffsetSeconds, -5 * 3600);
}

TEST_F(QueryRangeTimeZone, ParserUsesTheClockWhenNoMomentIsGiven) {
  useZone("UTC-1");
  Query::Parser parser(u"dm:2026-10-01", *asciiTable(), PathFlavor::posix);
  auto term = parser.parseAnd();
  // 2026-10-01 00:00 at +01:00 is 2026-09-30 23:00 UTC.
  const std::uint64_t utcMidnight = 134352864000000000;  // 2026-10-01 00:00 UTC
  EXPECT_EQ(term->low, utcMidnight - 3600ull * 10000000);
  ASSERT_TRUE(parser.moment);
  EXPECT_EQ(parser.moment->utcOffsetSeconds, 3600);

  // "today" follows the local date of the present moment.
  Query::Parser today(u"dm:today", *asciiTable(), PathFlavor::posix);
  auto day = today.parseAnd();
  const std::int64_t nowSeconds = today.moment->unixSeconds;
  const std::int64_t localMidnight = (nowSeconds + 3600) / 86400 * 86400 - 3600;
  EXPECT_EQ(day->low, static_cast<std::uint64_t>(localMidnight + 11644473600) * 10000000);
  EXPECT_EQ(day->high, day->low + 863999999999);
}

}  // namespace
}  // namespace tarv
