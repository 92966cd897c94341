#include <algorithm>
#include <stdexcept>
#include <string>

#include "crypto/address.h"
#include "crypto/base58.h"
#include "fuzz_target.h"

// Base58 has one text for all bytes, and an address one for its hash. Zero has a
// digit of its own behind its leading zeros, so it comes back two longer.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace norvel;
  using namespace norvel::crypto;
  const Bytes bytes(data, data + size);
  const std::string text(bytes.begin(), bytes.end());
  const auto is_zero = [](uint8_t byte) { return byte == 0; };
  Bytes back = bytes;
  back.resize(size + (std::ranges::all_of(bytes, is_zero) ? 2 : 0));
  require(base58_decode(base58_encode(bytes)) == back);
  try {
    const Bytes decoded = base58_decode(text);
    require(base58_encode(decoded) == (std::ranges::all_of(decoded, is_zero) ? text + "11" : text));
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
