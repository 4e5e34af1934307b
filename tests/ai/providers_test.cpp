// The providers against local stand-in servers, one per protocol: the exact
// request on the wire (method, path, headers, body), the repair request, and
// every failure the person can see. Nothing leaves 127.0.0.1.

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "core/ai/ai_search.h"
#include "core/ai/system_prompt.h"
#include "kernel/base/json.h"
#include "tests/ai/fake_provider.h"
#include "tests/ai/time_zone.h"
#include "tests/support/environment_guard.h"

namespace tarv::AISearch {
namespace {

using testing::anthropicReply;
using testing::bodyOf;
using testing::FakeProvider;
using testing::openAIReply;
using testing::RecordedRequest;

const auto kNow = testing::utcSeconds(1795341600);  // Sunday 2026-11-22 10:00 UTC
constexpr std::string_view kHome = "/home/a";

// One protocol under test: how to configure it and how it wraps a reply.
struct Protocol {
  const char* name;
  Provider provider;
  std::string (*wrap)(const std::string&);
  const char* path;
};

const Protocol kOpenAI{"openAI", Provider::openAI, &testing::openAIReply, "/v1/chat/completions"};
const Protocol kAnthropic{"anthropic", Provider::anthropic, &testing::anthropicReply, "/v1/messages"};

class Providers : public ::testing::Test {
 protected:
  // Settings and a connection that reach `server` (the fixture's unless given)
  // whichever protocol is chosen.
  Settings settings(const Protocol& protocol, std::string model = "test-model",
                    const FakeProvider* server = nullptr) const {
    Settings settings;
    settings.provider = protocol.provider;
    settings.baseURL = (server ? *server : server_).origin() + "/v1";
    settings.model = std::move(model);
    return settings;
  }

  Connection connection(std::optional<std::string> key = "test-key", const FakeProvider* server = nullptr) const {
    Connection connection;
    connection.anthropicOrigin = (server ? *server : server_).origin();
    connection.openAITimeout = connection.anthropicTimeout = std::chrono::milliseconds(5000);
    connection.apiKey = [key](Provider) { return key; };
    return connection;
  }

  ComposedQuery generateWith(const Settings& settings, const Connection& connection,
                             std::string_view description = "find report") {
    return generate(description, settings, kNow, kHome, connection);
  }

  // The message of the AIError that generate throws, or "no error".
  std::string failure(const Settings& settings, const Connection& connection) {
    try {
      generateWith(settings, connection);
    } catch (const AIError& error) {
      return error.message();
    }
    return "no error";
  }

