#include "kernel/index/load_trace.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <optional>

#include "core/platform/system_info.h"

namespace tarv {
namespace {

// Read once: a process that starts tracing halfway would print elapsed times
// from the wrong origin.
bool readEnabled() noexcept { return LoadTrace::enablesTracing(std::getenv("TARV_LOAD_TRACE")); }

LoadTrace::Clock::time_point processStart() noexcept {
  static const LoadTrace::Clock::time_point start = LoadTrace::Clock::now();
  return start;
}

void writeLine(const std::string& line) noexcept {
  const char* data = line.data();
  std::size_t left = line.size();
  // One write per line; the loop only finishes a write the kernel cut short.
  while (left > 0) {
    const ssize_t written = ::write(STDERR_FILENO, data, left);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return;
    data += written;
    left -= static_cast<std::size_t>(written);
  }
}

std::string utcTime(std::chrono::system_clock::time_point now) {
  const auto since = now.time_since_epoch();
  const auto seconds = std::chrono::floor<std::chrono::seconds>(since);
  const auto millis = std::chrono::duration_cast<std::chrono::milliseconds>(since - seconds).count();
  const std::time_t whole = static_cast<std::time_t>(seconds.count());
  std::tm parts{};
  ::gmtime_r(&whole, &parts);
  char text[96];
  std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", parts.tm_year + 1900, parts.tm_mon + 1,
                parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec, static_cast<int>(millis));
  return text;
}

}  // namespace

bool LoadTrace::enablesTracing(const char* value) noexcept { return value != nullptr && std::string_view(value) == "1"; }

bool LoadTrace::enabled() noexcept {
  static const bool on = readEnabled();
  return on;
}

std::string LoadTrace::formatLine(std::chrono::system_clock::time_point now, long pid, std::int64_t elapsedNanos,
                                  std::string_view phase, std::string_view event, const std::uint64_t* residentBytes,
                                  std::string_view detail) {
  const double elapsedMs = static_cast<double>(elapsedNanos) / 1'000'000.0;
  const double residentMiB = residentBytes ? static_cast<double>(*residentBytes) / (1024.0 * 1024.0) : 0.0;
  char numbers[96];
  std::string line = utcTime(now);
  std::snprintf(numbers, sizeof numbers, " pid=%ld elapsedMs=%.3f phase=", pid, elapsedMs);
  line += numbers;
  line += phase;
  line += " event=";
  line += event;
  std::snprintf(numbers, sizeof numbers, " rssMiB=%.1f ", residentMiB);
  line += numbers;
  const std::size_t detailStart = line.size();
  line += detail;
  for (std::size_t i = detailStart; i < line.size(); ++i)
    if (line[i] == '\n') line[i] = ' ';
  line += '\n';
  return line;
}

void LoadTrace::event(std::string_view phase, std::string_view event, std::string_view detail) noexcept {
  if (!enabled()) return;
  try {
    // The start is fixed before the clock is read: the first event sets it,
    // and the two operands of one subtraction may be evaluated in either order.
    const Clock::time_point start = processStart();
    const auto elapsed = std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - start).count();
    const std::optional<std::uint64_t> resident = platform::residentMemoryBytes();
    writeLine(formatLine(std::chrono::system_clock::now(), static_cast<long>(::getpid()), elapsed, phase, event,
                         resident ? &*resident : nullptr, detail));
  } catch (...) {
    // A trace line that cannot be built (out of memory) is dropped; tracing
    // never changes what the load does.
  }
}

LoadTrace::Clock::time_point LoadTrace::begin(std::string_view phase, std::string_view detail) noexcept {
  const Clock::time_point now = Clock::now();
  event(phase, "begin", detail);
  return now;
}

void LoadTrace::end(std::string_view phase, Clock::time_point start, std::string_view detail) noexcept {
  if (!enabled()) return;
  try {
    const auto nanos = std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - start).count();
    char duration[48];
    std::snprintf(duration, sizeof duration, "durationMs=%.3f ", static_cast<double>(nanos) / 1'000'000.0);
    std::string text = duration;
    text += detail;
    event(phase, "end", text);
  } catch (...) {
  }
}

}  // namespace tarv
