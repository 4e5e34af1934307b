#include "core/ai/providers.h"

#include <array>
#include <cstdlib>

#include "core/ai/ai_error.h"
#include "kernel/base/json.h"

namespace tarv::AISearch {
namespace {

// Models that can fall back to another server-side model when theirs is
// overloaded; the others would reject the beta header.
constexpr std::array<std::string_view, 4> kFallbackModels = {"claude-opus-5-5", "claude-opus-5", "claude-fable-5-1",
                                                             "claude-sonnet-5-5"};

json::Value messagesArray(const Conversation& conversation) {
  json::Value messages = json::Value::array();
  for (const Message& message : conversation)
    messages.push_back(json::Value{{"role", message.role}, {"content", message.content}});
  return messages;
}

json::Value parsedBody(std::string_view body) {
  return json::Value::parse(body, nullptr, /*allow_exceptions=*/false);
}

}  // namespace

Connection Connection::standard() {
  Connection connection;
  if (const char* origin = std::getenv("TARV_ANTHROPIC_BASE_URL"); origin && *origin)
    connection.anthropicOrigin = std::string(origin);
  return connection;
}

HttpRequest openAIRequest(std::string_view system, const Conversation& conversation, const Settings& settings,
                          const Connection& connection) {
  std::optional<std::string> url = appendingPathComponent(settings.baseURL, "chat/completions");
  if (!url) throw AIError::invalidBaseURL();
  HttpRequest request;
  request.url = std::move(*url);
  request.timeout = connection.openAITimeout;
  request.headers.emplace_back("Content-Type", "application/json");
  // A local server may need no key at all, so none is sent without one.
  if (std::optional<std::string> key = connection.apiKey(Provider::openAI))
    request.headers.emplace_back("Authorization", "Bearer " + *key);
  json::Value messages = json::Value::array();
  messages.push_back(json::Value{{"role", "system"}, {"content", system}});
  for (json::Value& message : messagesArray(conversation)) messages.push_back(std::move(message));
  const json::Value body = {
      {"model", settings.model},
      {"messages", std::move(messages)},
      {"stream", false},
      {"reasoning_effort", "none"},
      {"response_format", {{"type", "json_object"}}},
      {"temperature", 0},
  };
  request.body = json::encode(body);
  return request;
}

HttpRequest anthropicRequest(std::string_view system, const Conversation& conversation, const Settings& settings,
                             const Connection& connection) {
  std::optional<std::string> key = connection.apiKey(Provider::anthropic);
  if (!key) throw AIError::missingAnthropicKey();
  HttpRequest request;
  if (connection.anthropicOrigin) {
    std::optional<std::string> url = replacingOrigin(connection.anthropicEndpoint, *connection.anthropicOrigin);
    if (!url) throw AIError::invalidBaseURL();
    request.url = std::move(*url);
  } else {
    request.url = connection.anthropicEndpoint;
  }
  request.timeout = connection.anthropicTimeout;
  request.headers.emplace_back("Content-Type", "application/json");
  request.headers.emplace_back("x-api-key", *key);
  request.headers.emplace_back("anthropic-version", "2026-10-21");
  json::Value body = {
      {"model", settings.model},
      {"max_tokens", 4000},
      {"system", system},
      {"output_config", {{"effort", "low"}}},
      {"messages", messagesArray(conversation)},
  };
  bool fallback = false;
  for (std::string_view model : kFallbackModels) fallback = fallback || settings.model == model;
  if (fallback) {
    request.headers.emplace_back("anthropic-beta", "server-side-fallback-2026-07-01");
    body["fallbacks"] = "default";
  }
  request.body = json::encode(body);
  return request;
}

std::string openAIReplyText(std::string_view body) {
  const json::Value reply = parsedBody(body);
  if (reply.is_object()) {
    auto choices = reply.find("choices");
    if (choices != reply.end() && choices->is_array() && !choices->empty()) {
      const json::Value& first = choices->front();
      if (first.is_object()) {
        auto message = first.find("message");
        if (message != first.end() && message->is_object()) {
          auto content = message->find("content");
          if (content != message->end() && content->is_string()) return content->get<std::string>();
        }
      }
    }
  }
  throw AIError::unrecognisedReply();
}

std::string anthropicReplyText(std::string_view body) {
  const json::Value reply = parsedBody(body);
  if (!reply.is_object()) throw AIError::unrecognisedReply();
  if (auto stop = reply.find("stop_reason"); stop != reply.end() && *stop == "refusal") throw AIError::refusal();
  auto content = reply.find("content");
  if (content == reply.end() || !content->is_array()) throw AIError::unrecognisedReply();
  std::string text;
  bool found = false;
  for (const json::Value& block : *content) {
    if (!block.is_object()) continue;
    auto type = block.find("type");
    auto blockText = block.find("text");
    if (type == block.end() || *type != "text" || blockText == block.end() || !blockText->is_string()) continue;
    text += blockText->get<std::string>();
    found = true;
  }
  if (!found) throw AIError::unrecognisedReply();
  return text;
}

std::string askApple(std::string_view /*system*/, const Conversation& /*conversation*/, const Settings& /*settings*/) {
  // The on-device model exists only on the desktop platform; on this one its
  // status is never `available`, so the provider always declines.
  throw AIError::appleUnavailable();
}

std::string askOpenAI(std::string_view system, const Conversation& conversation, const Settings& settings,
                      const Connection& connection) {
  return openAIReplyText(send(openAIRequest(system, conversation, settings, connection)));
}

std::string askAnthropic(std::string_view system, const Conversation& conversation, const Settings& settings,
                         const Connection& connection) {
  return anthropicReplyText(send(anthropicRequest(system, conversation, settings, connection)));
}

std::string ask(std::string_view system, const Conversation& conversation, const Settings& settings,
                const Connection& connection) {
  switch (settings.provider) {
    case Provider::apple:
      return askApple(system, conversation, settings);
    case Provider::openAI:
      return askOpenAI(system, conversation, settings, connection);
    case Provider::anthropic:
      return askAnthropic(system, conversation, settings, connection);
  }
  throw AIError::unrecognisedReply();
}

}  // namespace tarv::AISearch
