// The tarv-service executable: its ready line, its start-up failures and its
// exit on SIGTERM and SIGINT, run as a child process on a small gfind source.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <regex>
#include <string>
#include <vector>

#include "tests/service/http_client.h"
#include "tests/support/process.h"
#include "tests/support/temp_dir.h"

extern char** environ;

namespace tarv {
namespace {

using namespace std::chrono_literals;
using testing::TempDir;

const std::string kToken = "service-test-token-0123456789";

std::string serviceBinary() { return testing::binaryDir() + "/tarv-service"; }

// A running tarv-service with its standard output and error on pipes.
class ServiceProcess {
 public:
  ServiceProcess(const std::vector<std::string>& arguments, const std::map<std::string, std::string>& env) {
    std::vector<std::string> environment;
    for (char** e = environ; *e; ++e) {
      const std::string entry = *e;
      if (!env.count(entry.substr(0, entry.find('=')))) environment.push_back(entry);
    }
    for (const auto& [name, value] : env) environment.push_back(name + "=" + value);
    std::vector<std::string> argv{serviceBinary()};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    std::vector<char*> argp, envp;
    for (auto& a : argv) argp.push_back(a.data());
    argp.push_back(nullptr);
    for (auto& e : environment) envp.push_back(e.data());
    envp.push_back(nullptr);

    int out[2], err[2];
    if (::pipe2(out, O_CLOEXEC) != 0 || ::pipe2(err, O_CLOEXEC) != 0) return;
    pid_ = ::fork();
    if (pid_ == 0) {
      ::dup2(out[1], 1);
      ::dup2(err[1], 2);
      ::execve(argp[0], argp.data(), envp.data());
      ::_exit(127);
    }
    ::close(out[1]);
    ::close(err[1]);
    out_ = out[0];
    err_ = err[0];
  }
  ~ServiceProcess() {
    if (pid_ > 0 && status_ < 0) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, nullptr, 0);
    }
    if (out_ >= 0) ::close(out_);
    if (err_ >= 0) ::close(err_);
  }

  // The first line of standard output, waiting at most `wait`.
  std::string readyLine(std::chrono::milliseconds wait = 20s) {
    const auto deadline = std::chrono::steady_clock::now() + wait;
    while (stdout_.find('\n') == std::string::npos) {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
      pollfd waiting{out_, POLLIN, 0};
      if (left.count() <= 0 || ::poll(&waiting, 1, static_cast<int>(left.count())) <= 0) return {};
      char chunk[4096];
      const ssize_t got = ::read(out_, chunk, sizeof chunk);
      if (got <= 0) return {};
      stdout_.append(chunk, static_cast<std::size_t>(got));
    }
    return stdout_.substr(0, stdout_.find('\n'));
  }

  // Sends `signal` and returns the exit status (-1 when it did not end in time).
  int stop(int signal, std::chrono::milliseconds wait = 10s) {
    ::kill(pid_, signal);
    const auto deadline = std::chrono::steady_clock::now() + wait;
    while (std::chrono::steady_clock::now() < deadline) {
      int status = 0;
      if (::waitpid(pid_, &status, WNOHANG) == pid_) {
        status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        return status_;
      }
      std::this_thread::sleep_for(10ms);
    }
    return -1;
  }

  // Everything left on standard output after the process ended.
  std::string restOfOutput() {
    char chunk[4096];
    ssize_t got;
    while ((got = ::read(out_, chunk, sizeof chunk)) > 0) stdout_.append(chunk, static_cast<std::size_t>(got));
    return stdout_;
  }

 private:
  pid_t pid_ = -1;
  int out_ = -1;
  int err_ = -1;
  int status_ = -1;
  std::string stdout_;
};

class ServiceProcessTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string list;
    for (const char* record : {"d 4096 1700000000.5 /srv", "f 10 1700000001 /srv/alpha.txt",
                               "f 20 1700000002 /srv/beta.txt", "f 30 1700000003 /srv/gamma.log"}) {
      list += record;
      list.push_back('\0');
    }
    dir_.write("list.gfind", list);
    config_ = dir_.write("config.json",
                         R"({"schema":1,"sources":[{"id":"srv","label":"Server","format":"gfind","file":")" +
                             (dir_ / "list.gfind").string() +
                             R"(","root":"/","state":"complete","scannedAt":null,"virtualDirectory":null}]})");
  }

  std::map<std::string, std::string> env(const std::string& token = kToken) const {
    return {{"TARV_TOKEN", token},
            {"TARV_COMPATIBILITY", testing::sourceDir() + "/data/vantor-v1.json"},
            {"TARV_INDEX_CACHE", (dir_ / "cache").string()},
            {"TARV_SUPPORT_DIRECTORY", (dir_ / "support").string()},
            {"HOME", (dir_ / "home").string()},
            {"XDG_CONFIG_HOME", (dir_ / "xdg-config").string()},
            {"XDG_DATA_HOME", (dir_ / "xdg-data").string()}};
  }

  testing::ProcessResult runToEnd(const std::vector<std::string>& arguments, const std::string& token = kToken) {
    testing::ProcessOptions options;
    for (const auto& [name, value] : env(token)) options.env[name] = value;
    options.timeoutSeconds = 30;
    return testing::run(serviceBinary(), arguments, options);
  }

  TempDir dir_;
  std::filesystem::path config_;
};

