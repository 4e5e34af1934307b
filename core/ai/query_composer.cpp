#include "core/ai/query_composer.h"

#include <utf8proc.h>

#include <array>
#include <utility>

#include "core/ai/intent_text.h"
#include "core/ai/period.h"

namespace tarv::AISearch::QueryComposer {
namespace {

constexpr std::array<std::pair<std::string_view, std::string_view>, 16> kWellKnownFolders = {{
    {"downloads", "Downloads"},
    {"下载", "Downloads"},
    {"desktop", "Desktop"},
    {"桌面", "Desktop"},
    {"documents", "Documents"},
    {"文稿", "Documents"},
    {"文档", "Documents"},
    {"pictures", "Pictures"},
    {"图片", "Pictures"},
    {"movies", "Movies"},
    {"影片", "Movies"},
    {"视频", "Movies"},
    {"music", "Music"},
    {"音乐", "Music"},
    {"library", "Library"},
    {"资源库", "Library"},
}};

constexpr std::array<std::pair<std::string_view, std::string_view>, 12> kSizeUnits = {{
    {"", ""},
    {"b", ""},
    {"byte", ""},
    {"bytes", ""},
    {"k", "kb"},
    {"kb", "kb"},
    {"m", "mb"},
    {"mb", "mb"},
    {"g", "gb"},
    {"gb", "gb"},
    {"t", "tb"},
    {"tb", "tb"},
}};

constexpr std::array<std::string_view, 6> kTypeGroups = {"pic", "video", "audio", "doc", "zip", "exe"};

// Model text is echoed in problems; a hostile reply should not make them huge.
std::string shown(std::string_view value) {
  constexpr std::size_t kShown = 80;
  if (value.size() <= kShown) return std::string(value);
  std::size_t cut = kShown;
  while (cut > 0 && (static_cast<unsigned char>(value[cut]) & 0xC0) == 0x80) --cut;  // whole code points
  return std::string(value.substr(0, cut)) + "…";
}

// Letters and digits of any script, "_" and "-": what an extension may hold
// so that "ext:" with ";" between them reads back as exactly these.
bool isExtension(std::string_view extension) {
  if (extension.empty()) return false;
  for (std::size_t at = 0; at < extension.size();) {
    utf8proc_int32_t codePoint = 0;
    const utf8proc_ssize_t length =
        utf8proc_iterate(reinterpret_cast<const utf8proc_uint8_t*>(extension.data() + at),
                         static_cast<utf8proc_ssize_t>(extension.size() - at), &codePoint);
    if (length <= 0) return false;
    at += static_cast<std::size_t>(length);
    if (codePoint == '_' || codePoint == '-') continue;
    switch (utf8proc_category(codePoint)) {
      case UTF8PROC_CATEGORY_LU:
      case UTF8PROC_CATEGORY_LL:
      case UTF8PROC_CATEGORY_LT:
      case UTF8PROC_CATEGORY_LM:
      case UTF8PROC_CATEGORY_LO:
      case UTF8PROC_CATEGORY_ND:
        continue;
      default:
        return false;
    }
  }
  return true;
}

class Composer {
 public:
  Composer(std::chrono::system_clock::time_point now, std::string_view home) : now_(now), home_(home) {}

  ComposedQuery run(const Intent& intent) {
    folder(intent.folder);
    type(intent.type);
    groups(intent.kinds, intent.extensions);
    if (intent.exactName)
      if (std::optional<std::string> name = literalTerm(*intent.exactName, "文件名")) add("wfn:" + *name);
    for (const std::string& word : intent.words)
      if (std::optional<std::string> term = literalTerm(word, "词")) add(*term);
    either(intent.eitherWords);
    for (const std::string& word : intent.excludeWords)
      if (std::optional<std::string> term = literalTerm(word, "词")) add("!" + *term);
    size(intent.largerThan, ">");
    size(intent.smallerThan, "<");
    date(intent.modified, "dm:");
    date(intent.created, "dc:");
    return std::move(result_);
  }

 private:
  void add(const std::string& term) {
    if (!result_.query.empty()) result_.query += ' ';
    result_.query += term;
  }

  void problem(std::string text) { result_.problems.push_back(std::move(text)); }

  // Model text as one literal term, or nothing (with a problem) when nothing
  // literal is left of it.
  std::optional<std::string> literalTerm(std::string_view value, std::string_view what) {
    const std::string kept = text::literal(value);
    if (kept.empty()) {
      problem("忽略了空的" + std::string(what) + "：" + shown(value));
      return std::nullopt;
    }
    if (text::readsAsFunction(kept)) {
      problem("忽略了会被当作搜索语法的" + std::string(what) + "：" + shown(value));
      return std::nullopt;
    }
    return quote(kept);
  }

  void folder(const std::optional<std::string>& value) {
    if (!value) return;
    std::optional<std::string> path = resolveFolder(*value, home_);
    if (!path) {
      problem("忽略了无法识别的文件夹：" + shown(*value));
      return;
    }
    // The path itself may come from the model; it starts with "/", so the
    // grammar never reads it as a function, but quotes and controls go.
    const std::string kept = text::literal(*path);
    if (kept.empty()) return;
    add("path:" + quote(kept));
  }

