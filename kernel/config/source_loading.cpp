// Loading a configured source with the reader of its format, and the source
// file's fingerprint.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>

#include "kernel/base/kernel_error.h"
#include "kernel/base/sha256.h"
#include "kernel/config/configuration.h"
#include "kernel/sources/byte_source.h"
#include "kernel/sources/efu_reader.h"
#include "kernel/sources/gfind_reader.h"
#include "kernel/sources/load_progress.h"
#include "kernel/sources/snapshot_reader.h"

namespace tarv {
namespace {

constexpr std::size_t kChunkSize = 1 << 20;

// The digest of a plain file read in 1 MiB chunks; closing is checked too,
// since a failed close can hide a failed read on some file systems.
std::string plainDigest(const std::filesystem::path& url) {
  int fd = ::open(url.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) throw systemError("Cannot read", url.string(), errno);
  Sha256 digest;
  auto chunk = std::make_unique_for_overwrite<char[]>(kChunkSize);
  std::uint64_t total = 0;
  std::uint64_t done = 0;
  if (LoadProgress::active()) {
    struct stat info {};
    if (::fstat(fd, &info) == 0 && S_ISREG(info.st_mode)) total = static_cast<std::uint64_t>(info.st_size);
  }
  for (;;) {
    ssize_t n = ::read(fd, chunk.get(), kChunkSize);
    if (n < 0) {
      if (errno == EINTR) continue;
      int error = errno;
      ::close(fd);
      throw systemError("Cannot read", url.string(), error);
    }
    if (n == 0) break;
    digest.update(chunk.get(), static_cast<std::size_t>(n));
    done += static_cast<std::uint64_t>(n);
    LoadProgress::advance(done, total, 0);
  }
  if (::close(fd) != 0) throw systemError("Cannot close", url.string(), errno);
  return digest.finishHex();
}

std::string decompressedDigest(const std::filesystem::path& url) {
  ByteSource source(url);
  Sha256 digest;
  for (std::span<const char> block = source.block(); !block.empty(); block = source.block()) {
    digest.update(block.data(), block.size());
    if (LoadProgress::active()) {
      ByteSource::FilePosition at = source.filePosition();
      LoadProgress::advance(at.done, at.total, 0);
    }
  }
  source.close();
  return digest.finishHex();
}

// The reader of the source's format.
Catalog readWithFormat(const Configuration::Source& source) {
  if (source.format == "efu") {
    // The configuration reader guarantees a virtual directory for EFU sources;
    // a Source built by hand without one is refused with the same message.
    if (!source.virtualDirectory) throw KernelError::invalid("EFU requires explicit Windows virtualDirectory");
    EfuReader::checkHeader(source.file);
    return EfuReader::load(source.file, source.id, *source.virtualDirectory);
  }
  if (source.format == "gfind" || source.format == "gfind7")
    return GfindReader::load(source.file, source.id, source.root, source.format == "gfind7");
  if (source.format == "snapshot-v1") return SnapshotReader::load(source.file, source.id, source.root);
  throw KernelError::invalid("Invalid source format/state");
}

}  // namespace

Catalog Configuration::Source::load() const {
  LoadProgress::phase(LoadProgress::Phase::reading);
  Catalog catalog = readWithFormat(*this);
  // Readers report before each block, so the last word on the count is said
  // here: whoever shows the next phase shows the catalog's own size.
  if (LoadProgress::active()) {
    std::error_code error;
    std::uintmax_t size = std::filesystem::file_size(file, error);
    std::uint64_t bytes = error ? 0 : static_cast<std::uint64_t>(size);
    LoadProgress::advance(bytes, bytes, static_cast<std::uint64_t>(catalog.count()));
  }
  return catalog;
}

std::string Configuration::sha256(const std::filesystem::path& url) {
  LoadProgress::phase(LoadProgress::Phase::fingerprint);
  return ByteSource::isCompressed(url) ? decompressedDigest(url) : plainDigest(url);
}

}  // namespace tarv
