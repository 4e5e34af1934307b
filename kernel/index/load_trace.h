#pragma once
// LoadTrace: an optional timing log of snapshot loading on standard error,
// one line per event:
//
//   <ISO 8601 UTC time> pid=<pid> elapsedMs=<ms since the first trace call>
//   phase=<phase> event=<event> rssMiB=<resident MiB, 0 when unreadable> <detail>
//
// Enabled only when TARV_LOAD_TRACE is exactly "1", read once per process.
// When disabled every call costs one relaxed flag test (begin also reads the
// monotonic clock). Each line goes out in a single write, so lines of
// concurrent threads never interleave. Safe from any thread; never throws.

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

namespace tarv {

class LoadTrace {
 public:
  using Clock = std::chrono::steady_clock;

  // Whether tracing is on for this process.
  static bool enabled() noexcept;
  // The rule behind enabled(): only the exact value "1" turns tracing on.
  static bool enablesTracing(const char* value) noexcept;

  // Writes the "begin" event and returns the current monotonic time.
  static Clock::time_point begin(std::string_view phase, std::string_view detail) noexcept;
  // Writes the "end" event with the detail "durationMs=<ms since start> " + detail.
  static void end(std::string_view phase, Clock::time_point start, std::string_view detail) noexcept;
  static void event(std::string_view phase, std::string_view event, std::string_view detail) noexcept;

  // One trace line, for the given wall time, elapsed nanoseconds and resident
  // bytes (absent: 0 MiB). Line feeds in the detail become spaces.
  static std::string formatLine(std::chrono::system_clock::time_point now, long pid, std::int64_t elapsedNanos,
                                std::string_view phase, std::string_view event, const std::uint64_t* residentBytes,
                                std::string_view detail);
};

}  // namespace tarv
