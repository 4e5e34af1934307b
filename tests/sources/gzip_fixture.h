#pragma once
// Builds gzip members with zlib for the reader tests, with the optional header
// fields under the test's control.

#include <zlib.h>

#include <stdexcept>
#include <string>
#include <string_view>

namespace tarv::testing {

struct GzipFields {
  std::string name;     // FNAME when not empty
  std::string comment;  // FCOMMENT when not empty
  std::string extra;    // FEXTRA when not empty
  bool headerCrc = false;
  int level = 6;

  GzipFields& withName(std::string v) { return name = std::move(v), *this; }
  GzipFields& withComment(std::string v) { return comment = std::move(v), *this; }
  GzipFields& withExtra(std::string v) { return extra = std::move(v), *this; }
  GzipFields& withHeaderCrc() { return headerCrc = true, *this; }
  GzipFields& withLevel(int v) { return level = v, *this; }
};

inline std::string deflateRaw(std::string_view data, int level) {
  z_stream z{};
  if (deflateInit2(&z, level, Z_DEFLATED, -MAX_WBITS, 8, Z_DEFAULT_STRATEGY) != Z_OK)
    throw std::runtime_error("deflateInit2");
  std::string out(deflateBound(&z, static_cast<uLong>(data.size())), '\0');
  z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data.data()));
  z.avail_in = static_cast<uInt>(data.size());
  z.next_out = reinterpret_cast<Bytef*>(out.data());
  z.avail_out = static_cast<uInt>(out.size());
  if (deflate(&z, Z_FINISH) != Z_STREAM_END) throw std::runtime_error("deflate");
  out.resize(z.total_out);
  deflateEnd(&z);
  return out;
}

inline void appendLittleEndian32(std::string& out, unsigned long value) {
  for (int i = 0; i < 4; ++i) out.push_back(static_cast<char>((value >> (8 * i)) & 0xFF));
}

inline std::string gzip(std::string_view data, const GzipFields& fields = {}) {
  int flags = (fields.headerCrc ? 0x02 : 0) | (fields.extra.empty() ? 0 : 0x04) | (fields.name.empty() ? 0 : 0x08) |
              (fields.comment.empty() ? 0 : 0x10);
  std::string out{'\x1F', '\x8B', '\x08', static_cast<char>(flags), 0, 0, 0, 0, 0, '\x03'};
  if (!fields.extra.empty()) {
    out.push_back(static_cast<char>(fields.extra.size() & 0xFF));
    out.push_back(static_cast<char>(fields.extra.size() >> 8));
    out += fields.extra;
  }
  if (!fields.name.empty()) out += fields.name + '\0';
  if (!fields.comment.empty()) out += fields.comment + '\0';
  if (fields.headerCrc) out += "\x12\x34";  // skipped by the reader, never checked
  out += deflateRaw(data, fields.level);
  appendLittleEndian32(out, crc32(0, reinterpret_cast<const Bytef*>(data.data()), static_cast<uInt>(data.size())));
  appendLittleEndian32(out, static_cast<unsigned long>(data.size() & 0xFFFFFFFFu));
  return out;
}

}  // namespace tarv::testing
