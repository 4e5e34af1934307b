// libFuzzer target: gzip input on arbitrary bytes, read block by block as
// every source reader reads it, and hashed as the fingerprint reads it. Both
// either reach the end or fail with one KernelError, and agree on which.

#include <cstddef>
#include <cstdint>

#include "fuzz/fuzz_support.h"
#include "kernel/base/kernel_error.h"
#include "kernel/config/configuration.h"
#include "kernel/sources/byte_source.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace tarv;
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  const std::filesystem::path path = fuzz::writeScratch("source.gz", bytes);
  bool read = false;
  try {
    ByteSource source(path);
    std::size_t total = 0;
    // Single bytes first, then whole blocks: both paths through the inflater.
    for (int i = 0; i < 16 && source.byte() != ByteSource::kEnd; ++i) ++total;
    for (std::span<const char> block = source.block(); !block.empty(); block = source.block()) {
      fuzz::check(block.size() <= ByteSource::kBlockSize, "block larger than the block size");
      total += block.size();
    }
    source.close();
    read = true;
  } catch (const KernelError&) {
  }
  bool hashed = false;
  try {
    fuzz::check(Configuration::sha256(path).size() == 64, "fingerprint is not 64 hex digits");
    hashed = true;
  } catch (const KernelError&) {
  }
  fuzz::check(read == hashed, "reading and hashing disagree on whether the input is valid");
  return 0;
}
