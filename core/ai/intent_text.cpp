#include "core/ai/intent_text.h"

#include <utf8proc.h>

#include <array>
#include <cstdlib>
#include <memory>

namespace tarv::AISearch::text {
namespace {

// One decoded code point and its length in bytes; ill-formed bytes come back
// as one byte with `valid` false.
struct Step {
  char32_t codePoint;
  std::size_t length;
  bool valid;
};

Step next(std::string_view utf8, std::size_t at) noexcept {
  utf8proc_int32_t codePoint = 0;
  const utf8proc_ssize_t length = utf8proc_iterate(reinterpret_cast<const utf8proc_uint8_t*>(utf8.data() + at),
                                                   static_cast<utf8proc_ssize_t>(utf8.size() - at), &codePoint);
  if (length <= 0) return {0xFFFD, 1, false};
  return {static_cast<char32_t>(codePoint), static_cast<std::size_t>(length), true};
}

bool isTrimmedSpace(char32_t codePoint) noexcept {
  return isQueryWhitespace(codePoint) || codePoint == 0x00A0 || codePoint == 0x2007 || codePoint == 0x202F;
}

// Every name the grammar gives a meaning to before a colon.
constexpr std::array<std::string_view, 26> kGrammarNames = {
    "case",   "nocase",       "path",         "nopath", "wfn",          "wholefilename", "file",
    "folder", "ext",          "size",         "size-on-disk",           "dm",            "datemodified",
    "date-modified",          "dc",           "datecreated",            "date-created",  "volume-label",
    "parent", "audio",        "video",        "image",  "pic",          "doc",           "exe",
    "zip"};

}  // namespace

bool isQueryWhitespace(char32_t c) noexcept {
  return (c >= 0x09 && c <= 0x0D) || (c >= 0x1C && c <= 0x20) || c == 0x1680 || (c >= 0x2000 && c <= 0x2006) ||
         (c >= 0x2008 && c <= 0x200A) || c == 0x2028 || c == 0x2029 || c == 0x205F || c == 0x3000;
}

bool containsQueryWhitespace(std::string_view utf8) noexcept {
  for (std::size_t at = 0; at < utf8.size();) {
    const Step step = next(utf8, at);
    if (step.valid && isQueryWhitespace(step.codePoint)) return true;
    at += step.length;
  }
  return false;
}

std::string_view trimmed(std::string_view utf8) noexcept {
  std::size_t begin = 0;
  while (begin < utf8.size()) {
    const Step step = next(utf8, begin);
    if (!step.valid || !isTrimmedSpace(step.codePoint)) break;
    begin += step.length;
  }
  // Walk forward remembering where the last non-space code point ended, so
  // the end is found without decoding backwards.
  std::size_t end = begin;
  for (std::size_t at = begin; at < utf8.size();) {
    const Step step = next(utf8, at);
    at += step.length;
    if (!step.valid || !isTrimmedSpace(step.codePoint)) end = at;
  }
  return utf8.substr(begin, end - begin);
}

std::string lowerCased(std::string_view utf8) {
  std::string out;
  out.reserve(utf8.size());
  for (std::size_t at = 0; at < utf8.size();) {
    const Step step = next(utf8, at);
    if (!step.valid) {
      out += utf8[at];
    } else {
      utf8proc_uint8_t buffer[4];
      const utf8proc_ssize_t written =
          utf8proc_encode_char(utf8proc_tolower(static_cast<utf8proc_int32_t>(step.codePoint)), buffer);
      out.append(reinterpret_cast<const char*>(buffer), static_cast<std::size_t>(written));
    }
    at += step.length;
  }
  return out;
}

std::string_view trimmedOf(std::string_view utf8, std::string_view characters) noexcept {
  const std::size_t begin = utf8.find_first_not_of(characters);
  if (begin == std::string_view::npos) return {};
  const std::size_t end = utf8.find_last_not_of(characters);
  return utf8.substr(begin, end - begin + 1);
}

std::string literal(std::string_view utf8) {
  std::string kept;
  kept.reserve(utf8.size());
  for (char c : utf8) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == '"' || byte < 0x20 || byte == 0x7F) continue;
    kept += c;
  }
  return std::string(trimmed(kept));
}

bool readsAsFunction(std::string_view token) {
  const std::size_t colon = token.find(':');
  if (colon == std::string_view::npos || colon == 0) return false;
  const std::string_view name = token.substr(0, colon);
  // The comparison table folds case and strips diacritics from Latin letters;
  // compatibility decomposition with case folding and mark stripping covers
  // that and more (full-width forms), so nothing that folds to a name slips by.
  utf8proc_uint8_t* mapped = nullptr;
  const utf8proc_ssize_t length =
      utf8proc_map(reinterpret_cast<const utf8proc_uint8_t*>(name.data()), static_cast<utf8proc_ssize_t>(name.size()),
                   &mapped, static_cast<utf8proc_option_t>(UTF8PROC_COMPAT | UTF8PROC_DECOMPOSE | UTF8PROC_CASEFOLD | UTF8PROC_STRIPMARK |
                                                           UTF8PROC_IGNORE | UTF8PROC_STABLE));
  if (length < 0) return true;  // ill-formed: cannot prove it harmless
  std::unique_ptr<utf8proc_uint8_t, decltype(&std::free)> owner(mapped, &std::free);
  const std::string_view folded(reinterpret_cast<const char*>(mapped), static_cast<std::size_t>(length));
  for (std::string_view known : kGrammarNames)
    if (folded == known) return true;
  return false;
}

}  // namespace tarv::AISearch::text
