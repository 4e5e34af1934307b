#include "kernel/base/json.h"

namespace tarv::json {

std::string encode(const Value& value, Style style) {
  try {
    return value.dump(style == Style::pretty ? 2 : -1, ' ', false, nlohmann::json::error_handler_t::replace);
  } catch (...) {
    return "{}";
  }
}

std::string encodeEscapingSlashes(const Value& value) {
  std::string text = encode(value, Style::compact);
  std::string out;
  out.reserve(text.size() + 16);
  // A "/" can only stand inside a string in compact JSON, so replacing every
  // one is exactly escaping it.
  for (char c : text) {
    if (c == '/') out += "\\/";
    else out += c;
  }
  return out;
}

}  // namespace tarv::json
