#include "kernel/sources/snapshot_reader.h"

#include <nlohmann/json.hpp>
#include <simdjson.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <optional>

#include "kernel/base/files.h"
#include "kernel/base/kernel_error.h"
#include "kernel/base/text.h"
#include "kernel/catalog/catalog_builder.h"
#include "kernel/sources/canonical_path.h"
#include "kernel/sources/canonical_text.h"

namespace tarv::SnapshotReader {
namespace {

using simdjson::dom::element;
using simdjson::dom::element_type;

// Nanoseconds since 1970 to FILETIME ticks, rounding toward negative
// infinity. Every int64 and uint64 input lands inside the u64 range.
std::uint64_t ticksFromSigned(std::int64_t ns) {
  std::int64_t quotient = ns / 100;
  if (ns % 100 < 0) --quotient;
  return static_cast<std::uint64_t>(quotient + static_cast<std::int64_t>(kUnixEpochTicks));
}

// The record's members, in the order the checks read them.
enum Member { kSchemaMember, kPath, kProjected, kKind, kLogicalSize, kAllocatedBytes, kModifiedNs, kCreatedNs, kSynthetic };
constexpr std::array<std::string_view, 9> kMemberNames{"schema",        "path",           "projected",
                                                       "kind",          "logicalSize",    "allocatedBytes",
                                                       "modifiedNs",    "createdNs",      "synthetic"};

int memberIndex(std::string_view key) {
  for (std::size_t i = 0; i < kMemberNames.size(); ++i)
    if (kMemberNames[i] == key) return static_cast<int>(i);
  return -1;
}

[[noreturn]] void reject(const char* reason) { throw KernelError::invalid(reason); }

// One member's value as the checks see it, whichever parser read it.
struct Value {
  enum class Type { null, boolean, integer, floating, text, other };
  Type type = Type::other;
  bool flag = false;
  bool negative = false;        // integers: below zero
  std::uint64_t magnitude = 0;  // integers: the value when not negative
  std::int64_t value = 0;       // integers: the value when negative
  std::string_view text;

  static Value of(Type type) {
    Value out;
    out.type = type;
    return out;
  }
  static Value fromBool(bool flag) {
    Value out = of(Type::boolean);
    out.flag = flag;
    return out;
  }
  static Value fromText(std::string_view text) {
    Value out = of(Type::text);
    out.text = text;
    return out;
  }
  static Value fromSigned(std::int64_t v) {
    Value out = of(Type::integer);
    out.negative = v < 0;
    out.magnitude = v < 0 ? 0 : static_cast<std::uint64_t>(v);
    out.value = v;
    return out;
  }
  static Value fromUnsigned(std::uint64_t v) {
    Value out = of(Type::integer);
    out.magnitude = v;
    return out;
  }
  bool isNull() const { return type == Type::null; }
  // Null or an integer the parser delivered as one (never a float, a boolean or text).
  bool isIntegerOrNull() const { return type == Type::null || type == Type::integer; }
};

Value valueOf(element e) {
  switch (e.type()) {
    case element_type::NULL_VALUE:
      return Value::of(Value::Type::null);
    case element_type::BOOL:
      return Value::fromBool(e.get_bool().value_unsafe());
    case element_type::INT64:
      return Value::fromSigned(e.get_int64().value_unsafe());
    case element_type::UINT64:
      return Value::fromUnsigned(e.get_uint64().value_unsafe());
    case element_type::DOUBLE:
      return Value::of(Value::Type::floating);
    case element_type::STRING:
      return Value::fromText(e.get_string().value_unsafe());
    default:
      return Value::of(Value::Type::other);
  }
}

Value valueOf(const nlohmann::json& j) {
  switch (j.type()) {
    case nlohmann::json::value_t::null:
      return Value::of(Value::Type::null);
    case nlohmann::json::value_t::boolean:
      return Value::fromBool(j.get<bool>());
    case nlohmann::json::value_t::number_integer:
      return Value::fromSigned(j.get<std::int64_t>());
    case nlohmann::json::value_t::number_unsigned:
      return Value::fromUnsigned(j.get<std::uint64_t>());
    case nlohmann::json::value_t::number_float:
      return Value::of(Value::Type::floating);
    case nlohmann::json::value_t::string:
      return Value::fromText(j.get_ref<const std::string&>());
    default:
      return Value::of(Value::Type::other);
  }
}

std::uint64_t ticksOf(const Value& ns) {
  if (ns.isNull()) return kUnknown64;
  if (ns.negative) return ticksFromSigned(ns.value);
  return ns.magnitude / 100 + kUnixEpochTicks;
}

// Text of a string member under canonical equivalence.
class CanonicalString {
 public:
  std::string_view of(std::string_view raw) { return canonical::nfc(raw, storage_); }

