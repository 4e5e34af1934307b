#include "kernel/sources/snapshot_record.h"

#include <nlohmann/json.hpp>
#include <simdjson.h>

#include <array>
#include <cstring>
#include <string>

#include "kernel/catalog/catalog.h"
#include "kernel/sources/canonical_path.h"
#include "kernel/sources/canonical_text.h"
#include "kernel/sources/snapshot_reader.h"

namespace tarv::snapshot {
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
constexpr std::array<std::string_view, 9> kMemberNames{"schema",     "path",      "projected",
                                                       "kind",       "logicalSize", "allocatedBytes",
                                                       "modifiedNs", "createdNs", "synthetic"};
constexpr unsigned kAllMembers = (1u << kMemberNames.size()) - 1;

// Member names differ in length or first letter except "kind" and "path",
// so one comparison settles each key.
int memberIndex(std::string_view key) {
  int candidate = -1;
  switch (key.size()) {
    case 4:
      candidate = key[0] == 'k' ? kKind : kPath;
      break;
    case 6:
      candidate = kSchemaMember;
      break;
    case 9:
      candidate = key[0] == 'p' ? kProjected : (key[0] == 'c' ? kCreatedNs : kSynthetic);
      break;
    case 10:
      candidate = kModifiedNs;
      break;
    case 11:
      candidate = kLogicalSize;
      break;
    case 14:
      candidate = kAllocatedBytes;
      break;
    default:
      return -1;
  }
  return kMemberNames[static_cast<std::size_t>(candidate)] == key ? candidate : -1;
}

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

// Whether `projection` is "R:\" followed by `path` without its leading "/"
// and with "\" for every "/". Eight bytes at a time: every record pays it.
bool projects(std::string_view path, std::string_view projection) {
  if (projection.size() != path.size() + 2 || projection.compare(0, 3, "R:\\") != 0) return false;
  const char* from = path.data() + 1;
  const char* to = projection.data() + 3;
  std::size_t left = path.size() - 1;
  constexpr std::uint64_t kLow7 = 0x7F7F7F7F7F7F7F7Full;
  constexpr std::uint64_t kSlashes = 0x2F2F2F2F2F2F2F2Full;
  constexpr std::uint64_t kSwap = 0x7373737373737373ull;  // '/' ^ '\\'
  for (; left >= 8; left -= 8, from += 8, to += 8) {
    std::uint64_t word, want;
    std::memcpy(&word, from, 8);
    std::memcpy(&want, to, 8);
    // High bit of each byte that equals '/', exactly (no borrow between bytes).
    std::uint64_t x = word ^ kSlashes;
    std::uint64_t slash = ~(((x & kLow7) + kLow7) | x | kLow7);
    std::uint64_t mask = (slash >> 7) * 0xFF;
    if ((word ^ (mask & kSwap)) != want) return false;
  }
  for (; left > 0; --left, ++from, ++to)
    if (*to != (*from == '/' ? '\\' : *from)) return false;
  return true;
}

bool startsWithFolder(std::string_view inner, std::string_view folder) {
  return inner.size() > folder.size() && inner.compare(0, folder.size(), folder) == 0 && inner[folder.size()] == '/';
}

// Text of a string member under canonical equivalence.
class CanonicalString {
 public:
  std::string_view of(std::string_view raw) { return canonical::nfc(raw, storage_); }

 private:
  std::string storage_;
};

}  // namespace

struct SnapshotRecordReader::State {
  std::string_view root;  // NFC
  simdjson::dom::parser parser;
  nlohmann::json fallback;  // holds the texts of a record read by the fallback parser
  std::array<Value, 9> members;
  CanonicalString path, projected, text;
  std::string padded;  // records too close to the end of the buffer for the parser to read ahead

  const char* readMembers(const char* data, std::size_t length, const char* readableEnd);
  const char* readMembersSlowly(const char* data, std::size_t length);
  bool inScope(std::string_view p, bool synthetic, bool directory) const;
};

// Fills `members`, or names why the record is not an object of the nine
// members. The fast parser refuses integers beyond 64 bits outright; such a
// record is valid JSON, so it is read again by a parser that keeps them as
// floats, which the member checks then refuse with their own messages.
const char* SnapshotRecordReader::State::readMembers(const char* data, std::size_t length, const char* readableEnd) {
  // The parser reads up to SIMDJSON_PADDING bytes past the record; it can do
  // so in place except near the end of the buffer.
  if (static_cast<std::size_t>(readableEnd - data) < length + simdjson::SIMDJSON_PADDING) {
    padded.assign(data, length);
    padded.append(simdjson::SIMDJSON_PADDING, '\0');
    data = padded.data();
  }
  element document;
  auto error = parser.parse(data, length, /*realloc_if_needed=*/false).get(document);
  if (error == simdjson::NUMBER_ERROR) return readMembersSlowly(data, length);
  simdjson::dom::object object;
  if (error || document.get_object().get(object)) return "Expected JSON object";
  unsigned seen = 0;
  for (auto field : object) {
    int index = memberIndex(field.key);
    if (index < 0 || (seen & (1u << index))) return "Unknown snapshot schema/fields";
    seen |= 1u << index;
    members[static_cast<std::size_t>(index)] = valueOf(field.value);
  }
  return seen == kAllMembers ? nullptr : "Unknown snapshot schema/fields";
}

