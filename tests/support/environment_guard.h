#pragma once
// Sets environment variables for one test and puts the old values back.

#include <cstdlib>
#include <map>
#include <optional>
#include <string>

namespace tarv::testing {

class EnvironmentGuard {
 public:
  EnvironmentGuard() = default;
  EnvironmentGuard(const EnvironmentGuard&) = delete;
  EnvironmentGuard& operator=(const EnvironmentGuard&) = delete;
  ~EnvironmentGuard() {
    for (auto& [name, value] : saved_) {
      if (value) ::setenv(name.c_str(), value->c_str(), 1);
      else ::unsetenv(name.c_str());
    }
  }

  // Sets `name` to `value`, or removes it when `value` is nothing.
  void set(const std::string& name, const std::optional<std::string>& value) {
    if (!saved_.count(name)) {
      const char* old = std::getenv(name.c_str());
      saved_[name] = old ? std::optional<std::string>(old) : std::nullopt;
    }
    if (value) ::setenv(name.c_str(), value->c_str(), 1);
    else ::unsetenv(name.c_str());
  }

 private:
  std::map<std::string, std::optional<std::string>> saved_;
};

}  // namespace tarv::testing
