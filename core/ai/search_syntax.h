#pragma once
// SearchSyntax: the one-screen guide to the query syntax that `tarv syntax`
// prints and the MCP "search_syntax" tool returns, so people and AI agents
// learn the syntax from the program itself. A constant; 25 lines, no line
// feed after the last.

#include <string_view>

namespace tarv::SearchSyntax {

extern const std::string_view guide;

}  // namespace tarv::SearchSyntax
