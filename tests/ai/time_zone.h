#pragma once
// Runs a test in a fixed local time zone (a POSIX TZ rule, so no zone
// database is needed) and restores the previous one afterwards.

#include <time.h>

#include <chrono>
#include <optional>
#include <string>

#include "tests/support/environment_guard.h"

namespace tarv::testing {

class LocalTimeZone {
 public:
  explicit LocalTimeZone(const std::string& rule) {
    environment_.emplace();
    environment_->set("TZ", rule);
    ::tzset();
  }
  ~LocalTimeZone() {
    environment_.reset();  // puts TZ back before the library rereads it
    ::tzset();
  }
  LocalTimeZone(const LocalTimeZone&) = delete;
  LocalTimeZone& operator=(const LocalTimeZone&) = delete;

 private:
  std::optional<EnvironmentGuard> environment_;
};

// A UTC moment given as seconds since 1970.
inline std::chrono::system_clock::time_point utcSeconds(long long seconds) {
  return std::chrono::system_clock::time_point(std::chrono::seconds(seconds));
}

}  // namespace tarv::testing
