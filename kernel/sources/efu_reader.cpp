#include "kernel/sources/efu_reader.h"

#include <algorithm>
#include <cstring>
#include <optional>

#include "kernel/base/kernel_error.h"
#include "kernel/catalog/catalog_builder.h"
#include "kernel/sources/byte_source.h"
#include "kernel/sources/load_progress.h"

namespace tarv::EfuReader {
namespace {

constexpr std::u16string_view kHeaderPlain = u"Filename,Size,Date Modified,Date Created,Attributes";
constexpr std::u16string_view kHeaderQuoted =
    u"\"Filename\",\"Size\",\"Date Modified\",\"Date Created\",\"Attributes\"";
constexpr std::uint64_t kDirectoryAttribute = 0x10;

bool isSeparator(Unit u) { return u == u'\\' || u == u'/'; }
bool isAsciiLetter(Unit u) { return (u >= u'A' && u <= u'Z') || (u >= u'a' && u <= u'z'); }

// The leading decimal digits of a field: nullopt for an empty field, 0 when it
// does not start with a digit. A number too large for 64 bits saturates at the
// all-ones value, which the catalog reads as unknown.
std::optional<std::uint64_t> leadingDigits(std::string_view field) {
  if (field.empty()) return std::nullopt;
  std::uint64_t value = 0;
  std::size_t i = 0;
  // Nineteen digits always fit, so the common case needs no overflow checks.
  for (std::size_t fast = std::min<std::size_t>(field.size(), 19); i < fast; ++i) {
    auto digit = static_cast<unsigned>(static_cast<unsigned char>(field[i]) - '0');
    if (digit > 9) return value;
    value = value * 10 + digit;
  }
  for (; i < field.size(); ++i) {
    auto digit = static_cast<unsigned>(static_cast<unsigned char>(field[i]) - '0');
    if (digit > 9) break;
    if (__builtin_mul_overflow(value, 10u, &value) || __builtin_add_overflow(value, digit, &value)) return kUnknown64;
  }
  return value;
}

// Reads the next field of a record line from `position` and moves past its
// comma; an exhausted line gives empty fields. A quoted field with doubled
// quotes is unescaped into `scratch`, so a line costs no allocation once the
// buffers have grown.
std::string_view nextField(std::string_view line, std::size_t& position, std::string& scratch) {
  if (position > line.size()) return {};
  if (position == line.size()) {
    position = line.size() + 1;
    return {};
  }
  if (line[position] != '"') {
    std::size_t comma = line.find(',', position);
    if (comma == std::string_view::npos) comma = line.size();
    std::string_view field = line.substr(position, comma - position);
    position = comma + 1;
    return field;
  }
  // Quoted: "" stands for one quote, the first single quote ends the field,
  // and anything up to the next comma is ignored.
  std::size_t start = position + 1;
  std::size_t quote = line.find('"', start);
  if (quote == std::string_view::npos) {
    position = line.size() + 1;
    return line.substr(start);
  }
  std::string_view field;
  if (quote + 1 < line.size() && line[quote + 1] == '"') {
    scratch.clear();
    std::size_t from = start;
    for (;;) {
      scratch.append(line.data() + from, quote + 1 - from);  // keeps one quote
      from = quote + 2;
      quote = line.find('"', from);
      if (quote == std::string_view::npos) {
        scratch.append(line.data() + from, line.size() - std::min(from, line.size()));
        position = line.size() + 1;
        return scratch;
      }
      if (quote + 1 < line.size() && line[quote + 1] == '"') continue;
      scratch.append(line.data() + from, quote - from);
      break;
    }
    field = scratch;
  } else {
    field = line.substr(start, quote - start);
  }
  std::size_t comma = line.find(',', quote + 1);
  position = comma == std::string_view::npos ? line.size() + 1 : comma + 1;
  return field;
}

class RecordReader {
 public:
  RecordReader(const std::string& sourceId, const std::string& virtualDirectory)
      : builder_(sourceId, PathFlavor::windows, /*inferAncestors=*/true, /*directorySizes=*/false),
        prefix_(utf16(virtualDirectory)) {
    if (prefix_.empty() || prefix_.back() != u'\\') prefix_.push_back(u'\\');
  }

  void line(std::string_view line) {
    if (line.empty()) return;
    std::size_t position = 0;
    std::string_view filename = nextField(line, position, nameScratch_);
    if (filename.empty()) return;
    std::string_view sizeField = nextField(line, position, numberScratch_);
    std::optional<std::uint64_t> size = leadingDigits(sizeField);
    std::optional<std::uint64_t> modified = leadingDigits(nextField(line, position, numberScratch_));
    std::optional<std::uint64_t> created = leadingDigits(nextField(line, position, numberScratch_));
    bool folder = (leadingDigits(nextField(line, position, numberScratch_)).value_or(0) & kDirectoryAttribute) != 0;

    name_.clear();
    bool ascii = appendLegacyUtf8(filename, name_);
    path_.clear();
    bool absolute =
        (name_.size() >= 2 && name_[1] == u':') || (name_.size() >= 2 && name_[0] == u'\\' && name_[1] == u'\\');
    if (!absolute) path_ = prefix_;
    path_ += name_;
    while (path_.size() > 3 && isSeparator(path_.back())) path_.pop_back();
    // A drive root keeps its separator above; as a folder record it is the drive itself.
    if (folder && path_.size() == 3 && isAsciiLetter(path_[0]) && path_[1] == u':' && isSeparator(path_[2]))
      path_.pop_back();

    const std::optional<Text>* extension = &kNoExtension;
    if (!folder && !ascii && !isValidUtf8(filename)) {
      irregular_.reset();
      std::size_t dot = filename.rfind('.');
      std::size_t separator = filename.find_last_of("\\/");
      if (dot != std::string_view::npos && (separator == std::string_view::npos || dot > separator)) {
        irregular_.emplace();
        for (char c : filename.substr(dot + 1)) irregular_->push_back(static_cast<unsigned char>(c));
        extension = &irregular_;
      }
    }
    // A path that is already present is dropped silently: exports repeat entries.
    builder_.add(path_, folder, size.value_or(kUnknown64), modified.value_or(kUnknown64), created.value_or(kUnknown64),
                 *extension, /*kind=*/0, kUnknown64, std::nullopt);
  }

