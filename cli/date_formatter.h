#pragma once
// The ISO 8601 internet date-time format the command line prints dates in:
// UTC, whole seconds, "Z" zone, e.g. 2026-10-01T12:00:00Z. Stateless, so one
// formatter serves the whole process from any thread.

#include <cstdint>
#include <string>

namespace tarv::cli {

// The instant `ms` milliseconds after 1970-01-01T00:00:00Z (negative: before),
// with the fraction of a second dropped toward the past, so -1 ms prints as
// 1969-12-31T23:59:59Z. Years below 1000 are padded to four digits; years past
// 9999 print all their digits; years before 0 get a leading "-". Any int64 works.
std::string formatInternetDate(std::int64_t ms);

}  // namespace tarv::cli