  testing::LocalTimeZone zone_{"UTC0"};
  FakeProvider server_;
};

TEST_F(Providers, OpenAIRequestOnTheWire) {
  server_.reply(200, openAIReply(R"({"words": ["report"]})"));
  Settings chat = settings(kOpenAI);
  chat.baseURL = server_.origin() + "/v1 \t\n";  // white space around the URL is ignored
  EXPECT_EQ(generateWith(chat, connection("sk-1")).query, "report");

  const std::vector<RecordedRequest> requests = server_.requests();
  ASSERT_EQ(requests.size(), 1u);
  const RecordedRequest& request = requests[0];
  EXPECT_EQ(request.method, "POST");
  EXPECT_EQ(request.target, "/v1/chat/completions");
  EXPECT_EQ(request.headers.at("content-type"), "application/json");
  EXPECT_EQ(request.headers.at("authorization"), "Bearer sk-1");
  EXPECT_EQ(request.headers.count("expect"), 0u);
  const json::Value expected = {
      {"model", "test-model"},
      {"messages",
       {{{"role", "system"}, {"content", std::string(kSystemPrompt)}}, {{"role", "user"}, {"content", "find report"}}}},
      {"stream", false},
      {"reasoning_effort", "none"},
      {"response_format", {{"type", "json_object"}}},
      {"temperature", 0},
  };
  EXPECT_EQ(bodyOf(request), expected);
  EXPECT_TRUE(bodyOf(request)["temperature"].is_number_integer());
}

TEST_F(Providers, OpenAIWithoutKeySendsNoAuthorization) {
  server_.reply(200, openAIReply(R"({"words": ["a"]})"));
  Settings chat = settings(kOpenAI);
  chat.baseURL = server_.origin() + "/api/v1/?tenant=x";
  generateWith(chat, connection(std::nullopt));
  const std::vector<RecordedRequest> requests = server_.requests();
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(requests[0].headers.count("authorization"), 0u);
  EXPECT_EQ(requests[0].target, "/api/v1/chat/completions?tenant=x");
}

TEST_F(Providers, AnthropicRequestOnTheWire) {
  struct Case {
    const char* model;
    bool fallback;
  };
  for (const Case& c : {Case{"claude-opus-5-5", true}, Case{"claude-opus-5", true}, Case{"claude-fable-5-1", true},
                        Case{"claude-sonnet-5-5", true}, Case{"claude-haiku-5", false}, Case{"", false}}) {
    FakeProvider server;
    server.reply(200, anthropicReply(R"({"words": ["report"]})"));
    Settings messages = settings(kAnthropic, c.model);
    messages.baseURL = "not used by this provider";
    EXPECT_EQ(generateWith(messages, connection("ak-1", &server)).query, "report") << c.model;

    const std::vector<RecordedRequest> requests = server.requests();
    ASSERT_EQ(requests.size(), 1u) << c.model;
    const RecordedRequest& request = requests[0];
    EXPECT_EQ(request.method, "POST");
    EXPECT_EQ(request.target, "/v1/messages");
    EXPECT_EQ(request.headers.at("content-type"), "application/json");
    EXPECT_EQ(request.headers.at("x-api-key"), "ak-1");
    EXPECT_EQ(request.headers.at("anthropic-version"), "2026-10-21");
    EXPECT_EQ(request.headers.count("authorization"), 0u);
    json::Value expected = {
        {"model", c.model},
        {"max_tokens", 4000},
        {"system", std::string(kSystemPrompt)},
        {"output_config", {{"effort", "low"}}},
        {"messages", {{{"role", "user"}, {"content", "find report"}}}},
    };
    if (c.fallback) {
      expected["fallbacks"] = "default";
      EXPECT_EQ(request.headers.at("anthropic-beta"), "server-side-fallback-2026-07-01") << c.model;
    } else {
      EXPECT_EQ(request.headers.count("anthropic-beta"), 0u) << c.model;
    }
    EXPECT_EQ(bodyOf(request), expected) << c.model;
  }
}

TEST_F(Providers, RepairRequestAfterProseOrEmptyObject) {
  for (const Protocol* protocol : {&kOpenAI, &kAnthropic}) {
    for (const char* first : {"I think you want PDF files.", "{}", "{\"type\": \"none\"}"}) {
      FakeProvider server;
      server.reply(200, protocol->wrap(first));
      server.reply(200, protocol->wrap("```json\n{\"extensions\": [\"pdf\"]}\n```"));
      EXPECT_EQ(generateWith(settings(*protocol, "test-model", &server), connection("test-key", &server)).query,
                "ext:pdf")
          << protocol->name << ": " << first;

      const std::vector<RecordedRequest> requests = server.requests();
      ASSERT_EQ(requests.size(), 2u) << protocol->name;
      EXPECT_EQ(requests[1].target, protocol->path);
      json::Value messages = bodyOf(requests[1])["messages"];
      if (protocol->provider == Provider::openAI) messages.erase(0);  // the system message
      const json::Value expected = {{{"role", "user"}, {"content", "find report"}},
                                    {{"role", "assistant"}, {"content", first}},
                                    {{"role", "user"}, {"content", std::string(kRepairRequest)}}};
      EXPECT_EQ(messages, expected) << protocol->name << ": " << first;
    }
  }
}

TEST_F(Providers, NoIntentTwiceIsNoQuery) {
  server_.reply(200, openAIReply("Sorry, I don't understand."));
  server_.reply(200, openAIReply("Still prose."));
  server_.reply(200, openAIReply(R"({"words": ["never asked"]})"));
  EXPECT_EQ(failure(settings(kOpenAI), connection()), "AI 没有给出搜索条件，请换个说法再试。");
  EXPECT_EQ(server_.requests().size(), 2u) << "exactly one repair request";
}

TEST_F(Providers, IntentThatComposesToNothingIsNoQueryWithoutRepair) {
  server_.reply(200, openAIReply(R"({"folder": "Nowhere", "kinds": ["sticker"]})"));
  EXPECT_EQ(failure(settings(kOpenAI), connection()), "AI 没有给出搜索条件，请换个说法再试。");
  EXPECT_EQ(server_.requests().size(), 1u);
}

TEST_F(Providers, HttpFailures) {
  struct Case {
    const char* label;
    const Protocol* protocol;
    int status;
    std::string body;
    std::string message;
  };
  const std::string longBody = "<html>" + std::string(300, 'x') + "</html>";
  const std::vector<Case> cases = {
      {"401 with a JSON error", &kOpenAI, 401, R"({"error": {"message": "Incorrect API key", "type": "auth"}})",
       "AI 接口出错（401）：Incorrect API key"},
      {"anthropic error shape", &kAnthropic, 529,
       R"({"type": "error", "error": {"type": "overloaded_error", "message": "Overloaded"}})",
       "AI 接口出错（529）：Overloaded"},
      {"plain body, first 200 bytes", &kOpenAI, 502, longBody, "AI 接口出错（502）：" + longBody.substr(0, 200)},
      {"JSON without error message", &kOpenAI, 400, R"({"error": "bad"})", "AI 接口出错（400）：{\"error\": \"bad\"}"},
      {"a cut code point is repaired", &kOpenAI, 500, std::string(199, 'a') + "\xe4\xb8\x8b",
       "AI 接口出错（500）：" + std::string(199, 'a') + "\xef\xbf\xbd"},
      {"success without a body", &kOpenAI, 200, "", "AI 接口出错（200）："},
      {"redirects are not followed", &kOpenAI, 301, "", "AI 接口出错（301）："},
      {"openAI reply without choices", &kOpenAI, 200, R"({"choices": []})", "AI 接口返回了无法识别的内容。"},
      {"openAI content not a string", &kOpenAI, 200, R"({"choices": [{"message": {"content": null}}]})",
       "AI 接口返回了无法识别的内容。"},
      {"reply that is not JSON", &kOpenAI, 200, "hello", "AI 接口返回了无法识别的内容。"},
      {"anthropic refusal", &kAnthropic, 200, R"({"content": [], "stop_reason": "refusal"})",
       "AI 拒绝了这个请求，请换个说法再试。"},
      {"anthropic without text blocks", &kAnthropic, 200,
       R"({"content": [{"type": "tool_use", "text": "x"}], "stop_reason": "end_turn"})",
       "AI 接口返回了无法识别的内容。"},
  };
  for (const Case& c : cases) {
    FakeProvider server;
    server.reply(c.status, c.body);
    EXPECT_EQ(failure(settings(*c.protocol, "test-model", &server), connection("test-key", &server)), c.message)
        << c.label;
    EXPECT_EQ(server.requests().size(), 1u) << c.label << ": no retry beyond the repair request";
  }
}

TEST_F(Providers, AnthropicTextBlocksAreJoined) {
  server_.reply(200, json::encode(json::Value{
                         {"content",
                          {{{"type", "thinking"}, {"thinking", "{\"words\": [\"no\"]}"}},
                           {{"type", "text"}, {"text", "{\"words\": "}},
                           {{"type", "text"}, {"text", "[\"yes\"]}"}}}},
                         {"stop_reason", "end_turn"}}));
  EXPECT_EQ(generateWith(settings(kAnthropic), connection()).query, "yes");
}

TEST_F(Providers, FailuresBeforeAnyRequest) {
  struct Case {
    const char* label;
    Settings settings;
    Connection connection;
    std::string message;
  };
  std::vector<Case> cases;
  for (const char* base : {"not a url", "", "   ", "ftp://127.0.0.1/v1", "http://", "//127.0.0.1/v1", "http://[::1/v1",
                           "127.0.0.1:8080/v1"}) {
    Settings chat = settings(kOpenAI);
    chat.baseURL = base;
    cases.push_back({base, chat, connection(), "AI 接口地址无效。"});
  }
  cases.push_back({"anthropic without a key", settings(kAnthropic), connection(std::nullopt),
                   "请先在「设置 › AI」中填写 Anthropic API key。"});
  Connection badOrigin = connection();
  badOrigin.anthropicOrigin = "no origin here";
  cases.push_back({"unparsable anthropic origin", settings(kAnthropic), badOrigin, "AI 接口地址无效。"});
  Settings apple = settings(kOpenAI);
  apple.provider = Provider::apple;
  cases.push_back({"no on-device model here", apple, connection(),
                   "这台 Mac 不能使用 Apple 本机模型。请在「设置 › AI」中改用自己的 API key。"});
  for (const Case& c : cases) EXPECT_EQ(failure(c.settings, c.connection), c.message) << c.label;
  EXPECT_TRUE(server_.requests().empty());
}

TEST_F(Providers, SlowProviderFailsAtItsTimeOut) {
  for (const Protocol* protocol : {&kOpenAI, &kAnthropic}) {
    FakeProvider server;
    server.reply({200, protocol->wrap(R"({"words": ["late"]})"), std::chrono::milliseconds(10000)});
    Connection link = connection("test-key", &server);
    // Each provider uses its own time-out; the other is left long to show it.
    (protocol->provider == Provider::openAI ? link.openAITimeout : link.anthropicTimeout) =
        std::chrono::milliseconds(700);
    const auto start = std::chrono::steady_clock::now();
    try {
      generateWith(settings(*protocol, "test-model", &server), link);
      ADD_FAILURE() << protocol->name << ": no time-out";
    } catch (const AIError& error) {
      EXPECT_EQ(error.kind(), AIError::Kind::transport) << protocol->name;
      EXPECT_NE(error.message().find("timed out"), std::string::npos) << error.message();
    }
    const auto elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_GE(elapsed, std::chrono::milliseconds(650)) << protocol->name;
    EXPECT_LT(elapsed, std::chrono::milliseconds(3000)) << protocol->name;
  }
}

TEST_F(Providers, TransportFailuresPassThrough) {
  int closedPort;
  {
    FakeProvider gone;
    closedPort = gone.port();
  }
  Settings chat = settings(kOpenAI);
  chat.baseURL = "http://127.0.0.1:" + std::to_string(closedPort) + "/v1";
  try {
    generateWith(chat, connection());
    ADD_FAILURE() << "connected to a closed port";
  } catch (const AIError& error) {
    EXPECT_EQ(error.kind(), AIError::Kind::transport);
    EXPECT_FALSE(error.message().empty());
  }
}

TEST_F(Providers, HostileRepliesGiveHarmlessQueries) {
  // A huge reply is cut off by the transport.
  server_.reply(200, std::string(9u << 20, ' '));
  try {
    generateWith(settings(kOpenAI), connection());
    ADD_FAILURE() << "accepted a 9 MiB reply";
  } catch (const AIError& error) {
    EXPECT_EQ(error.kind(), AIError::Kind::transport);
  }
  // Syntax characters everywhere, and nesting: literal words or nothing.
  const std::string syntax(100000, '|');
  server_.reply(200, openAIReply(json::encode(json::Value{
                         {"words", {syntax + "<!>", "dm:2020", "\">\" folder:"}},
                         {"either_words", {std::string(64, '[')}},
                         {"exclude_words", json::Value::array()}})));
  const ComposedQuery composed = generateWith(settings(kOpenAI), connection());
  const std::string expected = "\"" + syntax + "<!>\" \"> folder:\" " + std::string(64, '[');
  // Compared without printing: a failure would show a 100 kB query.
  EXPECT_TRUE(composed.query == expected) << composed.query.size() << " bytes, ending "
                                          << composed.query.substr(composed.query.size() - 100);
  server_.reply(200, openAIReply("{\"words\": " + std::string(5000, '[') + std::string(5000, ']') + "}"));
  server_.reply(200, openAIReply("{\"words\": [\"fine\"]}"));
  EXPECT_EQ(generateWith(settings(kOpenAI), connection()).query, "fine") << "deep nesting counts as no intent";
}

TEST(Connection, StandardReadsTheAnthropicOrigin) {
  testing::EnvironmentGuard environment;
  environment.set("TARV_ANTHROPIC_BASE_URL", std::nullopt);
  EXPECT_EQ(Connection::standard().anthropicOrigin, std::nullopt);
  environment.set("TARV_ANTHROPIC_BASE_URL", "http://127.0.0.1:9");
  EXPECT_EQ(Connection::standard().anthropicOrigin, "http://127.0.0.1:9");
  EXPECT_EQ(Connection::standard().anthropicEndpoint, "https://api.anthropic.com/v1/messages");
  EXPECT_EQ(replacingOrigin("https://api.anthropic.com/v1/messages", "http://127.0.0.1:9"),
            "http://127.0.0.1:9/v1/messages");
  EXPECT_EQ(replacingOrigin("https://api.anthropic.com/v1/messages", "http://localhost"),
            "http://localhost/v1/messages");
  EXPECT_EQ(replacingOrigin("https://api.anthropic.com/v1/messages", "localhost:9"), std::nullopt);
  EXPECT_EQ(appendingPathComponent("https://api.openai.com/v1", "chat/completions"),
            "https://api.openai.com/v1/chat/completions");
  EXPECT_EQ(appendingPathComponent("https://h/v1/", "chat/completions"), "https://h/v1/chat/completions");
  EXPECT_EQ(appendingPathComponent("https://h", "chat/completions"), "https://h/chat/completions");
}

}  // namespace
}  // namespace tarv::AISearch
