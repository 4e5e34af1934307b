#pragma once
// The three ways of asking a language model: the on-device model (apple),
// a chat-completions server (openAI) and a messages server (anthropic). Each
// takes the system prompt, the conversation so far and the settings, and
// returns the model's reply text. Calls block for at most the provider's
// time-out; thread-safe (no shared state but the key store).
//
// Errors: AIError (ai_error.h) for every failure, with the fixed messages the
// person sees; transport failures carry libcurl's own description.

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/ai/ai_settings.h"
#include "core/ai/http_client.h"

namespace tarv::AISearch {

struct Message {
  std::string role;  // "user" or "assistant"
  std::string content;
  friend bool operator==(const Message&, const Message&) = default;
};
using Conversation = std::vector<Message>;

// Where and how the HTTP providers are reached. standard() is what the
// product uses; tests point it at local servers and shorten the time-outs.
struct Connection {
  std::string anthropicEndpoint = "https://api.anthropic.com/v1/messages";
  // Scheme, host and optional port that replace those of the endpoint
  // (TARV_ANTHROPIC_BASE_URL), for local servers.
  std::optional<std::string> anthropicOrigin;
  std::chrono::milliseconds openAITimeout{60000};
  std::chrono::milliseconds anthropicTimeout{120000};
  std::function<std::optional<std::string>(Provider)> apiKey = AISearch::apiKey;

  // The public endpoints, TARV_ANTHROPIC_BASE_URL when set, keys from apiKey().
  static Connection standard();
};

// The request each HTTP provider sends; exposed so the exact bytes can be
// checked without a server. Throw AIError like the ask functions.
HttpRequest openAIRequest(std::string_view system, const Conversation& conversation, const Settings& settings,
                          const Connection& connection);
HttpRequest anthropicRequest(std::string_view system, const Conversation& conversation, const Settings& settings,
                             const Connection& connection);

// The reply text in a successful response body.
std::string openAIReplyText(std::string_view body);
std::string anthropicReplyText(std::string_view body);

std::string askApple(std::string_view system, const Conversation& conversation, const Settings& settings);
std::string askOpenAI(std::string_view system, const Conversation& conversation, const Settings& settings,
                      const Connection& connection);
std::string askAnthropic(std::string_view system, const Conversation& conversation, const Settings& settings,
                         const Connection& connection);

// The provider named by `settings`.
std::string ask(std::string_view system, const Conversation& conversation, const Settings& settings,
                const Connection& connection);

}  // namespace tarv::AISearch
