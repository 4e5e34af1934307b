#pragma once
// Inflater: turns a single-member gzip file into its decompressed bytes, one
// block of at most 1 MiB at a time, with zlib's raw-deflate decoder. The gzip
// header is parsed here; the trailer (CRC-32 and length modulo 2^32) is read
// from the last eight bytes of the file up front and checked when the deflate
// stream ends, so a second member or trailing garbage is reported as a corrupt
// trailer rather than read.
//
// Borrows the file descriptor of its ByteSource (never closes it). Not
// thread-safe; one reader at a time. Every failure is KernelError::io.

#include <cstdint>
#include <memory>
#include <span>
#include <string>

namespace tarv {

class Inflater {
 public:
  // Reads the trailer of the file open on `fd` and seeks back to its start.
  // Throws io("Not in GZIP format") for a file shorter than 18 bytes, and the
  // system's error (named with `path`) when seeking or reading fails.
  Inflater(int fd, std::string path);
  ~Inflater();
  Inflater(const Inflater&) = delete;
  Inflater& operator=(const Inflater&) = delete;

  // The next block of decompressed bytes; empty at the end of the data. The
  // block stays valid until the next call. Parses the header on the first
  // call. Throws io("Not in GZIP format"), io("Unexpected end of gzip data"),
  // io("Cannot initialise inflater"), io("Corrupt gzip data"),
  // io("Corrupt GZIP trailer") or io("Unexpected end of ZLIB input stream").
  std::span<const char> read();

  static constexpr std::size_t kBlockSize = 1 << 20;
  static constexpr std::size_t kMinimumFileSize = 18;  // 10-byte header + 8-byte trailer

 private:
  struct Stream;

  void header();
  // The next compressed byte, or -1 at the end of the file.
  int byte();
  // Reads the next block of compressed bytes; false (and inputEnded_) at the end.
  bool fillInput();

  int fd_;
  std::string path_;
  std::unique_ptr<char[]> input_;
  std::size_t inputSize_ = 0;
  std::size_t inputPosition_ = 0;
  bool inputEnded_ = false;
  std::unique_ptr<char[]> output_;
  std::unique_ptr<Stream> stream_;
  bool active_ = false;
  bool done_ = false;
  bool headerRead_ = false;
  std::uint32_t crc_ = 0;
  std::uint32_t produced_ = 0;  // wraps like the trailer's size field
  std::uint32_t expectedCrc_ = 0;
  std::uint32_t expectedSize_ = 0;
};

}  // namespace tarv
