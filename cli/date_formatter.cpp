#include "cli/date_formatter.h"

#include <cstdio>

namespace tarv::cli {
namespace {

constexpr std::int64_t kMsPerSecond = 1000;
constexpr std::int64_t kSecondsPerDay = 86400;

std::int64_t floorDivide(std::int64_t value, std::int64_t divisor) {
  std::int64_t quotient = value / divisor;
  return (value % divisor != 0 && value < 0) ? quotient - 1 : quotient;
}

struct CivilDate {
  std::int64_t year;
  int month;
  int day;
};

// Proleptic Gregorian date of a day count since 1970-01-01, valid for every
// int64 day count that milliseconds can produce (eras of 400 years).
CivilDate civilFromDays(std::int64_t days) {
  days += 719468;  // days from 0000-03-01 to 1970-01-01
  const std::int64_t era = floorDivide(days, 146097);
  const std::int64_t dayOfEra = days - era * 146097;
  const std::int64_t yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
  const std::int64_t dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
  const std::int64_t shiftedMonth = (5 * dayOfYear + 2) / 153;  // March = 0
  const int day = static_cast<int>(dayOfYear - (153 * shiftedMonth + 2) / 5 + 1);
  const int month = static_cast<int>(shiftedMonth < 10 ? shiftedMonth + 3 : shiftedMonth - 9);
  return {yearOfEra + era * 400 + (month <= 2 ? 1 : 0), month, day};
}

}  // namespace

std::string formatInternetDate(std::int64_t ms) {
  const std::int64_t seconds = floorDivide(ms, kMsPerSecond);
  const std::int64_t days = floorDivide(seconds, kSecondsPerDay);
  const std::int64_t secondOfDay = seconds - days * kSecondsPerDay;
  const CivilDate date = civilFromDays(days);

  char buffer[64];
  const char* sign = date.year < 0 ? "-" : "";
  const long long year = date.year < 0 ? -date.year : date.year;
  std::snprintf(buffer, sizeof buffer, "%s%04lld-%02d-%02dT%02d:%02d:%02dZ", sign, year, date.month, date.day,
                static_cast<int>(secondOfDay / 3600), static_cast<int>(secondOfDay / 60 % 60),
                static_cast<int>(secondOfDay % 60));
  return buffer;
}

}  // namespace tarv::cli
