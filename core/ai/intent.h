#pragma once
// AISearch::Intent: what the language model says the person wants, as a small
// record of optional fields, decoded tolerantly from the model's reply. The
// model never writes query syntax; QueryComposer (query_composer.h) turns an
// intent into a query. Plain values, safe to copy between threads.

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tarv::AISearch {

struct Intent {
  std::vector<std::string> words;         // "words": each must appear in the name
  std::vector<std::string> eitherWords;   // "either_words": at least one must appear
  std::vector<std::string> excludeWords;  // "exclude_words": none may appear
  std::optional<std::string> exactName;   // "exact_name": the whole name
  std::optional<std::string> type;        // "type": "file" or "folder", lower-cased
  std::vector<std::string> kinds;         // "kinds": type groups, lower-cased
  std::vector<std::string> extensions;    // "extensions": without dots, lower-cased
  std::optional<std::string> folder;      // "folder": a well-known name or a path
  std::optional<std::string> largerThan;  // "larger_than": a size
  std::optional<std::string> smallerThan; // "smaller_than": a size
  std::optional<std::string> modified;    // "modified": a period
  std::optional<std::string> created;     // "created": a period

  friend bool operator==(const Intent&, const Intent&) = default;

  // Every list empty and every string absent.
  bool empty() const;

  // The query for this intent (QueryComposer::compose without its problems).
  // `home` is the home folder without a trailing "/".
  std::string query(std::chrono::system_clock::time_point now, std::string_view home) const;
};

// Decodes a model reply: the text from its first "{" to its last "}" as a
// JSON object. Prose and code fences around the object are ignored, unknown
// members too; a list member may also be one string; strings and list items
// are trimmed, numbers are taken as their text, and "null", "none", "any" and
// "" count as absent. Nothing when the reply holds no JSON object (no braces,
// braces in the wrong order, bad JSON, another JSON type, nesting deeper than
// any intent needs).
//
// Pure and total: any bytes in, never throws, never reads outside `reply`;
// the natural target for fuzzing the assistant.
std::optional<Intent> decodeIntent(std::string_view reply) noexcept;

}  // namespace tarv::AISearch
