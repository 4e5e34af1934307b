#include "kernel/service/form_fields.h"

#include <limits>

#include "kernel/base/kernel_error.h"

namespace tarv::form {
namespace {

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

std::string decode(std::string_view encoded) {
  std::string decoded;
  decoded.reserve(encoded.size());
  for (std::size_t i = 0; i < encoded.size(); ++i) {
    const char c = encoded[i];
    if (c == '+') {
      decoded.push_back(' ');
    } else if (c == '%') {
      // A truncated escape is as bad as a non-hex one.
      const int high = i + 1 < encoded.size() ? hexValue(encoded[i + 1]) : -1;
      const int low = i + 2 < encoded.size() ? hexValue(encoded[i + 2]) : -1;
      if (high < 0 || low < 0) throw KernelError::invalid("URLDecoder: Illegal hex characters in escape (%) pattern");
      decoded.push_back(static_cast<char>(high * 16 + low));
      i += 2;
    } else {
      decoded.push_back(c);
    }
  }
  return decoded;
}

std::map<std::string, std::string> parse(std::string_view encoded, std::initializer_list<std::string_view> required) {
  std::map<std::string, std::string> fields;
  std::size_t start = 0;
  while (!encoded.empty() && start <= encoded.size()) {
    std::size_t end = encoded.find('&', start);
    if (end == std::string_view::npos) end = encoded.size();
    const std::string_view pair = encoded.substr(start, end - start);
    const std::size_t equals = pair.find('=');
    if (equals == std::string_view::npos) throw KernelError::invalid("Expected key=value");
    std::string key = decode(pair.substr(0, equals));
    std::string value = decode(pair.substr(equals + 1));
    if (!fields.emplace(std::move(key), std::move(value)).second) throw KernelError::invalid("Duplicate parameter");
    start = end + 1;
  }

  bool exact = fields.size() == required.size();
  for (std::string_view key : required) exact = exact && fields.count(std::string(key)) == 1;
  if (!exact) {
    std::string message = "Expected fields: ";
    bool first = true;
    for (std::string_view key : required) {
      if (!first) message += ", ";
      message += key;
      first = false;
    }
    throw KernelError::invalid(message);
  }
  return fields;
}

std::int64_t integer(std::string_view text) {
  std::size_t i = 0;
  bool negative = false;
  if (!text.empty() && (text[0] == '+' || text[0] == '-')) {
    negative = text[0] == '-';
    i = 1;
  }
  if (i == text.size()) throw KernelError::invalid("For input string");
  // Accumulate negatively so the most negative value parses too.
  std::int64_t value = 0;
  constexpr std::int64_t kMin = std::numeric_limits<std::int64_t>::min();
  for (; i < text.size(); ++i) {
    const char c = text[i];
    if (c < '0' || c > '9') throw KernelError::invalid("For input string");
    const int digit = c - '0';
    if (value < (kMin + digit) / 10) throw KernelError::invalid("For input string");
    value = value * 10 - digit;
  }
  if (!negative) {
    if (value == kMin) throw KernelError::invalid("For input string");
    value = -value;
  }
  return value;
}

}  // namespace tarv::form
