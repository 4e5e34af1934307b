// libFuzzer target: decoding a language model's reply into an intent and
// composing the query from it, on arbitrary reply bytes. Decoding never
// throws; a decoded intent composes to the same query every time, and that
// query parses and runs like any typed one.

#include <chrono>
#include <cstddef>
#include <cstdint>

#include "core/ai/intent.h"
#include "core/ai/query_composer.h"
#include "fuzz/fuzz_support.h"
#include "kernel/query/query.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace tarv;
  const std::string_view reply(reinterpret_cast<const char*>(data), size);
  const std::optional<AISearch::Intent> intent = AISearch::decodeIntent(reply);
  if (!intent) return 0;
  // A fixed instant: periods such as "last week" must not depend on the clock.
  const auto now = std::chrono::system_clock::time_point(std::chrono::seconds(1795326869));
  const AISearch::ComposedQuery composed = AISearch::QueryComposer::compose(*intent, now, "/home/user");
  const AISearch::ComposedQuery again = AISearch::QueryComposer::compose(*intent, now, "/home/user");
  fuzz::check(composed.query == again.query && composed.problems == again.problems, "composition is not deterministic");
  fuzz::check(intent->query(now, "/home/user") == composed.query, "Intent::query differs from compose");
  fuzz::check(!intent->empty() || composed.query.empty(), "an empty intent composed a query");
  (void)Query::describe(*Query::parse(utf16(composed.query), *fuzz::table(), PathFlavor::posix));
  return 0;
}
