#include "kernel/service/http_server.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <filesystem>
#include <future>
#include <map>
#include <memory>
#include <thread>

#include "kernel/base/kernel_error.h"
#include "kernel/catalog/catalog_builder.h"
#include "tests/service/http_client.h"
#include "tests/support/process.h"

namespace tarv {
namespace {

using testing::HttpReply;
using testing::Socket;
using testing::request;
using namespace std::chrono_literals;

const std::string kToken = "0123456789abcdefghijklmnopqrstuv";
const std::string kAuth = "Authorization: Bearer " + kToken + "\r\n";
constexpr std::int64_t kStart = 1'750'000'000'000;

std::shared_ptr<const Compatibility> table() {
  static const auto loaded = Compatibility::load(std::filesystem::path(testing::sourceDir()) / "data" / "vantor-v1.json");
  return loaded;
}

// One posix source: /data, then files file-000.txt .. file-(n-1).txt with
// sizes 0..n-1 and one folder.
JoinedSearchPtr generatedSearch(int files) {
  NativeCatalogBuilder builder("disk", PathFlavor::posix, /*directorySizes=*/false);
  builder.add(u"/data", 1, kUnknown64, kUnknown64, kUnknown64, kUnknown64, std::nullopt);
  for (int i = 0; i < files; ++i) {
    char name[32];
    std::snprintf(name, sizeof name, "/data/file-%03d.txt", i);
    builder.add(utf16(name), 0, static_cast<std::uint64_t>(i), kUnknown64, kUnknown64, kUnknown64, std::nullopt);
  }
  auto catalog = std::make_shared<Catalog>(builder.finish());
  std::vector<JoinedSearch::Source> sources{{"disk", "Disk", catalog}};
  std::vector<SearchIndexPtr> indexes{std::make_shared<const SearchIndex>(catalog, table())};
  return std::make_shared<const JoinedSearch>(std::move(sources), std::move(indexes), std::vector<std::string>{"k1"},
                                              table());
}

class HttpServerTest : public ::testing::Test {
 protected:
  void SetUp() override { start(HTTPServer::Options()); }

  void start(HTTPServer::Options options) {
    server_.reset();
    options.clock = [now = now_] { return now->load(); };
    server_ = std::make_unique<HTTPServer>(kToken, generatedSearch(300), json::Value::array({json::Value{{"id", "disk"}}}),
                                           12.5, std::move(options));
    server_->start();
  }

  HttpReply exchange(const std::string& bytes) {
    Socket socket(server_->port());
    EXPECT_TRUE(socket.connected());
    socket.send(bytes);
    return socket.read();
  }
  HttpReply get(const std::string& target, const std::string& headers = kAuth) {
    return exchange(request("GET", target, headers));
  }
  HttpReply post(const std::string& body, const std::string& headers = kAuth) {
    return exchange(request("POST", "/v1/queries", headers, body));
  }
  std::string create(const std::string& body = "query=file&sort=name-asc") {
    const HttpReply reply = post(body);
    EXPECT_EQ(reply.status, 201) << reply.body;
    return reply.json().value("id", "");
  }
  std::string page(const std::string& id, const std::string& params) {
    return "/v1/queries/" + id + "?" + params;
  }
  std::string version() const { return server_->version(); }

