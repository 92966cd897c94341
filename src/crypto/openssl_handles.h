// Owning handles of OpenSSL objects, for the .cpp files of this folder alone.
//
// Everything that may hold a secret is freed with clearing.

#pragma once

#include <openssl/bn.h>
#include <openssl/ec.h>
#include <openssl/err.h>
#include <openssl/evp.h>

#include <memory>

namespace norvel::crypto {

template <auto Free>
struct OpensslDeleter {
  template <typename T>
  void operator()(T* object) const {
    Free(object);
  }
};

using BigNumber = std::unique_ptr<BIGNUM, OpensslDeleter<BN_clear_free>>;
using BigNumberContext = std::unique_ptr<BN_CTX, OpensslDeleter<BN_CTX_free>>;
using EcPoint = std::unique_ptr<EC_POINT, OpensslDeleter<EC_POINT_clear_free>>;
using PrivateKeyHandle = std::unique_ptr<EVP_PKEY, OpensslDeleter<EVP_PKEY_free>>;
using CipherContext = std::unique_ptr<EVP_CIPHER_CTX, OpensslDeleter<EVP_CIPHER_CTX_free>>;
using DigestContext = std::unique_ptr<EVP_MD_CTX, OpensslDeleter<EVP_MD_CTX_free>>;
using MacContext = std::unique_ptr<EVP_MAC_CTX, OpensslDeleter<EVP_MAC_CTX_free>>;

// Takes the entries that it sees added off the thread's error queue again: TLS
// code on the same thread reads that queue as the cause of its own failures.
class ErrorQueueMark {
 public:
  ErrorQueueMark() { ERR_set_mark(); }
  ~ErrorQueueMark() { ERR_pop_to_mark(); }
  ErrorQueueMark(const ErrorQueueMark&) = delete;
  ErrorQueueMark& operator=(const ErrorQueueMark&) = delete;
};

}  // namespace norvel::crypto
