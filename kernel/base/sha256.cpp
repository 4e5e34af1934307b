#include "kernel/base/sha256.h"

#include <openssl/evp.h>

#include <stdexcept>

namespace tarv {

struct Sha256::State {
  EVP_MD_CTX* context = nullptr;
};

Sha256::Sha256() : state_(std::make_unique<State>()) {
  state_->context = EVP_MD_CTX_new();
  if (!state_->context || EVP_DigestInit_ex(state_->context, EVP_sha256(), nullptr) != 1)
    throw std::runtime_error("SHA-256 unavailable");
}

Sha256::~Sha256() { EVP_MD_CTX_free(state_->context); }

void Sha256::update(const void* data, std::size_t size) {
  if (size) EVP_DigestUpdate(state_->context, data, size);
}

std::string Sha256::finishBytes() {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  EVP_DigestFinal_ex(state_->context, digest, &length);
  return std::string(reinterpret_cast<const char*>(digest), length);
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
