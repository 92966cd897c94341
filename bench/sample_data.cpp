#include "sample_data.h"

#include <stdexcept>

#include "crypto/address.h"
#include "crypto/hash.h"
#include "crypto/keys.h"

namespace norvel::bench {

namespace {

constexpr uint32_t kHeight = 1'000;

Payment make_payment() {
  const Bytes key(32, 0x17);
  const Bytes pubkey = crypto::derive_public_key(key);
  const std::string address = crypto::pubkey_to_address(pubkey, 0);
  SpendableOutputs spendable;
  for (uint32_t i = 0; i < 2; ++i) {
    spendable.emplace_back(OutPoint{uint256(uint64_t{i} + 1), i}, TxOut(6 * kCoin, crypto::hash160(pubkey)));
  }
  std::string error;
  auto tx = Transaction::create_standard_tx(key, pubkey, address, 10 * kCoin, spendable, 10'000, "", {}, error);
  if (!tx) {
    throw std::runtime_error(error);
  }
  return {std::move(*tx), {spendable.begin(), spendable.end()}};
}

}  // namespace

const Payment& sample_payment() {
  static const Payment payment = make_payment();
  return payment;
}

Block sample_block(size_t transaction_count) {
  Block block;
  block.height = kHeight;
  block.transactions.push_back(
      Transaction::create_coinbase_tx(crypto::hash160_to_address(Bytes(20, 0x33), 0), 8 * kCoin, 0, kHeight, "bench"));
  for (size_t i = 0; i < transaction_count; ++i) {
    Transaction tx = sample_payment().tx;
    tx.locktime = static_cast<uint32_t>(i);
    tx.invalidate_cache();
    block.transactions.push_back(std::move(tx));
  }
  block.update_merkle_root();
  return block;
}

std::string digest(ByteView data) {
  return crypto::sha256(data).to_hex().substr(0, 8);
}

}  // namespace norvel::bench
