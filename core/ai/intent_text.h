#pragma once
// Small UTF-8 helpers shared by intent decoding and query composition: the
// query grammar's white space, trimming, Unicode lower-casing and the
// neutralising of model-supplied text. Pure functions; inputs may be any
// bytes (ill-formed sequences are kept as they are, never read past the end).

#include <string>
#include <string_view>

namespace tarv::AISearch::text {

// Whether `codePoint` is white space to the query grammar (the parser's set:
// U+0009-U+000D, U+001C-U+001F, U+0020, U+1680, U+2000-U+2006, U+2008-U+200A,
// U+2028, U+2029, U+205F, U+3000).
bool isQueryWhitespace(char32_t codePoint) noexcept;

// Whether the text holds a code point of the grammar's white space.
bool containsQueryWhitespace(std::string_view utf8) noexcept;

// `utf8` without leading and trailing white space: the grammar's set plus the
// no-break spaces U+00A0, U+2007 and U+202F, which people paste but the
// grammar treats as ordinary characters.
std::string_view trimmed(std::string_view utf8) noexcept;

// Simple Unicode lower-casing, code point by code point; bytes that are not
// well-formed UTF-8 are copied unchanged.
std::string lowerCased(std::string_view utf8);

// `utf8` with the code points in `characters` (ASCII only) removed from both ends.
std::string_view trimmedOf(std::string_view utf8, std::string_view characters) noexcept;

// Model-supplied text made safe to stand in a query as one literal term:
// double quotes (which the grammar cannot escape) and control characters
// are removed and the rest trimmed. Empty when nothing is left.
std::string literal(std::string_view utf8);

// Whether `token` would be read by the grammar as a function, modifier or
// type macro rather than as literal text: the part before its first ":",
// folded and stripped of accents and width forms, is one of the grammar's
// names. Quotes do not stop that reading, so such text cannot be searched
// for literally and composition leaves it out.
bool readsAsFunction(std::string_view token);

}  // namespace tarv::AISearch::text
