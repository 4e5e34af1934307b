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
#include <stdexcept>

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

ProcessResult run(const std::string& program, const std::vector<std::string>& arguments, const ProcessOptions& options) {
  int in[2], out[2], err[2];
  if (::pipe2(in, O_CLOEXEC) || ::pipe2(out, O_CLOEXEC) || ::pipe2(err, O_CLOEXEC)) throw std::runtime_error("pipe");
  // The child environment is prepared before fork: only async-signal-safe calls after it.
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
  std::vector<std::string> envStrings;
  for (auto& [key, value] : env) envStrings.push_back(key + "=" + value);
  std::vector<char*> envp;
  for (auto& s : envStrings) envp.push_back(s.data());
  envp.push_back(nullptr);
  std::vector<std::string> argStrings{program};
  argStrings.insert(argStrings.end(), arguments.begin(), arguments.end());
  std::vector<char*> argv;
  for (auto& s : argStrings) argv.push_back(s.data());
  argv.push_back(nullptr);

  pid_t pid = ::fork();
  if (pid < 0) throw std::runtime_error("fork");
  if (pid == 0) {
    ::dup2(in[0], 0);
    ::dup2(out[1], 1);
    ::dup2(err[1], 2);
    if (!options.workingDirectory.empty() && ::chdir(options.workingDirectory.c_str()) != 0) ::_exit(126);
    ::execve(program.c_str(), argv.data(), envp.data());
    ::_exit(127);
  }
  ::close(in[0]);
  ::close(out[1]);
  ::close(err[1]);
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
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return result;
}

}  // namespace tarv::testing
