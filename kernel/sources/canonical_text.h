#pragma once
// Unicode canonical equivalence for text compared by the snapshot reader:
// two spellings that differ only in normalisation are the same text. Text is
// brought to NFC (composed) form. Pure ASCII is already NFC and is returned
// as it is, so only text with other characters pays for normalising.
// Thread-safe; throws std::bad_alloc only.

#include <string>
#include <string_view>

namespace tarv::canonical {

// Whether every byte is below 0x80.
bool isAscii(std::string_view text) noexcept;

// The NFC form of the UTF-8 `text`: `text` itself when it is ASCII or already
// composed the same way, else a view of `storage`, which receives the result.
// Ill-formed UTF-8 cannot be normalised and is returned unchanged.
std::string_view nfc(std::string_view text, std::string& storage);

}  // namespace tarv::canonical
