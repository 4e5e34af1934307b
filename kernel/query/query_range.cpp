#include "kernel/query/query_range.h"

#include <ctime>
#include <limits>

#include "kernel/catalog/compatibility.h"
#include "kernel/query/exact_decimal.h"

namespace tarv {
namespace {

constexpr std::uint64_t kMax = std::numeric_limits<std::uint64_t>::max();
constexpr Query::Range::Interval kInvalid{kMax, kMax};
constexpr std::int64_t kSecondsFrom1601To1970 = 11644473600;
constexpr std::int64_t kTicksPerSecond = 10'000'000;
constexpr std::uint64_t kDayTicks = 864000000000;

// Whether the folded `units` equal the folded ASCII `word`.
bool foldedEquals(TextView units, std::u16string_view word, const Compatibility& compatibility) {
  if (units.size() != word.size()) return false;
  for (std::size_t i = 0; i < units.size(); ++i)
    if (units[i] != compatibility.fold(word[i])) return false;
  return true;
}

// FILETIME ticks of `seconds` since 1970 UTC, or nullopt when outside UInt64.
std::optional<std::uint64_t> ticksOf(std::int64_t seconds) {
  if (seconds < -kSecondsFrom1601To1970) return std::nullopt;
  auto sinceFiletimeEpoch = static_cast<std::uint64_t>(seconds + kSecondsFrom1601To1970);
  if (sinceFiletimeEpoch > kMax / kTicksPerSecond) return std::nullopt;
  return sinceFiletimeEpoch * kTicksPerSecond;
}

std::int64_t floorDiv(std::int64_t a, std::int64_t b) {
  std::int64_t q = a / b;
  return (a % b != 0 && (a < 0) != (b < 0)) ? q - 1 : q;
}

bool isLeapYear(std::int64_t year) { return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0; }

std::int64_t daysInMonth(std::int64_t year, std::int64_t month) {
  static constexpr int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  return month == 2 && isLeapYear(year) ? 29 : kDays[month - 1];
}

// The local day of the present moment as (low, high) ticks, `daysBack` days earlier.
Query::Range::Interval localDay(const Query::Moment& moment, std::int64_t daysBack) {
  std::int64_t day = floorDiv(moment.unixSeconds + moment.utcOffsetSeconds, 86400) - daysBack;
  auto low = ticksOf(day * 86400 - moment.utcOffsetSeconds);
  if (!low || *low > kMax - (kDayTicks - 1)) return kInvalid;
  return {*low, *low + (kDayTicks - 1)};
}

Query::Range::Interval sizeValue(TextView operand, const Compatibility& compatibility) {
  std::size_t position = 0;
  while (position < operand.size() &&
         ((operand[position] >= 0x09 && operand[position] <= 0x0D) || operand[position] == 0x20))
    ++position;
  auto number = ExactDecimal::read(operand, position);
  if (!number) return {0, 0};
  const Text unit = compatibility.fold(operand.substr(position));
  int power = 0;  // bytes for anything but the five unit names, "b" included
  static constexpr std::u16string_view kUnits[] = {u"kb", u"mb", u"gb", u"tb", u"pb"};
  for (int i = 0; i < 5; ++i)
    if (foldedEquals(unit, kUnits[i], compatibility)) power = i + 1;
  std::uint64_t v = number->multipliedTruncated(power);
  if (power == 0) return {v, v};
  // Every unit but bytes names a one-kibibyte bucket: the sizes that show as
  // that many whole KB when rounded up.
  std::uint64_t r = kMax - v <= 1023 ? kMax : (v + 1023) / 1024 * 1024;
  return {r - 1023, r};
}

}  // namespace

Query::Moment Query::Moment::now() {
  std::time_t seconds = std::time(nullptr);
  std::tm local{};
  Moment moment;
  moment.unixSeconds = static_cast<std::int64_t>(seconds);
  if (localtime_r(&seconds, &local) != nullptr) moment.utcOffsetSeconds = local.tm_gmtoff;
  return moment;
}

std::int64_t Query::Range::epochDay(std::int64_t year, std::int64_t month, std::int64_t day) noexcept {
  // Days from civil (proleptic Gregorian), counting years from March so the
  // leap day falls at the end of the counted year.
  year -= month <= 2 ? 1 : 0;
  const std::int64_t era = floorDiv(year, 400);
  const std::int64_t yearOfEra = year - era * 400;
  const std::int64_t dayOfYear = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + day - 1;
  const std::int64_t dayOfEra = yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear;
  return era * 146097 + dayOfEra - 719468;
}

Query::Range::Interval Query::Range::dateValue(TextView operand, const Compatibility& compatibility,
                                               const Moment& moment) {
  const Text folded = compatibility.fold(operand);
  if (foldedEquals(folded, u"today", compatibility)) return localDay(moment, 0);
  if (foldedEquals(folded, u"yesterday", compatibility)) return localDay(moment, 1);

  // year, month, day, hour, minute, second; each after the first needs its separator.
  static constexpr char16_t kSeparators[] = {u'-', u'-', u'T', u':', u':'};
  std::int64_t parts[6] = {0, 1, 1, 0, 0, 0};
  int count = 0;
  std::size_t i = 0;
  while (count < 6) {
    if (count > 0) {
      if (i >= folded.size() || folded[i] != compatibility.fold(kSeparators[count - 1])) break;
      ++i;
    }
    std::size_t j = i;
    bool negative = false;
    if (j < folded.size() && (folded[j] == compatibility.fold(u'+') || folded[j] == compatibility.fold(u'-'))) {
      negative = folded[j] == compatibility.fold(u'-');
      ++j;
    }
    const std::size_t digitsStart = j;
    std::int64_t value = 0;
    bool overflow = false;
    for (; j < folded.size() && folded[j] >= u'0' && folded[j] <= u'9'; ++j) {
      if (!overflow) value = value * 10 + (folded[j] - u'0');
      if (value > std::int64_t{std::numeric_limits<std::int32_t>::max()} + 1) overflow = true;
    }
    if (j == digitsStart) break;
    if (negative) value = -value;
    // Every component is a 32-bit signed integer; one that does not fit is unreadable.
    if (overflow || value > std::numeric_limits<std::int32_t>::max() ||
        value < std::numeric_limits<std::int32_t>::min())
      return kInvalid;
    parts[count++] = value;
    i = j;
  }

  const auto [year, month, day, hour, minute, second] = parts;
  if (count == 0 || year <= 1600 || year > 999999999) return kInvalid;
  if (count >= 2 && (month < 1 || month > 12)) return kInvalid;
  if (count >= 3 && (day < 1 || day > daysInMonth(year, month))) return kInvalid;
  if (hour > 23 || minute > 59 || second > 59) return kInvalid;

  auto localStart = [&](std::int64_t y, std::int64_t m, std::int64_t d) {
    return epochDay(y, m, d) * 86400 - moment.utcOffsetSeconds;
  };
  auto low = ticksOf(localStart(year, month, day) + hour * 3600 + minute * 60 + second);
  if (!low) return kInvalid;

  if (count <= 2) {
    auto next = count == 1 ? ticksOf(localStart(year + 1, 1, 1))
                           : ticksOf(month == 12 ? localStart(year + 1, 1, 1) : localStart(year, month + 1, 1));
    if (!next) return kInvalid;
    return {*low, *next - 1};
  }
  static constexpr std::uint64_t kSpan[] = {863999999999, 35999999999, 599999999, 9999999};
  const std::uint64_t span = kSpan[count - 3];
  if (*low > kMax - span) return kInvalid;
  return {*low, *low + span};
}

Query::Range::Interval Query::Range::value(TextView operand, bool isDate, const Compatibility& compatibility,
                                           const Moment& moment) {
  return isDate ? dateValue(operand, compatibility, moment) : sizeValue(operand, compatibility);
}

void Query::Range::parse(Term& term, TextView value, bool isDate, const Compatibility& compatibility,
                         const Moment& moment) {
  if (foldedEquals(compatibility.fold(value), u"unknown", compatibility)) {
    term.unknown = true;
    return;
  }
  auto split = [&](std::size_t at, std::size_t width) {
    term.low = Range::value(value.substr(0, at), isDate, compatibility, moment).low;
    term.high = Range::value(value.substr(at + width), isDate, compatibility, moment).high;
  };
  if (auto at = value.find(u".."); at != TextView::npos) return split(at, 2);
  if (!isDate && !value.empty()) {
    if (auto at = value.find(u'-'); at != TextView::npos) return split(at, 1);
  }

  std::size_t opLength = 0;
  while (opLength < value.size() && (value[opLength] == u'<' || value[opLength] == u'=' || value[opLength] == u'>'))
    ++opLength;
  const TextView op = value.substr(0, opLength);
  const Interval operand = Range::value(value.substr(opLength), isDate, compatibility, moment);
  if (op == u">") {
    // A date past the last representable tick stays there; sizes wrap as written.
    term.low = isDate && operand.high == kMax ? kMax : operand.high + 1;
  } else if (op == u">=") {
    term.low = operand.low;
  } else if (op == u"<") {
    if (operand.low != 0) {
      term.high = operand.low - 1;
    } else if (isDate) {
      term.high = 0;
    } else {
      term.low = 1;  // nothing is smaller than zero bytes: an empty range
      term.high = 0;
    }
  } else if (op == u"<=") {
    term.high = operand.high;
  } else {
    term.low = operand.low;
    term.high = operand.high;
  }
}

}  // namespace tarv