 private:
  std::string storage_;
};

// Everything reused from record to record, so the loop allocates nothing for
// ASCII records.
struct Reader {
  Reader(NativeCatalogBuilder& target, std::string_view canonicalRoot) : builder(target), root(canonicalRoot) {}

  NativeCatalogBuilder& builder;
  std::string_view root;  // NFC
  simdjson::dom::parser parser;
  nlohmann::json fallback;  // holds the texts of a record read by the fallback parser
  std::array<Value, 9> members;
  CanonicalString path, projected, text;
  Text units;

  void readRecord(const char* data, std::size_t length);
  void readMembers(const char* data, std::size_t length);
  bool readMembersSlowly(const char* data, std::size_t length);
  bool inScope(std::string_view p, bool synthetic, bool directory) const;
  void setUnits(std::string_view utf8Text);
};

// Fills `members` or rejects the record as not an object or not the nine
// members. The fast parser refuses integers beyond 64 bits outright; such a
// record is valid JSON, so it is read again by a parser that keeps them as
// floats, which the member checks then refuse with their own messages.
void Reader::readMembers(const char* data, std::size_t length) {
  element document;
  // The buffer is padded past its end, so the parser may read ahead in place.
  auto error = parser.parse(data, length, /*realloc_if_needed=*/false).get(document);
  if (error == simdjson::NUMBER_ERROR) {
    if (!readMembersSlowly(data, length)) reject("Expected JSON object");
    return;
  }
  simdjson::dom::object object;
  if (error || document.get_object().get(object)) reject("Expected JSON object");
  unsigned seen = 0;
  for (auto field : object) {
    int index = memberIndex(field.key);
    if (index < 0 || (seen & (1u << index))) reject("Unknown snapshot schema/fields");
    seen |= 1u << index;
    members[static_cast<std::size_t>(index)] = valueOf(field.value);
  }
  if (seen != 0x1FF) reject("Unknown snapshot schema/fields");
}

bool Reader::readMembersSlowly(const char* data, std::size_t length) {
  // The object keeps only the last of repeated keys, so the callback sees
  // every top-level key as it is read.
  unsigned seen = 0;
  bool fieldsOk = true;
  auto onEvent = [&](int depth, nlohmann::json::parse_event_t event, nlohmann::json& parsed) {
    if (depth == 1 && event == nlohmann::json::parse_event_t::key) {
      int index = memberIndex(parsed.get_ref<const std::string&>());
      if (index < 0 || (seen & (1u << index))) fieldsOk = false;
      if (index >= 0) seen |= 1u << index;
    }
    return true;
  };
  fallback = nlohmann::json::parse(data, data + length, onEvent, /*allow_exceptions=*/false);
  if (fallback.is_discarded() || !fallback.is_object()) return false;
  if (!fieldsOk || seen != 0x1FF) reject("Unknown snapshot schema/fields");
  for (std::size_t i = 0; i < kMemberNames.size(); ++i) members[i] = valueOf(fallback.at(std::string(kMemberNames[i])));
  return true;
}

bool Reader::inScope(std::string_view p, bool synthetic, bool directory) const {
  auto startsWithFolder = [](std::string_view inner, std::string_view folder) {
    return inner.size() > folder.size() && inner.compare(0, folder.size(), folder) == 0 && inner[folder.size()] == '/';
  };
  if (!synthetic) return root == "/" || p == root || startsWithFolder(p, root);
  // A synthetic record stands for a strict ancestor of the root (or "/").
  return directory && (p == "/" || startsWithFolder(root, p));
}

void Reader::setUnits(std::string_view utf8Text) {
  if (canonical::isAscii(utf8Text)) {
    units.assign(utf8Text.begin(), utf8Text.end());
  } else {
    units = utf16(utf8Text);
  }
}

void Reader::readRecord(const char* data, std::size_t length) {
  if (length > kRecordLimit) reject("Record exceeds 1 MiB");
  readMembers(data, length);
  const Value& schema = members[kSchemaMember];
  if (schema.type != Value::Type::text || text.of(schema.text) != kSchema) reject("Unknown snapshot schema/fields");

  if (members[kPath].type != Value::Type::text) reject("Expected text: path");
  canonical::checkAbsolutePosixPath(members[kPath].text);
  std::string_view p = path.of(members[kPath].text);
  setUnits(p);
  if (builder.contains(units)) reject("Duplicate path");

  if (members[kProjected].type != Value::Type::text) reject("Projection mismatch");
  std::string_view projection = projected.of(members[kProjected].text);
  // "R:\" then the path without its leading "/", with "\" for every "/".
  bool projects = projection.size() == p.size() + 2 && projection.compare(0, 3, "R:\\") == 0;
  for (std::size_t i = 1; projects && i < p.size(); ++i) projects = projection[i + 2] == (p[i] == '/' ? '\\' : p[i]);
  if (!projects) reject("Projection mismatch");

  if (members[kSynthetic].type != Value::Type::boolean) reject("Invalid synthetic flag");
  bool synthetic = members[kSynthetic].flag;

  if (members[kKind].type != Value::Type::text) reject("Expected text: kind");
  std::string_view kind = text.of(members[kKind].text);
  bool directory = kind == "directory";
  if (!directory && kind != "file") reject("Unsupported kind");

  if (!inScope(p, synthetic, directory)) reject("Path outside declared scan");
  bool folder = synthetic || directory;

  const Value& logicalSize = members[kLogicalSize];
  const Value& allocatedBytes = members[kAllocatedBytes];
  if (!logicalSize.isIntegerOrNull() || logicalSize.negative || !allocatedBytes.isIntegerOrNull() ||
      allocatedBytes.negative)
    reject("Expected nonnegative integer or null");
  if (folder != logicalSize.isNull()) reject("Invalid size for kind");
  const Value& modifiedNs = members[kModifiedNs];
  const Value& createdNs = members[kCreatedNs];
  if (!modifiedNs.isIntegerOrNull() || !createdNs.isIntegerOrNull()) reject("Expected ns integer or null");
  if (synthetic && !(modifiedNs.isNull() && createdNs.isNull() && allocatedBytes.isNull()))
    reject("Invented ancestor metadata");

  builder.add(units, folder ? 1 : 0, logicalSize.isNull() ? kUnknown64 : logicalSize.magnitude, ticksOf(modifiedNs),
              ticksOf(createdNs), kUnknown64, std::nullopt);
}

// Position of the first "\n" or "\r" in [from, end), or end. Each byte is
// looked at about once over the whole file: the next position of each
// separator is remembered until the cursor passes it.
class LineCutter {
 public:
  LineCutter(const char* begin, const char* end) : end_(end), nextLf_(find(begin, '\n')), nextCr_(find(begin, '\r')) {}

