#include "kernel/base/sha256.h"

// The direct SHA-256 functions rather than the EVP interface: the first EVP
// digest of a process loads and initialises the provider machinery (about
// six million instructions, a millisecond or two of every short command),
// while the direct functions run the same assembly with no set-up. They are
// marked deprecated but stay in every libcrypto 3.
#define OPENSSL_SUPPRESS_DEPRECATED
#include <openssl/sha.h>

namespace tarv {

struct Sha256::State {
  SHA256_CTX context;
};

Sha256::Sha256() : state_(std::make_unique<State>()) { SHA256_Init(&state_->context); }

Sha256::~Sha256() = default;

void Sha256::update(const void* data, std::size_t size) {
  if (size) SHA256_Update(&state_->context, data, size);
}

std::string Sha256::finishBytes() {
  unsigned char digest[SHA256_DIGEST_LENGTH];
  SHA256_Final(digest, &state_->context);
  return std::string(reinterpret_cast<const char*>(digest), sizeof digest);
}

std::string Sha256::finishHex() { return hexDigits(finishBytes()); }

std::string Sha256::hex(std::string_view bytes) {
  Sha256 digest;
  digest.update(bytes.data(), bytes.size());
  return digest.finishHex();
}

std::string hexDigits(std::string_view bytes) {
  static constexpr char digits[] = "0123456789abcdef";
  std::string out;
  out.reserve(bytes.size() * 2);
  for (unsigned char b : bytes) {
    out.push_back(digits[b >> 4]);
    out.push_back(digits[b & 15]);
  }
  return out;
}

}  // namespace tarv
