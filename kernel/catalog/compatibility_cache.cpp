#include "kernel/catalog/compatibility_cache.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "kernel/base/files.h"

namespace tarv {
namespace {

constexpr char kMagic[8] = {'T', 'A', 'R', 'V', 'T', 'A', 'B', '\x01'};
constexpr std::size_t kTableBytes = sizeof(Compatibility::Table);

// The fixed part of a compiled file; the table path (zero-padded to 8 bytes),
// the three tables and the checksum follow it.
struct Header {
  char magic[8];
  std::uint64_t size;
  std::int64_t modifiedSeconds;
  std::int64_t modifiedNanoseconds;
  std::int64_t changedSeconds;
  std::int64_t changedNanoseconds;
  std::uint64_t inode;
  std::uint64_t device;
  std::uint64_t pathBytes;
  char fingerprint[64];
};
static_assert(sizeof(Header) == 136 && sizeof(Header) % 8 == 0, "the header has no padding");

constexpr std::size_t paddedTo8(std::size_t bytes) { return (bytes + 7) & ~std::size_t(7); }

// One multiply-xorshift step per 8-byte word. Every step is a bijection of
// the state for a given word, so a file that differs in any single word
// always gives another checksum; that is all a cache of this machine needs,
// and it costs a fraction of a SHA-256 of the table file.
class Checksum {
 public:
  void add(const void* data, std::size_t bytes) noexcept {
    const auto* p = static_cast<const unsigned char*>(data);
    for (std::size_t i = 0; i + 8 <= bytes; i += 8) {
      std::uint64_t word;
      std::memcpy(&word, p + i, 8);
      state_ ^= word;
      state_ *= 0x9E3779B97F4A7C15ull;
      state_ ^= state_ >> 32;
    }
  }
  std::uint64_t value() const noexcept { return state_; }

 private:
  std::uint64_t state_ = 0x6A09E667F3BCC908ull;
};

bool isLowerHex(std::string_view text) {
  for (char c : text)
    if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) return false;
  return true;
}

// FNV-1a: names the compiled file after the table path, so that one path has
// one compiled file that a changed table simply overwrites.
std::string pathHash(const std::string& path) {
  std::uint64_t hash = 0xcbf29ce484222325ull;
  for (unsigned char c : path) {
    hash ^= c;
    hash *= 0x100000001b3ull;
  }
  static constexpr char digits[] = "0123456789abcdef";
  std::string out(16, '0');
  for (int i = 15; i >= 0; --i, hash >>= 4) out[static_cast<std::size_t>(i)] = digits[hash & 15];
  return out;
}

struct Descriptor {
  int fd;
  ~Descriptor() {
    if (fd >= 0) ::close(fd);
  }
};

bool writeAll(int fd, const void* data, std::size_t bytes) {
  const char* p = static_cast<const char*>(data);
  while (bytes > 0) {
    const ssize_t written = ::write(fd, p, bytes);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return false;
    p += written;
    bytes -= static_cast<std::size_t>(written);
  }
  return true;
}

}  // namespace

std::optional<std::filesystem::path> CompatibilityCache::environmentDirectory() {
  const char* value = std::getenv("TARV_INDEX_CACHE");
  if (value == nullptr || value[0] != '/') return std::nullopt;
  return std::filesystem::path(value);
}

CompatibilityCache::CompatibilityCache(std::filesystem::path directory) : directory_(std::move(directory)) {}

std::filesystem::path CompatibilityCache::fileOf(const std::filesystem::path& table) const {
  return directory_ / ("vantor-" + pathHash(table.native()) + kExtension);
}

std::optional<CompatibilityCache::Identity> CompatibilityCache::identityOf(const std::filesystem::path& table) {
  struct stat info {};
  if (::stat(table.c_str(), &info) != 0) return std::nullopt;
  Identity identity;
  identity.size = static_cast<std::uint64_t>(info.st_size);
#if defined(__APPLE__)
  identity.modifiedSeconds = info.st_mtimespec.tv_sec;
  identity.modifiedNanoseconds = info.st_mtimespec.tv_nsec;
  identity.changedSeconds = info.st_ctimespec.tv_sec;
  identity.changedNanoseconds = info.st_ctimespec.tv_nsec;
#else
  identity.modifiedSeconds = info.st_mtim.tv_sec;
  identity.modifiedNanoseconds = info.st_mtim.tv_nsec;
  identity.changedSeconds = info.st_ctim.tv_sec;
  identity.changedNanoseconds = info.st_ctim.tv_nsec;
#endif
  identity.inode = static_cast<std::uint64_t>(info.st_ino);
  identity.device = static_cast<std::uint64_t>(info.st_dev);
  return identity;
}

std::shared_ptr<const Compatibility> CompatibilityCache::load(const std::filesystem::path& table) const {
  const std::optional<Identity> before = identityOf(table);
  if (before) {
    if (auto compiled = read(table, *before)) return compiled;
  }
  // Not compiled yet, stale or damaged: the table file decides, with its own
  // errors, and the copy is written only when the file stood still meanwhile.
  const std::string bytes = files::readAll(table);
  std::shared_ptr<const Compatibility> parsed = Compatibility::parse(bytes);
  if (before && before->size == bytes.size() && identityOf(table) == before) write(table, *before, *parsed);
  return parsed;
}

