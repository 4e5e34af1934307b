#include "kernel/service/page_writer.h"

#include <algorithm>
#include <charconv>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "kernel/base/kernel_error.h"

namespace tarv {
namespace {

// FILETIME ticks to milliseconds since 1970, as the catalog reports times.
constexpr std::int64_t kUnixEpochMs = 11644473600000;

// The worst case of one row beyond its texts: ten keys, seven numbers of at
// most 20 characters, braces and separators.
constexpr std::size_t kRowFrame = 256;

// ASCII units copied as they are into a JSON string: everything from the
// space up, except the quote and the backslash.
constexpr bool plainAscii(unsigned unit) noexcept { return unit >= 0x20 && unit < 0x80 && unit != '"' && unit != '\\'; }

template <std::size_t N>
char* put(char* at, const char (&literal)[N]) noexcept {
  std::memcpy(at, literal, N - 1);
  return at + N - 1;
}

template <class Number>
char* putNumber(char* at, Number value) noexcept {
  return std::to_chars(at, at + 24, value).ptr;
}

char* putEscaped(char* at, unsigned unit) noexcept {
  static constexpr char kHex[] = "0123456789abcdef";
  *at++ = '\\';
  switch (unit) {
    case '"': *at++ = '"'; break;
    case '\\': *at++ = '\\'; break;
    case '\b': *at++ = 'b'; break;
    case '\f': *at++ = 'f'; break;
    case '\n': *at++ = 'n'; break;
    case '\r': *at++ = 'r'; break;
    case '\t': *at++ = 't'; break;
    default:
      at = put(at, "u00");
      *at++ = kHex[unit >> 4];
      *at++ = kHex[unit & 0x0F];
  }
  return at;
}

constexpr bool isHigh(unsigned unit) noexcept { return unit >= 0xD800 && unit <= 0xDBFF; }
constexpr bool isLow(unsigned unit) noexcept { return unit >= 0xDC00 && unit <= 0xDFFF; }

char* putPair(char* at, unsigned high, unsigned low) noexcept {
  const char32_t c = 0x10000 + ((high - 0xD800) << 10) + (low - 0xDC00);
  *at++ = static_cast<char>(0xF0 | (c >> 18));
  *at++ = static_cast<char>(0x80 | ((c >> 12) & 0x3F));
  *at++ = static_cast<char>(0x80 | ((c >> 6) & 0x3F));
  *at++ = static_cast<char>(0x80 | (c & 0x3F));
  return at;
}

char* putUnits(char* at, const Unit* p, const Unit* end) noexcept {
  while (p < end) {
#if defined(__SSE2__)
    // Eight units at a time while they are plain ASCII: names and paths are
    // mostly that, and one compare-and-pack replaces eight branches.
    const __m128i below = _mm_set1_epi16(0x80);
    const __m128i above = _mm_set1_epi16(0x1F);
    const __m128i quote = _mm_set1_epi16('"');
    const __m128i backslash = _mm_set1_epi16('\\');
    while (end - p >= 8) {
      const __m128i units = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
      // Signed compares: units from 0x8000 up are negative and fail `above`.
      __m128i plain = _mm_and_si128(_mm_cmpgt_epi16(units, above), _mm_cmplt_epi16(units, below));
      plain = _mm_andnot_si128(_mm_or_si128(_mm_cmpeq_epi16(units, quote), _mm_cmpeq_epi16(units, backslash)), plain);
      const unsigned mask = static_cast<unsigned>(_mm_movemask_epi8(plain));
      // All eight bytes are stored; only the plain prefix counts. The room
      // the caller gave (6 bytes a unit) covers the rest.
      _mm_storel_epi64(reinterpret_cast<__m128i*>(at), _mm_packus_epi16(units, units));
      if (mask == 0xFFFF) {
        at += 8;
        p += 8;
        continue;
      }
      const int prefix = __builtin_ctz(~mask) / 2;
      at += prefix;
      p += prefix;
      break;
    }
    if (p == end) break;
#endif
    const unsigned u = *p;
    if (u < 0x80) {
      if (plainAscii(u))
        *at++ = static_cast<char>(u);
      else
        at = putEscaped(at, u);
    } else if (u < 0x800) {
      *at++ = static_cast<char>(0xC0 | (u >> 6));
      *at++ = static_cast<char>(0x80 | (u & 0x3F));
    } else if (u < 0xD800 || u > 0xDFFF) {
      *at++ = static_cast<char>(0xE0 | (u >> 12));
      *at++ = static_cast<char>(0x80 | ((u >> 6) & 0x3F));
      *at++ = static_cast<char>(0x80 | (u & 0x3F));
    } else if (isHigh(u) && end - p >= 2 && isLow(p[1])) {
      at = putPair(at, u, p[1]);
      ++p;
    } else {
      at = put(at, "\xEF\xBF\xBD");  // a lone surrogate: U+FFFD
    }
    ++p;
  }
  return at;
}

}  // namespace

char* writeJsonUnits(char* at, TextView first, TextView second) noexcept {
  if (!first.empty() && !second.empty() && isHigh(first.back()) && isLow(second.front())) {
    at = putUnits(at, first.data(), first.data() + first.size() - 1);
    at = putPair(at, first.back(), second.front());
    return putUnits(at, second.data() + 1, second.data() + second.size());
  }
  at = putUnits(at, first.data(), first.data() + first.size());
  return putUnits(at, second.data(), second.data() + second.size());
}

PageWriter::PageWriter(JoinedSearchPtr search) : search_(std::move(search)) {
  if (!search_) throw KernelError::invalid("Search service needs a loaded index");
  const auto& sources = search_->sources();
  sources_.reserve(sources.size());
  for (std::size_t s = 0; s < sources.size(); ++s) {
    Source source;
    source.catalog = sources[s].catalog.get();
    source.start = search_->starts()[s];
    std::string field = ",\"sourceId\":";
    page::appendString(field, sources[s].id);
    field.push_back('}');
    source.sourceField = std::move(field);
    const auto& labels = source.catalog->parts().deviceLabels;
    source.deviceFields.resize(labels.size());
    for (std::size_t d = 0; d < labels.size(); ++d) {
      if (!labels[d]) continue;
      std::string device = ",\"device\":\"";
      const std::size_t head = device.size();
      device.resize(head + labels[d]->size() * 6 + 1);
      char* end = writeJsonUnits(device.data() + head, *labels[d]);
      *end++ = '"';
      device.resize(static_cast<std::size_t>(end - device.data()));
      source.longestDeviceField = std::max(source.longestDeviceField, device.size());
      source.deviceFields[d] = std::move(device);
    }
    sources_.push_back(std::move(source));
  }
}

void PageWriter::writeRow(ByteBuffer& out, std::int64_t id) const {
  std::int32_t row = 0;
  const Source* located = locate(id, row);
  if (located == nullptr) throw KernelError::invalid("Row id out of range: " + std::to_string(id));
  const Source& source = *located;
  const Catalog& catalog = *source.catalog;

  // The path is the parent text cut at a NUL when it holds one, else the
  // parent text and the name up to its first NUL.
  const TextView name = catalog.nameUnits(row);
  TextView parent = catalog.parentUnits(catalog.parentIndex(row));
  TextView leaf;
  const std::size_t nul = parent.find(u'\0');
  if (nul != TextView::npos) {
    parent = parent.substr(0, nul);
  } else {
    leaf = name.substr(0, name.find(u'\0'));
  }

  const std::uint16_t deviceId = catalog.deviceId(row);
  const std::string* device =
      deviceId != kNoDevice && deviceId < source.deviceFields.size() && !source.deviceFields[deviceId].empty() ? &source.deviceFields[deviceId] : nullptr;

  char* const start = out.room(kRowFrame + 6 * (name.size() + parent.size() + leaf.size()) + source.sourceField.size() +
                               source.longestDeviceField);
  // Every field starts with a comma; the first one becomes the opening brace.
  char* at = start;
  const std::uint64_t created = catalog.rawCreated(row);
  if (created != kUnknown64) {
    at = put(at, ",\"createdMs\":");
    at = putNumber(at, static_cast<std::int64_t>(created / 10000) - kUnixEpochMs);
  }
  if (device != nullptr) {
    std::memcpy(at, device->data(), device->size());
    at += device->size();
  }
  at = put(at, ",\"id\":");
  at = putNumber(at, id);
  at = put(at, ",\"kind\":");
  at = putNumber(at, static_cast<int>(catalog.recordKind(row)));
  const std::uint64_t modified = catalog.rawModified(row);
  if (modified != kUnknown64) {
    at = put(at, ",\"modifiedMs\":");
    at = putNumber(at, static_cast<std::int64_t>(modified / 10000) - kUnixEpochMs);
  }
  at = put(at, ",\"name\":\"");
  at = writeJsonUnits(at, name);
  at = put(at, "\",\"path\":\"");
  at = writeJsonUnits(at, parent, leaf);
  *at++ = '"';
  const std::uint64_t size = catalog.rawSize(row);
  if (size != kUnknown64) {
    at = put(at, ",\"size\":");
    at = putNumber(at, size);
  }
  const std::uint64_t allocated = catalog.rawAllocated(row);
  if (allocated != kUnknown64) {
    at = put(at, ",\"sizeOnDisk\":");
    at = putNumber(at, allocated);
  }
  std::memcpy(at, source.sourceField.data(), source.sourceField.size());
  at += source.sourceField.size();
  *start = '{';
  out.commit(at);
}

const PageWriter::Source* PageWriter::locate(std::int64_t id, std::int32_t& row) const noexcept {
  if (id < 0 || id >= search_->total()) return nullptr;
  std::size_t s = 0;
  if (sources_.size() > 1) {
    // The last source starting at or before the id (empty sources share
    // their start with the next one and are passed over).
    const auto& starts = search_->starts();
    const auto last = starts.begin() + static_cast<std::ptrdiff_t>(sources_.size());
    s = static_cast<std::size_t>(std::upper_bound(starts.begin(), last, id) - starts.begin()) - 1;
  }
  row = static_cast<std::int32_t>(id - sources_[s].start);
  return &sources_[s];
}

// Rows of a page are scattered over columns far larger than the caches (and
// over far more memory pages than the address translation caches cover), so
// writing them one after another waits on one miss after another. Each
// row's reads form a short chain: its column entries, then the starts of
// its texts, then the parent text itself. touch() walks one link of the
// chain for a batch of rows with plain loads that do not depend on each
// other, so the processor overlaps their misses; the rows are then written
// from the cache. (Prefetch hints a few rows ahead were tried first and
// gave nothing measurable; these loads halve the time of a page.)
std::uint64_t PageWriter::touch(const std::int32_t* ids, std::size_t count, int link) const noexcept {
  std::uint64_t sink = 0;
  for (std::size_t i = 0; i < count; ++i) {
    std::int32_t row = 0;
    const Source* source = locate(ids[i], row);
    if (source == nullptr) continue;
    const Catalog& catalog = *source->catalog;
    switch (link) {
      case 0:
        sink += catalog.parentIndex(row) + catalog.rawSize(row) + catalog.rawModified(row) + catalog.rawCreated(row) +
                catalog.rawAllocated(row) + catalog.deviceId(row) +
                static_cast<std::uint64_t>(catalog.parts().nameStarts[static_cast<std::size_t>(row)]);
        if (const auto& kinds = catalog.parts().kinds) sink += (*kinds)[static_cast<std::size_t>(row)];
        break;
      case 1: {
        const TextView name = catalog.nameUnits(row);
        if (!name.empty()) sink += name.front();
        sink += catalog.parts().parentStarts[catalog.parentIndex(row)];
        break;
      }
      default: {
        const TextView parent = catalog.parentUnits(catalog.parentIndex(row));
        if (!parent.empty()) sink += parent.front();
        if (parent.size() > 32) sink += parent[32];
      }
    }
  }
  return sink;
}

void PageWriter::write(ByteBuffer& out, const Column<std::int32_t>& ids, std::int64_t offset, std::size_t first,
                       std::size_t end) const {
  char* at = out.room(48);
  at = put(at, "{\"offset\":");
  at = putNumber(at, offset);
  at = put(at, ",\"rows\":[");
  out.commit(at);

  // Batches small enough that their lines stay cached until written.
  constexpr std::size_t kBatch = 16;
  std::uint64_t sink = 0;
  for (std::size_t batch = first; batch < end; batch += kBatch) {
    const std::size_t count = std::min(kBatch, end - batch);
    for (int link = 0; link < 3; ++link) sink += touch(ids.data() + batch, count, link);
    for (std::size_t i = batch; i < batch + count; ++i) {
      if (i != first) out.push(',');
      writeRow(out, ids[i]);
    }
  }
  // Keeps the touching loads from being optimised away.
  asm volatile("" : : "r"(sink));
  out.append("]}");
}

namespace page {
namespace {

template <class Number>
void appendNumber(std::string& out, Number value) {
  char digits[24];
  const auto written = std::to_chars(digits, digits + sizeof digits, value);
  out.append(digits, written.ptr);
}

}  // namespace

void appendString(std::string& out, std::string_view text) {
  if (!isValidUtf8(text)) {
    // Rows are repaired when decoded, so this is a safety net; the encoder
    // substitutes ill-formed bytes the documented way.
    out += json::encode(json::Value(std::string(text)));
    return;
  }
  static constexpr char kHex[] = "0123456789abcdef";
  out.push_back('"');
  std::size_t plain = 0;  // start of the run not yet copied
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto c = static_cast<unsigned char>(text[i]);
    if (c >= 0x20 && c != '"' && c != '\\') continue;
    out.append(text.data() + plain, i - plain);
    plain = i + 1;
    switch (c) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\b': out += "\\b"; break;
      case '\f': out += "\\f"; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      case '\t': out += "\\t"; break;
      default:
        out += "\\u00";
        out.push_back(kHex[c >> 4]);
        out.push_back(kHex[c & 0x0F]);
    }
  }
  out.append(text.data() + plain, text.size() - plain);
  out.push_back('"');
}

