// `tarv mcp` through the built executable over pipes: the protocol's replies
// byte for byte, argument coercion, tool failures as results, bad lines of
// every kind (the loop must go on), huge lines, and reloading in a live
// session when the app rewrites the configuration.

#include <gtest/gtest.h>

#include <chrono>
#include <random>
#include <regex>
#include <string>
#include <vector>

#include "kernel/base/json.h"
#include "tests/support/process.h"
#include "tests/support/temp_dir.h"

namespace tarv {
namespace {

using testing::lines;
using testing::ProcessOptions;
using testing::ProcessResult;
using testing::TempDir;

using namespace std::string_literals;

const std::string kProject =
    "d 4096 1700000000 /srv/proj\0"
    "f 100 1700000000 /srv/proj/main.rs\0"
    "f 2000 1700000100 /srv/proj/main_test.rs\0"
    "f 30 1700000200 /srv/proj/notes.txt\0"
    "d 0 1700000000 /srv/proj/docs\0"
    "f 5000 1700000000 /srv/proj/docs/guide.pdf\0"s;

// More records than the largest page, so clamping to 1000 shows.
std::string bulkSource(int files) {
  std::string text = "d 0 1600000000 /bulk\0"s;
  char name[64];
  for (int i = 0; i < files; ++i) {
    std::snprintf(name, sizeof name, "f %d 1600000000 /bulk/f%04d.dat", i, i);
    text += name;
    text.push_back('\0');
  }
  return text;
}

constexpr int kBulkFiles = 1100;
constexpr int kTotalRecords = 6 + 1 + kBulkFiles;

const std::string kConfig = R"({"schema":1,"sources":[
  {"id":"code","label":"Code","format":"gfind","file":"proj.gfind","root":"/srv","state":"complete",
   "scannedAt":"2026-10-01T12:00:00Z","virtualDirectory":null},
  {"id":"bulk","label":"Bulk","format":"gfind","file":"bulk.gfind","root":"/bulk","state":"partial",
   "scannedAt":null,"virtualDirectory":null}]})";

std::string call(const std::string& id, const std::string& tool, const std::string& arguments) {
  return R"({"jsonrpc":"2.0","id":)" + id + R"(,"method":"tools/call","params":{"name":")" + tool +
         R"(","arguments":)" + arguments + "}}";
}

class McpServerBinary : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_.write("proj.gfind", kProject);
    dir_.write("bulk.gfind", bulkSource(kBulkFiles));
    config_ = dir_.write("config.json", kConfig);
  }

  ProcessOptions options(std::string input) const {
    ProcessOptions options = testing::isolatedOptions(dir_.path());
    options.input = std::move(input);
    options.env["TARV_INDEX_CACHE"] = (dir_ / "cache").string();
    return options;
  }

  ProcessResult mcp(std::string input, const std::filesystem::path& config) const {
    return testing::run(testing::tarvBinary(), {"mcp", "--config", config.string()}, options(std::move(input)));
  }
  ProcessResult mcp(std::string input) const { return mcp(std::move(input), config_); }

  // Sends one line per request and expects exactly the listed replies, in order.
  struct Exchange {
    const char* label;
    std::string request;
    std::string reply;  // empty: no reply at all
  };
  void expectSession(const std::vector<Exchange>& exchanges) const {
    std::string input;
    std::vector<const Exchange*> answered;
    for (const Exchange& exchange : exchanges) {
      input += exchange.request + "\n";
      if (!exchange.reply.empty()) answered.push_back(&exchange);
    }
    const ProcessResult result = mcp(input);
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.err, "");
    ASSERT_FALSE(result.out.empty());
    EXPECT_EQ(result.out.back(), '\n');
    const std::vector<std::string> got = lines(result.out);
    ASSERT_EQ(got.size(), answered.size()) << "one reply per request, none per notification\n" << result.out;
    for (std::size_t i = 0; i < got.size(); ++i)
      EXPECT_EQ(testing::withoutSearchTime(got[i]), answered[i]->reply) << answered[i]->label;
  }

  // The parsed "result" of each reply, in order.
  std::vector<json::Value> results(const std::string& input) const {
    const ProcessResult result = mcp(input);
    EXPECT_EQ(result.status, 0) << result.err;
    std::vector<json::Value> out;
    for (const std::string& line : lines(result.out)) out.push_back(json::Value::parse(line).at("result"));
    return out;
  }

  TempDir dir_;
  std::filesystem::path config_;
};

