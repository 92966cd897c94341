#include "support/ledger_samples.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <stdexcept>

#include "crypto/address.h"
#include "crypto/hash.h"
#include "crypto/hex.h"
#include "crypto/keys.h"
#include "script/script.h"

namespace norvel {

SampleKey sample_key(uint8_t seed) {
  SampleKey key;
  key.private_key = Bytes(32, seed);
  key.pubkey = crypto::derive_public_key(key.private_key);
  key.pubkey_hash = crypto::hash160(key.pubkey);
  key.address = crypto::hash160_to_address(key.pubkey_hash, 0);
  return key;
}

Bytes random_bytes(std::mt19937_64& random, size_t count) {
  Bytes bytes(count);
  std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<uint8_t>(random()); });
  return bytes;
}

uint256 random_uint256(std::mt19937_64& random) {
  return uint256(random_bytes(random, uint256::kSize));
}

TxOut random_output(std::mt19937_64& random) {
  constexpr size_t kLengths[] = {1, 24, 25, 252, 253, 254, 1'000, 65'535, 65'536};
  const Bytes hash = random_bytes(random, 20);
  const Bytes scripts[] = {
      {},
      Script::create_p2pkh_output(hash).bytes,
      Script::create_htlc_output(hash, hash, random_bytes(random, 32), 1).bytes,
      random_bytes(random, kLengths[random() % (random() % 8 == 0 ? 9 : 7)]),  // the longest seldom, for speed
  };
  TxOut output(static_cast<int64_t>(random()), random_bytes(random, random() % 4 == 0 ? 19 : 20));
  output.script_pubkey = scripts[random() % 4];
  if (random() % 3 == 0) {
    const uint8_t version = random() % 4 == 0 ? 0 : 1;
    output.message = {version, random_bytes(random, random() % 300), random_bytes(random, version == 0 ? 24 : 12),
                      random_bytes(random, 33)};
  }
  return output;
}

Transaction random_transaction(std::mt19937_64& random) {
  Transaction tx;
  tx.type = static_cast<TransactionType>(random());
  tx.version = static_cast<uint32_t>(random());
  tx.timestamp = random();
  tx.locktime = static_cast<uint32_t>(random());
  for (auto count = random() % 4; count > 0; --count) {
    const OutPoint prevout{random_uint256(random), static_cast<uint32_t>(random())};
    tx.inputs.push_back({prevout, random_bytes(random, random() % 300), random_bytes(random, random() % 256),
                         static_cast<uint32_t>(random())});
  }
  for (auto count = random() % 4; count > 0; --count) {
    tx.outputs.push_back(random_output(random));
  }
  return tx;
}

std::optional<std::string> runtime_error_of(const std::function<void()>& call) {
  try {
    call();
  } catch (const std::runtime_error& error) {
    return error.what();
  }
  return std::nullopt;
}

Bytes join_fields(std::span<const FormatField> fields) {
  Bytes bytes;
  for (const FormatField& field : fields) {
    append(bytes, crypto::hex_to_bytes(field.hex));
  }
  return bytes;
}

void expect_cut_messages(std::span<const FormatField> fields, const std::function<void(ByteView)>& read) {
  const Bytes whole = join_fields(fields);
  size_t len = 0;
  for (const FormatField& field : fields) {
    for (const size_t end = len + field.hex.size() / 2; len < end; ++len) {
      const auto prefix = std::make_unique<uint8_t[]>(len);
      std::copy_n(whole.begin(), len, prefix.get());
      EXPECT_EQ(runtime_error_of([&] { read({prefix.get(), len}); }), field.cut_message) << "cut at " << len;
    }
  }
}

}  // namespace norvel
