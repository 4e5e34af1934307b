#include "kernel/config/configuration.h"

#include <array>
#include <set>
#include <string_view>
#include <system_error>

#include "kernel/base/files.h"
#include "kernel/base/kernel_error.h"
#include "kernel/config/internet_date_time.h"

namespace tarv {
namespace {

// Parsed with key order preserved, so "the first unknown key" is the first
// one in the file rather than the alphabetically first.
using Document = nlohmann::ordered_json;

constexpr std::array<std::string_view, 3> kTopLevelKeys{"schema", "sources", "mappings"};
constexpr std::array<std::string_view, 9> kSourceKeys{"id",    "label",     "format",           "file",   "root",
                                                      "state", "scannedAt", "virtualDirectory", "devices"};
constexpr std::array<std::string_view, 5> kDeviceKeys{"id", "label", "uuid", "mountPoint", "fileSystem"};
constexpr std::array<std::string_view, 4> kFormats{"efu", "gfind", "gfind7", "snapshot-v1"};
constexpr std::array<std::string_view, 3> kStates{"complete", "partial", "unknown"};

constexpr std::size_t kMaximumSources = 16;
constexpr std::size_t kMaximumIdLength = 64;
constexpr std::size_t kMaximumDeviceDigits = 19;

[[noreturn]] void reject(std::string message) { throw KernelError::invalid(std::move(message)); }

template <std::size_t N>
bool isOneOf(std::string_view value, const std::array<std::string_view, N>& allowed) {
  for (std::string_view candidate : allowed)
    if (value == candidate) return true;
  return false;
}

template <std::size_t N>
void requireKnownKeys(const Document& object, const std::array<std::string_view, N>& allowed) {
  for (const auto& item : object.items())
    if (!isOneOf(item.key(), allowed)) reject("Unknown configuration field: " + item.key());
}

std::string requiredString(const Document& object, const char* key) {
  auto found = object.find(key);
  if (found == object.end() || !found->is_string() || found->get_ref<const std::string&>().empty())
    reject(std::string("Missing string: ") + key);
  return found->get<std::string>();
}

// A key that must be present but may be null (absent value) or a non-empty string.
std::optional<std::string> nullableString(const Document& object, const char* key) {
  auto found = object.find(key);
  if (found == object.end()) reject(std::string("Missing field: ") + key);
  if (found->is_null()) return std::nullopt;
  if (!found->is_string() || found->get_ref<const std::string&>().empty()) reject(std::string("Missing string: ") + key);
  return found->get<std::string>();
}

bool isIdUnit(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_' || c == '-';
}

// ^[A-Za-z0-9_-]{1,64}$
bool isValidSourceId(std::string_view id) {
  if (id.empty() || id.size() > kMaximumIdLength) return false;
  for (char c : id)
    if (!isIdUnit(c)) return false;
  return true;
}

// ^(0|[1-9][0-9]{0,18})$: a decimal number without leading zeros.
bool isValidDeviceId(std::string_view id) {
  if (id.empty() || id.size() > kMaximumDeviceDigits) return false;
  for (char c : id)
    if (c < '0' || c > '9') return false;
  return id.size() == 1 || id[0] != '0';
}

// Whether the UTF-8 text holds a character that "." of a regular expression
// does not match: the line terminators LF, VT, FF, CR, NEL, LS and PS.
bool holdsLineTerminator(std::string_view text) {
  for (std::size_t i = 0; i < text.size(); ++i) {
    unsigned char c = static_cast<unsigned char>(text[i]);
    if (c >= 0x0A && c <= 0x0D) return true;
    if (c == 0xC2 && i + 1 < text.size() && static_cast<unsigned char>(text[i + 1]) == 0x85) return true;
    if (c == 0xE2 && i + 2 < text.size() && static_cast<unsigned char>(text[i + 1]) == 0x80) {
      unsigned char last = static_cast<unsigned char>(text[i + 2]);
      if (last == 0xA8 || last == 0xA9) return true;
    }
  }
  return false;
}

bool isAsciiLetter(char c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'); }

// ^([A-Za-z]:[\\/].*|\\\\.*)$: a drive letter, colon and separator, or a UNC path.
bool isWindowsVirtualDirectory(std::string_view value) {
  bool drive = value.size() >= 3 && isAsciiLetter(value[0]) && value[1] == ':' && (value[2] == '\\' || value[2] == '/');
  bool unc = value.size() >= 2 && value[0] == '\\' && value[1] == '\\';
  return (drive || unc) && !holdsLineTerminator(value);
}

// Parser messages read "[json.exception.parse_error.101] parse error at ...";
// the bracketed tag means nothing to a user. Control bytes are blanked so the
// message stays on one line whatever the file held.
std::string parseFailureMessage(const std::exception& failure) {
  std::string_view text = failure.what();
  if (!text.empty() && text.front() == '[') {
    auto close = text.find("] ");
    if (close != std::string_view::npos) text.remove_prefix(close + 2);
  }
  std::string message = "Invalid configuration JSON: ";
  for (char c : text) message += (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) ? ' ' : c;
  return message;
}

Document parseDocument(const std::string& bytes) {
  try {
    return Document::parse(bytes);
  } catch (const Document::exception& failure) {
    reject(parseFailureMessage(failure));
  }
}

std::filesystem::path resolveFile(const std::string& value, const std::filesystem::path& folder) {
  std::filesystem::path file = value.front() == '/' ? std::filesystem::path(value) : folder / value;
  return file.lexically_normal();
}

std::map<std::string, std::string> readDevices(const Document& source) {
  std::map<std::string, std::string> labels;
  auto found = source.find("devices");
  if (found == source.end()) return labels;
  if (!found->is_array()) reject("devices must be an array");
  for (const Document& device : *found) {
    if (!device.is_object()) reject("Device must be an object");
    requireKnownKeys(device, kDeviceKeys);
    std::string id = requiredString(device, "id");
    auto label = device.find("label");
    if (!isValidDeviceId(id) || labels.count(id) != 0 || label == device.end() || !label->is_string())
      reject("Invalid or repeated device");
    labels.emplace(std::move(id), label->get<std::string>());
  }
  return labels;
}

Configuration::Source readSource(const Document& entry, const std::filesystem::path& folder,
                                 std::set<std::string>& seenIds) {
  if (!entry.is_object()) reject("Source must be an object");
  requireKnownKeys(entry, kSourceKeys);

  Configuration::Source source;
  source.id = requiredString(entry, "id");
  source.label = requiredString(entry, "label");
  source.format = requiredString(entry, "format");
  source.root = requiredString(entry, "root");
  source.state = requiredString(entry, "state");

  if (!isValidSourceId(source.id) || !seenIds.insert(source.id).second) reject("Invalid or repeated source id");
  if (!isOneOf(source.format, kFormats) || !isOneOf(source.state, kStates)) reject("Invalid source format/state");

  source.scannedAt = nullableString(entry, "scannedAt");
  if (source.scannedAt && !isInternetDateTime(*source.scannedAt))
    reject("Text '" + *source.scannedAt + "' could not be parsed");

  source.virtualDirectory = nullableString(entry, "virtualDirectory");
  if (source.format == "efu" && !(source.virtualDirectory && isWindowsVirtualDirectory(*source.virtualDirectory)))
    reject("EFU requires explicit Windows virtualDirectory");

  source.file = resolveFile(requiredString(entry, "file"), folder);
  source.deviceLabels = readDevices(entry);
  return source;
}

bool isWindowsRoot(std::string_view root) {
  bool drive = root.size() >= 2 && isAsciiLetter(root[0]) && root[1] == ':';
  bool unc = root.size() >= 2 && root[0] == '\\' && root[1] == '\\';
  return drive || unc;
}

}  // namespace

Configuration Configuration::read(const std::filesystem::path& url) {
  std::error_code error;
  std::filesystem::path absolute = std::filesystem::absolute(url, error);
  if (error) throw systemError("Cannot read", url.string(), error.value());

  const Document document = parseDocument(files::readAll(absolute));
  if (!document.is_object()) reject("Expected JSON object");
  requireKnownKeys(document, kTopLevelKeys);

  // A JSON true is a boolean here, never a number, so it fails like "1" does.
  auto schema = document.find("schema");
  if (schema == document.end() || !schema->is_number() || schema->get<double>() != 1.0)
    reject("Configuration schema must be 1");

  auto sources = document.find("sources");
  if (sources == document.end() || !sources->is_array() || sources->empty() || sources->size() > kMaximumSources)
    reject("sources must contain 1..16 entries");

  Configuration configuration;
  std::set<std::string> seenIds;
  const std::filesystem::path folder = absolute.parent_path();
  for (const Document& entry : *sources) configuration.sources.push_back(readSource(entry, folder, seenIds));
  return configuration;
}

PathFlavor Configuration::Source::pathFlavor() const {
  if (format == "efu") return PathFlavor::windows;
  if ((format == "gfind" || format == "gfind7") && isWindowsRoot(root)) return PathFlavor::windows;
  return PathFlavor::posix;
}

json::Value Configuration::Source::status(std::int64_t count, const std::string& fingerprint) const {
  json::Value record = json::Value::object();
  record["id"] = id;
  record["label"] = label;
  record["format"] = format;
  record["root"] = root;
  record["state"] = state;
  record["scannedAt"] = scannedAt ? json::Value(*scannedAt) : json::Value(nullptr);
  record["count"] = count;
  record["sha256"] = fingerprint;
  return record;
}

}  // namespace tarv
