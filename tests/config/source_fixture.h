#pragma once
// A configured source built in code, for the tests that load one without a
// configuration file around it.

#include <filesystem>
#include <string>

#include "kernel/config/configuration.h"

namespace tarv::testing {

inline Configuration::Source source(std::string format, std::filesystem::path file, std::string root) {
  Configuration::Source s;
  s.id = "src";
  s.label = "Source";
  s.format = std::move(format);
  s.file = std::move(file);
  s.root = std::move(root);
  s.state = "complete";
  return s;
}

}  // namespace tarv::testing
