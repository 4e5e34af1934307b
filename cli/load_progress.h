#pragma once
// LoadProgressDisplay: the one-line indicator that `tarv` draws on standard
// error while it loads a large source afresh (records read, percent of the
// file, rate). It is drawn only when standard error is a terminal and the
// load trace is off, so scripts, pipes and trace logs see exactly the bytes
// they saw before. The line is redrawn at most ten times a second, not at all
// for loads that end within a quarter of a second, and erased when the load
// of the source ends, before anything else is printed.
//
// Install one for the life of the process with `install()`; it removes itself
// on destruction. Reports arrive on the loading thread; one source loads at a
// time, so the display needs no lock. Never throws.

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "kernel/sources/load_progress.h"

namespace tarv::cli {

class LoadProgressDisplay final : public LoadProgress::Observer {
 public:
  using Clock = std::chrono::steady_clock;
  using Writer = std::function<void(std::string_view)>;

  static constexpr std::chrono::milliseconds kFirstDraw{250};
  static constexpr std::chrono::milliseconds kRedraw{100};

  // Draws with `write` on a line of `columns` terminal columns.
  LoadProgressDisplay(Writer write, int columns);
  ~LoadProgressDisplay() override;
  LoadProgressDisplay(const LoadProgressDisplay&) = delete;
  LoadProgressDisplay& operator=(const LoadProgressDisplay&) = delete;

  // The rule for showing progress: standard error is a terminal and the load
  // trace (TARV_LOAD_TRACE, given as `loadTrace`, may be null) is not on.
  static bool wanted(bool standardErrorIsTerminal, const char* loadTrace) noexcept;

  // The text of the line (without cursor control), at most `columns` - 1
  // characters so that it never wraps. `seconds` is the time spent in the
  // report's phase so far and gives the rate.
  static std::string formatLine(const LoadProgress::Report& report, double seconds, int columns);

  // Makes the process-wide observer a display on standard error when
  // `wanted` holds for this process; otherwise nothing is installed.
  // Returns whether it installed one. Call once, from main.
  static bool installForStandardError();

  void report(const LoadProgress::Report& report) noexcept override;
  // Same, at a given time (for tests).
  void reportAt(const LoadProgress::Report& report, Clock::time_point now) noexcept;

 private:
  Writer write_;
  int columns_;
  std::string source_;  // the source whose load is under way
  LoadProgress::Phase phase_ = LoadProgress::Phase::reading;
  Clock::time_point sourceStart_{};
  Clock::time_point phaseStart_{};
  Clock::time_point lastDraw_{};
  bool started_ = false;
  bool drawn_ = false;
};

}  // namespace tarv::cli
