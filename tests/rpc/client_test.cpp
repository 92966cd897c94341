#include "rpc/client.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "crypto/address.h"
#include "crypto/hex.h"
#include "rpc/loopback_server.h"

namespace norvel::rpc {
namespace {

using namespace std::string_literals;

constexpr const char kHost[] = "127.0.0.1";
const Bytes kPayee(20, 0x5a);

std::string address() {
  return crypto::hash160_to_address(kPayee, 0);
}

std::string http(const std::string& body) {
  return "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

std::string body_of(const std::string& request) {
  return request.substr(request.find("\r\n\r\n") + 4);
}

Transaction payment(int64_t value) {
  Transaction tx;
  tx.inputs.resize(1);
  tx.outputs.emplace_back(value, kPayee);
  return tx;
}

// What `use` does with a client whose node answers `body`: its result, what it
// printed to standard error, and the body that it sent.
struct Outcome {
  std::string result;
  std::string printed;
  std::string sent;
};

Outcome talk(const std::string& body, const std::function<std::string(RpcClient&)>& use) {
  LoopbackServer server(http(body));
  RpcClient client(kHost, server.port());
  Outcome outcome;
  testing::internal::CaptureStderr();
  outcome.result = use(client);
  outcome.printed = testing::internal::GetCapturedStderr();
  const std::vector<std::string>& requests = server.stop();
  outcome.sent = requests.empty() ? "" : body_of(requests.front());
  return outcome;
}

template <typename T>
std::string shown(const std::optional<T>& value) {
  if (!value) {
    return "none";
  }
  if constexpr (std::is_arithmetic_v<T>) {
    return std::to_string(*value);
  } else if constexpr (std::is_same_v<T, uint256>) {
    return value->to_hex();
  } else if constexpr (std::is_same_v<T, Bytes>) {
    return crypto::bytes_to_hex(*value);
  } else {
    return "template";
  }
}

std::string shown(const SpendableOutputs& utxos) {
  std::string out;
  for (const auto& [outpoint, output] : utxos) {
    out += outpoint.txid.to_hex() + ":" + std::to_string(outpoint.index) + "=" + std::to_string(output.value) + " to " +
           crypto::bytes_to_hex(output.get_pubkey_hash()) + ";";
  }
  return out;
}

const uint256 kHash(0xabc);
const std::string kHashText = std::string(61, '0') + "abc";

// One row per typed method that prints: what it asks for, and what it makes of a
// good result.
struct Method {
  const char* name;
  std::string params;
  const char* prefix;
  std::function<std::string(RpcClient&)> use;
  const char* empty;
  std::string good;
  std::string want;
};

std::vector<Method> methods() {
  const std::string by_address = "{\"address\":\"" + address() + "\"}";
  const std::string by_hash = "[\"" + kHashText + "\"]";
  return {
      {"getblockcount", "{}", "[RPC Client] getblockcount error: ",
       [](RpcClient& c) { return shown(c.get_block_count()); }, "none", "7.9", "7"},
      {"getblockcount", "{}", "[RPC Client] getblockcount error: ",
       [](RpcClient& c) { return c.test_connection() ? "yes"s : "no"s; }, "no", "0", "yes"},
      {"getbestblockhash", "{}", "[RPC Client] getbestblockhash error: ",
       [](RpcClient& c) { return shown(c.get_best_block_hash()); }, "none", "\"abc\"", kHashText},
      {"getblock", by_hash, "[RPC Client] getblock error: ",
       [](RpcClient& c) { return c.get_block(kHash).to_string(); }, "null", R"({"a":[1]})", R"({"a":[1]})"},
      {"gettransaction", by_hash, "[RPC Client] gettransaction error: ",
       [](RpcClient& c) { return c.get_transaction(kHash).to_string(); }, "null", "\"x\"", "\"x\""},
      {"getpeerinfo", "{}", "[RPC Client] getpeerinfo error: ",
       [](RpcClient& c) { return c.get_peer_info().to_string(); }, "null", "[]", "[]"},
      {"getnetworkinfo", "{}", "[RPC Client] getnetworkinfo error: ",
       [](RpcClient& c) { return c.get_network_info().to_string(); }, "null", "1", "1"},
      {"getmininginfo", "{}", "[RPC Client] getmininginfo error: ",
       [](RpcClient& c) { return c.get_mining_info().to_string(); }, "null", "2", "2"},
      {"getmempoolinfo", "{}", "[RPC Client] getmempoolinfo error: ",
       [](RpcClient& c) { return c.get_mempool_info().to_string(); }, "null", "3", "3"},
      {"listtransactions", "[\"" + address() + "\",4294967295]", "[RPC Client] listtransactions error: ",
       [](RpcClient& c) { return c.list_transactions(address(), 4294967295).to_string(); }, "null", "[4]", "[4]"},
      {"getbalance", by_address, "[RPC Client] getbalance error: ",
       [](RpcClient& c) { return shown(c.get_balance(address())); }, "none", R"({"balance_satoshis":-5})", "-5"},
      {"getpubkeyforaddress", by_address, "[RPC Client] getpubkeyforaddress: ",
       [](RpcClient& c) { return shown(c.get_public_key_for_address(address())); }, "none", "\"02FF\"", "02ff"},
      {"getutxos", by_address,
       "[RPC Client] getutxos error: ", [](RpcClient& c) { return shown(c.get_utxos_for_address(address())); }, "",
       R"([{"txid":"0xabc","vout":3.9,"value":100,"script":"00"},{"value":-1}])",
       kHashText + ":3=100 to " + crypto::bytes_to_hex(kPayee) + ";" + std::string(64, '0') + ":0=-1 to " +
           crypto::bytes_to_hex(kPayee) + ";"},
      {"getblocktemplate", by_address, "[RPC Client] getblocktemplate error: ",
       [](RpcClient& c) { return shown(c.get_block_template(address())); }, "none", "{}", "template"},
  };
}

TEST(RpcClient, SendsExactlyThis) {
  LoopbackServer server(http(R"({"result":7,"error":null})"));
  RpcClient client(kHost, server.port());
  EXPECT_EQ(client.get_block_count(), 7u);
  EXPECT_EQ(client.call("a\"b", 1).number, 7);
  const std::string head = "POST / HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(server.port()) +
                           "\r\nContent-Type: application/json\r\nContent-Length: ";
  const std::vector<std::string> want = {
      head + "63\r\nConnection: close\r\n\r\n" + R"({"id":"0","jsonrpc":"2.0","method":"getblockcount","params":{}})",
      head + "53\r\nConnection: close\r\n\r\n" + R"({"id":"1","jsonrpc":"2.0","method":"a\"b","params":1})"};
  EXPECT_EQ(server.stop(), want);
}

TEST(RpcClient, MethodsAskAndReadTheirOwn) {
  for (const Method& method : methods()) {
    SCOPED_TRACE(method.name);
    const Outcome outcome = talk("{\"result\":" + method.good + "}", method.use);
    EXPECT_EQ(outcome.result, method.want);
    EXPECT_EQ(outcome.printed, "");
    EXPECT_EQ(outcome.sent,
              R"({"id":"0","jsonrpc":"2.0","method":")"s + method.name + R"(","params":)" + method.params + "}");
  }
}

TEST(RpcClient, MethodsPrintTheNodesErrorAndReturnNothing) {
  for (const Method& method : methods()) {
    SCOPED_TRACE(method.name);
    const Outcome outcome = talk("{\"error\":{\"code\":-1,\"message\":\"boom\x1b[2J\\n\"}}", method.use);
    EXPECT_EQ(outcome.result, method.empty);
    EXPECT_EQ(outcome.printed, method.prefix + "boom?[2J?\n"s);
  }
}

TEST(RpcClient, RepliesOfAnyShape) {
  const std::string prefix = "[RPC Client] getblockcount error: ";
  const struct {
    const char* label;
    std::string reply;
    const char* count;
    std::string printed;
  } rows[] = {
      {"status is ignored", "HTTP/1.1 500 No\r\n\r\n{\"result\":3}", "3", ""},
      {"text for a number", http(R"({"result":"7"})"), "none", ""},
      {"negative", http(R"({"result":-1})"), "0", ""},
      {"too large", http(R"({"result":99999999999})"), "4294967295", ""},
      {"no result", http("{}"), "none", ""},
      {"no object", http("[{\"error\":1}]"), "none", ""},
      {"a page", "HTTP/1.1 401 No\r\n\r\n<html></html>", "none", ""},
      {"no blank line", "{\"result\":3}", "none", ""},
      {"closed at once", "", "none", ""},
      {"cut by a zero byte", "\r\n\r\n{\"a\":1\0,\"result\":3}"s, "none", ""},
      {"error of another type", http(R"({"error":"x"})"), "none", prefix + "RPC error\n"},
      {"error without a message", http(R"({"result":1,"error":{"code":1}})"), "none", prefix + "RPC error\n"},
      {"false is an error too", http(R"({"error":false})"), "none", prefix + "RPC error\n"},
      {"number without digits", http("{\"result\":-}"), "none", prefix + "stod\n"},
      {"length without digits", "\r\nContent-Length: x\r\n\r\n{\"result\":3}", "none", prefix + "stoi\n"},
      {"length out of range", "\r\nContent-Length: 2147483648\r\n\r\n", "none", prefix + "stoi\n"},
      {"nesting bomb", "\r\n\r\n{\"result\":" + std::string(100'000, '['), "none", ""},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    LoopbackServer server(row.reply);
    RpcClient client(kHost, server.port());
    testing::internal::CaptureStderr();
    EXPECT_EQ(shown(client.get_block_count()), row.count);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), row.printed);
  }
}

TEST(RpcClient, CutExchangeIsANullResult) {
  LoopbackServer server([](int fd) { peer_closes(fd); });
  RpcClient client(kHost, server.port());
  const ExchangeControl control{[asked = 0]() mutable { return ++asked > 4; }, nullptr};
  testing::internal::CaptureStderr();
  EXPECT_EQ(shown(client.get_block_count(control)), "none");
  const auto offered = client.get_block_template(address(), control);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  ASSERT_TRUE(offered);
  EXPECT_EQ(offered->height, 0u);
  EXPECT_TRUE(offered->previous_block_hash.is_zero());
  EXPECT_TRUE(offered->transactions.empty());
}

TEST(RpcClient, ReadsATemplate) {
  const std::string txs =
      "\"" + crypto::bytes_to_hex(payment(11).serialize()) + "\",\"" + crypto::bytes_to_hex(payment(12).serialize());
  LoopbackServer server(
      http(R"({"result":{"version":4294967295,"previousblockhash":"abc","height":9,"bits":520159231,)"
           R"("curtime":99999999999999999999,"miningaddress":"m","coinbasevalue":4,"miner_reward":5.9,)"
           R"("total_fees":-6,"treasury_value":7,"treasury_address":"t","tx_data":[)" +
           txs + "\"]}}"));
  const auto offered = RpcClient(kHost, server.port()).get_block_template(address());
  ASSERT_TRUE(offered);
  EXPECT_EQ(offered->version, 4294967295u);
  EXPECT_EQ(offered->previous_block_hash, kHash);
  EXPECT_EQ(offered->height, 9u);
  EXPECT_EQ(offered->bits, 0x1f00ffffu);
  EXPECT_EQ(offered->current_time, INT64_MAX);
  EXPECT_EQ(offered->previous_block_time, 0);
  EXPECT_EQ(offered->mining_address, "m");
  EXPECT_EQ(offered->coinbase_value, 4);
  EXPECT_EQ(offered->miner_reward, 5);
  EXPECT_EQ(offered->total_fees, -6);
  EXPECT_EQ(offered->treasury_value, 7);
  EXPECT_EQ(offered->treasury_address, "t");
  ASSERT_EQ(offered->transactions.size(), 2u);
  EXPECT_EQ(offered->transactions[0].outputs.at(0).value, 11);
  EXPECT_EQ(offered->transactions[1].outputs.at(0).value, 12);
}

TEST(RpcClient, OneBadTransactionDiscardsTheTemplate) {
  const std::string good = crypto::bytes_to_hex(payment(1).serialize());
  const struct {
    const char* label;
    std::string bad;
    const char* reason;
  } rows[] = {
      {"no hexadecimal", "\"zz\"", "stoul"},
      {"cut", "\"" + good.substr(0, good.size() - 2) + "\"", "Not enough data"},
      {"no text", "5", "Not enough data"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    const Outcome outcome = talk("{\"result\":{\"tx_data\":[\"" + good + "\"," + row.bad + "]}}",
                                 [](RpcClient& client) { return shown(client.get_block_template(address())); });
    EXPECT_EQ(outcome.result, "none");
    EXPECT_TRUE(outcome.printed.starts_with("[RPC Client] getblocktemplate error: "s + row.reason)) << outcome.printed;
  }
}

TEST(RpcClient, WhatACutLeavesUnreadableIsANullResult) {
  for (const char* half : {R"({"result":{"height":5,"tx_data":["00)", "-", R"({"error":"x)"}) {
    SCOPED_TRACE(half);
    std::atomic<bool> sent{false};
    LoopbackServer server([&](int fd) {
      send_text(fd, "HTTP/1.1 200 OK\r\n\r\n"s + half);
      sent = true;
      peer_closes(fd);
    });
    testing::internal::CaptureStderr();
    const ExchangeControl control{[&, slices = 0]() mutable { return sent && ++slices > 3; }, nullptr};
    const auto offered = RpcClient(kHost, server.port()).get_block_template(address(), control);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    ASSERT_TRUE(offered);
    EXPECT_EQ(offered->height, 0u);
    EXPECT_TRUE(offered->transactions.empty());
  }
}

TEST(RpcClient, BadAddressOfUtxosPrintsAndReturnsNothing) {
  const Outcome outcome =
      talk("{\"result\":[{}]}", [](RpcClient& client) { return shown(client.get_utxos_for_address("1111")); });
  EXPECT_EQ(outcome.result, "");
  EXPECT_TRUE(outcome.printed.starts_with("[RPC Client] getutxos error: address_to_hash160: ")) << outcome.printed;
}

TEST(RpcClient, SubmissionsReturnTheirReasonAndPrintNothing) {
  Block block;
  block.transactions.push_back(payment(3));
  const Transaction tx = payment(4);
  const struct {
    const char* label;
    const char* reply;
    const char* block_error;
    const char* tx_error;
  } rows[] = {
      {"accepted", R"({"result":{"accepted":true}})", "kept", "kept"},
      {"refused", R"({"result":{"accepted":false}})", "Block rejected by node", "Transaction rejected by node"},
      {"text for true", R"({"result":{"accepted":"true"}})", "Block rejected by node", "Transaction rejected by node"},
      {"true alone", R"({"result":true})", "Block rejected by node", "Transaction rejected by node"},
      {"nothing", "", "Block rejected by node", "Transaction rejected by node"},
      {"error", "{\"error\":{\"message\":\"a\tb\"}}", "submitblock error: a\tb", "sendrawtransaction error: a\tb"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    const auto submit = [&](RpcClient& client) {
      std::string error = "kept";
      EXPECT_EQ(client.submit_block(block, error), row.block_error == "kept"s);
      return error;
    };
    const Outcome submitted = talk(row.reply, submit);
    EXPECT_EQ(submitted.result, row.block_error);
    EXPECT_EQ(submitted.printed, "");
    EXPECT_EQ(submitted.sent, R"({"id":"0","jsonrpc":"2.0","method":"submitblock","params":{"data":")" +
                                  crypto::bytes_to_hex(block.serialize()) + "\"}}");
    const auto send = [&](RpcClient& client) {
      std::string error = "kept";
      EXPECT_EQ(client.send_raw_transaction(tx, error), row.tx_error == "kept"s);
      return error;
    };
    const Outcome sent = talk(row.reply, send);
    EXPECT_EQ(sent.result, row.tx_error);
    EXPECT_EQ(sent.printed, "");
    EXPECT_EQ(sent.sent, R"({"id":"0","jsonrpc":"2.0","method":"sendrawtransaction","params":{"hex":")" +
                             crypto::bytes_to_hex(tx.serialize()) + "\"}}");
  }
}

TEST(RpcClient, IdsOfConcurrentCallsDiffer) {
  LoopbackServer server(http("{}"));
  RpcClient client(kHost, server.port());
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&client] {
      for (int k = 0; k < 25; ++k) {
        client.call("m", JsonValue());
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  std::set<std::string> ids;
  for (const std::string& request : server.stop()) {
    ids.insert(JsonValue::parse(body_of(request)).get("id").string);
  }
  EXPECT_EQ(ids.size(), 100u);
  EXPECT_TRUE(ids.contains("0") && ids.contains("99"));
}

}  // namespace
}  // namespace norvel::rpc
