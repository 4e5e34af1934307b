#include "kernel/index/index_file.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <limits>

namespace tarv {
namespace {

// Owns one read-only mapping; the last column or reader holding it unmaps it.
struct Mapping {
  void* address = nullptr;
  std::size_t length = 0;
  Mapping(void* a, std::size_t l) : address(a), length(l) {}
  Mapping(const Mapping&) = delete;
  Mapping& operator=(const Mapping&) = delete;
  ~Mapping() {
    if (address) ::munmap(address, length);
  }
};

// Closes a descriptor on every path out of the reader's constructor.
struct Descriptor {
  int fd;
  ~Descriptor() {
    if (fd >= 0) ::close(fd);
  }
};

// A JSON integer as int64, or false when it is not an integer or does not fit.
bool readInteger(const json::Value& value, std::int64_t& out) {
  if (value.is_number_unsigned()) {
    auto v = value.get<std::uint64_t>();
    if (v > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) return false;
    out = static_cast<std::int64_t>(v);
    return true;
  }
  if (value.is_number_integer()) {
    out = value.get<std::int64_t>();
    return true;
  }
  return false;
}

}  // namespace

// ---------------------------------------------------------------- Writer

IndexFile::Writer::Writer(std::filesystem::path url) : url_(std::move(url)) {
  partial_ = url_;
  partial_ += ".partial";
  ::unlink(partial_.c_str());
  handle_ = ::open(partial_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (handle_ < 0) throw KernelError::io("Cannot create index file");
  // The process umask can only narrow the mode, but an inherited file system
  // default could differ; the cache must stay private to its owner.
  ::fchmod(handle_, 0600);
  try {
    char header[kHeaderBytes] = {};
    std::memcpy(header, kMagic, sizeof kMagic);
    writeAll(header, sizeof header);
  } catch (...) {
    abandon();
    throw;
  }
  position_ = kHeaderBytes;
}

IndexFile::Writer::~Writer() {
  if (!done_) abandon();
}

void IndexFile::Writer::writeAll(const void* data, std::size_t bytes) {
  const char* p = static_cast<const char*>(data);
  while (bytes > 0) {
    // Large sections go out in bounded pieces so one write never exceeds what
    // the kernel accepts in a single call.
    const std::size_t piece = std::min<std::size_t>(bytes, std::size_t(1) << 30);
    ssize_t n = ::write(handle_, p, piece);
    if (n < 0) {
      if (errno == EINTR) continue;
      throw systemError("Cannot write index file", partial_.string(), errno);
    }
    p += n;
    bytes -= static_cast<std::size_t>(n);
  }
}

void IndexFile::Writer::addBytes(std::string_view name, const void* data, std::size_t bytes) {
  if (handle_ < 0) throw KernelError::io("Index file writer is closed");
  static constexpr char zeros[kAlignment] = {};
  const std::int64_t padding = (kAlignment - position_ % kAlignment) % kAlignment;
  if (padding > 0) writeAll(zeros, static_cast<std::size_t>(padding));
  position_ += padding;
  json::Value entry = json::Value::object();
  entry["name"] = std::string(name);
  entry["offset"] = position_;
  entry["bytes"] = static_cast<std::int64_t>(bytes);
  sections_.push_back(std::move(entry));
  if (bytes > 0) writeAll(data, bytes);
  position_ += static_cast<std::int64_t>(bytes);
}

void IndexFile::Writer::startWriteback() noexcept {
  if (handle_ < 0) return;
#if defined(__linux__)
  // Asynchronous: queues what is written so far for the disk and returns, so
  // that the flush in finish() has only the rest left to wait for.
  (void)::sync_file_range(handle_, 0, position_, SYNC_FILE_RANGE_WRITE);
#endif
}

void IndexFile::Writer::finish() {
  if (handle_ < 0) throw KernelError::io("Index file writer is closed");
  meta_["format"] = kFormat;
  meta_["sections"] = sections_;
  const std::string trailer = json::encode(meta_, json::Style::compact);
  writeAll(trailer.data(), trailer.size());
  unsigned char offset[8];
  const auto value = static_cast<std::uint64_t>(position_);
  for (int i = 0; i < 8; ++i) offset[i] = static_cast<unsigned char>(value >> (8 * i));
  for (;;) {
    if (::pwrite(handle_, offset, sizeof offset, 8) == static_cast<ssize_t>(sizeof offset)) break;
    if (errno == EINTR) continue;
    throw systemError("Cannot write index file", partial_.string(), errno);
  }
  // The data must be on disk before the name is: after a power cut, a
  // renamed file whose blocks were never written would read as zeros or
  // stale bytes under a valid trailer, and be trusted.
  if (::fdatasync(handle_) != 0) throw systemError("Cannot write index file", partial_.string(), errno);
  const int fd = handle_;
  handle_ = -1;
  if (::close(fd) != 0) throw systemError("Cannot write index file", partial_.string(), errno);
  // rename() replaces an existing file atomically, so a reader sees the old
  // index or the new one and never a gap; a mapping of the old file stays valid.
  if (::rename(partial_.c_str(), url_.c_str()) != 0)
    throw systemError("Cannot move index file into place", url_.string(), errno);
  done_ = true;
}

void IndexFile::Writer::abandon() noexcept {
  if (handle_ >= 0) {
    ::close(handle_);
    handle_ = -1;
  }
  if (!done_) ::unlink(partial_.c_str());
  done_ = true;
}

// ---------------------------------------------------------------- Reader

IndexFile::Reader::Reader(const std::filesystem::path& url) {
  // O_NONBLOCK: opening a FIFO planted under an index name must not hang.
  Descriptor file{::open(url.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)};
  if (file.fd < 0) throw KernelError::io("Cannot open index file");
  struct stat info {};
  if (::fstat(file.fd, &info) != 0 || !S_ISREG(info.st_mode) || info.st_size < kHeaderBytes)
    throw KernelError::io("Invalid index file");
  const auto length = static_cast<std::size_t>(info.st_size);
  void* address = ::mmap(nullptr, length, PROT_READ, MAP_PRIVATE, file.fd, 0);
  if (address == MAP_FAILED) throw KernelError::io("Cannot map index file");
  // Columns are scanned in hundreds of megabytes. Read in through a mapping
  // that asks for large pages, the file stays in the page cache in 2 MiB
  // pieces that later processes map one table entry each: a scan then takes
  // a few hundred faults instead of tens of thousands, and unmapping at exit
  // (which otherwise costs a process tens of milliseconds after a broad
  // search) becomes nearly free. A hint only; refusal changes nothing.
  ::madvise(address, length, MADV_HUGEPAGE);
  auto mapping = std::make_shared<const Mapping>(address, length);
  ::close(file.fd);
  file.fd = -1;

  const auto* bytes = static_cast<const std::byte*>(address);
  const auto size = static_cast<std::int64_t>(length);
  std::uint64_t rawOffset = 0;
  for (int i = 0; i < 8; ++i) rawOffset |= std::uint64_t(std::to_integer<unsigned>(bytes[8 + i])) << (8 * i);
  const auto trailerOffset = static_cast<std::int64_t>(rawOffset);
  if (std::memcmp(bytes, kMagic, sizeof kMagic) != 0 || trailerOffset < kHeaderBytes || trailerOffset >= size)
    throw KernelError::io("Unsupported index file");

  const auto* trailerBegin = reinterpret_cast<const char*>(bytes + trailerOffset);
  const auto* trailerEnd = reinterpret_cast<const char*>(bytes + size);
  json::Value trailer;
  try {
    trailer = json::Value::parse(trailerBegin, trailerEnd);
  } catch (const json::Value::exception& e) {
    throw KernelError::io(std::string("Invalid index trailer: ") + e.what());
  }
  if (!trailer.is_object()) throw KernelError::io("Unsupported index file");
  auto format = trailer.find("format");
  if (format == trailer.end() || !format->is_number_integer() || *format != kFormat)
    throw KernelError::io("Unsupported index file");
  auto list = trailer.find("sections");
  if (list == trailer.end() || !list->is_array()) throw KernelError::io("Unsupported index file");
  for (const auto& entry : *list)
    if (!entry.is_object()) throw KernelError::io("Unsupported index file");

  std::map<std::string, Section, std::less<>> sections;
  for (const auto& entry : *list) {
    auto name = entry.find("name");
    auto offset = entry.find("offset");
    auto count = entry.find("bytes");
    Section s;
    if (name == entry.end() || !name->is_string() || offset == entry.end() || !readInteger(*offset, s.offset) ||
        s.offset < kHeaderBytes || count == entry.end() || !readInteger(*count, s.bytes) || s.bytes < 0 ||
        s.bytes > trailerOffset - s.offset)
      throw KernelError::io("Invalid index section");
    sections[name->get<std::string>()] = s;
  }

  meta_ = std::move(trailer);
  mapping_ = std::move(mapping);
  base_ = bytes;
  size_ = size;
  sections_ = std::move(sections);
}

std::int64_t IndexFile::Reader::integer(std::string_view key) const {
  auto it = meta_.find(key);
  std::int64_t value = 0;
  if (it == meta_.end() || !readInteger(*it, value)) throw KernelError::io("Missing index value " + std::string(key));
  return value;
}

bool IndexFile::Reader::has(std::string_view name) const { return sections_.find(name) != sections_.end(); }

}  // namespace tarv
