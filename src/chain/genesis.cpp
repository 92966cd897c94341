#include "chain/genesis.h"

#include <stdexcept>

namespace norvel {

namespace {

constexpr const char kMessage[] = "Norvel: half of every fee belongs to those who keep the chain";
constexpr const char kAddress[] = "1A1zP1eP5QGefi2DMPTfTL5SLmv7DivfNa";
constexpr uint32_t kNonce = 2;
constexpr const char kHash[] = "5e1e088874bd7fc399cc43ee50ab9661add74335c2cd4e25c88667784e159ef6";

}  // namespace

Block make_genesis_block() {
  Block block = Block::create_genesis_block(kMessage, kAddress, kGenesisTimestamp);
  block.header.nonce = kNonce;
  block.invalidate_cache();
  if (block.get_hash() != uint256::from_hex(kHash) || !block.header.check_proof_of_work()) {
    throw std::runtime_error("Genesis block does not have its pinned hash");
  }
  return block;
}

}  // namespace norvel
