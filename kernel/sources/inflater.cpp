#include "kernel/sources/inflater.h"

#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <cerrno>

#include "kernel/base/kernel_error.h"

namespace tarv {
namespace {

constexpr int kFlagHeaderCrc = 0x02;
constexpr int kFlagExtra = 0x04;
constexpr int kFlagName = 0x08;
constexpr int kFlagComment = 0x10;

KernelError notGzip() { return KernelError::io("Not in GZIP format"); }
KernelError truncatedHeader() { return KernelError::io("Unexpected end of gzip data"); }

std::uint32_t littleEndian32(const unsigned char* p) {
  return std::uint32_t(p[0]) | std::uint32_t(p[1]) << 8 | std::uint32_t(p[2]) << 16 | std::uint32_t(p[3]) << 24;
}

}  // namespace

struct Inflater::Stream {
  z_stream z{};
};

Inflater::Inflater(int fd, std::string path) : fd_(fd), path_(std::move(path)) {
  struct stat info {};
  if (::fstat(fd_, &info) != 0) throw systemError("Cannot read", path_, errno);
  if (info.st_size < static_cast<off_t>(kMinimumFileSize)) throw notGzip();

  // The trailer is taken from the very end of the file: a second member or
  // bytes after the first one make the check fail instead of being read.
  unsigned char trailer[8];
  std::size_t got = 0;
  while (got < sizeof trailer) {
    ssize_t n = ::pread(fd_, trailer + got, sizeof trailer - got, info.st_size - 8 + static_cast<off_t>(got));
    if (n < 0) {
      if (errno == EINTR) continue;
      throw systemError("Cannot read", path_, errno);
    }
    if (n == 0) throw truncatedHeader();  // the file shrank under us
    got += static_cast<std::size_t>(n);
  }
  expectedCrc_ = littleEndian32(trailer);
  expectedSize_ = littleEndian32(trailer + 4);
  if (::lseek(fd_, 0, SEEK_SET) < 0) throw systemError("Cannot read", path_, errno);

  input_ = std::make_unique_for_overwrite<char[]>(kBlockSize);
  output_ = std::make_unique_for_overwrite<char[]>(kBlockSize);
  stream_ = std::make_unique<Stream>();
}

Inflater::~Inflater() {
  if (active_) inflateEnd(&stream_->z);
}

bool Inflater::fillInput() {
  if (inputEnded_) return false;
  for (;;) {
    ssize_t n = ::read(fd_, input_.get(), kBlockSize);
    if (n < 0) {
      if (errno == EINTR) continue;
      throw systemError("Cannot read", path_, errno);
    }
    inputPosition_ = 0;
    inputSize_ = static_cast<std::size_t>(n);
    if (n == 0) inputEnded_ = true;
    return n > 0;
  }
}

int Inflater::byte() {
  if (inputPosition_ == inputSize_ && !fillInput()) return -1;
  return static_cast<unsigned char>(input_[inputPosition_++]);
}

void Inflater::header() {
  int id1 = byte();
  if (id1 < 0) throw notGzip();
  int id2 = byte();
  int method = byte();
  if (id1 != 0x1F || id2 != 0x8B || method != 8) {
    if (id2 < 0 || method < 0) throw truncatedHeader();
    throw notGzip();
  }
  auto need = [this] {
    int b = byte();
    if (b < 0) throw truncatedHeader();
    return b;
  };
  int flags = need();
  for (int i = 0; i < 6; ++i) need();  // modification time, extra flags, operating system
  if (flags & kFlagExtra) {
    int length = need();
    length |= need() << 8;
    for (int i = 0; i < length; ++i) need();
  }
  if (flags & kFlagName)
    while (need() != 0) {
    }
  if (flags & kFlagComment)
    while (need() != 0) {
    }
  if (flags & kFlagHeaderCrc) {
    need();
    need();
  }
  // Negative window bits: raw deflate, the gzip framing is ours to handle.
  if (inflateInit2(&stream_->z, -MAX_WBITS) != Z_OK) throw KernelError::io("Cannot initialise inflater");
  active_ = true;
  headerRead_ = true;
}

std::span<const char> Inflater::read() {
  if (done_) return {};
  if (!headerRead_) header();
  z_stream& z = stream_->z;
  for (;;) {
    if (inputPosition_ == inputSize_) fillInput();
    z.next_in = reinterpret_cast<Bytef*>(input_.get() + inputPosition_);
    z.avail_in = static_cast<uInt>(inputSize_ - inputPosition_);
    z.next_out = reinterpret_cast<Bytef*>(output_.get());
    z.avail_out = static_cast<uInt>(kBlockSize);
    int status = inflate(&z, Z_NO_FLUSH);
    inputPosition_ = inputSize_ - z.avail_in;
    std::size_t made = kBlockSize - z.avail_out;
    if (made > 0) {
      crc_ = static_cast<std::uint32_t>(
          crc32(crc_, reinterpret_cast<const Bytef*>(output_.get()), static_cast<uInt>(made)));
      produced_ += static_cast<std::uint32_t>(made);
    }
    if (status == Z_STREAM_END) {
      inflateEnd(&z);
      active_ = false;
      done_ = true;
      if (crc_ != expectedCrc_ || produced_ != expectedSize_) throw KernelError::io("Corrupt GZIP trailer");
      return {output_.get(), made};
    }
    // Z_BUF_ERROR only says no progress was possible; running out of input is
    // judged below. Every other status is damage in the deflate data.
    if (status != Z_OK && status != Z_BUF_ERROR) throw KernelError::io("Corrupt gzip data");
    // With input and room for output the decoder always moves; if it ever
    // does not, stop instead of spinning.
    if (status == Z_BUF_ERROR && made == 0 && z.avail_in > 0) throw KernelError::io("Corrupt gzip data");
    if (made > 0) return {output_.get(), made};
    if (inputEnded_ && inputPosition_ == inputSize_) throw KernelError::io("Unexpected end of ZLIB input stream");
  }
}

}  // namespace tarv