const std::string kVersion = TARV_VERSION;
const std::string kParseError = R"({"error":{"code":-32700,"message":"Parse error"},"id":null,"jsonrpc":"2.0"})";

TEST_F(McpServerBinary, ProtocolMessages) {
  expectSession({
      {"initialize echoes the client's protocol version",
       R"({"jsonrpc":"2.0","id":1,"method":"initialize","params":{"protocolVersion":"2024-11-05","capabilities":{}}})",
       R"({"id":1,"jsonrpc":"2.0","result":{"capabilities":{"tools":{}},"protocolVersion":"2024-11-05",)"
       R"("serverInfo":{"name":"tarv","version":")" + kVersion + R"("}}})"},
      {"initialize without a version gets the default", R"({"jsonrpc":"2.0","id":"i","method":"initialize"})",
       R"({"id":"i","jsonrpc":"2.0","result":{"capabilities":{"tools":{}},"protocolVersion":"2025-06-18",)"
       R"("serverInfo":{"name":"tarv","version":")" + kVersion + R"("}}})"},
      {"a version that is not a string counts as none",
       R"({"jsonrpc":"2.0","id":2,"method":"initialize","params":{"protocolVersion":7}})",
       R"({"id":2,"jsonrpc":"2.0","result":{"capabilities":{"tools":{}},"protocolVersion":"2025-06-18",)"
       R"("serverInfo":{"name":"tarv","version":")" + kVersion + R"("}}})"},
      {"initialized notification", R"({"jsonrpc":"2.0","method":"notifications/initialized"})", ""},
      {"a notification's method is never checked", R"({"jsonrpc":"2.0","method":"no/such/method"})", ""},
      {"null id is a notification", R"({"jsonrpc":"2.0","id":null,"method":"ping"})", ""},
      {"even initialize as a notification", R"({"jsonrpc":"2.0","method":"initialize"})", ""},
      {"a tool call as a notification", call("null", "search_syntax", "{}"), ""},
      {"ping", R"({"jsonrpc":"2.0","id":7,"method":"ping"})", R"({"id":7,"jsonrpc":"2.0","result":{}})"},
      {"string id with a slash, echoed unescaped", R"({"jsonrpc":"2.0","id":"a/b","method":"ping"})",
       R"({"id":"a/b","jsonrpc":"2.0","result":{}})"},
      {"negative and large ids", R"({"id":-12345678901234,"method":"ping"})",
       R"({"id":-12345678901234,"jsonrpc":"2.0","result":{}})"},
      {"params that are not an object are ignored", R"({"id":8,"method":"ping","params":[1,2]})",
       R"({"id":8,"jsonrpc":"2.0","result":{}})"},
      {"unknown method", R"({"jsonrpc":"2.0","id":3,"method":"resources/list"})",
       R"({"error":{"code":-32601,"message":"Method not found: resources/list"},"id":3,"jsonrpc":"2.0"})"},
      {"a notification's name with an id", R"({"jsonrpc":"2.0","id":4,"method":"notifications/initialized"})",
       R"({"error":{"code":-32601,"message":"Method not found: notifications/initialized"},"id":4,"jsonrpc":"2.0"})"},
      {"empty method", R"({"id":5,"method":""})",
       R"({"error":{"code":-32601,"message":"Method not found: "},"id":5,"jsonrpc":"2.0"})"},
      {"unknown tool", call("6", "rm", "{}"),
       R"({"error":{"code":-32602,"message":"Unknown tool: rm"},"id":6,"jsonrpc":"2.0"})"},
      {"tool name missing", R"({"id":9,"method":"tools/call","params":{"arguments":{}}})",
       R"({"error":{"code":-32602,"message":"Unknown tool: "},"id":9,"jsonrpc":"2.0"})"},
      {"tool name not a string", R"({"id":10,"method":"tools/call","params":{"name":["search_files"]}})",
       R"({"error":{"code":-32602,"message":"Unknown tool: "},"id":10,"jsonrpc":"2.0"})"},
      {"tool names are case-sensitive", call("11", "Search_Files", "{}"),
       R"({"error":{"code":-32602,"message":"Unknown tool: Search_Files"},"id":11,"jsonrpc":"2.0"})"},
      {"bad sort is a tool error, not a protocol error", call("12", "search_files", R"({"query":"x","sort":"biggest"})"),
       R"({"id":12,"jsonrpc":"2.0","result":{"content":[{"text":"Unsupported sort: biggest","type":"text"}],)"
       R"("isError":true}})"},
      {"search result as compact text",
       call("13", "search_files", R"({"query":"path:/srv/proj ext:rs !test","limit":10})"),
       R"({"id":13,"jsonrpc":"2.0","result":{"content":[{"text":"{\"offset\":0,\"query\":\"path:/srv/proj ext:rs )"
       R"(!test\",\"results\":[{\"modified\":\"2023-11-14T22:13:20Z\",\"name\":\"main.rs\",\"path\":)"
       R"(\"/srv/proj/main.rs\",\"size\":100,\"source\":\"code\",\"type\":\"file\"}],\"returned\":1,)"
       R"(\"searchMs\":T,\"sort\":\"name-asc\",\"total\":1}","type":"text"}],"isError":false}})"},
      {"folders say so; sort and offset pass through", call("14", "search_files", R"({"query":"folder: proj|docs","sort":"path-desc","offset":1})"),
       R"({"id":14,"jsonrpc":"2.0","result":{"content":[{"text":"{\"offset\":1,\"query\":\"folder: proj|docs\",)"
       R"(\"results\":[{\"modified\":\"2023-11-14T22:13:20Z\",\"name\":\"proj\",\"path\":\"/srv/proj\",)"
       R"(\"source\":\"code\",\"type\":\"folder\"}],\"returned\":1,\"searchMs\":T,\"sort\":\"path-desc\",\"total\":2}",)"
       R"("type":"text"}],"isError":false}})"},
      {"index status",
       R"({"jsonrpc":"2.0","id":"s","method":"tools/call","params":{"name":"index_status"}})",
       R"({"id":"s","jsonrpc":"2.0","result":{"content":[{"text":"{\"configuration\":\")" + config_.string() +
           R"(\",\"records\":)" + std::to_string(kTotalRecords) +
           R"(,\"sources\":[{\"id\":\"code\",\"label\":\"Code\",\"records\":6,\"root\":\"/srv\",)"
           R"(\"scannedAt\":\"2026-10-01T12:00:00Z\",\"state\":\"complete\"},{\"id\":\"bulk\",\"label\":\"Bulk\",)"
           R"(\"records\":)" + std::to_string(kBulkFiles + 1) +
           R"(,\"root\":\"/bulk\",\"state\":\"partial\"}]}","type":"text"}],"isError":false}})"},
  });
}

