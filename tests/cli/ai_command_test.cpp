// `tarv ai` end to end: the built executable against local stand-in
// providers of both protocols, with the settings file and environment keys it
// would use on a desktop, with and without --search and --json. No request
// leaves 127.0.0.1 and the real key store is never asked (no session bus).

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kernel/base/json.h"
#include "tests/ai/fake_provider.h"
#include "tests/support/process.h"
#include "tests/support/temp_dir.h"

namespace tarv {
namespace {

using testing::anthropicReply;
using testing::bodyOf;
using testing::FakeProvider;
using testing::openAIReply;
using testing::ProcessOptions;
using testing::ProcessResult;
using testing::RecordedRequest;
using testing::TempDir;
using Words = std::vector<std::string>;

using namespace std::string_literals;

const std::string kGfind =
    "d 4096 1700000000 /srv/docs\0"
    "f 2048 1700000000 /srv/docs/invoice-2026.pdf\0"
    "f 100 1700000000 /srv/docs/invoice notes.txt\0"
    "f 300 1700000000 /srv/docs/manual.pdf\0"s;

const std::string kConfig = R"({
  "schema": 1,
  "sources": [
    {"id": "docs", "label": "Docs", "format": "gfind", "file": "docs.gfind", "root": "/srv",
     "state": "complete", "scannedAt": null, "virtualDirectory": null}
  ]
})";

class AiCommand : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_.write("docs.gfind", kGfind);
    config_ = dir_.write("config.json", kConfig);
    settings(json::Value{{"aiProvider", "openAI"}, {"aiBaseURL", server_.origin() + "/v1"}, {"aiModel.openAI", "m-chat"},
                         {"aiModel.anthropic", "claude-haiku-5"}});
  }

  void settings(const json::Value& values) const { dir_.write("xdg-config/tarv/defaults.json", json::encode(values)); }

  ProcessResult tarv(Words words, std::map<std::string, std::optional<std::string>> env = {}) const {
    ProcessOptions options = testing::isolatedOptions(dir_.path());
    options.env["TARV_INDEX_CACHE"] = (dir_ / "cache").string();
    // No session bus: the real key store is never asked.
    options.env["DBUS_SESSION_BUS_ADDRESS"] = std::nullopt;
    options.env["XDG_RUNTIME_DIR"] = dir_.path().string();
    options.env["TARV_API_KEY_OPENAI"] = "sk-cli";
    options.env["TARV_API_KEY_ANTHROPIC"] = std::nullopt;
    options.env["TARV_ANTHROPIC_BASE_URL"] = server_.origin();
    for (auto& [name, value] : env) options.env[name] = value;
    words.insert(words.end(), {"--config", config_.string()});
    return testing::run(testing::tarvBinary(), words, options);
  }

  TempDir dir_;
  std::filesystem::path config_;
  FakeProvider server_;
};

// Each run sends one request built from the settings file, the environment's
// key and the options, and prints the query, its JSON or the paths it finds.
TEST_F(AiCommand, PrintsTheQueryItsJsonOrThePaths) {
  struct Case {
    const char* label;
    Words words;
    std::map<std::string, std::optional<std::string>> env;
    std::string reply;
    std::string out;
    std::string target;
    std::pair<std::string, std::string> keyHeader;
    std::string model;
    std::string description;  // what the person typed, as the model sees it
  };
  const std::pair<std::string, std::string> bearer{"authorization", "Bearer sk-cli"};
  const std::vector<Case> cases = {
      {"the query", {"ai", "PDF", "invoices"}, {}, openAIReply(R"({"extensions": ["PDF"], "words": ["invoice"]})"),
       "ext:pdf invoice\n", "/v1/chat/completions", bearer, "m-chat", "PDF invoices"},
      {"compact JSON with the problems", {"ai", "--json", "invoice stickers"}, {},
       openAIReply(R"({"words": ["invoice"], "kinds": ["sticker"]})"),
       "{\"description\":\"invoice stickers\",\"problems\":[\"忽略了未知的文件种类：sticker\"],\"query\":\"invoice\"}\n",
       "/v1/chat/completions", bearer, "m-chat", "invoice stickers"},
      {"provider and model from the options", {"ai", "the", "--provider", "anthropic", "manual", "--model", "claude-fable-5-1"},
       {{"TARV_API_KEY_ANTHROPIC", "ak-cli"}}, anthropicReply(R"({"exact_name": "manual.pdf"})"), "wfn:manual.pdf\n",
       "/v1/messages", {"x-api-key", "ak-cli"}, "claude-fable-5-1", "the manual"},
      {"--search prints the paths", {"ai", "--search", "invoices"}, {}, openAIReply(R"({"words": ["invoice"]})"),
       "/srv/docs/invoice notes.txt\n/srv/docs/invoice-2026.pdf\n", "/v1/chat/completions", bearer, "m-chat", "invoices"},
      {"--search after the words", {"ai", "pdfs", "--search"}, {}, openAIReply(R"({"extensions": ["pdf"]})"),
       "/srv/docs/invoice-2026.pdf\n/srv/docs/manual.pdf\n", "/v1/chat/completions", bearer, "m-chat", "pdfs"},
  };
  for (const Case& c : cases) {
    const std::size_t before = server_.requests().size();
    server_.reply(200, c.reply);
    const ProcessResult result = tarv(c.words, c.env);
    EXPECT_EQ(result.err, "") << c.label;
    EXPECT_EQ(result.out, c.out) << c.label;
    EXPECT_EQ(result.status, 0) << c.label;
    const std::vector<RecordedRequest> requests = server_.requests();
    ASSERT_EQ(requests.size(), before + 1) << c.label;
    const RecordedRequest& request = requests.back();
    EXPECT_EQ(request.target, c.target) << c.label;
    EXPECT_EQ(request.headers.count(c.keyHeader.first) ? request.headers.at(c.keyHeader.first) : "", c.keyHeader.second)
        << c.label;
    const json::Value body = bodyOf(request);
    EXPECT_EQ(body["model"], c.model) << c.label;
    EXPECT_EQ(body["messages"].back(), (json::Value{{"role", "user"}, {"content", c.description}})) << c.label;
  }
}

