#include "crypto/encrypted_message.h"

#include "fuzz_target.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace norvel;
  const auto decode = [](ByteView bytes) {
    size_t offset = 0;
    auto message = crypto::EncryptedMessage::deserialize(bytes, offset);
    const Bytes read(bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(offset));
    require(message.serialize() == read);  // the format has one encoding
    return message;
  };
  check_fixed_point({data, size}, decode);
  try {
    // Nobody has the key that this text would be meant for.
    crypto::decrypt_message(decode({data, size}), Bytes(32, 0x11));
  } catch (const std::exception&) {
    // Refused by the decoder, or a malformed key or nonce.
  }
  return 0;
}
