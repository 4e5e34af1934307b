#include "kernel/service/page_writer.h"

#include <charconv>

#include "kernel/base/text.h"

namespace tarv::page {
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

}  // namespace tarv::page
