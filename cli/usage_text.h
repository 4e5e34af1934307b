#pragma once
// The usage text printed by `tarv`, `tarv help` and after an unknown command:
// ten lines joined by line feeds, the seventh empty, no final line feed.

#include <string_view>

namespace tarv::cli {

extern const std::string_view kUsageText;

}  // namespace tarv::cli
