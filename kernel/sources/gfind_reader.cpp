#include "kernel/sources/gfind_reader.h"

#include <algorithm>
#include <cstring>
#include <optional>

#include "kernel/base/kernel_error.h"
#include "kernel/catalog/catalog_builder.h"
#include "kernel/sources/byte_source.h"
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

class RecordReader {
 public:
  RecordReader(const std::string& sourceId, const std::string& root, bool extended)
      : flavor_(flavorOf(root)),
        builder_(sourceId, flavor_, /*directorySizes=*/false),
        root_(utf16(root)),
        extended_(extended) {}

  void record(std::string_view bytes) {
    ++number_;
    if (bytes.size() < 2 || bytes[1] != ' ') fail(bytes.empty() ? "Missing field" : "Unknown type letter");
    int kind = kindOf(bytes[0]);
    if (kind < 0) fail("Unknown type letter");
    std::size_t position = 2;
    std::optional<std::uint64_t> size = decimal(field(bytes, position));
    if (!size) fail("Invalid size");
    std::uint64_t modified = parseTime(field(bytes, position));
    std::uint64_t created = kUnknown64;
    std::uint64_t allocated = kUnknown64;
    std::optional<std::uint64_t> device;
    if (extended_) {
      created = parseTime(field(bytes, position));
      std::optional<std::uint64_t> blocks = decimal(field(bytes, position));
      if (!blocks || *blocks > kUnknown64 / 512) fail("Invalid blocks");
      allocated = *blocks * 512;
      device = decimal(field(bytes, position));
      if (!device) fail("Invalid device");
    }
    std::string_view path = bytes.substr(position);
    if (path.empty()) fail("Empty path");
    join(path);
    builder_.add(path_, static_cast<std::uint8_t>(kind), *size, modified, created, allocated, device);
  }

  // Bytes after the last NUL: a record cut short.
  void unterminated() {
    ++number_;
    fail("Missing NUL terminator");
  }

  Catalog finish() { return builder_.finish(); }
  std::int64_t records() const { return number_; }

 private:
  [[noreturn]] void fail(const char* reason) const {
    throw KernelError::io("Gfind record " + std::to_string(number_) + ": " + reason);
  }

  // The field at `position` up to its separating space, moving past it. Every
  // field but the path is followed by one space.
  std::string_view field(std::string_view bytes, std::size_t& position) const {
    std::size_t space = bytes.find(' ', position);
    if (space == std::string_view::npos) fail("Missing field");
    std::string_view text = bytes.substr(position, space - position);
    position = space + 1;
    return text;
  }

  bool isAbsolute(TextView units) const {
    if (units.empty()) return false;
    if (units[0] == u'/') return true;
    if (flavor_ == PathFlavor::posix) return false;
    return units[0] == u'\\' || (units.size() >= 2 && units[1] == u':');
  }

  // Decodes the path into path_ and joins a relative one to the root.
  void join(std::string_view bytes) {
    name_.resize(bytes.size());
    unsigned char high = 0;
    for (std::size_t i = 0; i < bytes.size(); ++i) {
      auto b = static_cast<unsigned char>(bytes[i]);
      high |= b;
      name_[i] = b;
    }
    if (high & 0x80) name_ = utf16(bytes);  // rare: repair needs the full decoder
    if (isAbsolute(name_)) {
      path_ = name_;
      return;
    }
    TextView relative = name_;
    while (relative.size() >= 2 && relative[0] == u'.' && path_flavor::isSeparator(flavor_, relative[1])) {
      relative.remove_prefix(2);
      while (!relative.empty() && path_flavor::isSeparator(flavor_, relative[0])) relative.remove_prefix(1);
    }
    if (relative == u".") relative = {};
    path_ = root_;
    if (relative.empty()) return;
    if (path_.empty() || !path_flavor::isSeparator(flavor_, path_.back()))
      path_.push_back(flavor_ == PathFlavor::windows ? u'\\' : u'/');
    path_ += relative;
  }

  PathFlavor flavor_;
  NativeCatalogBuilder builder_;
  Text root_;
  bool extended_;
  std::int64_t number_ = 0;
  Text name_;
  Text path_;
};

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

Catalog load(const std::filesystem::path& url, const std::string& sourceId, const std::string& root, bool extended) {
  ByteSource source(url);
  RecordReader reader(sourceId, root, extended);
  std::string carry;  // a record cut by a block boundary
  for (std::span<const char> block = source.block(); !block.empty(); block = source.block()) {
    if (LoadProgress::active()) {
      ByteSource::FilePosition at = source.filePosition();
      LoadProgress::advance(at.done, at.total, static_cast<std::uint64_t>(reader.records()));
    }
    const char* p = block.data();
    const char* end = p + block.size();
    while (p < end) {
      auto nul = static_cast<const char*>(std::memchr(p, 0, static_cast<std::size_t>(end - p)));
      if (nul == nullptr) {
        carry.append(p, end);
        break;
      }
      if (carry.empty()) {
        reader.record(std::string_view(p, static_cast<std::size_t>(nul - p)));
      } else {
        carry.append(p, nul);
        reader.record(carry);
        carry.clear();
      }
      p = nul + 1;
    }
  }
  if (!carry.empty()) reader.unterminated();
  source.close();
  return reader.finish();
}

}  // namespace tarv::GfindReader
