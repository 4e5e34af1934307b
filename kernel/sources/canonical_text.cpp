#include "kernel/sources/canonical_text.h"

#include <utf8proc.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace tarv::canonical {

bool isAscii(std::string_view text) noexcept {
  // Eight bytes at a time: this runs on every string of every record.
  std::size_t i = 0;
  for (; i + 8 <= text.size(); i += 8) {
    std::uint64_t word;
    std::memcpy(&word, text.data() + i, 8);
    if (word & 0x8080808080808080ull) return false;
  }
  for (; i < text.size(); ++i)
    if (static_cast<unsigned char>(text[i]) >= 0x80) return false;
  return true;
}

std::string_view nfc(std::string_view text, std::string& storage) {
  if (isAscii(text)) return text;
  utf8proc_uint8_t* mapped = nullptr;
  auto length = utf8proc_map(reinterpret_cast<const utf8proc_uint8_t*>(text.data()),
                             static_cast<utf8proc_ssize_t>(text.size()), &mapped,
                             static_cast<utf8proc_option_t>(UTF8PROC_STABLE | UTF8PROC_COMPOSE));
  std::unique_ptr<utf8proc_uint8_t, decltype(&std::free)> owner(mapped, &std::free);
  if (length < 0) return text;
  std::string_view result(reinterpret_cast<const char*>(mapped), static_cast<std::size_t>(length));
  if (result == text) return text;
  storage.assign(result);
  return storage;
}

}  // namespace tarv::canonical
