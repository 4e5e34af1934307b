#pragma once
// The date operands that the assistant writes after "dm:" and "dc:" for the
// periods a model may name ("today", "last week", "last 30 days", "2026-10",
// ...). Dates are local calendar days in the current time zone (TZ), weeks
// start on Monday, and every operand is made of digits, "-" and "..", so it
// can never be read as other query syntax. Pure apart from reading the time
// zone; thread-safe.

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

namespace tarv::AISearch {

// The operand for `period` (compared lower-cased, with runs of spaces taken
// as one) at the moment `now`, or nothing when it is not a period we know:
//   today, yesterday          one day:                 2026-11-22
//   this week, last week      Monday through Sunday:   2026-11-16..2026-11-22
//   this month, last month    the month:               2026-11
//   this year, last year      the year:                2026
//   last N days (N >= 1)      N days ending today:     2026-11-16..2026-11-22 for N = 7
//   YYYY, YYYY-MM, YYYY-MM-DD, YYYY-MM-DD..YYYY-MM-DD  as written, when valid
//     (years 1601 through 9999, real months and days).
// "last N days" reaching before 1601 starts on 1601-01-01, the earliest day
// the query syntax accepts.
std::optional<std::string> periodOperand(std::string_view period, std::chrono::system_clock::time_point now);

}  // namespace tarv::AISearch