  Catalog finish() { return builder_.finish(); }
  std::int32_t records() const { return builder_.count(); }

 private:
  static inline const std::optional<Text> kNoExtension;

  CatalogBuilder builder_;
  Text prefix_;
  Text name_;
  Text path_;
  std::string nameScratch_;
  std::string numberScratch_;
  std::optional<Text> irregular_;
};

}  // namespace

bool appendLegacyUtf8(std::string_view bytes, Text& out) {
  // Never more units than bytes: size the output once and write through a
  // pointer, then trim to what was written.
  std::size_t base = out.size();
  out.resize(base + bytes.size());
  Unit* target = out.data() + base;
  auto p = reinterpret_cast<const unsigned char*>(bytes.data());
  std::size_t n = bytes.size();
  std::size_t i = 0;
  while (i < n && p[i] < 0x80) *target++ = p[i++];
  bool ascii = i == n;
  while (i < n) {
    unsigned char b = p[i];
    if (b < 0x80) {
      *target++ = b;
      ++i;
      continue;
    }
    std::size_t need;
    char32_t code;
    if ((b & 0xE0) == 0xC0) {
      need = 1;
      code = b & 0x1F;
    } else if ((b & 0xF0) == 0xE0) {
      need = 2;
      code = b & 0x0F;
    } else if ((b & 0xF8) == 0xF0) {
      need = 3;
      code = b & 0x07;
    } else {
      *target++ = 0;
      ++i;
      continue;
    }
    if (i + need >= n) {
      *target++ = 0;  // cut off by the end of the field
      break;
    }
    for (std::size_t k = 1; k <= need; ++k) code = (code << 6) | (p[i + k] & 0x3F);
    i += need + 1;
    if (code < 0x10000) {
      *target++ = static_cast<Unit>(code);
    } else if (code <= 0x10FFFF) {  // four bytes made at most two units
      code -= 0x10000;
      *target++ = static_cast<Unit>(0xD800 + (code >> 10));
      *target++ = static_cast<Unit>(0xDC00 + (code & 0x3FF));
    } else {
      *target++ = 0;
    }
  }
  out.resize(static_cast<std::size_t>(target - out.data()));
  return ascii;
}

void checkHeader(const std::filesystem::path& url) {
  ByteSource source(url);
  std::string line;
  for (int b = source.byte(); b != ByteSource::kEnd && b != '\n'; b = source.byte()) {
    if (line.size() == kHeaderLimit) throw KernelError::io("EFU header exceeds 256 bytes");
    line.push_back(static_cast<char>(b));
  }
  Text header = utf16(line);
  if (!header.empty() && header.back() == u'\r') header.pop_back();
  TextView view = header;
  if (!view.empty() && view.front() == u'\uFEFF') view.remove_prefix(1);
  if (view != kHeaderPlain && view != kHeaderQuoted)
    throw KernelError::io("Unsupported EFU header (required: Filename,Size,Date Modified,Date Created,Attributes)");
}

Catalog load(const std::filesystem::path& url, const std::string& sourceId, const std::string& virtualDirectory) {
  ByteSource source(url);
  RecordReader reader(sourceId, virtualDirectory);
  // The header line ends only at a line feed; later lines end at a line feed
  // or a carriage return, so CRLF leaves an empty line that is skipped.
  bool inHeader = true;
  std::string carry;  // a line cut by a block boundary
  for (std::span<const char> block = source.block(); !block.empty(); block = source.block()) {
    if (LoadProgress::active()) {
      ByteSource::FilePosition at = source.filePosition();
      LoadProgress::advance(at.done, at.total, static_cast<std::uint64_t>(reader.records()));
    }
    const char* p = block.data();
    const char* end = p + block.size();
    if (inHeader) {
      auto lf = static_cast<const char*>(std::memchr(p, '\n', block.size()));
      if (lf == nullptr) continue;
      inHeader = false;
      p = lf + 1;
    }
    // The next LF and CR are remembered separately, so each memchr passes
    // over every byte once even when one of the two never occurs.
    const char* nextLf = nullptr;
    const char* nextCr = nullptr;
    while (p < end) {
      if (nextLf < p) {
        nextLf = static_cast<const char*>(std::memchr(p, '\n', static_cast<std::size_t>(end - p)));
        if (nextLf == nullptr) nextLf = end;
      }
      if (nextCr < p) {
        nextCr = static_cast<const char*>(std::memchr(p, '\r', static_cast<std::size_t>(end - p)));
        if (nextCr == nullptr) nextCr = end;
      }
      const char* lineEnd = std::min(nextLf, nextCr);
      if (lineEnd == end) {
        carry.append(p, end);
        break;
      }
      if (carry.empty()) {
        reader.line(std::string_view(p, static_cast<std::size_t>(lineEnd - p)));
      } else {
        carry.append(p, lineEnd);
        reader.line(carry);
        carry.clear();
      }
      p = lineEnd + 1;
    }
  }
  if (!inHeader) reader.line(carry);
  source.close();
  return reader.finish();
}

}  // namespace tarv::EfuReader