TEST_F(McpServerBinary, BadLinesGetParseErrorsAndTheLoopGoesOn) {
  expectSession({
      {"not JSON", "hello", kParseError},
      {"truncated object", R"({"jsonrpc":"2.0","id":1,"method":"ping")", kParseError},
      {"empty line", "", kParseError},
      {"only spaces", "   ", kParseError},
      {"an array", R"([{"jsonrpc":"2.0","id":1,"method":"ping"}])", kParseError},
      {"a string", R"("ping")", kParseError},
      {"a number", "42", kParseError},
      {"null", "null", kParseError},
      {"no method, id kept to itself", R"({"jsonrpc":"2.0","id":1})", kParseError},
      {"method not a string", R"({"jsonrpc":"2.0","id":1,"method":["ping"]})", kParseError},
      {"method null, no id", R"({"method":null})", kParseError},
      {"invalid UTF-8 in a string", "{\"id\":1,\"method\":\"ping\",\"params\":{\"x\":\"\xff\xfe\"}}", kParseError},
      {"invalid UTF-8 in a notification", "{\"method\":\"notifications/x\",\"params\":{\"x\":\"\xc3\"}}",
       kParseError},
      {"overlong encoding of a slash", "{\"id\":1,\"method\":\"ping\",\"x\":\"\xc0\xaf\"}", kParseError},
      {"a surrogate encoded in UTF-8", "{\"id\":1,\"method\":\"ping\",\"x\":\"\xed\xa0\x80\"}", kParseError},
      {"NUL byte outside strings", "{\"id\":1,\"method\":\"ping\"}\0"s, kParseError},
      {"two messages on one line", R"({"id":1,"method":"ping"}{"id":2,"method":"ping"})", kParseError},
      {"trailing comma", R"({"id":1,"method":"ping",})", kParseError},
      {"deep nesting", "{\"id\":1,\"method\":\"ping\",\"x\":" + std::string(100000, '[') + "}", kParseError},
      {"carriage return before the line feed is whitespace", "{\"id\":2,\"method\":\"ping\"}\r",
       R"({"id":2,"jsonrpc":"2.0","result":{}})"},
      {"escaped text in the method", R"({"id":3,"method":"pi\u006eg"})", R"({"id":3,"jsonrpc":"2.0","result":{}})"},
      {"still answering", R"({"jsonrpc":"2.0","id":"last","method":"ping"})",
       R"({"id":"last","jsonrpc":"2.0","result":{}})"},
  });
}

