#include "tests/support/process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <utility>

extern char** environ;

namespace tarv::testing {

// The environment wins so a test binary can be pointed elsewhere; the
// folders the build was configured with are the fallback, so tests find the
// executables and the table whatever directory they run from.
std::string binaryDir() {
  const char* dir = std::getenv("TARV_BINARY_DIR");
  return dir && *dir ? dir : TARV_TEST_BINARY_DIR;
}

std::string sourceDir() {
  const char* dir = std::getenv("TARV_SOURCE_DIR");
  return dir && *dir ? dir : TARV_TEST_SOURCE_DIR;
}

std::string tarvBinary() { return binaryDir() + "/tarv"; }

namespace {

// Starts `program` with `in`, `out` and `err` as its standard input, output
// and error (-1: this process's own), in this process's environment with the
// options' changes. The descriptors are closed here once the child has them.
pid_t spawn(const std::string& program, const std::vector<std::string>& arguments, const ProcessOptions& options,
            int in, int out, int err) {
  // Everything is prepared before fork: only async-signal-safe calls after it.
  std::map<std::string, std::string> env;
  for (char** e = environ; *e; ++e) {
    std::string entry(*e);
    auto eq = entry.find('=');
    if (eq != std::string::npos) env[entry.substr(0, eq)] = entry.substr(eq + 1);
  }
  for (auto& [key, value] : options.env) {
    if (value) env[key] = *value;
    else env.erase(key);
  }
  std::vector<std::string> envStrings, argStrings{program};
  for (auto& [key, value] : env) envStrings.push_back(key + "=" + value);
  argStrings.insert(argStrings.end(), arguments.begin(), arguments.end());
  std::vector<char*> envp, argv;
  for (auto& s : envStrings) envp.push_back(s.data());
  for (auto& s : argStrings) argv.push_back(s.data());
  envp.push_back(nullptr);
  argv.push_back(nullptr);

  const pid_t pid = ::fork();
  if (pid < 0) throw std::runtime_error("fork");
  if (pid == 0) {
    if (in >= 0) ::dup2(in, 0);
    if (out >= 0) ::dup2(out, 1);
    if (err >= 0) ::dup2(err, 2);
    if (!options.workingDirectory.empty() && ::chdir(options.workingDirectory.c_str()) != 0) ::_exit(126);
    ::execve(program.c_str(), argv.data(), envp.data());
    ::_exit(127);
  }
  for (int fd : {in, out, err})
    if (fd >= 0) ::close(fd);
  return pid;
}

int exitStatus(int status) { return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status); }

}  // namespace

std::string committedTable() { return sourceDir() + "/data/vantor-v1.json"; }

ProcessOptions isolatedOptions(const std::filesystem::path& root) {
  ProcessOptions options;
  options.env["TARV_COMPATIBILITY"] = committedTable();
  options.env["TARV_SUPPORT_DIRECTORY"] = (root / "support").string();
  options.env["HOME"] = (root / "home").string();
  options.env["XDG_CONFIG_HOME"] = (root / "xdg-config").string();
  options.env["XDG_DATA_HOME"] = (root / "xdg-data").string();
  options.env["TARV_INDEX_CACHE"] = std::nullopt;
  options.env["TARV_LOAD_TRACE"] = std::nullopt;
  options.env["TZ"] = "UTC";
  options.workingDirectory = root.string();
  options.timeoutSeconds = 60;
  return options;
}

std::vector<std::string> lines(const std::string& text) {
  std::vector<std::string> out;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) out.push_back(line);
  return out;
}

std::string withoutSearchTime(const std::string& text) {
  static const std::regex time(R"re((\\?"searchMs\\?": ?)[0-9.e+-]+)re");
  return std::regex_replace(text, time, "$1T");
}