void appendRow(std::string& out, const JoinedSearch::Row& row) {
  // Keys in sorted order, as every JSON document of the system has them.
  char separator = '{';
  auto key = [&](std::string_view name) {
    out.push_back(separator);
    separator = ',';
    out.push_back('"');
    out += name;
    out += "\":";
  };
  if (row.createdMs) key("createdMs"), appendNumber(out, *row.createdMs);
  if (row.device) key("device"), appendString(out, *row.device);
  key("id"), appendNumber(out, row.id);
  key("kind"), appendNumber(out, row.kind);
  if (row.modifiedMs) key("modifiedMs"), appendNumber(out, *row.modifiedMs);
  key("name"), appendString(out, row.name);
  key("path"), appendString(out, row.path);
  if (row.size) key("size"), appendNumber(out, *row.size);
  if (row.sizeOnDisk) key("sizeOnDisk"), appendNumber(out, *row.sizeOnDisk);
  key("sourceId"), appendString(out, row.sourceId);
  out.push_back('}');
}

json::Value rowObject(const JoinedSearch::Row& row) {
  json::Value object{{"id", row.id}, {"sourceId", row.sourceId}, {"name", row.name}, {"path", row.path},
                     {"kind", row.kind}};
  if (row.size) object["size"] = *row.size;
  if (row.modifiedMs) object["modifiedMs"] = *row.modifiedMs;
  if (row.createdMs) object["createdMs"] = *row.createdMs;
  if (row.sizeOnDisk) object["sizeOnDisk"] = *row.sizeOnDisk;
  if (row.device) object["device"] = *row.device;
  return object;
}

std::string body(const JoinedSearch& search, const Column<std::int32_t>& ids, std::int64_t offset, std::size_t first,
                 std::size_t end) {
  std::string out = "{\"offset\":";
  appendNumber(out, offset);
  out += ",\"rows\":[";
  out.reserve(out.size() + (end - first) * 192 + 2);
  for (std::size_t i = first; i < end; ++i) {
    if (i != first) out.push_back(',');
    appendRow(out, search.row(ids[i]));
  }
  out += "]}";
  return out;
}

}  // namespace page
}  // namespace tarv