// Which JSON values count as whole numbers is checked in-process; here the
// defaults and clamps applied to what they give.
TEST_F(McpServerBinary, SearchArgumentsAreCoercedAndClamped) {
  struct Case {
    const char* label;
    std::string arguments;
    std::int64_t returned;
    std::int64_t offset;
    std::string query;
  };
  const std::vector<Case> cases = {
      {"no arguments: empty query, first 50", "{}", 50, 0, ""},
      {"limit 0 behaves as 1", R"({"query":"","limit":0})", 1, 0, ""},
      {"negative limit behaves as 1", R"({"limit":-40})", 1, 0, ""},
      {"limit 5000 behaves as 1000", R"({"limit":5000})", 1000, 0, ""},
      {"limit as a string behaves as 50", R"({"limit":"20"})", 50, 0, ""},
      {"limit as a whole float", R"({"limit":3.0})", 3, 0, ""},
      {"offset -3 behaves as 0", R"({"limit":2,"offset":-3})", 2, 0, ""},
      {"offset as a string behaves as 0", R"({"limit":2,"offset":"5"})", 2, 0, ""},
      {"offset near the end", R"({"offset":1105})", 2, 1105, ""},
      {"offset beyond the end", R"({"offset":99999999999})", 0, 99999999999, ""},
      {"query not a string", R"({"query":42,"limit":3})", 3, 0, ""},
      {"query as given", R"({"query":"f00*","limit":1000})", 100, 0, "f00*"},
      {"arguments not an object", R"("ext:rs")", 50, 0, ""},
  };
  std::string input;
  for (std::size_t i = 0; i < cases.size(); ++i)
    input += call(std::to_string(i), "search_files", cases[i].arguments) + "\n";
  const std::vector<json::Value> replies = results(input);
  ASSERT_EQ(replies.size(), cases.size());
  for (std::size_t i = 0; i < cases.size(); ++i) {
    const Case& c = cases[i];
    ASSERT_EQ(replies[i].at("isError"), false) << c.label << ": " << replies[i].dump();
    const json::Value page = json::Value::parse(replies[i].at("content").at(0).at("text").get<std::string>());
    EXPECT_EQ(page.at("returned"), c.returned) << c.label;
    EXPECT_EQ(page.at("results").size(), static_cast<std::size_t>(c.returned)) << c.label;
    EXPECT_EQ(page.at("offset"), c.offset) << c.label;
    EXPECT_EQ(page.at("query"), c.query) << c.label;
    EXPECT_EQ(page.at("sort"), "name-asc") << c.label;
    if (c.query.empty()) {
      EXPECT_EQ(page.at("total"), kTotalRecords) << c.label;
    }
  }
}

