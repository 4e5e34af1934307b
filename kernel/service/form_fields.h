#pragma once
// FormFields: the `key=value&key=value` parameters of a query body or a URL's
// query string, percent-decoded ("+" is a space), with exactly the keys a
// route expects. Plain functions over the given bytes; they never read past
// the input.
//
// Errors (all KernelError::invalid, answered as 400 by the service):
// "Expected key=value", "Duplicate parameter", "Expected fields: " and the
// required keys, "URLDecoder: Illegal hex characters in escape (%) pattern",
// and "For input string" from integer().

#include <cstdint>
#include <initializer_list>
#include <map>
#include <string>
#include <string_view>

namespace tarv::form {

// Percent-decodes one key or value into bytes; "+" becomes a space.
std::string decode(std::string_view encoded);

// Splits and decodes `encoded`; the set of keys must be exactly `required`
// (listed in this order in the error). An empty input has no pairs.
std::map<std::string, std::string> parse(std::string_view encoded, std::initializer_list<std::string_view> required);

// A decimal integer with an optional sign that fits in 64 bits.
std::int64_t integer(std::string_view text);

}  // namespace tarv::form
