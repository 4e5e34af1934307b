#pragma once
// Text inside the kernel is UTF-16 code units, never decoded strings. These
// helpers convert at the edges: UTF-8 in from files and queries, UTF-8 out for
// display (ill-formed sequences repaired with U+FFFD).

#include <string>
#include <string_view>

namespace tarv {

using Unit = char16_t;
using Text = std::u16string;
using TextView = std::u16string_view;

// UTF-8 to UTF-16. Ill-formed input is repaired: each maximal ill-formed
// subpart becomes one U+FFFD. Used for queries and configuration values.
Text utf16(std::string_view utf8);

// UTF-16 to UTF-8; an unpaired surrogate becomes U+FFFD.
std::string utf8(TextView units);

// Whether the bytes are well-formed UTF-8 (no surrogates, no overlongs, at most U+10FFFF).
bool isValidUtf8(std::string_view bytes);

// Whether every unit is below 0x80.
bool isAscii(TextView units);

}  // namespace tarv