TEST_F(McpServerBinary, SyntaxToolReturnsTheSameBytesAsTheCommand) {
  const ProcessResult command =
      testing::run(testing::tarvBinary(), {"syntax", "--config", config_.string()}, options(""));
  ASSERT_EQ(command.status, 0);
  const std::vector<json::Value> replies = results(call("1", "search_syntax", R"({"ignored":true})") + "\n");
  ASSERT_EQ(replies.size(), 1u);
  EXPECT_EQ(replies[0].at("isError"), false);
  EXPECT_EQ(replies[0].at("content").at(0).at("type"), "text");
  EXPECT_EQ(replies[0].at("content").at(0).at("text").get<std::string>() + "\n", command.out);
}

TEST_F(McpServerBinary, ListsTheThreeTools) {
  const std::vector<json::Value> replies = results(R"({"id":1,"method":"tools/list"})"s + "\n");
  ASSERT_EQ(replies.size(), 1u);
  const json::Value& tools = replies[0].at("tools");
  ASSERT_EQ(tools.size(), 3u);
  EXPECT_EQ(tools[0].at("name"), "search_files");
  EXPECT_EQ(tools[1].at("name"), "index_status");
  EXPECT_EQ(tools[2].at("name"), "search_syntax");
  EXPECT_EQ(json::encode(tools[0].at("inputSchema")),
            R"({"properties":{"limit":{"default":50,"maximum":1000,"minimum":1,"type":"integer"},)"
            R"("offset":{"default":0,"minimum":0,"type":"integer"},"query":{"description":"Vantor-syntax query; )"
            R"(an empty string matches everything.","type":"string"},"sort":{"default":"name-asc","enum":)"
            R"(["name-asc","name-desc","path-asc","path-desc","size-asc","size-desc","date-modified-asc",)"
            R"("date-modified-desc","date-created-asc","date-created-desc","size-on-disk-asc","size-on-disk-desc",)"
            R"("volume-label-asc","volume-label-desc"],"type":"string"}},"required":["query"],"type":"object"})");
  EXPECT_EQ(json::encode(tools[1].at("inputSchema")), R"({"properties":{},"type":"object"})");
  EXPECT_EQ(json::encode(tools[2].at("inputSchema")), R"({"properties":{},"type":"object"})");
  EXPECT_EQ(tools[1].at("description"),
            "What Tarv has indexed: folders, disks and NAS shares, record counts and when each was scanned.");
  EXPECT_EQ(tools[2].at("description"), "The search syntax search_files understands, with examples.");

  // Every example query in the description runs as a search.
  const std::string description = tools[0].at("description");
  EXPECT_EQ(description.rfind("Search file and folder names on this Mac (and the external disks and NAS indexed by "
                              "Tarv) in milliseconds, with Vantor's search syntax. Returns full paths with size, "
                              "dates and type. Call search_syntax once for the full syntax. Examples: ",
                              0),
            0u);
  // The examples follow "Examples: ", each quoted, separated by ", ".
  std::vector<std::string> examples;
  const std::string list = description.substr(description.find("Examples: ") + 10);
  const std::regex quoted("'([^']*)'(, |\\.$)");
  for (std::sregex_iterator it(list.begin(), list.end(), quoted), end; it != end; ++it)
    examples.push_back((*it)[1]);
  ASSERT_EQ(examples.size(), 4u);
  EXPECT_EQ(examples[0], "ext:pdf invoice dm:2026-10");
  EXPECT_EQ(examples[1], "folder: node_modules");
  EXPECT_EQ(examples[2], "video: size:>1gb");
  EXPECT_NE(examples[3].find("path:"), std::string::npos);
  EXPECT_NE(examples[3].find("ext:"), std::string::npos);
  EXPECT_NE(examples[3].find("!test"), std::string::npos);
  EXPECT_EQ(description.substr(description.size() - examples[3].size() - 3), "'" + examples[3] + "'.");
  std::string input;
  for (const std::string& example : examples)
    input += call("1", "search_files", json::encode(json::Value{{"query", example}})) + "\n";
  for (const json::Value& reply : results(input)) EXPECT_EQ(reply.at("isError"), false) << reply.dump();
}

