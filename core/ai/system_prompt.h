#pragma once
// The fixed instructions sent with every request to a language model: the
// intent fields, the kinds and folder names, and worked examples. Sent
// unchanged, byte for byte, as the "system" message or member. A constant.

#include <string_view>

namespace tarv::AISearch {

extern const std::string_view kSystemPrompt;

}  // namespace tarv::AISearch