  void type(const std::optional<std::string>& value) {
    if (!value) return;
    if (*value == "file") add("file:");
    else if (*value == "folder") add("folder:");
    else problem("忽略了未知的类型：" + shown(*value));
  }

  void groups(const std::vector<std::string>& kinds, const std::vector<std::string>& extensions) {
    std::vector<std::string> terms;
    for (const std::string& kind : kinds) {
      if (kind == "app") {
        terms.push_back("<folder: *.app>");
        continue;
      }
      bool known = false;
      for (std::string_view group : kTypeGroups) known = known || kind == group;
      if (known) terms.push_back(kind + ":");
      else problem("忽略了未知的文件种类：" + shown(kind));
    }
    std::string list;
    for (const std::string& extension : extensions) {
      if (!isExtension(extension)) continue;  // dropped silently: the model's stray punctuation
      if (!list.empty()) list += ';';
      list += extension;
    }
    if (!list.empty()) terms.push_back("ext:" + list);
    addAnyOf(terms);
  }

  // One term as it is; several as a group of which any may match.
  void addAnyOf(const std::vector<std::string>& terms) {
    if (terms.size() == 1) {
      add(terms.front());
    } else if (terms.size() > 1) {
      std::string joined = "<";
      for (std::size_t i = 0; i < terms.size(); ++i) joined += (i ? " | " : "") + terms[i];
      add(joined + ">");
    }
  }

  void either(const std::vector<std::string>& words) {
    std::vector<std::string> terms;
    for (const std::string& word : words)
      if (std::optional<std::string> term = literalTerm(word, "词")) terms.push_back(*term);
    addAnyOf(terms);
  }

  void size(const std::optional<std::string>& value, std::string_view op) {
    if (!value) return;
    std::optional<std::string> size = normalizeSize(*value);
    if (!size) {
      problem("忽略了无法识别的大小：" + shown(*value));
      return;
    }
    if (op == ">") {
      // "Larger than nothing" is every file with a size; leaving it out keeps
      // files of unknown size in the answer, as the person would expect.
      const std::size_t digits = size->find_first_not_of("0123456789.");
      if (size->substr(0, digits).find_first_not_of("0.") == std::string::npos) return;
    }
    add("size:" + std::string(op) + *size);
  }

  void date(const std::optional<std::string>& value, std::string_view function) {
    if (!value) return;
    std::optional<std::string> operand = periodOperand(*value, now_);
    if (!operand) {
      problem("忽略了无法识别的时间：" + shown(*value));
      return;
    }
    add(std::string(function) + *operand);
  }

  std::chrono::system_clock::time_point now_;
  std::string_view home_;
  ComposedQuery result_;
};

}  // namespace

ComposedQuery compose(const Intent& intent, std::chrono::system_clock::time_point now, std::string_view home) {
  return Composer(now, home).run(intent);
}

std::string quote(std::string_view value) {
  if (value.empty()) return std::string(value);
  const bool plain = !text::containsQueryWhitespace(value) && value.find_first_of("|<>!") == std::string_view::npos;
  if (plain || value.find('"') != std::string_view::npos) return std::string(value);
  return "\"" + std::string(value) + "\"";
}

std::optional<std::string> resolveFolder(std::string_view folder, std::string_view home) {
  const std::string key(text::trimmedOf(text::lowerCased(folder), "/~ "));
  for (const auto& [name, under] : kWellKnownFolders)
    if (key == name) return std::string(home) + "/" + std::string(under) + "/";
  if (key == "home") return std::string(home) + "/";
  if (key == "applications" || key == "应用程序") return "/Applications/";
  std::string path;
  if (folder.substr(0, 2) == "~/") path = std::string(home) + std::string(folder.substr(1));
  else if (!folder.empty() && folder.front() == '/') path = std::string(folder);
  else return std::nullopt;
  if (path.back() != '/') path += '/';
  return path;
}

std::optional<std::string> normalizeSize(std::string_view size) {
  std::string compact;
  for (char c : text::lowerCased(size))
    if (c != ' ') compact += c;
  std::size_t at = 0;
  while (at < compact.size() && compact[at] >= '0' && compact[at] <= '9') ++at;
  if (at == 0) return std::nullopt;
  if (at < compact.size() && compact[at] == '.') {
    std::size_t fraction = at + 1;
    while (fraction < compact.size() && compact[fraction] >= '0' && compact[fraction] <= '9') ++fraction;
    if (fraction > at + 1) at = fraction;  // "5." is not a number here; the "." is then the unit and fails
  }
  const std::string_view suffix = std::string_view(compact).substr(at);
  for (const auto& [unit, written] : kSizeUnits)
    if (suffix == unit) return compact.substr(0, at) + std::string(written);
  return std::nullopt;
}

}  // namespace tarv::AISearch::QueryComposer
