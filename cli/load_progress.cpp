#include "cli/load_progress.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "kernel/index/load_trace.h"

namespace tarv::cli {
namespace {

constexpr int kNarrowest = 20;
constexpr std::string_view kEraseToEnd = "\x1b[K";

// 1234567 -> "1,234,567": long counts are read at a glance.
std::string grouped(std::uint64_t value) {
  std::string digits = std::to_string(value);
  std::string out;
  out.reserve(digits.size() + digits.size() / 3);
  for (std::size_t i = 0; i < digits.size(); ++i) {
    if (i > 0 && (digits.size() - i) % 3 == 0) out.push_back(',');
    out.push_back(digits[i]);
  }
  return out;
}

// Binary units with one decimal, as file managers on this platform show them.
std::string bytes(double value) {
  static constexpr const char* kUnits[] = {"B", "KiB", "MiB", "GiB", "TiB"};
  int unit = 0;
  while (value >= 1024 && unit < 4) {
    value /= 1024;
    ++unit;
  }
  char text[32];
  if (unit == 0) {
    std::snprintf(text, sizeof text, "%.0f B", value);
  } else {
    std::snprintf(text, sizeof text, "%.1f %s", value, kUnits[unit]);
  }
  return text;
}

std::string percentOf(const LoadProgress::Report& report) {
  if (report.bytesTotal == 0) return {};
  std::uint64_t done = std::min(report.bytesDone, report.bytesTotal);
  // Whole percents, rounded down, so 100% means the whole file was read.
  auto percent = static_cast<unsigned>(static_cast<long double>(done) * 100 / report.bytesTotal);
  return "  " + std::to_string(percent) + "% of " + bytes(static_cast<double>(report.bytesTotal));
}

void writeStandardError(std::string_view text) {
  while (!text.empty()) {
    ssize_t n = ::write(STDERR_FILENO, text.data(), text.size());
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;  // a terminal that went away: drop the line
    text.remove_prefix(static_cast<std::size_t>(n));
  }
}

int standardErrorColumns() {
  winsize size{};
  if (::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) return size.ws_col;
  return 80;
}

}  // namespace

LoadProgressDisplay::LoadProgressDisplay(Writer write, int columns) : write_(std::move(write)), columns_(columns) {}

LoadProgressDisplay::~LoadProgressDisplay() { LoadProgress::setObserver(nullptr); }

bool LoadProgressDisplay::wanted(bool standardErrorIsTerminal, const char* loadTrace) noexcept {
  // The trace writes its own lines to standard error; a progress line drawn
  // between them would garble both.
  return standardErrorIsTerminal && !LoadTrace::enablesTracing(loadTrace);
}

std::string LoadProgressDisplay::formatLine(const LoadProgress::Report& report, double seconds, int columns) {
  std::string line = "tarv: loading ";
  line.append(report.sourceId);
  line += ": ";
  const bool timed = seconds >= 0.05;  // earlier rates are noise
  switch (report.phase) {
    case LoadProgress::Phase::fingerprint:
      line += "checking";
      line += percentOf(report);
      if (timed) line += "  " + bytes(static_cast<double>(report.bytesDone) / seconds) + "/s";
      break;
    case LoadProgress::Phase::reading:
      line += grouped(report.records) + " records";
      line += percentOf(report);
      if (timed) line += "  " + grouped(static_cast<std::uint64_t>(std::llround(report.records / seconds))) + " records/s";
      break;
    case LoadProgress::Phase::indexing:
      line += "indexing " + grouped(report.records) + " records";
      break;
  }
  // One column is left free: a line that fills the last column makes some
  // terminals wrap, and "\r" would then return to the wrong line.
  auto limit = static_cast<std::size_t>(std::max(columns, kNarrowest) - 1);
  if (line.size() > limit) line.resize(limit);
  return line;
}

bool LoadProgressDisplay::installForStandardError() {
  if (!wanted(::isatty(STDERR_FILENO) == 1, std::getenv("TARV_LOAD_TRACE"))) return false;
  static LoadProgressDisplay display(writeStandardError, standardErrorColumns());
  LoadProgress::setObserver(&display);
  return true;
}

void LoadProgressDisplay::report(const LoadProgress::Report& report) noexcept { reportAt(report, Clock::now()); }

void LoadProgressDisplay::reportAt(const LoadProgress::Report& report, Clock::time_point now) noexcept {
  try {
    if (!started_ || report.sourceId != source_) {
      source_.assign(report.sourceId);
      phase_ = report.phase;
      sourceStart_ = phaseStart_ = now;
      started_ = true;
      drawn_ = false;
    }
    if (report.finished) {
      // Erase before the caller prints results or an error on the same terminal.
      if (drawn_) write_("\r" + std::string(kEraseToEnd));
      started_ = drawn_ = false;
      source_.clear();
      return;
    }
    bool phaseChanged = report.phase != phase_;
    if (phaseChanged) {
      phase_ = report.phase;
      phaseStart_ = now;
    }
    if (now - sourceStart_ < kFirstDraw) return;
    if (drawn_ && !phaseChanged && now - lastDraw_ < kRedraw) return;
    double seconds = std::chrono::duration<double>(now - phaseStart_).count();
    write_("\r" + formatLine(report, seconds, columns_) + std::string(kEraseToEnd));
    drawn_ = true;
    lastDraw_ = now;
  } catch (...) {
    // Progress is a courtesy: running out of memory for a line must not end the load.
  }
}

}  // namespace tarv::cli
