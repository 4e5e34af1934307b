#pragma once
// QueryComposer: turns an AISearch::Intent into a query of the search syntax,
// deterministically. Model-supplied text only ever becomes literal terms
// (quoted where needed; double quotes, control characters and text the
// grammar would read as a function are left out), so a wrong or hostile
// reply can at worst produce a harmless query. Pure apart from reading the
// time zone for periods; thread-safe.

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/ai/intent.h"

namespace tarv::AISearch {

struct ComposedQuery {
  std::string query;                  // possibly empty
  std::vector<std::string> problems;  // what was left out and why, for the person
};

namespace QueryComposer {

// Terms in this order, joined by single spaces: path:FOLDER, file:/folder:,
// the kinds and extensions as one group term (alternatives), wfn:EXACT, the
// words, the either-words (alternatives), !EXCLUDED, size:>, size:<, dm:, dc:.
// `home` is the home folder without a trailing "/".
ComposedQuery compose(const Intent& intent, std::chrono::system_clock::time_point now, std::string_view home);

// `value` unchanged when it is empty or holds neither grammar white space nor
// any of | < > !; otherwise enclosed in double quotes, unless it already
// holds one, when it is returned unchanged.
std::string quote(std::string_view value);

// The folder's path with a trailing "/", or nothing when it names neither a
// well-known folder (Downloads, 下载, Desktop, ...), the applications folder,
// a "~/" path nor an absolute path.
std::optional<std::string> resolveFolder(std::string_view folder, std::string_view home);

// "100 MB" -> "100mb", "10k" -> "10kb", "1" -> "1"; nothing unless the text
// is a decimal number followed by a known unit (none, b, byte(s), k(b), m(b),
// g(b), t(b)).
std::optional<std::string> normalizeSize(std::string_view size);

}  // namespace QueryComposer
}  // namespace tarv::AISearch
