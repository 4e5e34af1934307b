#include "kernel/config/internet_date_time.h"

namespace tarv {
namespace {

// Reads exactly `width` digits at `at`; false when any is not a digit.
bool digits(std::string_view text, std::size_t at, std::size_t width, int& value) {
  if (at + width > text.size()) return false;
  value = 0;
  for (std::size_t i = at; i < at + width; ++i) {
    char c = text[i];
    if (c < '0' || c > '9') return false;
    value = value * 10 + (c - '0');
  }
  return true;
}

bool isLeapYear(int year) { return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0; }

int daysInMonth(int year, int month) {
  static constexpr int kDays[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  return month == 2 && isLeapYear(year) ? 29 : kDays[month - 1];
}

bool at(std::string_view text, std::size_t position, char expected) {
  return position < text.size() && text[position] == expected;
}

}  // namespace

bool isInternetDateTime(std::string_view text) noexcept {
  // YYYY-MM-DDTHH:MM:SS is 19 fixed characters.
  int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
  if (!digits(text, 0, 4, year) || !at(text, 4, '-') || !digits(text, 5, 2, month) || !at(text, 7, '-') ||
      !digits(text, 8, 2, day))
    return false;
  if (!(at(text, 10, 'T') || at(text, 10, 't'))) return false;
  if (!digits(text, 11, 2, hour) || !at(text, 13, ':') || !digits(text, 14, 2, minute) || !at(text, 16, ':') ||
      !digits(text, 17, 2, second))
    return false;
  if (month < 1 || month > 12 || day < 1 || day > daysInMonth(year, month)) return false;
  if (hour > 23 || minute > 59 || second > 59) return false;

  std::size_t position = 19;
  if (at(text, position, '.')) {
    std::size_t first = ++position;
    while (position < text.size() && text[position] >= '0' && text[position] <= '9') ++position;
    if (position == first) return false;
  }
  if (at(text, position, 'Z') || at(text, position, 'z')) return position + 1 == text.size();
  if (!(at(text, position, '+') || at(text, position, '-'))) return false;
  int offsetHours = 0, offsetMinutes = 0;
  if (!digits(text, position + 1, 2, offsetHours) || !at(text, position + 3, ':') ||
      !digits(text, position + 4, 2, offsetMinutes))
    return false;
  return offsetHours <= 23 && offsetMinutes <= 59 && position + 6 == text.size();
}

}  // namespace tarv
