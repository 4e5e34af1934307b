#include "core/ai/period.h"

#include <time.h>

#include <cstdio>
#include <vector>

#include "core/ai/intent_text.h"

namespace tarv::AISearch {
namespace {

using std::chrono::day;
using std::chrono::days;
using std::chrono::month;
using std::chrono::sys_days;
using std::chrono::year;
using std::chrono::year_month_day;

constexpr int kEarliestYear = 1601;
constexpr int kLatestYear = 9999;

year_month_day localDate(std::chrono::system_clock::time_point now) {
  const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
  std::tm local{};
  ::localtime_r(&seconds, &local);
  return year_month_day{year{local.tm_year + 1900}, month{static_cast<unsigned>(local.tm_mon + 1)},
                        day{static_cast<unsigned>(local.tm_mday)}};
}

std::string dayText(year_month_day date) {
  char buffer[32];
  std::snprintf(buffer, sizeof buffer, "%04d-%02u-%02u", static_cast<int>(date.year()),
                static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()));
  return buffer;
}

std::string monthText(year y, month m) {
  char buffer[32];
  std::snprintf(buffer, sizeof buffer, "%04d-%02u", static_cast<int>(y), static_cast<unsigned>(m));
  return buffer;
}

std::string range(sys_days first, sys_days last) {
  return dayText(year_month_day{first}) + ".." + dayText(year_month_day{last});
}

sys_days mondayOf(sys_days date) {
  // C++ weekdays count from Sunday = 0; Monday-based index is (wd + 6) % 7.
  const unsigned sinceMonday = (std::chrono::weekday{date}.c_encoding() + 6) % 7;
  return date - days{sinceMonday};
}

// "N" of "last N days" when `value` has exactly that form.
std::optional<long long> lastDays(std::string_view value) {
  constexpr std::string_view prefix = "last ", suffix = " days";
  if (value.size() <= prefix.size() + suffix.size() || value.substr(0, prefix.size()) != prefix ||
      value.substr(value.size() - suffix.size()) != suffix)
    return std::nullopt;
  const std::string_view digits = value.substr(prefix.size(), value.size() - prefix.size() - suffix.size());
  long long n = 0;
  for (char c : digits) {
    if (c < '0' || c > '9') return std::nullopt;
    // Anything beyond a few million days reaches past the earliest year anyway.
    if (n < 100000000) n = n * 10 + (c - '0');
  }
  return n;
}

bool allDigits(std::string_view text) {
  if (text.empty()) return false;
  for (char c : text)
    if (c < '0' || c > '9') return false;
  return true;
}

// A date of the form YYYY, YYYY-MM or YYYY-MM-DD with a real year, month and day.
bool validDate(std::string_view text) {
  if (text.size() != 4 && text.size() != 7 && text.size() != 10) return false;
  if (!allDigits(text.substr(0, 4))) return false;
  const int y = std::stoi(std::string(text.substr(0, 4)));
  if (y < kEarliestYear || y > kLatestYear) return false;
  if (text.size() == 4) return true;
  if (text[4] != '-' || !allDigits(text.substr(5, 2))) return false;
  const unsigned m = static_cast<unsigned>(std::stoi(std::string(text.substr(5, 2))));
  if (m < 1 || m > 12) return false;
  if (text.size() == 7) return true;
  if (text[7] != '-' || !allDigits(text.substr(8, 2))) return false;
  const unsigned d = static_cast<unsigned>(std::stoi(std::string(text.substr(8, 2))));
  return year_month_day{year{y}, month{m}, day{d}}.ok();
}

std::string normalised(std::string_view period) {
  const std::string lower = text::lowerCased(text::trimmed(period));
  std::string out;
  for (char c : lower) {
    if (c == ' ' && !out.empty() && out.back() == ' ') continue;
    out += c;
  }
  return out;
}

}  // namespace

std::optional<std::string> periodOperand(std::string_view period, std::chrono::system_clock::time_point now) {
  const std::string value = normalised(period);
  const year_month_day date = localDate(now);
  const sys_days today{date};
  if (value == "today") return dayText(date);
  if (value == "yesterday") return dayText(year_month_day{today - days{1}});
  if (value == "this week") return range(mondayOf(today), mondayOf(today) + days{6});
  if (value == "last week") return range(mondayOf(today) - days{7}, mondayOf(today) - days{1});
  if (value == "this month") return monthText(date.year(), date.month());
  if (value == "last month") {
    const auto previous = std::chrono::year_month{date.year(), date.month()} - std::chrono::months{1};
    return monthText(previous.year(), previous.month());
  }
  if (value == "this year") return std::to_string(static_cast<int>(date.year()));
  if (value == "last year") return std::to_string(static_cast<int>(date.year()) - 1);
  if (std::optional<long long> n = lastDays(value)) {
    if (*n < 1) return std::nullopt;
    const sys_days earliest{year_month_day{year{kEarliestYear}, month{1}, day{1}}};
    const long long available = (today - earliest).count() + 1;
    const sys_days first = *n >= available ? earliest : today - days{*n - 1};
    return range(first, today);
  }
  if (const std::size_t dots = value.find(".."); dots != std::string::npos) {
    const std::string_view whole(value);
    const std::string_view low = whole.substr(0, dots), high = whole.substr(dots + 2);
    if (low.size() == 10 && high.size() == 10 && validDate(low) && validDate(high)) return value;
    return std::nullopt;
  }
  if (validDate(value)) return value;
  return std::nullopt;
}

}  // namespace tarv::AISearch
