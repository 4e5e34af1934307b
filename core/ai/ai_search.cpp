#include "core/ai/ai_search.h"

#include "core/ai/system_prompt.h"

namespace tarv::AISearch {

ComposedQuery generate(std::string_view description, const Settings& settings,
                       std::chrono::system_clock::time_point now, std::string_view home,
                       const Connection& connection) {
  Conversation conversation{{"user", std::string(description)}};
  std::string reply = ask(kSystemPrompt, conversation, settings, connection);
  std::optional<Intent> intent = decodeIntent(reply);
  if (!intent || intent->empty()) {
    // Models sometimes answer in prose or with "{}"; showing them their own
    // answer and the rule once usually gets the object.
    conversation.push_back({"assistant", std::move(reply)});
    conversation.push_back({"user", std::string(kRepairRequest)});
    intent = decodeIntent(ask(kSystemPrompt, conversation, settings, connection));
  }
  if (!intent) throw AIError::noQuery();
  ComposedQuery composed = QueryComposer::compose(*intent, now, home);
  if (composed.query.empty()) throw AIError::noQuery();
  return composed;
}

}  // namespace tarv::AISearch
