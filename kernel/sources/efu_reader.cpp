#include "kernel/sources/efu_reader.h"

#include <algorithm>
#include <cstring>
#include <optional>
#include <vector>

#include "kernel/base/kernel_error.h"
#include "kernel/catalog/catalog_builder.h"
#include "kernel/sources/batched_path.h"
#include "kernel/sources/byte_source.h"
#include "kernel/sources/chunk_pipeline.h"
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

// One record as a parse worker hands it over; the path's units live in the
// batch's shared buffer.
struct Record {
  sources::BatchedPath path;
  bool folder;
  std::int32_t extension;  // index into Batch::extensions, or -1
  std::uint64_t size, modified, created;
};

struct Batch {
  std::vector<Record> records;
  Text units;
  std::vector<std::optional<Text>> extensions;
};

// Turns the lines of a chunk into records. One per worker thread.
class LineParser {
 public:
  struct Setup {
    Text prefix;  // the virtual directory with its trailing "\"
  };

  explicit LineParser(const Setup& setup) : prefix_(setup.prefix) {}

  // Every line of the chunk, up to each line feed or carriage return, and the
  // unterminated rest (empty unless the chunk is the file's last).
  void parse(std::string_view chunk, bool /*last*/, Batch& batch) {
    batch.records.clear();
    batch.units.clear();
    batch.extensions.clear();
    const char* p = chunk.data();
    const char* end = p + chunk.size();
    // The next LF and CR are remembered separately, so each memchr passes
    // over every byte once even when one of the two never occurs.
    const char* nextLf = nullptr;
    const char* nextCr = nullptr;
    for (;;) {
      if (nextLf < p) {
        nextLf = static_cast<const char*>(std::memchr(p, '\n', static_cast<std::size_t>(end - p)));
        if (nextLf == nullptr) nextLf = end;
      }
      if (nextCr < p) {
        nextCr = static_cast<const char*>(std::memchr(p, '\r', static_cast<std::size_t>(end - p)));
        if (nextCr == nullptr) nextCr = end;
      }
      const char* lineEnd = std::min(nextLf, nextCr);
      line(std::string_view(p, static_cast<std::size_t>(lineEnd - p)), batch);
      if (lineEnd == end) break;
      p = lineEnd + 1;
    }
  }

 private:
  void line(std::string_view line, Batch& batch) {
    if (line.empty()) return;
    std::size_t position = 0;
    std::string_view filename = nextField(line, position, nameScratch_);
    if (filename.empty()) return;
    std::optional<std::uint64_t> size = leadingDigits(nextField(line, position, numberScratch_));
    std::optional<std::uint64_t> modified = leadingDigits(nextField(line, position, numberScratch_));
    std::optional<std::uint64_t> created = leadingDigits(nextField(line, position, numberScratch_));
    bool folder = (leadingDigits(nextField(line, position, numberScratch_)).value_or(0) & kDirectoryAttribute) != 0;

    name_.clear();
    bool ascii = appendLegacyUtf8(filename, name_);
    Text& units = batch.units;
    std::size_t start = units.size();
    bool absolute =
        (name_.size() >= 2 && name_[1] == u':') || (name_.size() >= 2 && name_[0] == u'\\' && name_[1] == u'\\');
    if (!absolute) units += prefix_;
    units += name_;
    while (units.size() - start > 3 && isSeparator(units.back())) units.pop_back();
    // A drive root keeps its separator above; as a folder record it is the drive itself.
    if (folder && units.size() - start == 3 && isAsciiLetter(units[start]) && units[start + 1] == u':' &&
        isSeparator(units[start + 2]))
      units.pop_back();

    std::int32_t extension = -1;
    if (!folder && !ascii && !isValidUtf8(filename)) {
      std::size_t dot = filename.rfind('.');
      std::size_t separator = filename.find_last_of("\\/");
      if (dot != std::string_view::npos && (separator == std::string_view::npos || dot > separator)) {
        extension = static_cast<std::int32_t>(batch.extensions.size());
        Text& text = batch.extensions.emplace_back().emplace();
        for (char c : filename.substr(dot + 1)) text.push_back(static_cast<unsigned char>(c));
      }
    }
    const sources::BatchedPath* previous = batch.records.empty() ? nullptr : &batch.records.back().path;
    batch.records.push_back(Record{sources::BatchedPath::prepare(PathFlavor::windows, units, start, previous), folder,
                                   extension,
                                   size.value_or(kUnknown64), modified.value_or(kUnknown64),
                                   created.value_or(kUnknown64)});
  }

  const Text& prefix_;
  Text name_;
  std::string nameScratch_;
  std::string numberScratch_;
};

// Parse threads beyond two only queue up behind the single builder thread.
constexpr int kMaxWorkers = 2;
// How many records ahead the builder's duplicate table is loaded: its probes
// are random reads, and most of an add's cost when they miss the cache.
constexpr std::size_t kAhead = 6;

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

Catalog load(const std::filesystem::path& url, const std::string& sourceId, const std::string& virtualDirectory,
             const sources::ReadOptions& options) {
  ByteSource source(url);
  LineParser::Setup setup{utf16(virtualDirectory)};
  if (setup.prefix.empty() || setup.prefix.back() != u'\\') setup.prefix.push_back(u'\\');
  CatalogBuilder builder(sourceId, PathFlavor::windows, /*inferAncestors=*/true, /*directorySizes=*/false);
  static const std::optional<Text> kNoExtension;
  bool progress = LoadProgress::active();
  {
    // The header line ends only at a line feed; later lines end at a line
    // feed or a carriage return, so CRLF leaves an empty line that is skipped.
    sources::ChunkPipeline<LineParser, Batch> pipeline(source, "\n\r", /*skipFirstLine=*/true, options,
                                                       sources::workerCount(options, kMaxWorkers), progress, setup);
    while (const Batch* batch = pipeline.next()) {
      if (progress)
        sources::reportBatch(pipeline.position(), static_cast<std::uint64_t>(builder.count()), !batch->records.empty());
      const Record* records = batch->records.data();
      std::size_t count = batch->records.size();
      const Unit* units = batch->units.data();
      auto prepared = [&](const Record& r) { return r.path.at(units); };
      for (std::size_t i = 0; i < count && i < kAhead; ++i) builder.prefetch(prepared(records[i]), records[i].folder);
      for (std::size_t i = 0; i < count; ++i) {
        if (i + kAhead < count) builder.prefetch(prepared(records[i + kAhead]), records[i + kAhead].folder);
        const Record& r = records[i];
        const std::optional<Text>& extension = r.extension < 0 ? kNoExtension : batch->extensions[r.extension];
        // A path that is already present is dropped silently: exports repeat entries.
        builder.add(prepared(r), r.folder, r.size, r.modified, r.created, extension, /*kind=*/0, kUnknown64,
                    std::nullopt);
      }
    }
  }
  source.close();
  return builder.finish();
}

}  // namespace tarv::EfuReader
