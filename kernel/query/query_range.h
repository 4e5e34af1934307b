#pragma once
// Query::Range: reads the values of size and date functions ("size:>10mb",
// "dm:2026-01..2026-06", "dc:today") into the inclusive bounds of a term.
// Sizes are bytes, computed exactly (ExactDecimal, no floating point); dates
// are FILETIME ticks (100 ns since 1601-01-01 UTC) of local calendar times,
// using the local offset of the present moment. Stateless; never throws on
// any value text. An unreadable date gives (max, max), which matches nothing.

#include <cstdint>
#include <optional>

#include "kernel/query/query.h"

namespace tarv {

class Query::Range {
 public:
  struct Interval {
    std::uint64_t low = 0;
    std::uint64_t high = Term::kNoLimit;
    friend bool operator==(const Interval&, const Interval&) = default;
  };

  // Fills `low`, `high` and `unknown` of a size or date term from its value.
  static void parse(Term& term, TextView value, bool isDate, const Compatibility& compatibility,
                    const Moment& moment);
  // The (low, high) of one operand without operators.
  static Interval value(TextView operand, bool isDate, const Compatibility& compatibility, const Moment& moment);
  // The (low, high) ticks of one date operand (folded before reading).
  static Interval dateValue(TextView operand, const Compatibility& compatibility, const Moment& moment);
  // Days from 1970-01-01 to the given proleptic Gregorian date; negative
  // before it. `month` must be 1..12; `day` is not checked against the month.
  static std::int64_t epochDay(std::int64_t year, std::int64_t month, std::int64_t day) noexcept;
};

}  // namespace tarv
