#include <stdexcept>
#include <string>

#include "crypto/address.h"
#include "crypto/base58.h"
#include "fuzz_target.h"

// Base58 has one text for all bytes, and an address one for its hash.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace norvel;
  using namespace norvel::crypto;
  const Bytes bytes(data, data + size);
  const std::string text(bytes.begin(), bytes.end());
  require(base58_decode(base58_encode(bytes)) == bytes);
  try {
    require(base58_encode(base58_decode(text)) == text);
  } catch (const std::runtime_error&) {
    // Not of its characters.
  }
  if (validate_address(text)) {
    require(address_to_hash160(text).size() == 20);
  }
  if (size == 20) {
    const std::string address = hash160_to_address(bytes, 0);
    require(validate_address(address) && address_to_hash160(address) == bytes);
  }
  return 0;
}
