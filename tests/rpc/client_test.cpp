#include "rpc/client.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <string>
#include <vector>

#include "crypto/address.h"
#include "crypto/hex.h"
#include "rpc/loopback_server.h"

namespace norvel::rpc {
namespace {

using crypto::bytes_to_hex;
using testing::PrintToString;

constexpr const char kHost[] = "127.0.0.1";
const std::string kPayee = "5a5a5a5a5a5a5a5a5a5a5a5a5a5a5a5a5a5a5a5a";
const std::string kAddress = crypto::hash160_to_address(Bytes(20, 0x5a), 0);
const uint256 kHash(0xabc);

Transaction payment(int64_t value) {
  Transaction tx;
  tx.inputs.resize(1);
  tx.outputs.emplace_back(value, Bytes(20, 0x5a));
  return tx;
}

struct Outcome {
  std::string result;
  std::string printed;
  std::string sent;  // the request's body
};

// What `use` makes of a client whose node answers `body`.
Outcome talk(const std::string& body, const std::function<std::string(RpcClient&)>& use) {
  LoopbackServer server("\r\n\r\n" + body);
  RpcClient client(kHost, server.port());
  Outcome outcome;
  testing::internal::CaptureStderr();
  outcome.result = use(client);
  outcome.printed = testing::internal::GetCapturedStderr();
  const std::string& request = server.stop().at(0);
  outcome.sent = request.substr(request.find("\r\n\r\n") + 4);
  return outcome;
}

std::string shown(const std::optional<uint256>& hash) {
  return hash ? hash->to_hex() : "none";
}

std::string shown(const std::optional<Bytes>& bytes) {
  return bytes ? bytes_to_hex(*bytes) : "none";
}

std::string shown(const SpendableOutputs& utxos) {
  std::string out;
  for (const auto& [outpoint, output] : utxos) {
    out += outpoint.txid.to_hex() + ":" + std::to_string(outpoint.index) + "=" + std::to_string(output.value) + " to " +
           bytes_to_hex(output.get_pubkey_hash()) + ";";
  }
  return out;
}

std::string shown(const std::optional<BlockTemplate>& offered) {
  if (!offered) {
    return "none";
  }
  const BlockTemplate& t = *offered;
  const std::vector<int64_t> numbers = {
      t.version,        t.height,       t.bits,       t.current_time,  t.previous_block_time,
      t.coinbase_value, t.miner_reward, t.total_fees, t.treasury_value};
  std::string out = t.previous_block_hash.to_hex() + " " + t.mining_address + " " + t.treasury_address + " ";
  for (const Transaction& tx : t.transactions) {
    out += bytes_to_hex(tx.serialize()) + " ";
  }
  return out + PrintToString(numbers);
}

TEST(RpcClient, MethodsAskAndReadTheirOwnAndPrintTheNodesError) {
  const std::string by_address = "{\"address\":\"" + kAddress + "\"}";
  const std::string by_hash = "[\"" + kHash.to_hex() + "\"]";
  const Transaction tx = payment(4);
  const std::string tx_hex = bytes_to_hex(tx.serialize());
  Block block;
  block.transactions.push_back(payment(3));
  const auto submit = [&block](RpcClient& c) {
    std::string error = "kept";
    return c.submit_block(block, error) ? "accepted and " + error : error;
  };
  const auto send = [&tx](RpcClient& c) {
    std::string error = "kept";
    return c.send_raw_transaction(tx, error) ? "accepted and " + error : error;
  };
  const std::string block_params = "{\"data\":\"" + bytes_to_hex(block.serialize()) + "\"}";
  const std::string tx_params = "{\"hex\":\"" + tx_hex + "\"}";
  const std::string block_error = "submitblock error: boom\x1b[2J\n";
  const std::string tx_error = "sendrawtransaction error: boom\x1b[2J\n";
  const struct {
    std::string name;
    std::string params;
    std::function<std::string(RpcClient&)> use;
    std::string on_error;
    std::string good;
    std::string want;
  } methods[] = {
      {"getblockcount", "{}", [](auto& c) { return PrintToString(c.get_block_count()); }, "(nullopt)", "7.9", "(7)"},
      {"getblockcount", "{}", [](auto& c) { return c.test_connection() ? "yes" : "no"; }, "no", "0", "yes"},
      {"getbestblockhash", "{}", [](auto& c) { return shown(c.get_best_block_hash()); }, "none", "\"abc\"",
       kHash.to_hex()},
      {"getblock", by_hash, [](auto& c) { return c.get_block(kHash).to_string(); }, "null", "[1]", "[1]"},
      {"gettransaction", by_hash, [](auto& c) { return c.get_transaction(kHash).to_string(); }, "null", "1", "1"},
      {"getpeerinfo", "{}", [](auto& c) { return c.get_peer_info().to_string(); }, "null", "[]", "[]"},
      {"getnetworkinfo", "{}", [](auto& c) { return c.get_network_info().to_string(); }, "null", "1", "1"},
      {"getmininginfo", "{}", [](auto& c) { return c.get_mining_info().to_string(); }, "null", "2", "2"},
      {"getmempoolinfo", "{}", [](auto& c) { return c.get_mempool_info().to_string(); }, "null", "3", "3"},
      {"listtransactions", "[\"" + kAddress + "\",4294967295]",
       [](auto& c) { return c.list_transactions(kAddress, 4294967295).to_string(); }, "null", "[4]", "[4]"},
      {"getbalance", by_address, [](auto& c) { return PrintToString(c.get_balance(kAddress)); }, "(nullopt)",
       R"({"balance_satoshis":-5})", "(-5)"},
      {"getpubkeyforaddress", by_address, [](auto& c) { return shown(c.get_public_key_for_address(kAddress)); }, "none",
       "\"02FF\"", "02ff"},
      {"getutxos", by_address, [](auto& c) { return shown(c.get_utxos_for_address(kAddress)); }, "",
       R"([{"txid":"0xabc","vout":3.9,"value":100,"script":"00"},{"value":-1}])",
       kHash.to_hex() + ":3=100 to " + kPayee + ";" + uint256().to_hex() + ":0=-1 to " + kPayee + ";"},
      {"getblocktemplate", by_address, [](auto& c) { return shown(c.get_block_template(kAddress)); }, "none",
       R"({"version":4294967295,"previousblockhash":"abc","height":9,"bits":520159231,"curtime":99999999999999999999,)"
       R"("prevblocktime":8,"miningaddress":"m","coinbasevalue":4,"miner_reward":5.9,"total_fees":-6,)"
       R"("treasury_value":7,"treasury_address":"t","tx_data":[")" +
           tx_hex + "\"]}",
       kHash.to_hex() + " m t " + tx_hex + " { 4294967295, 9, 520159231, 9223372036854775807, 8, 4, 5, -6, 7 }"},
      {"submitblock", block_params, submit, block_error, R"({"accepted":true})", "accepted and kept"},
      {"submitblock", block_params, submit, block_error, R"({"accepted":"true"})", "Block rejected by node"},
      {"sendrawtransaction", tx_params, send, tx_error, R"({"accepted":true})", "accepted and kept"},
      {"sendrawtransaction", tx_params, send, tx_error, "true", "Transaction rejected by node"},
  };
  for (const auto& method : methods) {
    SCOPED_TRACE(method.name);
    const Outcome good = talk("{\"result\":" + method.good + "}", method.use);
    EXPECT_EQ(good.result, method.want);
    EXPECT_EQ(good.printed, "");
    EXPECT_EQ(good.sent,
              R"({"id":"0","jsonrpc":"2.0","method":")" + method.name + R"(","params":)" + method.params + "}");
    const Outcome bad = talk("{\"error\":{\"code\":-1,\"message\":\"boom\x1b[2J\\n\"}}", method.use);
    EXPECT_EQ(bad.result, method.on_error);
    const bool returns_reason = method.on_error.starts_with(method.name);
    const std::string prefix =
        "[RPC Client] " + method.name + (method.name == "getpubkeyforaddress" ? ": " : " error: ");
    EXPECT_EQ(bad.printed, returns_reason ? "" : prefix + "boom?[2J?\n");
  }
}

TEST(RpcClient, WhatACutLeavesUnreadableIsANullResult) {
  for (const std::string half :
       {"", R"({"result":{"height":5)", R"({"result":{"tx_data":["00)", "-", R"({"error":"x)"}) {
    SCOPED_TRACE(half);
    std::atomic<bool> sent{false};
    LoopbackServer server([&](int fd) {
      send_text(fd, "HTTP/1.1 200 OK\r\n\r\n" + half);
      sent = true;
      wait_readable(fd);
    });
    const ExchangeControl control{[&, slices = 0]() mutable { return sent && ++slices > 3; }, nullptr};
    testing::internal::CaptureStderr();
    EXPECT_EQ(shown(RpcClient(kHost, server.port()).get_block_template(kAddress, control)), shown(BlockTemplate()));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  }
}

}  // namespace
}  // namespace norvel::rpc
