#pragma once
// Runs a program as a child process and captures what it prints, so tests can
// check the command line's exact output and exit status.

#include <filesystem>
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
// The committed comparison table, sourceDir() + "/data/vantor-v1.json".
std::string committedTable();

// Options for running the built `tarv` as a user with no history: home,
// settings, data and support folders inside `root`, started in `root`, the
// committed table, UTC, and no index cache or load trace inherited from
// whoever runs the tests (either would change what the program prints).
ProcessOptions isolatedOptions(const std::filesystem::path& root);

// `text` split at line feeds, without them.
std::vector<std::string> lines(const std::string& text);

// JSON output with the one value that differs from run to run, "searchMs",
// replaced by T: pretty, compact, or escaped inside a JSON string.
std::string withoutSearchTime(const std::string& text);

// A program kept running for a conversation over its standard input and
// output, one line each way, or for reading its output line by line until it
// is stopped; standard error is inherited. Killed when the object goes out of
// scope.
class LiveProcess {
 public:
  LiveProcess(const std::string& program, const std::vector<std::string>& arguments, const ProcessOptions& options);
  ~LiveProcess();
  LiveProcess(const LiveProcess&) = delete;
  LiveProcess& operator=(const LiveProcess&) = delete;

  // Sends a line and returns the next line of output (empty after 30 seconds
  // of silence or when the program has gone).
  std::string ask(const std::string& line);
  // The next line of output, with the same limits.
  std::string readLine();
  // Closes standard input and returns the exit status.
  int finish();
  // Sends `signal` and returns the exit status, or -1 when the program has
  // not ended within `seconds` (it is killed then).
  int stop(int signal, int seconds = 10);
  // Everything the program wrote after the lines already read; call after
  // it has ended.
  std::string rest();

 private:
  int pid_ = -1;
  int in_ = -1;
  int out_ = -1;
  std::string pending_;
};

}  // namespace tarv::testing
