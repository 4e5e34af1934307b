#include "kernel/sources/gfind_reader.h"

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

namespace tarv::GfindReader {
namespace {

constexpr std::uint64_t kTicksPerSecond = 10'000'000;
constexpr int kFractionDigits = 7;  // ticks are 1e-7 s

// Kind code of a %y type letter, or -1.
int kindOf(char letter) {
  switch (letter) {
    case 'f':
      return 0;
    case 'd':
      return 1;
    case 'l':
      return 2;
    case 'b':
      return 3;
    case 'c':
      return 4;
    case 'p':
      return 5;
    case 's':
      return 6;
    default:
      return -1;
  }
}

// A non-empty run of decimal digits that fits 64 bits.
std::optional<std::uint64_t> decimal(std::string_view text) {
  if (text.empty()) return std::nullopt;
  std::uint64_t value = 0;
  std::size_t i = 0;
  // Nineteen digits always fit, so the common case needs no overflow checks.
  for (std::size_t fast = std::min<std::size_t>(text.size(), 19); i < fast; ++i) {
    auto digit = static_cast<unsigned>(static_cast<unsigned char>(text[i]) - '0');
    if (digit > 9) return std::nullopt;
    value = value * 10 + digit;
  }
  for (; i < text.size(); ++i) {
    auto digit = static_cast<unsigned>(static_cast<unsigned char>(text[i]) - '0');
    if (digit > 9 || __builtin_mul_overflow(value, 10u, &value) || __builtin_add_overflow(value, digit, &value))
      return std::nullopt;
  }
  return value;
}

// One record as a parse worker hands it over; the path's units live in the
// batch's shared buffer.
struct Record {
  sources::BatchedPath path;
  std::uint8_t kind;
  bool hasDevice;
  std::uint64_t size, modified, created, allocated, device;
};

// The records of one chunk. A malformed record ends the batch: `problem`
// then names what is wrong with the record after the last one listed.
struct Batch {
  std::vector<Record> records;
  Text units;
  const char* problem = nullptr;
};

// Turns the NUL-terminated records of a chunk into Records. One per worker.
class RecordParser {
 public:
  struct Setup {
    PathFlavor flavor;
    Text root;
    bool extended;
  };

  explicit RecordParser(const Setup& setup) : setup_(setup) {}

  void parse(std::string_view chunk, bool /*last*/, Batch& batch) {
    batch.records.clear();
    batch.units.clear();
    batch.problem = nullptr;
    const char* p = chunk.data();
    const char* end = p + chunk.size();
    while (p < end) {
      auto nul = static_cast<const char*>(std::memchr(p, 0, static_cast<std::size_t>(end - p)));
      if (nul == nullptr) {
        // Only the file's last chunk can end without a NUL: a record cut short.
        batch.problem = "Missing NUL terminator";
        return;
      }
      if (const char* problem = record(std::string_view(p, static_cast<std::size_t>(nul - p)), batch)) {
        batch.problem = problem;
        return;
      }
      p = nul + 1;
    }
  }

 private:
  // The field at `position` up to its separating space, moving past it; every
  // field but the path is followed by one space. nullopt when there is none.
  static std::optional<std::string_view> field(std::string_view bytes, std::size_t& position) {
    std::size_t space = bytes.find(' ', position);
    if (space == std::string_view::npos) return std::nullopt;
    std::string_view text = bytes.substr(position, space - position);
    position = space + 1;
    return text;
  }

  // Appends the record, or returns why it is malformed.
  const char* record(std::string_view bytes, Batch& batch) {
    if (bytes.size() < 2 || bytes[1] != ' ') return bytes.empty() ? "Missing field" : "Unknown type letter";
    int kind = kindOf(bytes[0]);
    if (kind < 0) return "Unknown type letter";
    std::size_t position = 2;
    auto sizeField = field(bytes, position);
    if (!sizeField) return "Missing field";
    std::optional<std::uint64_t> size = decimal(*sizeField);
    if (!size) return "Invalid size";
    auto modifiedField = field(bytes, position);
    if (!modifiedField) return "Missing field";
    Record r{};
    r.kind = static_cast<std::uint8_t>(kind);
    r.size = *size;
    r.modified = parseTime(*modifiedField);
    r.created = kUnknown64;
    r.allocated = kUnknown64;
    if (setup_.extended) {
      auto createdField = field(bytes, position);
      if (!createdField) return "Missing field";
      r.created = parseTime(*createdField);
      auto blocksField = field(bytes, position);
      if (!blocksField) return "Missing field";
      std::optional<std::uint64_t> blocks = decimal(*blocksField);
      if (!blocks || *blocks > kUnknown64 / 512) return "Invalid blocks";
      r.allocated = *blocks * 512;
      auto deviceField = field(bytes, position);
      if (!deviceField) return "Missing field";
      std::optional<std::uint64_t> device = decimal(*deviceField);
      if (!device) return "Invalid device";
      r.hasDevice = true;
      r.device = *device;
    }
    std::string_view path = bytes.substr(position);
    if (path.empty()) return "Empty path";
    const std::size_t start = batch.units.size();
    join(path, batch.units);
    r.path = sources::BatchedPath::prepare(setup_.flavor, batch.units, start,
                                           batch.records.empty() ? nullptr : &batch.records.back().path);
    batch.records.push_back(r);
    return nullptr;
  }

  bool isAbsolute(TextView units) const {
    if (units.empty()) return false;
    if (units[0] == u'/') return true;
    if (setup_.flavor == PathFlavor::posix) return false;
    return units[0] == u'\\' || (units.size() >= 2 && units[1] == u':');
  }