TEST_F(AiCommand, SearchJson) {
  server_.reply(200, openAIReply(R"({"extensions": ["pdf"], "larger_than": "1kb"})"));
  const ProcessResult result = tarv({"ai", "--search", "--json", "big", "pdfs"});
  EXPECT_EQ(result.err, "");
  ASSERT_EQ(result.status, 0);
  const json::Value object = json::Value::parse(result.out);
  EXPECT_EQ(object["description"], "big pdfs");
  EXPECT_EQ(object["query"], "ext:pdf size:>1kb");
  EXPECT_EQ(object["sort"], "name-asc");
  EXPECT_EQ(object["offset"], 0);
  EXPECT_EQ(object["total"], 1);
  EXPECT_EQ(object["returned"], 1);
  EXPECT_EQ(object["results"][0]["path"], "/srv/docs/invoice-2026.pdf");
  EXPECT_TRUE(result.out.find("\n  \"description\": \"big pdfs\",\n") != std::string::npos) << "pretty-printed";
}

TEST_F(AiCommand, Failures) {
  struct Case {
    const char* label;
    Words words;
    std::vector<std::pair<int, std::string>> replies;
    std::string err;
    std::size_t requests;
  };
  const std::vector<Case> cases = {
      {"no description", {"ai", "--json"}, {}, "tarv: describe the files to find, e.g. tarv ai 'PDF invoices from last month'\n", 0},
      {"unknown provider", {"ai", "x", "--provider", "openai"}, {}, "tarv: --provider must be apple, openAI or anthropic\n", 0},
      {"option without value", {"ai", "x", "--model"}, {}, "tarv: --model needs a value\n", 0},
      {"bad base URL", {"ai", "x", "--base-url", "localhost/v1"}, {}, "tarv: AI 接口地址无效。\n", 0},
      {"anthropic without key", {"ai", "x", "--provider", "anthropic"}, {},
       "tarv: 请先在「设置 › AI」中填写 Anthropic API key。\n", 0},
      {"apple", {"ai", "x", "--provider", "apple"}, {},
       "tarv: 这台 Mac 不能使用 Apple 本机模型。请在「设置 › AI」中改用自己的 API key。\n", 0},
      {"401", {"ai", "x"}, {{401, R"({"error": {"message": "bad key"}})"}}, "tarv: AI 接口出错（401）：bad key\n", 1},
      {"prose twice", {"ai", "x"}, {{200, openAIReply("no idea")}, {200, openAIReply("still none")}},
       "tarv: AI 没有给出搜索条件，请换个说法再试。\n", 2},
  };
  for (const Case& c : cases) {
    FakeProvider server;
    for (const auto& [status, body] : c.replies) server.reply(status, body);
    settings(json::Value{{"aiBaseURL", server.origin() + "/v1"}});
    const ProcessResult result = tarv(c.words);
    EXPECT_EQ(result.err, c.err) << c.label;
    EXPECT_EQ(result.out, "") << c.label;
    EXPECT_EQ(result.status, 2) << c.label;
    EXPECT_EQ(server.requests().size(), c.requests) << c.label;
  }
}

TEST_F(AiCommand, SearchWithoutIndexFailsAfterTheQuery) {
  server_.reply(200, openAIReply(R"({"words": ["x"]})"));
  std::filesystem::remove(config_);
  const ProcessResult result = tarv({"ai", "--search", "x"});
  EXPECT_EQ(result.status, 2);
  EXPECT_TRUE(result.err.starts_with("tarv: No index yet")) << result.err;
}

}  // namespace
}  // namespace tarv
