#pragma once
// The internet date-time form of ISO 8601 that source scan times are written
// in: "2026-10-01T12:00:00Z", optionally with fractional seconds
// ("2026-10-01T12:00:00.250+02:00"). Pure functions, safe from any thread.

#include <string_view>

namespace tarv {

// True when `text` is exactly one full date-time: four-digit year, month,
// day valid for that month (leap years included), "T", hours 00-23, minutes
// and seconds 00-59, an optional "." with one or more digits, then "Z" or a
// "+hh:mm"/"-hh:mm" offset. "T" and "Z" may be lower case. Bare dates, times
// without seconds or offset, and trailing text are rejected. Never throws.
bool isInternetDateTime(std::string_view text) noexcept;

}  // namespace tarv