TEST_F(McpServerBinary, MissingConfigurationIsAToolErrorAndTheServerStaysUp) {
  const std::filesystem::path missing = dir_ / "nowhere" / "config.json";
  const std::string input = call("1", "search_files", R"({"query":"x"})") + "\n" +
                            R"({"id":2,"method":"tools/call","params":{"name":"index_status"}})" + "\n" +
                            call("3", "search_syntax", "{}") + "\n" + R"({"id":4,"method":"ping"})";  // no final LF
  const ProcessResult result = mcp(input, missing);
  EXPECT_EQ(result.status, 0) << result.err;
  const std::string message = "No index yet: open Tarv and choose the folders to search (" + missing.string() + ").";
  const std::vector<std::string> got = lines(result.out);
  ASSERT_EQ(got.size(), 4u) << result.out;
  for (int i = 0; i < 2; ++i) {
    const json::Value reply = json::Value::parse(got[static_cast<std::size_t>(i)]).at("result");
    EXPECT_EQ(reply.at("isError"), true);
    EXPECT_EQ(reply.at("content").at(0).at("text"), message);
  }
  EXPECT_EQ(json::Value::parse(got[2]).at("result").at("isError"), false);
  EXPECT_EQ(got[3], R"({"id":4,"jsonrpc":"2.0","result":{}})") << "a last line without a line feed is answered";
}

TEST_F(McpServerBinary, HugeLines) {
  const std::string padding(20u << 20, 'x');
  std::string input;
  // A valid request of 20 MB, answered normally.
  input += R"({"id":1,"method":"tools/call","params":{"name":"search_files","arguments":{"query":"notes","pad":")" +
           padding + "\"}}}\n";
  // 20 MB that never closes its string.
  input += R"({"id":2,"method":"ping","x":")" + padding + "\n";
  // Millions of nested brackets.
  input += std::string(8u << 20, '[') + "\n";
  input += R"({"id":3,"method":"ping"})" "\n";
  const ProcessResult result = mcp(input);
  EXPECT_EQ(result.status, 0) << result.err;
  const std::vector<std::string> got = lines(result.out);
  ASSERT_EQ(got.size(), 4u);
  const json::Value first = json::Value::parse(got[0]).at("result");
  EXPECT_EQ(first.at("isError"), false);
  EXPECT_EQ(json::Value::parse(first.at("content").at(0).at("text").get<std::string>()).at("total"), 1);
  EXPECT_EQ(got[1], kParseError);
  EXPECT_EQ(got[2], kParseError);
  EXPECT_EQ(got[3], R"({"id":3,"jsonrpc":"2.0","result":{}})");
}