ProcessResult run(const std::string& program, const std::vector<std::string>& arguments, const ProcessOptions& options) {
  int in[2], out[2], err[2];
  if (::pipe2(in, O_CLOEXEC) || ::pipe2(out, O_CLOEXEC) || ::pipe2(err, O_CLOEXEC)) throw std::runtime_error("pipe");
  const pid_t pid = spawn(program, arguments, options, in[0], out[1], err[1]);
  ::signal(SIGPIPE, SIG_IGN);

  ProcessResult result;
  size_t written = 0;
  int inFd = in[1];
  if (options.input.empty()) {
    ::close(inFd);
    inFd = -1;
  } else {
    ::fcntl(inFd, F_SETFL, O_NONBLOCK);
  }
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(options.timeoutSeconds);
  bool outOpen = true, errOpen = true;
  char buffer[65536];
  while (outOpen || errOpen) {
    std::vector<pollfd> fds;
    if (outOpen) fds.push_back({out[0], POLLIN, 0});
    if (errOpen) fds.push_back({err[0], POLLIN, 0});
    if (inFd >= 0) fds.push_back({inFd, POLLOUT, 0});
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now()).count();
    if (left <= 0) {
      ::kill(pid, SIGKILL);
      break;
    }
    int ready = ::poll(fds.data(), fds.size(), static_cast<int>(left));
    if (ready < 0 && errno != EINTR) break;
    for (auto& fd : fds) {
      if (!fd.revents) continue;
      if (fd.fd == inFd) {
        ssize_t n = ::write(inFd, options.input.data() + written, options.input.size() - written);
        if (n > 0) written += static_cast<size_t>(n);
        if (n < 0 && errno != EAGAIN) written = options.input.size();
        if (written >= options.input.size()) {
          ::close(inFd);
          inFd = -1;
        }
        continue;
      }
      ssize_t n = ::read(fd.fd, buffer, sizeof buffer);
      if (n <= 0) {
        if (fd.fd == out[0]) outOpen = false;
        else errOpen = false;
      } else {
        (fd.fd == out[0] ? result.out : result.err).append(buffer, static_cast<size_t>(n));
      }
    }
  }
  if (inFd >= 0) ::close(inFd);
  ::close(out[0]);
  ::close(err[0]);
  int status = 0;
  ::waitpid(pid, &status, 0);
  result.status = exitStatus(status);
  return result;
}

LiveProcess::LiveProcess(const std::string& program, const std::vector<std::string>& arguments,
                         const ProcessOptions& options) {
  ::signal(SIGPIPE, SIG_IGN);  // a program that died shows as a missing reply, not a killed test
  int toChild[2], fromChild[2];
  if (::pipe2(toChild, O_CLOEXEC) || ::pipe2(fromChild, O_CLOEXEC)) throw std::runtime_error("pipe");
  pid_ = spawn(program, arguments, options, toChild[0], fromChild[1], -1);
  in_ = toChild[1];
  out_ = fromChild[0];
}

LiveProcess::~LiveProcess() {
  if (in_ >= 0) ::close(in_);
  if (out_ >= 0) ::close(out_);
  if (pid_ > 0) {
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
  }
}

std::string LiveProcess::ask(const std::string& line) {
  const std::string bytes = line + "\n";
  if (::write(in_, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) return "";
  return readLine();
}

std::string LiveProcess::readLine() {
  for (;;) {
    const std::size_t end = pending_.find('\n');
    if (end != std::string::npos) {
      std::string reply = pending_.substr(0, end);
      pending_.erase(0, end + 1);
      return reply;
    }
    pollfd poll{out_, POLLIN, 0};
    if (::poll(&poll, 1, 30000) <= 0) return "";
    char chunk[65536];
    const ssize_t n = ::read(out_, chunk, sizeof chunk);
    if (n <= 0) return "";
    pending_.append(chunk, static_cast<std::size_t>(n));
  }
}

int LiveProcess::finish() {
  ::close(in_);
  in_ = -1;
  int status = 0;
  ::waitpid(pid_, &status, 0);
  pid_ = -1;
  return exitStatus(status);
}

int LiveProcess::stop(int signal, int seconds) {
  ::kill(pid_, signal);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  while (std::chrono::steady_clock::now() < deadline) {
    int status = 0;
    if (::waitpid(pid_, &status, WNOHANG) == pid_) {
      pid_ = -1;
      return exitStatus(status);
    }
    ::poll(nullptr, 0, 10);
  }
  // A program that ignores the signal must not hang the test that reads
  // its remaining output.
  ::kill(pid_, SIGKILL);
  ::waitpid(pid_, nullptr, 0);
  pid_ = -1;
  return -1;
}

std::string LiveProcess::rest() {
  char chunk[65536];
  for (ssize_t n; (n = ::read(out_, chunk, sizeof chunk)) > 0;) pending_.append(chunk, static_cast<std::size_t>(n));
  return std::exchange(pending_, std::string());
}

}  // namespace tarv::testing
