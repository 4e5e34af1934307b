#pragma once
// AISearch: turns a person's description of the files they want into a query
// of the search syntax. The description goes to the configured language
// model with the fixed system prompt; the reply is decoded as an intent
// (intent.h) and composed into a query (query_composer.h). A reply with no
// usable intent gets exactly one repair request. Blocking; thread-safe.

#include <chrono>
#include <string_view>

#include "core/ai/ai_error.h"
#include "core/ai/ai_settings.h"
#include "core/ai/intent.h"
#include "core/ai/providers.h"
#include "core/ai/query_composer.h"

namespace tarv::AISearch {

// What the person is asked to send when the first reply held no intent.
inline constexpr std::string_view kRepairRequest = "Reply with the JSON object only, as described.";

// Asks the provider of `settings` (at most twice) and composes the query,
// with the problems met on the way. `now` and `home` (no trailing "/") go to
// the composition. Throws AIError: the provider's failures, and noQuery()
// when there is still no intent or the query comes out empty.
ComposedQuery generate(std::string_view description, const Settings& settings,
                       std::chrono::system_clock::time_point now, std::string_view home,
                       const Connection& connection = Connection::standard());

}  // namespace tarv::AISearch
