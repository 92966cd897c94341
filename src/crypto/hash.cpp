#include "crypto/hash.h"

#include <array>
#include <new>
#include <span>
#include <stdexcept>
#include <string>

#include "crypto/openssl_handles.h"
#include "crypto/secure_zero.h"

namespace norvel::crypto {

namespace {

constexpr size_t kRipemd160Bytes = 20;

// One algorithm on one thread. Fetching the algorithm or making a context for
// each call would cost more than hashing a block header does.
class Hasher {
 public:
  explicit Hasher(const EVP_MD* algorithm) : algorithm_(algorithm), context_(EVP_MD_CTX_new()) {}

  void hash(ByteView data, std::span<uint8_t> digest, const char* function) {
    if (algorithm_ == nullptr || context_ == nullptr || EVP_DigestInit_ex2(context_.get(), algorithm_, nullptr) != 1 ||
        EVP_DigestUpdate(context_.get(), data.data(), data.size()) != 1 ||
        EVP_DigestFinal_ex(context_.get(), digest.data(), nullptr) != 1) {
      throw std::runtime_error(std::string(function) + ": digest failed");
    }
  }

  // Overwrites the state, which holds the last digest.
  void forget() { EVP_DigestInit_ex2(context_.get(), nullptr, nullptr); }

 private:
  const EVP_MD* algorithm_;
  DigestContext context_;
};

// The fetched algorithms are never freed, so that a thread may hash to the end.
const EVP_MD* sha256_algorithm() {
  static const EVP_MD* const algorithm = EVP_MD_fetch(nullptr, "SHA256", nullptr);
  return algorithm;
}

Hasher& sha256_hasher() {
  static thread_local Hasher hasher(sha256_algorithm());
  return hasher;
}

void sha256_to(ByteView data, std::span<uint8_t, uint256::kSize> digest, const char* function) {
  sha256_hasher().hash(data, digest, function);
}

void ripemd160_to(ByteView data, std::span<uint8_t, kRipemd160Bytes> digest, const char* function) {
  static const EVP_MD* const algorithm = EVP_MD_fetch(nullptr, "RIPEMD160", nullptr);
  static thread_local Hasher hasher(algorithm);
  hasher.hash(data, digest, function);
}

}  // namespace

uint256 sha256(ByteView data) {
  uint256 digest;
  sha256_to(data, digest.bytes(), "sha256");
  return digest;
}

uint256 hash256(ByteView data) {
  std::array<uint8_t, uint256::kSize> inner;
  const WipeOnExit wipe_inner(inner);
  sha256_to(data, inner, "hash256");
  uint256 digest;
  sha256_to(inner, digest.bytes(), "hash256");
  return digest;
}

struct Hash256Prefix::State {
  DigestContext context{EVP_MD_CTX_new()};
};

Hash256Prefix::Hash256Prefix(ByteView prefix) : state_(std::make_unique<State>()) {
  if (sha256_algorithm() == nullptr) {
    throw std::runtime_error("hash256: digest failed");
  }
  EVP_MD_CTX* const context = state_->context.get();
  if (context == nullptr || EVP_DigestInit_ex2(context, sha256_algorithm(), nullptr) != 1 ||
      EVP_DigestUpdate(context, prefix.data(), prefix.size()) != 1) {
    throw std::bad_alloc();
  }
}

Hash256Prefix::~Hash256Prefix() = default;
Hash256Prefix::Hash256Prefix(Hash256Prefix&&) noexcept = default;
Hash256Prefix& Hash256Prefix::operator=(Hash256Prefix&&) noexcept = default;

uint256 Hash256Prefix::finish(ByteView end) const {
  const DigestContext copy{EVP_MD_CTX_new()};
  uint256 inner;
  if (copy == nullptr || EVP_MD_CTX_copy_ex(copy.get(), state_->context.get()) != 1 ||
      EVP_DigestUpdate(copy.get(), end.data(), end.size()) != 1 ||
      EVP_DigestFinal_ex(copy.get(), inner.bytes().data(), nullptr) != 1) {
    throw std::bad_alloc();
  }
  return sha256(inner.bytes());
}

Bytes hash160(ByteView data) {
  std::array<uint8_t, uint256::kSize> inner;
  const WipeOnExit wipe_inner(inner);
  sha256_to(data, inner, "hash160");
  sha256_hasher().forget();
  std::array<uint8_t, kRipemd160Bytes> digest;
  ripemd160_to(inner, digest, "hash160");
  return Bytes(digest.begin(), digest.end());
}

}  // namespace norvel::crypto