const char* SnapshotRecordReader::State::readMembersSlowly(const char* data, std::size_t length) {
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
  if (fallback.is_discarded() || !fallback.is_object()) return "Expected JSON object";
  if (!fieldsOk || seen != kAllMembers) return "Unknown snapshot schema/fields";
  for (std::size_t i = 0; i < kMemberNames.size(); ++i) members[i] = valueOf(fallback.at(std::string(kMemberNames[i])));
  return nullptr;
}

bool SnapshotRecordReader::State::inScope(std::string_view p, bool synthetic, bool directory) const {
  if (!synthetic) return root == "/" || p == root || startsWithFolder(p, root);
  // A synthetic record stands for a strict ancestor of the root (or "/").
  return directory && (p == "/" || startsWithFolder(root, p));
}

SnapshotRecordReader::SnapshotRecordReader(std::string_view canonicalRoot) : state_(std::make_unique<State>()) {
  state_->root = canonicalRoot;
}

SnapshotRecordReader::~SnapshotRecordReader() = default;

RecordOutcome SnapshotRecordReader::read(const char* data, std::size_t length, const char* readableEnd, Text& units) {
  State& s = *state_;
  RecordOutcome out;
  auto early = [&](const char* problem) {
    out.earlyProblem = problem;
    return out;
  };
  auto late = [&](const char* problem) {
    out.lateProblem = problem;
    return out;
  };

  if (length > SnapshotReader::kRecordLimit) return early("Record exceeds 1 MiB");
  if (const char* problem = s.readMembers(data, length, readableEnd)) return early(problem);
  const Value& schema = s.members[kSchemaMember];
  if (schema.type != Value::Type::text || s.text.of(schema.text) != SnapshotReader::kSchema)
    return early("Unknown snapshot schema/fields");

  if (s.members[kPath].type != Value::Type::text) return early("Expected text: path");
  if (const char* problem = canonical::posixPathProblem(s.members[kPath].text)) return early(problem);
  std::string_view p = s.path.of(s.members[kPath].text);
  out.unitsStart = units.size();
  if (canonical::isAscii(p)) {
    units.resize(out.unitsStart + p.size());
    Unit* target = units.data() + out.unitsStart;
    for (std::size_t i = 0; i < p.size(); ++i) target[i] = static_cast<Unit>(p[i]);
  } else {
    units += utf16(p);
  }
  out.unitsLength = units.size() - out.unitsStart;
  // The caller checks for a duplicate path here.

  if (s.members[kProjected].type != Value::Type::text || !projects(p, s.projected.of(s.members[kProjected].text)))
    return late("Projection mismatch");

  if (s.members[kSynthetic].type != Value::Type::boolean) return late("Invalid synthetic flag");
  bool synthetic = s.members[kSynthetic].flag;

  if (s.members[kKind].type != Value::Type::text) return late("Expected text: kind");
  std::string_view kind = s.text.of(s.members[kKind].text);
  bool directory = kind == "directory";
  if (!directory && kind != "file") return late("Unsupported kind");

  if (!s.inScope(p, synthetic, directory)) return late("Path outside declared scan");
  out.folder = synthetic || directory;

  const Value& logicalSize = s.members[kLogicalSize];
  const Value& allocatedBytes = s.members[kAllocatedBytes];
  if (!logicalSize.isIntegerOrNull() || logicalSize.negative || !allocatedBytes.isIntegerOrNull() ||
      allocatedBytes.negative)
    return late("Expected nonnegative integer or null");
  if (out.folder != logicalSize.isNull()) return late("Invalid size for kind");
  const Value& modifiedNs = s.members[kModifiedNs];
  const Value& createdNs = s.members[kCreatedNs];
  if (!modifiedNs.isIntegerOrNull() || !createdNs.isIntegerOrNull()) return late("Expected ns integer or null");
  if (synthetic && !(modifiedNs.isNull() && createdNs.isNull() && allocatedBytes.isNull()))
    return late("Invented ancestor metadata");

  out.size = logicalSize.isNull() ? kUnknown64 : logicalSize.magnitude;
  out.modified = ticksOf(modifiedNs);
  out.created = ticksOf(createdNs);
  return out;
}

}  // namespace tarv::snapshot