// Random damage to real requests: whatever arrives, the server answers with
// JSON-RPC objects only, never dies, and still answers the last request.
TEST_F(McpServerBinary, RandomDamageNeverStopsTheLoop) {
  const std::vector<std::string> seeds = {
      R"({"jsonrpc":"2.0","id":1,"method":"initialize","params":{"protocolVersion":"2025-06-18"}})",
      R"({"jsonrpc":"2.0","id":2,"method":"tools/list"})",
      call("3", "search_files", R"({"query":"main | f01* size:>10","sort":"size-desc","limit":3,"offset":1})"),
      call("\"q\"", "index_status", "{}"),
      call("5", "search_syntax", "{}"),
      R"({"jsonrpc":"2.0","method":"notifications/initialized"})",
  };
  std::mt19937 random(20261001);
  std::string input;
  int requests = 0;
  for (int i = 0; i < 1500; ++i) {
    std::string line = seeds[random() % seeds.size()];
    const int edits = 1 + static_cast<int>(random() % 4);
    for (int e = 0; e < edits && !line.empty(); ++e) {
      const std::size_t at = random() % line.size();
      switch (random() % 4) {
        case 0: line[at] = static_cast<char>(random() % 256); break;
        case 1: line.erase(at, 1 + random() % 8); break;
        case 2: line.insert(at, 1, static_cast<char>(random() % 256)); break;
        default: line.resize(at); break;
      }
    }
    for (char& c : line)
      if (c == '\n') c = ' ';
    input += line + "\n";
    ++requests;
  }
  input += R"({"jsonrpc":"2.0","id":"end","method":"ping"})" "\n";
  const ProcessResult result = mcp(input);
  ASSERT_EQ(result.status, 0) << result.err;
  const std::vector<std::string> got = lines(result.out);
  ASSERT_GE(got.size(), 1u);
  EXPECT_LE(got.size(), static_cast<std::size_t>(requests + 1));
  for (const std::string& line : got) {
    const json::Value reply = json::Value::parse(line, nullptr, false);
    ASSERT_TRUE(reply.is_object()) << line;
    EXPECT_EQ(reply.at("jsonrpc"), "2.0") << line;
    EXPECT_TRUE(reply.contains("result") != reply.contains("error")) << line;
    EXPECT_TRUE(reply.contains("id")) << line;
  }
  EXPECT_EQ(got.back(), R"({"id":"end","jsonrpc":"2.0","result":{}})");
}

// A live session: the server is asked, the test changes files, the server is
// asked again. Replies come before the next line is read, so each step sees
// the files as they are at that moment.
TEST_F(McpServerBinary, ReloadsWhenTheConfigurationChanges) {
  testing::LiveProcess server(testing::tarvBinary(), {"mcp", "--config", config_.string()}, options(""));
  auto paths = [&](const std::string& reply) {
    const json::Value result = json::Value::parse(reply).at("result");
    const std::string text = result.at("content").at(0).at("text");
    if (result.at("isError") == true) return "error: " + text;
    std::string out;
    const json::Value page = json::Value::parse(text);
    for (const json::Value& row : page.at("results")) out += row.at("path").get<std::string>() + " ";
    return out;
  };
  const std::string ask = call("1", "search_files", R"({"query":"/srv/ file:"})");
  auto touch = [&](int seconds) {
    std::filesystem::last_write_time(config_, std::filesystem::last_write_time(config_) + std::chrono::seconds(seconds));
  };

  EXPECT_EQ(paths(server.ask(ask)), "/srv/proj/docs/guide.pdf /srv/proj/main_test.rs /srv/proj/main.rs /srv/proj/notes.txt ")
      << "the first call loads";

  dir_.write("proj.gfind", "d 0 1 /srv/proj\0f 1 1 /srv/proj/new.txt\0"s);
  EXPECT_EQ(paths(server.ask(ask)), "/srv/proj/docs/guide.pdf /srv/proj/main_test.rs /srv/proj/main.rs /srv/proj/notes.txt ")
      << "an unchanged configuration date keeps the loaded snapshot";

  touch(10);
  EXPECT_EQ(paths(server.ask(ask)), "/srv/proj/new.txt ") << "a new configuration date loads again";

  std::filesystem::remove(dir_ / "proj.gfind");
  touch(10);
  const std::string failed = paths(server.ask(ask));
  EXPECT_EQ(failed.rfind("error: Cannot read source code", 0), 0u) << failed;

  // The failed load did not take the new date, so the same date with the
  // source back loads again.
  dir_.write("proj.gfind", "d 0 1 /srv/proj\0f 1 1 /srv/proj/back.txt\0"s);
  EXPECT_EQ(paths(server.ask(ask)), "/srv/proj/back.txt ");
  EXPECT_EQ(server.ask(R"({"id":2,"method":"ping"})"), R"({"id":2,"jsonrpc":"2.0","result":{}})");
  EXPECT_EQ(server.finish(), 0) << "end of input ends the server cleanly";
}

}  // namespace
}  // namespace tarv