  // Decodes the path, joins a relative one to the root and appends it to `out`.
  void join(std::string_view bytes, Text& out) {
    name_.resize(bytes.size());
    unsigned char high = 0;
    for (std::size_t i = 0; i < bytes.size(); ++i) {
      auto b = static_cast<unsigned char>(bytes[i]);
      high |= b;
      name_[i] = b;
    }
    if (high & 0x80) name_ = utf16(bytes);  // rare: repair needs the full decoder
    if (isAbsolute(name_)) {
      out += name_;
      return;
    }
    PathFlavor flavor = setup_.flavor;
    TextView relative = name_;
    while (relative.size() >= 2 && relative[0] == u'.' && path_flavor::isSeparator(flavor, relative[1])) {
      relative.remove_prefix(2);
      while (!relative.empty() && path_flavor::isSeparator(flavor, relative[0])) relative.remove_prefix(1);
    }
    if (relative == u".") relative = {};
    out += setup_.root;
    if (relative.empty()) return;
    if (setup_.root.empty() || !path_flavor::isSeparator(flavor, setup_.root.back()))
      out.push_back(flavor == PathFlavor::windows ? u'\\' : u'/');
    out += relative;
  }

  const Setup& setup_;
  Text name_;
};

// Parse threads beyond two only queue up behind the single builder thread.
constexpr int kMaxWorkers = 2;
// How many records ahead the builder's duplicate table is loaded: its probes
// are random reads, and most of an add's cost when they miss the cache.
constexpr std::size_t kAhead = 6;

}  // namespace

PathFlavor flavorOf(std::string_view root) {
  bool drive =
      root.size() >= 2 && root[1] == ':' && ((root[0] >= 'A' && root[0] <= 'Z') || (root[0] >= 'a' && root[0] <= 'z'));
  bool unc = root.size() >= 2 && root[0] == '\\' && root[1] == '\\';
  return drive || unc ? PathFlavor::windows : PathFlavor::posix;
}

std::uint64_t parseTime(std::string_view text) {
  std::size_t i = 0;
  bool negative = !text.empty() && text[0] == '-';
  if (negative) ++i;
  std::uint64_t seconds = 0;
  std::size_t digits = 0;
  for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i, ++digits)
    if (__builtin_mul_overflow(seconds, 10u, &seconds) ||
        __builtin_add_overflow(seconds, static_cast<std::uint64_t>(text[i] - '0'), &seconds))
      return kUnknown64;
  if (digits == 0) return kUnknown64;
  std::uint64_t fraction = 0;  // the first seven fraction digits, in ticks
  bool beyondTicks = false;    // a nonzero digit below one tick
  if (i < text.size() && text[i] == '.') {
    ++i;
    int taken = 0;
    std::size_t start = i;
    for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
      if (taken < kFractionDigits) {
        fraction = fraction * 10 + static_cast<std::uint64_t>(text[i] - '0');
        ++taken;
      } else if (text[i] != '0') {
        beyondTicks = true;
      }
    }
    if (i == start) return kUnknown64;
    for (; taken < kFractionDigits; ++taken) fraction *= 10;
  }
  if (i != text.size()) return kUnknown64;

  std::uint64_t magnitude;
  if (__builtin_mul_overflow(seconds, kTicksPerSecond, &magnitude) ||
      __builtin_add_overflow(magnitude, fraction, &magnitude))
    return kUnknown64;
  (void)beyondTicks;  // a remainder below one tick is dropped: the fraction only ever adds
  if (!negative) {
    std::uint64_t ticks;
    if (__builtin_add_overflow(kUnixEpochTicks, magnitude, &ticks) || ticks == kUnknown64) return kUnknown64;
    return ticks;
  }
  // GNU find prints an instant before 1970 as its whole seconds rounded down
  // and a non-negative fraction ("-2.5000000000" is 1.5 s before 1970), so the
  // fraction is added to the negative seconds, never subtracted.
  std::uint64_t wholeTicks = magnitude - fraction;
  if (wholeTicks > kUnixEpochTicks + fraction) return kUnknown64;  // before 1601
  return kUnixEpochTicks - wholeTicks + fraction;
}

Catalog load(const std::filesystem::path& url, const std::string& sourceId, const std::string& root, bool extended,
             const sources::ReadOptions& options) {
  ByteSource source(url);
  RecordParser::Setup setup{flavorOf(root), utf16(root), extended};
  NativeCatalogBuilder builder(sourceId, setup.flavor, /*directorySizes=*/false);
  bool progress = LoadProgress::active();
  std::int64_t number = 0;  // records read so far, for messages
  {
    sources::ChunkPipeline<RecordParser, Batch> pipeline(source, std::string_view("\0", 1), /*skipFirstLine=*/false,
                                                         options, sources::workerCount(options, kMaxWorkers), progress,
                                                         setup);
    while (const Batch* batch = pipeline.next()) {
      if (progress)
        sources::reportBatch(pipeline.position(), static_cast<std::uint64_t>(number), !batch->records.empty());
      const Unit* units = batch->units.data();
      const Record* records = batch->records.data();
      std::size_t count = batch->records.size();
      auto prepared = [&](const Record& r) { return r.path.at(units); };
      for (std::size_t i = 0; i < count && i < kAhead; ++i) builder.prefetch(prepared(records[i]));
      for (std::size_t i = 0; i < count; ++i) {
        if (i + kAhead < count) builder.prefetch(prepared(records[i + kAhead]));
        const Record& r = records[i];
        ++number;
        builder.add(prepared(r), r.kind, r.size, r.modified, r.created, r.allocated,
                    r.hasDevice ? std::optional<std::uint64_t>(r.device) : std::nullopt);
      }
      if (batch->problem)
        throw KernelError::io("Gfind record " + std::to_string(number + 1) + ": " + batch->problem);
    }
  }
  source.close();
  return builder.finish();
}

}  // namespace tarv::GfindReader
