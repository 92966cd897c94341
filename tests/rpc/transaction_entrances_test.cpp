// What a block or the relay must not hold, sent by a peer and by the caller of
// sendrawtransaction. The reasons themselves are tried in
// transaction_rules_test.cpp and admission_test.cpp.

#include <functional>

#include "network/network_manager.h"
#include "network/relay_node.h"
#include "rpc/method_scene.h"
#include "rpc/node_methods.h"
#include "support/byte_strings.h"

namespace norvel::rpc {
namespace {

using network::MessageType;

constexpr uint32_t kInvalidPoints = 10;
const std::string kRejected = "Transaction rejected: ";
const std::string kNotTaken = "Mempool rejected: ";

class TransactionEntrances : public testing::Test {
 protected:
  TransactionEntrances() {
    network_.set_blockchain(&node_.scene.chain());
    network_.set_mempool(&node_.pool);
    for (NodeMethod& method : make_node_methods({borrow(node_.scene.chain()), borrow(node_.pool), borrow(network_)})) {
      if (method.name == "sendrawtransaction") {
        send_raw_transaction_ = std::move(method.handler);
      }
    }
    const Blockchain::WriteScope quick(node_.scene.chain());
    for (int i = 0; i < 28; ++i) {
      coins_.push_back(output_of(node_.scene.extend().transactions[0]));
    }
  }

  // Moves a coin, changed before it is signed.
  Transaction altered(const std::function<void(Transaction&)>& change, size_t coin = 0) const {
    Transaction tx = pay(sample_key(1), {coins_[coin]}, {8 * kCoin - 1'000});
    change(tx);
    return signed_again(tx);
  }

  Transaction of_type(int type) const {
    return altered([type](Transaction& tx) { tx.type = static_cast<TransactionType>(type); });
  }

  Transaction paying(int64_t value) const {
    return altered([value](Transaction& tx) { tx.outputs[0].value = value; });
  }

  std::string refusal_by_rpc(const Transaction& tx) {
    return runtime_error_of([&] { send_raw_transaction_(object_of("hex", hex_of(tx))); }).value_or("accepted");
  }

  network::RelayNode node_;
  network::NetworkManager network_{0, "127.0.0.1", node_.scene.directory().path(), 1, 1, 60};
  MethodHandler send_raw_transaction_;
  std::vector<std::pair<OutPoint, TxOut>> coins_;  // 8 each, of sample_key(1)
};

TEST_F(TransactionEntrances, RefuseAndBlameForRulesOfBlocksOnly) {
  const Transaction confirmed = pay(sample_key(1), {coins_[27]}, {8 * kCoin});
  const auto cost_checks = [](Transaction& tx) {
    tx.outputs[0] = TxOut(8 * kCoin - 1'000, {});
    tx.outputs[0].script_pubkey = {0x51};
    for (int i = 0; i < 2'001; ++i) {
      append(tx.outputs[0].script_pubkey, hex("76 76 ac 75"));  // DUP DUP CHECKSIG DROP
    }
  };
  const Transaction prepared = altered(cost_checks, 26);
  Transaction costly;
  costly.inputs.push_back({{prepared.get_txid(), 0}, {}, bytes_of("HTLC"), 0});
  costly.outputs.emplace_back(1, Bytes(20));
  node_.scene.extend({.txs = {confirmed, prepared}, .fees = 1'000});
  Transaction forged = paying(1);
  forged.inputs[0].signature.back() ^= 1;
  forged.invalidate_cache();
  const std::string zeros = uint256().to_hex();
  const struct {
    const char* label;
    Transaction tx;
    uint32_t points;
    std::string refusal;
  } rows[] = {
      {"forged", forged, kInvalidPoints, kRejected + "Invalid signature for input 0"},
      {"one output twice", altered([](Transaction& tx) { tx.inputs.push_back(tx.inputs[0]); }), kInvalidPoints,
       kRejected + "Output spent twice by one transaction"},
      {"no inputs", altered([](Transaction& tx) { tx.inputs.clear(); }), kInvalidPoints,
       kRejected + "Transaction has no inputs"},
      {"no outputs", altered([](Transaction& tx) { tx.outputs.clear(); }), kInvalidPoints,
       kRejected + "Transaction has no outputs"},
      {"more out than in", paying(8 * kCoin + 1), kInvalidPoints, "Invalid transaction: outputs exceed inputs"},
      {"minus one", paying(-1), kInvalidPoints, kRejected + "Value out of range in output 0"},
      {"all money and one", paying(kMoneyMax + 1), kInvalidPoints, "Invalid transaction: outputs exceed inputs"},
      {"distribution", of_type(3), kInvalidPoints, kRejected + "Transaction type not allowed: 3"},
      {"type without meaning", of_type(7), kInvalidPoints, kRejected + "Transaction type not allowed: 7"},
      {"coinbase", of_type(255), kInvalidPoints, kRejected + "Transaction type not allowed: 255"},
      {"null outpoint", altered([](Transaction& tx) { tx.inputs[0].prevout = OutPoint::null(); }), 0,
       kRejected + "missing parent " + zeros},
      {"spent in the chain", pay(sample_key(1), {coins_[27]}, {1}), 0,
       kRejected + "missing parent " + coins_[27].first.txid.to_hex()},
      {"in the chain", confirmed, 0, kNotTaken + "Transaction already in chain"},
      {"not final", altered([](Transaction& tx) { tx.locktime = 500, tx.inputs[0].sequence = 0; }), 0,
       kNotTaken + "not final for the next block"},
      {"fee above 200 coins", pay(sample_key(1), {coins_.begin(), coins_.begin() + 26}, {8 * kCoin - 1}), 0,
       kNotTaken + "fee above what a block may pay out"},
      {"over the script budget", costly, 0, kNotTaken + "scripts cost more than relay allows"},
  };
  const network::PeerPtr peer = node_.add_peer(0);
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    node_.points.clear();
    node_.handle(peer, MessageType::TX, row.tx.serialize());
    EXPECT_EQ(node_.points[peer->address], row.points);
    EXPECT_EQ(refusal_by_rpc(row.tx), row.refusal);
    EXPECT_EQ(node_.pool.size(), 0u);
  }
}

}  // namespace
}  // namespace norvel::rpc