std::shared_ptr<const Compatibility> CompatibilityCache::read(const std::filesystem::path& table,
                                                              const Identity& identity) const {
  const std::string& path = table.native();
  const std::size_t pathSpace = paddedTo8(path.size());
  const std::size_t total = sizeof(Header) + pathSpace + 3 * kTableBytes + sizeof(std::uint64_t);

  Descriptor file{::open(fileOf(table).c_str(), O_RDONLY | O_CLOEXEC)};
  if (file.fd < 0) return nullptr;
  struct stat info {};
  if (::fstat(file.fd, &info) != 0 || !S_ISREG(info.st_mode) || static_cast<std::uint64_t>(info.st_size) != total)
    return nullptr;

  // One read straight into the tables' own buffers: no copy beyond the page
  // cache's, and no parsing.
  std::shared_ptr<Compatibility> compiled(new Compatibility());
  Header header{};
  std::string storedPath(pathSpace, '\0');
  std::uint64_t storedChecksum = 0;
  iovec parts[] = {
      {&header, sizeof header},
      {storedPath.data(), pathSpace},
      {compiled->search_.data(), kTableBytes},
      {compiled->order_.data(), kTableBytes},
      {compiled->letterCase_.data(), kTableBytes},
      {&storedChecksum, sizeof storedChecksum},
  };
  ssize_t got;
  do {
    got = ::readv(file.fd, parts, 6);
  } while (got < 0 && errno == EINTR);
  // A short read means the file shrank under us: not worth resuming.
  if (got < 0 || static_cast<std::size_t>(got) != total) return nullptr;

  const Identity stored{header.size,           header.modifiedSeconds, header.modifiedNanoseconds,
                        header.changedSeconds, header.changedNanoseconds, header.inode,
                        header.device};
  if (std::memcmp(header.magic, kMagic, sizeof kMagic) != 0 || stored != identity || header.pathBytes != path.size())
    return nullptr;
  if (std::string_view(storedPath).substr(0, path.size()) != path ||
      storedPath.find_first_not_of('\0', path.size()) != std::string::npos)
    return nullptr;
  const std::string_view fingerprint(header.fingerprint, sizeof header.fingerprint);
  if (!isLowerHex(fingerprint)) return nullptr;

  Checksum checksum;
  for (std::size_t i = 0; i < 5; ++i) checksum.add(parts[i].iov_base, parts[i].iov_len);
  if (checksum.value() != storedChecksum) return nullptr;

  compiled->fingerprint_.assign(fingerprint);
  return compiled;
}

bool CompatibilityCache::write(const std::filesystem::path& table, const Identity& identity,
                               const Compatibility& compatibility) const {
  const std::string& fingerprint = compatibility.fingerprint();
  if (fingerprint.size() != sizeof(Header::fingerprint)) return false;  // tables built in memory have none
  const std::string& path = table.native();

  Header header{};
  std::memcpy(header.magic, kMagic, sizeof kMagic);
  header.size = identity.size;
  header.modifiedSeconds = identity.modifiedSeconds;
  header.modifiedNanoseconds = identity.modifiedNanoseconds;
  header.changedSeconds = identity.changedSeconds;
  header.changedNanoseconds = identity.changedNanoseconds;
  header.inode = identity.inode;
  header.device = identity.device;
  header.pathBytes = path.size();
  std::memcpy(header.fingerprint, fingerprint.data(), sizeof header.fingerprint);
  std::string paddedPath = path;
  paddedPath.resize(paddedTo8(path.size()), '\0');

  Checksum checksum;
  checksum.add(&header, sizeof header);
  checksum.add(paddedPath.data(), paddedPath.size());
  checksum.add(compatibility.search_.data(), kTableBytes);
  checksum.add(compatibility.order_.data(), kTableBytes);
  checksum.add(compatibility.letterCase_.data(), kTableBytes);
  const std::uint64_t sum = checksum.value();

  // The cache folder may not exist before the first index is stored; only
  // its last component is made here, private like the index files.
  ::mkdir(directory_.c_str(), 0700);
  const std::filesystem::path target = fileOf(table);
  // A side file of its own per writer: two processes compiling at once must
  // not write into one file.
  std::string side = target.native() + ".XXXXXX";
  Descriptor file{::mkstemp(side.data())};
  if (file.fd < 0) return false;
  ::fchmod(file.fd, 0600);
  const bool written = writeAll(file.fd, &header, sizeof header) &&
                       writeAll(file.fd, paddedPath.data(), paddedPath.size()) &&
                       writeAll(file.fd, compatibility.search_.data(), kTableBytes) &&
                       writeAll(file.fd, compatibility.order_.data(), kTableBytes) &&
                       writeAll(file.fd, compatibility.letterCase_.data(), kTableBytes) &&
                       writeAll(file.fd, &sum, sizeof sum);
  const bool closed = ::close(file.fd) == 0;
  file.fd = -1;
  if (!written || !closed || ::rename(side.c_str(), target.c_str()) != 0) {
    ::unlink(side.c_str());
    return false;
  }
  return true;
}

}  // namespace tarv
