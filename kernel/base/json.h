#pragma once
// JSON text as the command line, the MCP server and index trailers write it:
// keys sorted (nlohmann::json keeps objects in a sorted map), slashes not
// escaped unless asked, compact or pretty-printed with two spaces.

#include <nlohmann/json.hpp>
#include <string>

namespace tarv::json {

using Value = nlohmann::json;

enum class Style { compact, pretty };

// Never throws: text that cannot be encoded (invalid UTF-8 in a string value)
// is written with U+FFFD in its place.
std::string encode(const Value& value, Style style = Style::compact);

// Compact text with every "/" written as "\/", as cache keys need.
std::string encodeEscapingSlashes(const Value& value);

}  // namespace tarv::json
