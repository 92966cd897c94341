#include "crypto/secure_zero.h"

#include <openssl/crypto.h>

namespace norvel::crypto {

void secure_zero(void* data, size_t size) {
  if (size != 0) {
    OPENSSL_cleanse(data, size);
  }
}

void secure_zero(Bytes& data) {
  secure_zero(data.data(), data.size());
  data.clear();
}

}  // namespace norvel::crypto