  std::shared_ptr<std::atomic<std::int64_t>> now_ = std::make_shared<std::atomic<std::int64_t>>(kStart);
  std::unique_ptr<HTTPServer> server_;
};

void expectError(const HttpReply& reply, int status, const std::string& code, const std::string& message,
                 const std::string& label) {
  EXPECT_EQ(reply.status, status) << label << ": " << reply.body;
  EXPECT_EQ(reply.json(), (nlohmann::json{{"code", code}, {"message", message}})) << label;
}

TEST_F(HttpServerTest, ResponseHeadIsExact) {
  const HttpReply reply = get("/v1/status");
  EXPECT_EQ(reply.head,
            "HTTP/1.1 200 OK\r\nContent-Type: application/json; charset=utf-8\r\nCache-Control: no-store\r\n"
            "Content-Length: " + std::to_string(reply.body.size()) + "\r\n\r\n");
  const HttpReply busy = get("/nowhere");
  EXPECT_EQ(busy.head.substr(0, busy.head.find("\r\n")), "HTTP/1.1 404 Not Found");
}

TEST_F(HttpServerTest, StatusReportsIndexAndStore) {
  const auto body = get("/v1/status").json();
  EXPECT_EQ(body["version"], version());
  EXPECT_EQ(body["total"], 301);
  EXPECT_EQ(body["loadMs"], 12.5);
  EXPECT_EQ(body["sources"], nlohmann::json::array({{{"id", "disk"}}}));
  EXPECT_EQ(body["capture"], (nlohmann::json{{"enabled", false}}));
  EXPECT_EQ(body["resultBytes"], 0);
  create();
  EXPECT_EQ(get("/v1/status").json()["resultBytes"], 300 * 4);
}

TEST_F(HttpServerTest, ChecksRunInOrderTokenOriginRoute) {
  const std::map<int, std::pair<std::string, std::string>> errors = {
      {401, {"unauthorized", "Invalid session token"}},
      {403, {"origin", "Browser requests are not supported"}},
      {404, {"not_found", "Unknown route or method"}},
  };
  struct Case {
    const char* label;
    std::string bytes;
    int status;
  };
  const Case cases[] = {
      {"no token", request("GET", "/v1/status", ""), 401},
      {"wrong token", request("GET", "/v1/status", "Authorization: Bearer " + kToken.substr(1) + "x\r\n"), 401},
      {"token prefix", request("GET", "/v1/status", "Authorization: Bearer " + kToken.substr(0, 10) + "\r\n"), 401},
      {"lower-case scheme", request("GET", "/v1/status", "Authorization: bearer " + kToken + "\r\n"), 401},
      {"token twice", request("GET", "/v1/status", kAuth + kAuth), 401},
      {"no token beats unknown route", request("GET", "/elsewhere", "Origin: http://x\r\n"), 401},
      {"origin with token", request("GET", "/v1/status", kAuth + "Origin: null\r\n"), 403},
      {"origin beats unknown route", request("DELETE", "/v1/status", kAuth + "origin: http://a\r\n"), 403},
      {"unknown path", request("GET", "/v1/other", kAuth), 404},
      {"wrong method", request("POST", "/v1/status", kAuth), 404},
      {"GET collection", request("GET", "/v1/queries", kAuth), 404},
      {"empty id", request("GET", "/v1/queries/", kAuth), 404},
      {"PUT on a query", request("PUT", "/v1/queries/abc", kAuth), 404},
      {"path is case-sensitive", request("GET", "/V1/status", kAuth), 404},
  };
  for (const Case& c : cases) {
    const auto& [code, message] = errors.at(c.status);
    expectError(exchange(c.bytes), c.status, code, message, c.label);
  }
}

TEST_F(HttpServerTest, CreateReadPagesAndDelete) {
  const HttpReply created = post("query=file-1&sort=size-desc");
  ASSERT_EQ(created.status, 201) << created.body;
  const auto body = created.json();
  EXPECT_EQ(body["total"], 100);  // file-100 .. file-199
  EXPECT_EQ(body["version"], version());
  EXPECT_EQ(body["expiresAt"], kStart + 120000);
  EXPECT_TRUE(body["searchMs"].is_number());
  const std::string id = body["id"];
  ASSERT_EQ(id.size(), 36u);

  const HttpReply first = get(page(id, "version=" + version() + "&offset=0&limit=2"));
  ASSERT_EQ(first.status, 200) << first.body;
  const auto rows = first.json()["rows"];
  ASSERT_EQ(rows.size(), 2u);
  EXPECT_EQ(first.json()["offset"], 0);
  EXPECT_EQ(rows[0]["name"], "file-199.txt");
  EXPECT_EQ(rows[0]["path"], "/data/file-199.txt");
  EXPECT_EQ(rows[0]["size"], 199);
  EXPECT_EQ(rows[0]["sourceId"], "disk");
  EXPECT_EQ(rows[0]["kind"], 0);
  EXPECT_FALSE(rows[0].contains("modifiedMs")) << "unknown values are left out";
  EXPECT_EQ(rows[1]["name"], "file-198.txt");

  // The last page is short; past the end is empty, not an error.
  const auto tail = get(page(id, "offset=98&limit=512&version=" + version())).json();
  ASSERT_EQ(tail["rows"].size(), 2u);
  EXPECT_EQ(tail["rows"][1]["name"], "file-100.txt");
  EXPECT_EQ(tail["offset"], 98);
  const auto beyond = get(page(id, "offset=5000&limit=1&version=" + version()));
  EXPECT_EQ(beyond.status, 200);
  EXPECT_EQ(beyond.json()["rows"], nlohmann::json::array());

  const HttpReply deleted = exchange(request("DELETE", "/v1/queries/" + id, kAuth));
  EXPECT_EQ(deleted.status, 200);
  expectError(get(page(id, "version=" + version() + "&offset=0&limit=2")), 410, "expired",
              "Query expired or was evicted; search again", "after delete");
}

TEST_F(HttpServerTest, PageParameterErrors) {
  const std::string id = create();
  const std::string v = "version=" + version();
  const std::string range = "offset >= 0 and limit 1..512 required";
  struct Case {
    const char* label;
    std::string params;
    int status;
    std::string message;
  };
  const Case cases[] = {
      {"limit 0", v + "&offset=0&limit=0", 400, range},
      {"limit 513", v + "&offset=0&limit=513", 400, range},
      {"negative offset", v + "&offset=-1&limit=5", 400, range},
      {"offset not a number", v + "&offset=x&limit=5", 400, "For input string"},
      {"limit overflows", v + "&offset=0&limit=99999999999999999999", 400, "For input string"},
      {"missing limit", v + "&offset=0", 400, "Expected fields: version, offset, limit"},
      {"extra field", v + "&offset=0&limit=1&sort=x", 400, "Expected fields: version, offset, limit"},
      {"range before version", "version=old&offset=0&limit=0", 400, range},
  };
  for (const Case& c : cases)
    expectError(get(page(id, c.params)), c.status, "invalid_request", c.message, c.label);
  expectError(get("/v1/queries/" + id), 400, "invalid_request", "Expected fields: version, offset, limit",
              "no query string");
  expectError(get(page(id, "version=old&offset=0&limit=1")), 409, "version_changed", "Index version changed",
              "other version");
  expectError(get(page("00000000-0000-4000-8000-000000000000", v + "&offset=0&limit=1")), 410, "expired",
              "Query expired or was evicted; search again", "unknown id");
  std::string upper = id;
  for (char& c : upper) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  EXPECT_EQ(get(page(upper, v + "&offset=0&limit=1")).status, 410) << "ids are compared exactly";
}

TEST_F(HttpServerTest, QueryBodyErrors) {
  struct Case {
    const char* label;
    std::string body;
    std::string message;
  };
  const Case cases[] = {
      {"no body", "", "Expected fields: query, sort"},
      {"missing sort", "query=a", "Expected fields: query, sort"},
      {"bad escape", "query=%%&sort=name-asc", "URLDecoder: Illegal hex characters in escape (%) pattern"},
      {"unknown sort", "query=a&sort=sideways", "Unsupported sort: sideways"},
      {"query too long", "query=" + std::string(2049, 'a') + "&sort=name-asc", "Query exceeds 2048 characters"},
      {"body too long", "query=" + std::string(16380, 'a') + "&sort=name-asc", "Request too large"},
  };
  for (const Case& c : cases) expectError(post(c.body), 400, "invalid_request", c.message, c.label);
  // 2048 units exactly is accepted; an astral character counts two units.
  EXPECT_EQ(post("query=" + std::string(2048, 'a') + "&sort=name-asc").status, 201);
  std::string astral;
  for (int i = 0; i < 1025; ++i) astral += "%F0%9F%98%80";
  expectError(post("query=" + astral + "&sort=name-asc"), 400, "invalid_request", "Query exceeds 2048 characters",
              "1025 astral characters");
}

TEST_F(HttpServerTest, SecondQueryWhileOneRunsGets429ThenSucceeds) {
  std::promise<void> entered;
  std::promise<void> release;
  std::shared_future<void> released = release.get_future().share();
  std::atomic<int> calls{0};
  HTTPServer::Options options;
  options.beforeSearch = [&] {
    if (calls++ == 0) {
      entered.set_value();
      released.wait();
    }
  };
  start(std::move(options));

  Socket slow(server_->port());
  slow.send(request("POST", "/v1/queries", kAuth, "query=file&sort=name-asc"));
  ASSERT_EQ(entered.get_future().wait_for(5s), std::future_status::ready);

  expectError(post("query=other&sort=name-asc"), 429, "busy", "A query is still running", "while running");
  // The lock is taken before the body is looked at.
  expectError(post("nonsense"), 429, "busy", "A query is still running", "bad body while running");
  // Reading and status are not blocked by a running query.
  EXPECT_EQ(get("/v1/status").status, 200);

  release.set_value();
  EXPECT_EQ(slow.read().status, 201);
  EXPECT_EQ(post("query=other&sort=name-asc").status, 201);
}

TEST_F(HttpServerTest, ResultsExpireOnTheInjectedClock) {
  const std::string id = create();
  const std::string target = page(id, "version=" + version() + "&offset=0&limit=1");
  *now_ += 119999;
  EXPECT_EQ(get(target).status, 200) << "a read renews the result";
  *now_ += 119999;
  EXPECT_EQ(get(target).status, 200);
  *now_ += 120000;
  expectError(get(target), 410, "expired", "Query expired or was evicted; search again", "after two minutes idle");
}

TEST_F(HttpServerTest, KeepAliveServesManyRequestsOnOneConnection) {
  Socket socket(server_->port());
  for (int i = 0; i < 5; ++i) {
    ASSERT_TRUE(socket.send(request("GET", "/v1/status", kAuth)));
    ASSERT_EQ(socket.read().status, 200) << i;
  }
  // Pipelined requests are answered in order.
  ASSERT_TRUE(socket.send(request("GET", "/v1/status", kAuth) + request("GET", "/nowhere", kAuth)));
  EXPECT_EQ(socket.read().status, 200);
  EXPECT_EQ(socket.read().status, 404);
  // Errors do not end a keep-alive connection either.
  ASSERT_TRUE(socket.send(request("GET", "/v1/status", "")));
  EXPECT_EQ(socket.read().status, 401);
  ASSERT_TRUE(socket.send(request("GET", "/v1/status", kAuth + "Connection: close\r\n")));
  EXPECT_EQ(socket.read().status, 200);
  EXPECT_TRUE(socket.closedByPeer()) << "connection: close ends the connection";
}

TEST_F(HttpServerTest, HalfClosedClientStillGetsItsAnswers) {
  Socket socket(server_->port());
  socket.send(request("GET", "/v1/status", kAuth) + request("GET", "/v1/status", ""));
  ::shutdown(socket.fd(), SHUT_WR);
  EXPECT_EQ(socket.read().status, 200);
  EXPECT_EQ(socket.read().status, 401);
  EXPECT_TRUE(socket.closedByPeer());
  // Half a head and then the end of input: dropped without an answer.
  Socket partial(server_->port());
  partial.send("GET /v1/sta");
  ::shutdown(partial.fd(), SHUT_WR);
  EXPECT_TRUE(partial.closedByPeer());
  EXPECT_EQ(partial.read(100ms).status, 0);
}

TEST_F(HttpServerTest, MalformedAndOversizedRequestsGet400AndClose) {
  struct Case {
    const char* label;
    std::string bytes;
    std::string message;
  };
  const Case cases[] = {
      {"head over 16 KiB", "GET /v1/status HTTP/1.1\r\nX: " + std::string(16400, 'a') + "\r\n\r\n", "Request too large"},
      {"garbage", "\x16\x03\x01 hello\r\n\r\n", "Malformed request line"},
      {"chunked", "POST /v1/queries HTTP/1.1\r\n" + kAuth + "Transfer-Encoding: chunked\r\n\r\n",
       "Unsupported transfer encoding"},
  };
  for (const Case& c : cases) {
    Socket socket(server_->port());
    socket.send(c.bytes);
    expectError(socket.read(), 400, "invalid_request", c.message, c.label);
    EXPECT_TRUE(socket.closedByPeer()) << c.label;
  }
  // A body announced over the limit is refused without being read.
  Socket big(server_->port());
  big.send("POST /v1/queries HTTP/1.1\r\n" + kAuth + "Content-Length: 1000000\r\n\r\nquery=");
  expectError(big.read(), 400, "invalid_request", "Request too large", "announced body");
  EXPECT_TRUE(big.closedByPeer());
  // The server goes on serving.
  EXPECT_EQ(get("/v1/status").status, 200);
}

TEST_F(HttpServerTest, StalledClientsAreDroppedAndNeverDelayOthers) {
  HTTPServer::Options options;
  options.receiveTimeout = 400ms;
  start(std::move(options));

  std::vector<std::unique_ptr<Socket>> stalled;
  for (int i = 0; i < 8; ++i) {
    stalled.push_back(std::make_unique<Socket>(server_->port()));
    if (i % 2 == 1) stalled.back()->send("GET /v1/sta");  // half a head
  }
  const auto before = std::chrono::steady_clock::now();
  EXPECT_EQ(get("/v1/status").status, 200);
  EXPECT_LT(std::chrono::steady_clock::now() - before, 1s) << "a stalled client never delays another";

  for (auto& socket : stalled) {
    EXPECT_TRUE(socket->closedByPeer(3s));
  }
  // An idle keep-alive connection is dropped after the same time-out.
  Socket idle(server_->port());
  idle.send(request("GET", "/v1/status", kAuth));
  EXPECT_EQ(idle.read().status, 200);
  const auto idleSince = std::chrono::steady_clock::now();
  EXPECT_TRUE(idle.closedByPeer(3s));
  EXPECT_GE(std::chrono::steady_clock::now() - idleSince, 300ms);
}

TEST_F(HttpServerTest, ConnectionsBeyondTheLimitAreClosedAtOnce) {
  HTTPServer::Options options;
  options.maxConnections = 3;
  start(std::move(options));
  std::vector<std::unique_ptr<Socket>> held;
  for (int i = 0; i < 3; ++i) {
    held.push_back(std::make_unique<Socket>(server_->port()));
    held.back()->send(request("GET", "/v1/status", kAuth));
    ASSERT_EQ(held.back()->read().status, 200) << i;  // the server has taken it
  }
  Socket extra(server_->port());
  extra.send(request("GET", "/v1/status", kAuth));
  EXPECT_EQ(extra.read(2s).status, 0);
  EXPECT_TRUE(extra.closedByPeer(1s));

  held.clear();
  // Once the held connections are gone, new ones are served again.
  bool served = false;
  for (int attempt = 0; attempt < 50 && !served; ++attempt) {
    served = get("/v1/status").status == 200;
    if (!served) std::this_thread::sleep_for(20ms);
  }
  EXPECT_TRUE(served);
}

TEST_F(HttpServerTest, StopFinishesTheRequestUnderWay) {
  std::promise<void> entered;
  std::promise<void> release;
  std::shared_future<void> released = release.get_future().share();
  HTTPServer::Options options;
  options.beforeSearch = [&] {
    entered.set_value();
    released.wait();
  };
  start(std::move(options));
  Socket idle(server_->port());
  idle.send(request("GET", "/v1/status", kAuth));
  ASSERT_EQ(idle.read().status, 200);
  Socket busy(server_->port());
  busy.send(request("POST", "/v1/queries", kAuth, "query=file&sort=name-asc"));
  ASSERT_EQ(entered.get_future().wait_for(5s), std::future_status::ready);

  std::thread stopper([this] { server_->stop(); });
  std::this_thread::sleep_for(100ms);
  release.set_value();
  stopper.join();
  EXPECT_EQ(busy.read(1s).status, 201) << "the answer under way was sent before stopping";
  EXPECT_TRUE(idle.closedByPeer(1s));
  Socket late(server_->port());
  EXPECT_FALSE(late.connected() && late.send(request("GET", "/v1/status", kAuth)) && late.read(500ms).status == 200);
}

// A page larger than the socket buffers can hold (6 MB against at most 4 MB
// of send buffer), to a client that starts reading only after the send
// time-out: the server's send returns part-way and must resume exactly where
// it stopped, and the next pipelined answer must follow intact.
TEST(HttpServerLargePages, SlowReaderGetsWholePagesInOrder) {
  NativeCatalogBuilder builder("disk", PathFlavor::posix, /*directorySizes=*/false);
  builder.add(u"/long", 1, kUnknown64, kUnknown64, kUnknown64, kUnknown64, std::nullopt);
  const std::string padding(6000, 'x');
  for (int i = 0; i < 512; ++i) {
    char number[8];
    std::snprintf(number, sizeof number, "%03d", i);
    builder.add(utf16("/long/file-" + std::string(number) + padding), 0, static_cast<std::uint64_t>(i), kUnknown64,
                kUnknown64, kUnknown64, std::nullopt);
  }
  auto catalog = std::make_shared<Catalog>(builder.finish());
  std::vector<JoinedSearch::Source> sources{{"disk", "Disk", catalog}};
  std::vector<SearchIndexPtr> indexes{std::make_shared<const SearchIndex>(catalog, table())};
  auto search = std::make_shared<const JoinedSearch>(std::move(sources), std::move(indexes),
                                                     std::vector<std::string>{"k1"}, table());
  HTTPServer::Options options;
  options.receiveTimeout = 1000ms;  // also the send time-out
  HTTPServer server(kToken, search, json::Value::array(), 1.0, options);
  server.start();

  Socket socket(server.port());
  socket.send(request("POST", "/v1/queries", kAuth, "query=file&sort=name-desc"));
  const HttpReply created = socket.read();
  ASSERT_EQ(created.status, 201) << created.body;
  const std::string id = created.json().value("id", "");
  socket.send(request("GET", "/v1/queries/" + id + "?version=" + server.version() + "&offset=0&limit=512", kAuth) +
              request("GET", "/v1/queries/" + id + "?version=" + server.version() + "&offset=511&limit=1", kAuth));
  // Late, but well before a second time-out would pass without progress.
  std::this_thread::sleep_for(1200ms);

  const HttpReply page = socket.read();
  ASSERT_EQ(page.status, 200);
  EXPECT_GT(page.body.size(), 6000000u);
  const nlohmann::json rows = page.json()["rows"];
  ASSERT_EQ(rows.size(), 512u);
  for (int i = 0; i < 512; ++i) {
    char number[8];
    std::snprintf(number, sizeof number, "%03d", 511 - i);
    ASSERT_EQ(rows[static_cast<std::size_t>(i)]["name"], "file-" + std::string(number) + padding) << i;
  }
  const HttpReply last = socket.read();
  ASSERT_EQ(last.status, 200);
  EXPECT_EQ(last.json()["rows"][0]["name"], "file-000" + padding);
}

TEST(HttpServerSetup, ShortTokenStopsStartUp) {
  for (const std::string& token : {std::string(), std::string(23, 'x'), std::string(22, 'x') + "\xC3\xA9"}) {
    try {
      HTTPServer server(token, generatedSearch(1), json::Value::array(), 0);
      ADD_FAILURE() << "accepted a token of " << token.size() << " bytes";
    } catch (const KernelError& error) {
      EXPECT_EQ(error.message(), "TARV_TOKEN must contain at least 24 characters");
    }
  }
  HTTPServer server(std::string(24, 'x'), generatedSearch(1), json::Value::array(), 0);
  EXPECT_GT(server.port(), 0);
  EXPECT_EQ(server.readyLine(),
            "{\"event\":\"http.ready\",\"port\":" + std::to_string(server.port()) + ",\"version\":\"" +
                server.version() + "\"}");
}

}  // namespace
}  // namespace tarv
