#pragma once
// Runs a program as a child process and captures what it prints, so tests can
// check the command line's exact output and exit status.

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace tarv::testing {

struct ProcessResult {
  int status = -1;  // exit status, or 128 + signal number
  std::string out;
  std::string err;
};

struct ProcessOptions {
  std::string input;                                   // bytes written to standard input
  std::map<std::string, std::optional<std::string>> env;  // set (value) or unset (nullopt)
  std::string workingDirectory;
  int timeoutSeconds = 120;
};

ProcessResult run(const std::string& program, const std::vector<std::string>& arguments,
                  const ProcessOptions& options = {});

// The build directory (TARV_BINARY_DIR) and source directory (TARV_SOURCE_DIR).
std::string binaryDir();
std::string sourceDir();
// binaryDir() + "/tarv"
std::string tarvBinary();

}  // namespace tarv::testing
