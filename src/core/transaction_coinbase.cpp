// Transaction::create_coinbase_tx.

#include "consensus/treasury.h"
#include "core/block.h"
#include "core/clock.h"
#include "core/transaction.h"
#include "core/transaction_parts.h"
#include "crypto/address.h"

namespace norvel {

Transaction Transaction::create_coinbase_tx(const std::string& miner_address, int64_t reward, int64_t fees,
                                            uint32_t height, const std::string& message) {
  Transaction tx;
  tx.type = TransactionType::COINBASE;
  tx.timestamp = height == 0 ? kGenesisTimestamp : unix_time_seconds();

  TxIn input;
  input.prevout = OutPoint::null();
  append_le(input.signature, height);
  input.signature.insert(input.signature.end(), message.begin(), message.end());
  tx.inputs.push_back(std::move(input));

  tx.outputs.push_back(make_p2pkh_output(reward, crypto::address_to_hash160(miner_address)));
  if (fees >= kTreasuryFeesMin) {
    tx.outputs.push_back(make_p2pkh_output(fees >> 1, treasury::get_pubkey_hash()));
  }
  return tx;
}

}  // namespace norvel
