#include "crypto/kdf.h"

#include <bit>
#include <limits>
#include <stdexcept>

#include "crypto/openssl_handles.h"
#include "crypto/secure_zero.h"

namespace norvel::crypto {

namespace {

constexpr size_t kParameterMax = std::numeric_limits<int>::max();

const char* chars(const Bytes& bytes) {
  // OpenSSL takes a null pointer for "no password given".
  return bytes.empty() ? "" : reinterpret_cast<const char*>(bytes.data());
}

}  // namespace

Bytes pbkdf2_hmac_sha256(const Bytes& password, const Bytes& salt, uint32_t iterations, size_t key_len) {
  const ErrorQueueMark mark;
  if (iterations == 0) {
    throw std::runtime_error("pbkdf2_hmac_sha256: iterations must be > 0");
  }
  if (key_len == 0 || key_len > kDerivedKeyBytesMax) {
    throw std::runtime_error("pbkdf2_hmac_sha256: key_len out of range");
  }
  Bytes key(key_len);
  if (password.size() > kParameterMax || salt.size() > kParameterMax || iterations > kParameterMax ||
      PKCS5_PBKDF2_HMAC(chars(password), static_cast<int>(password.size()), salt.data(), static_cast<int>(salt.size()),
                        static_cast<int>(iterations), EVP_sha256(), static_cast<int>(key_len), key.data()) != 1) {
    secure_zero(key);
    throw std::runtime_error("pbkdf2_hmac_sha256: PKCS5_PBKDF2_HMAC failed");
  }
  return key;
}

Bytes scrypt_kdf(const Bytes& password, const Bytes& salt, uint64_t N, uint32_t r, uint32_t p, size_t key_len) {
  const ErrorQueueMark mark;
  if (N < 2 || !std::has_single_bit(N)) {
    throw std::runtime_error("scrypt_kdf: N must be a power of 2 and >= 2");
  }
  if (r == 0) {
    throw std::runtime_error("scrypt_kdf: r must be > 0");
  }
  if (p == 0) {
    throw std::runtime_error("scrypt_kdf: p must be > 0");
  }
  if (key_len == 0 || key_len > kDerivedKeyBytesMax) {
    throw std::runtime_error("scrypt_kdf: key_len must be in [1, 64]");
  }
  constexpr uint64_t kMemoryBytesPerNr = 256;
  Bytes key(key_len);
  // A limit that does not fit 64 bits is memory that no machine has.
  if (r > std::numeric_limits<uint64_t>::max() / kMemoryBytesPerNr / N ||
      EVP_PBE_scrypt(chars(password), password.size(), reinterpret_cast<const unsigned char*>(chars(salt)), salt.size(),
                     N, r, p, N * r * kMemoryBytesPerNr, key.data(), key_len) != 1) {
    secure_zero(key);
    throw std::runtime_error(
        "scrypt_kdf: EVP_PBE_scrypt failed — ensure OpenSSL >= 1.1 and that N/r/p values are valid");
  }
  return key;
}

}  // namespace norvel::crypto