  const char* nextSeparator(const char* from) {
    if (nextLf_ < from) nextLf_ = find(from, '\n');
    if (nextCr_ < from) nextCr_ = find(from, '\r');
    return std::min(nextLf_, nextCr_);
  }

 private:
  const char* find(const char* from, char c) const {
    auto* found = static_cast<const char*>(std::memchr(from, c, static_cast<std::size_t>(end_ - from)));
    return found ? found : end_;
  }
  const char* end_;
  const char* nextLf_;
  const char* nextCr_;
};

}  // namespace

Catalog load(const std::filesystem::path& url, const std::string& sourceId, const std::string& root) {
  canonical::checkAbsolutePosixPath(std::string_view(root));
  std::string rootStorage;
  std::string_view canonicalRoot = canonical::nfc(root, rootStorage);
  NativeCatalogBuilder builder(sourceId, PathFlavor::posix, /*directorySizes=*/true);

  std::string bytes = files::readAll(url);
  if (!simdjson::validate_utf8(bytes)) throw KernelError::io("Input length = 1");
  std::size_t length = bytes.size();
  // One final separator ends the last line instead of starting a blank one.
  if (length >= 2 && bytes[length - 2] == '\r' && bytes[length - 1] == '\n') {
    length -= 2;
  } else if (length >= 1 && (bytes[length - 1] == '\n' || bytes[length - 1] == '\r')) {
    length -= 1;
  }
  if (length == 0) throw KernelError::io("Empty snapshot");
  // The parser reads up to SIMDJSON_PADDING bytes past a record in place.
  bytes.append(simdjson::SIMDJSON_PADDING, '\0');

  Reader reader(builder, canonicalRoot);
  const char* cursor = bytes.data();
  const char* end = bytes.data() + length;
  LineCutter cutter(cursor, end);
  for (std::uint64_t record = 1;; ++record) {
    const char* separator = cutter.nextSeparator(cursor);
    try {
      reader.readRecord(cursor, static_cast<std::size_t>(separator - cursor));
    } catch (const KernelError& error) {
      if (error.kind() != KernelError::Kind::invalid) throw;
      throw KernelError::io("Snapshot record " + std::to_string(record) + ": " + error.message());
    }
    if (separator == end) break;
    cursor = separator + (separator[0] == '\r' && separator + 1 < end && separator[1] == '\n' ? 2 : 1);
  }
  return builder.finish();
}

}  // namespace tarv::SnapshotReader
