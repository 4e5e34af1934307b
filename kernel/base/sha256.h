#pragma once
// SHA-256 digests as lowercase hexadecimal, for source fingerprints, cache keys
// and the comparison table's fingerprint. Backed by libcrypto.

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

namespace tarv {

class Sha256 {
 public:
  Sha256();
  ~Sha256();
  Sha256(const Sha256&) = delete;
  Sha256& operator=(const Sha256&) = delete;

  void update(const void* data, std::size_t size);
  // The 32 digest bytes; the object must not be updated afterwards.
  std::string finishBytes();
  // The digest as 64 lowercase hexadecimal digits.
  std::string finishHex();

  static std::string hex(std::string_view bytes);

 private:
  struct State;
  std::unique_ptr<State> state_;
};

// Lowercase hexadecimal of arbitrary bytes ("%02x" each, no separator).
std::string hexDigits(std::string_view bytes);

}  // namespace tarv
