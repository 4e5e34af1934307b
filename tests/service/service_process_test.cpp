// The tarv-service executable: its ready line, its start-up failures and its
// exit on SIGTERM and SIGINT, run as a child process on a small gfind source.

#include <gtest/gtest.h>
#include <signal.h>

#include <regex>
#include <string>
#include <vector>

#include "tests/service/http_client.h"
#include "tests/support/process.h"
#include "tests/support/temp_dir.h"

namespace tarv {
namespace {

using namespace std::chrono_literals;
using testing::TempDir;

const std::string kToken = "service-test-token-0123456789";

std::string serviceBinary() { return testing::binaryDir() + "/tarv-service"; }

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

  testing::ProcessOptions options(const std::string& token = kToken) const {
    testing::ProcessOptions options = testing::isolatedOptions(dir_.path());
    options.env["TARV_TOKEN"] = token;
    options.env["TARV_INDEX_CACHE"] = (dir_ / "cache").string();
    options.timeoutSeconds = 30;
    return options;
  }

  testing::ProcessResult runToEnd(const std::vector<std::string>& arguments, const std::string& token = kToken) {
    return testing::run(serviceBinary(), arguments, options(token));
  }

  TempDir dir_;
  std::filesystem::path config_;
};

TEST_F(ServiceProcessTest, ReadyLineThenServesUntilSigterm) {
  testing::LiveProcess service(serviceBinary(), {"--config", config_.string()}, options());
  const std::string ready = service.readLine();
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
  EXPECT_EQ(service.rest(), "") << "exactly one line on standard output";
  EXPECT_TRUE(socket.closedByPeer(1s));
}

TEST_F(ServiceProcessTest, SigintEndsWithStatusZero) {
  testing::LiveProcess service(serviceBinary(), {"--config", config_.string()}, options());
  ASSERT_FALSE(service.readLine().empty());
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