TEST_F(ServiceProcessTest, ReadyLineThenServesUntilSigterm) {
  ServiceProcess service({"--config", config_.string()}, env());
  const std::string ready = service.readyLine();
  std::smatch match;
  ASSERT_TRUE(std::regex_match(ready, match, std::regex(R"re(\{"event":"http\.ready","port":(\d+),"version":"([0-9a-f]{32})"\})re")))
      << ready;
  const int port = std::stoi(match[1]);
  const std::string version = match[2];

  testing::Socket socket(port);
  const std::string auth = "Authorization: Bearer " + kToken + "\r\n";
  socket.send(testing::request("GET", "/v1/status", auth));
  const auto status = socket.read().json();
  EXPECT_EQ(status["version"], version);
  EXPECT_EQ(status["total"], 4);
  ASSERT_EQ(status["sources"].size(), 1u);
  EXPECT_EQ(status["sources"][0]["id"], "srv");
  EXPECT_EQ(status["sources"][0]["count"], 4);
  EXPECT_EQ(status["sources"][0]["sha256"].get<std::string>().size(), 64u);

  socket.send(testing::request("POST", "/v1/queries", auth, "query=ext%3Atxt&sort=name-desc"));
  const auto created = socket.read().json();
  EXPECT_EQ(created["total"], 2);
  socket.send(testing::request("GET", "/v1/queries/" + created.value("id", "") + "?version=" + version +
                                          "&offset=0&limit=10", auth));
  const auto rows = socket.read().json()["rows"];
  ASSERT_EQ(rows.size(), 2u);
  EXPECT_EQ(rows[0]["path"], "/srv/beta.txt");

  // An idle keep-alive connection does not hold up the exit.
  EXPECT_EQ(service.stop(SIGTERM), 0);
  EXPECT_EQ(service.restOfOutput(), ready + "\n") << "exactly one line on standard output";
  EXPECT_TRUE(socket.closedByPeer(1s));
}

TEST_F(ServiceProcessTest, SigintEndsWithStatusZero) {
  ServiceProcess service({"--config", config_.string()}, env());
  ASSERT_FALSE(service.readyLine().empty());
  EXPECT_EQ(service.stop(SIGINT), 0);
}

TEST_F(ServiceProcessTest, StartUpFailuresGoToStandardErrorWithStatusTwo) {
  struct Case {
    const char* label;
    std::vector<std::string> arguments;
    std::string token;
    std::string err;
  };
  const std::string missing = (dir_ / "nothing.json").string();
  const Case cases[] = {
      {"short token", {"--config", config_.string()}, std::string(23, 't'),
       "tarv: TARV_TOKEN must contain at least 24 characters\n"},
      {"no token", {"--config", config_.string()}, "", "tarv: TARV_TOKEN must contain at least 24 characters\n"},
      {"missing configuration", {"--config", missing}, kToken,
       "tarv: No index yet: open Tarv and choose the folders to search (" + missing + ").\n"},
      {"config without value", {"--config"}, kToken, "tarv: --config needs a value\n"},
  };
  for (const Case& c : cases) {
    const auto result = runToEnd(c.arguments, c.token);
    EXPECT_EQ(result.status, 2) << c.label;
    EXPECT_EQ(result.out, "") << c.label;
    EXPECT_EQ(result.err, c.err) << c.label;
  }
  const auto unknown = runToEnd({"--config", config_.string(), "--port", "80"});
  EXPECT_EQ(unknown.status, 2);
  EXPECT_EQ(unknown.err.rfind("tarv: unknown argument --port\n", 0), 0u) << unknown.err;

  dir_.write("list.gfind", std::string("x 1 2 /srv/odd") + '\0');
  const auto broken = runToEnd({"--config", config_.string()});
  EXPECT_EQ(broken.status, 2);
  EXPECT_EQ(broken.err.rfind("tarv: Gfind record 1: ", 0), 0u) << broken.err;
}

}  // namespace
}  // namespace tarv
