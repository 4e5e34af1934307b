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

}  // namespace

Catalog Configuration::Source::load() const {
  LoadProgress::phase(LoadProgress::Phase::reading);
  if (format == "efu") {
    // The configuration reader guarantees a virtual directory for EFU sources;
    // a Source built by hand without one is refused with the same message.
    if (!virtualDirectory) throw KernelError::invalid("EFU requires explicit Windows virtualDirectory");
    EfuReader::checkHeader(file);
    return EfuReader::load(file, id, *virtualDirectory);
  }
  if (format == "gfind" || format == "gfind7") return GfindReader::load(file, id, root, format == "gfind7");
  if (format == "snapshot-v1") return SnapshotReader::load(file, id, root);
  throw KernelError::invalid("Invalid source format/state");
}

std::string Configuration::sha256(const std::filesystem::path& url) {
  LoadProgress::phase(LoadProgress::Phase::fingerprint);
  return ByteSource::isCompressed(url) ? decompressedDigest(url) : plainDigest(url);
}

}  // namespace tarv
