#include "core/ai/intent.h"

#include <array>
#include <utility>

#include "core/ai/intent_text.h"
#include "core/ai/query_composer.h"
#include "kernel/base/json.h"

namespace tarv::AISearch {
namespace {

// An intent is a flat object of strings and lists of strings; anything deeper
// than this is not one, and refusing it early keeps hostile replies from
// costing more than a scan.
constexpr int kMaximumDepth = 16;

// Extension words the model uses for formats, and the extensions they mean.
constexpr std::array<std::pair<std::string_view, std::string_view>, 16> kExtensionNames = {{
    {"python", "py"},
    {"javascript", "js"},
    {"typescript", "ts"},
    {"markdown", "md"},
    {"text", "txt"},
    {"word", "doc docx"},
    {"excel", "xls xlsx"},
    {"powerpoint", "ppt pptx"},
    {"keynote", "key"},
    {"jpg", "jpg jpeg"},
    {"jpeg", "jpg jpeg"},
    {"tiff", "tif tiff"},
    {"shell", "sh"},
    {"yaml", "yml yaml"},
    {"yml", "yml yaml"},
    {"html", "html htm"},
}};

bool nestsTooDeep(std::string_view object) noexcept {
  int depth = 0;
  bool inString = false;
  for (std::size_t i = 0; i < object.size(); ++i) {
    const char c = object[i];
    if (inString) {
      if (c == '\\') ++i;
      else if (c == '"') inString = false;
    } else if (c == '"') {
      inString = true;
    } else if (c == '{' || c == '[') {
      if (++depth > kMaximumDepth) return true;
    } else if (c == '}' || c == ']') {
      --depth;
    }
  }
  return false;
}

bool isPlaceholder(std::string_view value) {
  const std::string lower = text::lowerCased(value);
  return lower.empty() || lower == "null" || lower == "none" || lower == "any";
}

// A string, or a number written as its JSON text (models sometimes answer
// "larger_than": 100 or "words": [2026]); anything else is nothing.
std::optional<std::string> scalarText(const json::Value& value) {
  if (value.is_string()) return std::string(text::trimmed(value.get_ref<const std::string&>()));
  if (value.is_number()) return json::encode(value);
  return std::nullopt;
}

std::optional<std::string> stringMember(const json::Value& object, const char* name) {
  auto found = object.find(name);
  if (found == object.end()) return std::nullopt;
  std::optional<std::string> value = scalarText(*found);
  if (!value || isPlaceholder(*value)) return std::nullopt;
  return value;
}

std::vector<std::string> listMember(const json::Value& object, const char* name) {
  std::vector<std::string> items;
  auto found = object.find(name);
  if (found == object.end()) return items;
  if (found->is_array()) {
    for (const json::Value& item : *found)
      if (std::optional<std::string> value = scalarText(item); value && !value->empty()) items.push_back(*value);
  } else if (std::optional<std::string> value = scalarText(*found); value && !isPlaceholder(*value)) {
    // One string stands for a one-element list; a lone placeholder ("none")
    // means the model had nothing to say, as it does for string members.
    items.push_back(*value);
  }
  return items;
}

std::vector<std::string> extensionsFrom(const std::vector<std::string>& items) {
  std::vector<std::string> extensions;
  for (const std::string& item : items) {
    const std::string lower(text::trimmedOf(text::lowerCased(item), ".* "));
    bool named = false;
    for (const auto& [key, values] : kExtensionNames) {
      if (lower != key) continue;
      named = true;
      for (std::size_t start = 0; start < values.size();) {
        std::size_t space = values.find(' ', start);
        if (space == std::string_view::npos) space = values.size();
        extensions.emplace_back(values.substr(start, space - start));
        start = space + 1;
      }
    }
    if (!named && !lower.empty()) extensions.push_back(lower);
  }
  return extensions;
}

}  // namespace

bool Intent::empty() const { return *this == Intent{}; }

std::string Intent::query(std::chrono::system_clock::time_point now, std::string_view home) const {
  return QueryComposer::compose(*this, now, home).query;
}

std::optional<Intent> decodeIntent(std::string_view reply) noexcept {
  const std::size_t first = reply.find('{');
  const std::size_t last = reply.rfind('}');
  if (first == std::string_view::npos || last == std::string_view::npos || last < first) return std::nullopt;
  const std::string_view object = reply.substr(first, last - first + 1);
  if (nestsTooDeep(object)) return std::nullopt;
  try {
    const json::Value root = json::Value::parse(object, nullptr, /*allow_exceptions=*/false);
    if (!root.is_object()) return std::nullopt;
    Intent intent;
    intent.words = listMember(root, "words");
    intent.eitherWords = listMember(root, "either_words");
    intent.excludeWords = listMember(root, "exclude_words");
    intent.exactName = stringMember(root, "exact_name");
    intent.type = stringMember(root, "type");
    if (intent.type) intent.type = text::lowerCased(*intent.type);
    intent.kinds = listMember(root, "kinds");
    for (std::string& kind : intent.kinds) kind = text::lowerCased(kind);
    intent.extensions = extensionsFrom(listMember(root, "extensions"));
    intent.folder = stringMember(root, "folder");
    intent.largerThan = stringMember(root, "larger_than");
    intent.smallerThan = stringMember(root, "smaller_than");
    intent.modified = stringMember(root, "modified");
    intent.created = stringMember(root, "created");
    return intent;
  } catch (...) {
    // Only memory exhaustion can land here; a reply we cannot hold is no answer.
    return std::nullopt;
  }
}

}  // namespace tarv::AISearch
