// The methods of a node, against an independent reading of its blocks.

#include "rpc/node_methods.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <set>

#include "chain/chain_scene.h"
#include "consensus/difficulty.h"
#include "crypto/address.h"
#include "crypto/hash.h"
#include "crypto/hex.h"
#include "mempool/mempool.h"
#include "mempool/pool_updater.h"
#include "network/network_manager.h"
#include "rpc/address_outputs.h"
#include "script/script.h"

namespace norvel::rpc {
namespace {

using Transactions = std::vector<Transaction>;

std::string hex_of(const Transaction& tx) {
  return crypto::bytes_to_hex(tx.serialize());
}

JsonValue object_of(const std::string& key, const JsonValue& value) {
  JsonValue params;
  params.set(key, value);
  return params;
}

// A component that the test owns.
template <typename T>
std::shared_ptr<T> borrow(T& component) {
  return std::shared_ptr<T>(std::shared_ptr<void>(), &component);
}

class NodeMethods : public testing::Test {
 protected:
  NodeMethods() {
    scene_.chain().set_pool_sink(&updater_);
    network_.set_blockchain(&scene_.chain());
    network_.set_mempool(&pool_);
    set_components({borrow(scene_.chain()), borrow(pool_), borrow(network_)});
  }

  void set_components(const NodeComponents& components) {
    methods_.clear();
    for (NodeMethod& method : make_node_methods(components)) {
      methods_[method.name] = std::move(method.handler);
    }
  }

  JsonValue call(const std::string& method, const JsonValue& params = JsonValue::make_object()) {
    return methods_.at(method)(params);
  }

  std::string refusal(const std::string& method, const JsonValue& params) {
    return runtime_error_of([&] { call(method, params); }).value_or("accepted");
  }

  // Moves what a coin holds, less a fee.
  Transaction spend(const std::pair<OutPoint, TxOut>& coin, std::vector<int64_t> values, uint8_t from = 1,
                    uint8_t to = 2) {
    return pay(sample_key(from), {coin}, values, to);
  }

  // A block with these transactions and the distribution that it must carry.
  void include(Transactions txs, int64_t fee, uint8_t miner = 3) {
    const uint32_t height = scene_.chain().get_best_height() + 1;
    if (const auto distribution = scene_.chain().required_distribution_tx(height)) {
      txs.insert(txs.begin(), *distribution);
    }
    scene_.extend({.txs = txs, .fees = fee, .miner = miner});
  }

  // Payments, a note, contracts claimed and refunded, a distribution, a block
  // that is on no branch any more.
  void make_history();

  ChainScene scene_{small_options(8)};
  Mempool pool_{5'000'000};
  PoolUpdater updater_{scene_.chain(), pool_};
  network::NetworkManager network_{0, "127.0.0.1", scene_.directory().path(), 1, 1, 60};
  std::map<std::string, MethodHandler> methods_;
  uint256 side_block_;
};

void NodeMethods::make_history() {
  const SampleKey one = sample_key(1);
  const SampleKey two = sample_key(2);
  std::string error;
  std::vector<std::pair<OutPoint, TxOut>> coins;
  for (int i = 0; i < 5; ++i) {
    coins.push_back(output_of(scene_.extend().transactions[0]));
  }
  const Transaction payment = pay(one, {coins[0], coins[1]}, {10 * kCoin, 6 * kCoin - 60'000});
  include({payment}, 60'000);
  include({Transaction::create_standard_tx(two.private_key, two.pubkey, sample_key(4).address, kCoin,
                                           {output_of(payment)}, 50'000, "hello", sample_key(4).pubkey, error)
               .value()},
          50'000);
  include({}, 0);
  const Bytes secret = {'s'};
  const auto fund = [&](const std::pair<OutPoint, TxOut>& coin) {
    const Transaction tx = Transaction::create_htlc_tx(one.private_key, one.pubkey, kCoin, two.pubkey_hash,
                                                       crypto::sha256(secret).to_bytes(), 3, {coin}, 700, error)
                               .value();
    include({tx}, 700);
    return output_of(tx);
  };
  const auto claimed = fund(coins[2]);
  const auto refunded = fund(coins[3]);
  include({Transaction::create_htlc_claim_tx(two.private_key, two.pubkey, claimed.first, claimed.second, secret, error)
               .value()},
          kHtlcSpendFeeUnits);
  include({Transaction::create_htlc_refund_tx(one.private_key, one.pubkey, refunded.first, refunded.second, 3, error)
               .value()},
          kHtlcSpendFeeUnits);
  include({spend(coins[4], {3 * kCoin, 5 * kCoin - 1}, 1, 1)}, 1);
  const Block left_behind = make_child(scene_.block_at(12), {.message = "side"});
  scene_.add(left_behind);
  side_block_ = left_behind.get_hash();
}

TEST_F(NodeMethods, ReadBlocks) {
  make_history();
  const uint32_t best_height = scene_.chain().get_best_height();
  EXPECT_EQ(call("getblockcount").number, best_height);
  EXPECT_EQ(call("getbestblockhash").string, scene_.tip().get_hash().to_hex());
  std::vector<Block> blocks;
  for (uint32_t height = 0; height <= best_height; ++height) {
    blocks.push_back(scene_.block_at(height));
    EXPECT_EQ(call("getblockhash", object_of("height", height)).string, blocks.back().get_hash().to_hex());
  }
  blocks.push_back(scene_.chain().load_block_from_disk(side_block_).value());
  for (const Block& block : blocks) {
    std::string txids;
    for (const Transaction& tx : block.transactions) {
      txids += (txids.empty() ? "\"" : ",\"") + tx.get_txid().to_hex() + "\"";
    }
    JsonValue found = call("getblock", object_of("hash", block.get_hash().to_hex()));
    EXPECT_EQ(call("getblockheader", std::vector<JsonValue>{block.get_hash().to_hex()}).to_string(), found.to_string());
    EXPECT_DOUBLE_EQ(found.get("difficulty").number, difficulty::get_difficulty(block.header.bits));
    found.object.erase("difficulty");
    EXPECT_EQ(found.to_string(), "{\"bits\":" + std::to_string(block.header.bits) + ",\"hash\":\"" +
                                     block.get_hash().to_hex() + "\",\"height\":" + std::to_string(block.height) +
                                     ",\"merkleroot\":\"" + block.header.merkle_root.to_hex() +
                                     "\",\"nonce\":" + std::to_string(block.header.nonce) +
                                     ",\"previousblockhash\":\"" + block.header.prev_hash.to_hex() +
                                     "\",\"size\":" + std::to_string(block.serialize().size()) +
                                     ",\"time\":" + std::to_string(block.header.timestamp) + ",\"tx\":[" + txids +
                                     "],\"tx_count\":" + std::to_string(block.transactions.size()) + ",\"version\":1}");
  }
}

TEST_F(NodeMethods, MeasureTheWholeNetwork) {
  EXPECT_EQ(call("getmininginfo").get("networkhashps").number, 0);
  const Blockchain::WriteScope quick(scene_.chain());
  scene_.add_all(make_branch(scene_.tip(), 30));
  const double work = difficulty::work_from_bits(difficulty::kEasiestBits).to_double();
  EXPECT_EQ(call("getmininginfo").get("networkhashps").number, static_cast<uint64_t>(work / 10));
  EXPECT_EQ(call("getmininginfo").get("blocks").number, 30);
  EXPECT_EQ(call("getmininginfo").get("difficulty").number, 1);
  Block late = make_child(scene_.tip());
  late.header.timestamp += 10'000;
  seal(late);
  scene_.add(late);
  scene_.add_all(make_branch(late, 119));
  const auto with_the_gap = static_cast<uint64_t>(work * 120 / (120 * 10 + 10'000));
  EXPECT_EQ(call("getmininginfo").get("networkhashps").number, with_the_gap);
  scene_.extend();
  EXPECT_EQ(call("getmininginfo").get("networkhashps").number, static_cast<uint64_t>(work / 10));
}

// The outputs ever made, and who spent them, from the blocks alone.
struct Ledger {
  struct Row {
    Transaction tx;
    Block block;
  };
  std::vector<Row> rows;  // in block order
  std::map<OutPoint, TxOut> made;
  std::set<OutPoint> spent;

  explicit Ledger(ChainScene& scene) {
    for (uint32_t height = 0; height <= scene.chain().get_best_height(); ++height) {
      const Block block = scene.block_at(height);
      for (const Transaction& tx : block.transactions) {
        rows.push_back({tx, block});
        for (size_t i = 0; i < tx.outputs.size(); ++i) {
          made.insert(output_of(tx, i));
        }
        for (const TxIn& input : tx.inputs) {
          spent.insert(input.prevout);
        }
      }
    }
  }
};

TEST_F(NodeMethods, AccountForEveryAddress) {
  make_history();
  const Ledger ledger(scene_);
  for (uint8_t seed = 1; seed <= 5; ++seed) {
    const SampleKey key = sample_key(seed);
    const JsonValue params = object_of("address", key.address);
    SCOPED_TRACE(int{seed});
    std::string outputs;
    int64_t balance = 0;
    size_t output_count = 0;
    for (const auto& [outpoint, output] : ledger.made) {
      if (output.get_pubkey_hash() == key.pubkey_hash && !ledger.spent.contains(outpoint)) {
        balance += output.value;
        outputs += std::string(output_count++ == 0 ? "" : ",") + outpoint.txid.to_hex() + ":" +
                   std::to_string(outpoint.index) + "=" + std::to_string(output.value);
      }
    }
    std::string listed_outputs;
    const JsonValue utxos = call("getutxos", params);
    for (const JsonValue& entry : utxos.array) {
      listed_outputs += (listed_outputs.empty() ? "" : ",") + entry.get("txid").string + ":" +
                        entry.get("vout").to_string() + "=" + entry.get("value").to_string();
      EXPECT_DOUBLE_EQ(entry.get("value_nvl").number * 1e8, entry.get("value").number);
    }
    EXPECT_EQ(listed_outputs, outputs);
    const JsonValue info = call("getaddressinfo", params);
    EXPECT_EQ(call("getbalance", params).get("balance_satoshis").number, static_cast<double>(balance));
    EXPECT_DOUBLE_EQ(call("getbalance", params).get("balance").number * 1e8, static_cast<double>(balance));
    EXPECT_EQ(info.get("balance_satoshis").number, static_cast<double>(balance));
    EXPECT_EQ(info.get("utxo_count").number, static_cast<double>(output_count));
    const JsonValue list = call("listtransactions", std::vector<JsonValue>{key.address, 100});
    EXPECT_EQ(info.get("tx_count").number, static_cast<double>(list.array.size()));
    double sum = 0;
    for (const JsonValue& entry : list.array) {
      sum += entry.get("amount").number;
    }
    EXPECT_EQ(sum, static_cast<double>(balance));
  }
}

TEST_F(NodeMethods, ListTransactionsNewestFirst) {
  make_history();
  const Ledger ledger(scene_);
  for (uint8_t seed = 1; seed <= 4; ++seed) {
    const SampleKey key = sample_key(seed);
    std::vector<std::string> want;
    for (auto row = ledger.rows.rbegin(); row != ledger.rows.rend(); ++row) {
      const bool is_coinbase = row->tx.type == TransactionType::COINBASE;
      int64_t amount = 0;
      bool pays = false;
      bool pays_others = false;
      bool sends = false;
      for (const TxOut& output : row->tx.outputs) {
        const bool is_own = output.get_pubkey_hash() == key.pubkey_hash;
        (is_own ? pays : pays_others) = true;
        amount += is_own ? output.value : 0;
      }
      for (const TxIn& input : row->tx.inputs) {
        const auto output = ledger.made.find(input.prevout);
        if (output != ledger.made.end() && output->second.get_pubkey_hash() == key.pubkey_hash) {
          sends = true;
          amount -= output->second.value;
        }
      }
      if (pays || sends) {
        const bool has_note = row->tx.outputs[0].message.has_value();
        const std::string type = is_coinbase ? "coinbase" : !sends ? "receive" : pays_others ? "send" : "self";
        const uint32_t height = row->block.height;
        want.push_back("{\"amount\":" + std::to_string(amount) + ",\"blockhash\":\"" + row->block.get_hash().to_hex() +
                       "\",\"blockheight\":" + std::to_string(height) +
                       ",\"confirmations\":" + std::to_string(scene_.chain().get_best_height() + 1 - height) +
                       ",\"has_message\":" + (has_note ? "true" : "false") + ",\"hex\":\"" + hex_of(row->tx) +
                       "\",\"time\":" + std::to_string(row->block.header.timestamp) + ",\"txid\":\"" +
                       row->tx.get_txid().to_hex() + "\",\"type\":\"" + type + "\"}");
      }
    }
    for (const size_t count : {size_t{100}, size_t{3}, size_t{0}, size_t{10}}) {
      JsonValue params = object_of("address", key.address);
      if (count != 10) {
        params.set("count", count);
      }
      const JsonValue list = call("listtransactions", params);
      ASSERT_EQ(list.array.size(), std::min(count, want.size()));
      for (size_t i = 0; i < list.array.size(); ++i) {
        EXPECT_EQ(list[i].to_string(), want[i]);
      }
    }
  }
}

TEST_F(NodeMethods, DescribeEveryTransaction) {
  make_history();
  const Ledger ledger(scene_);
  for (const Ledger::Row& row : ledger.rows) {
    const std::string txid = row.tx.get_txid().to_hex();
    const bool spends = row.tx.inputs[0].prevout.index < 1'000;
    int64_t fee = 0;
    std::set<std::string> from;
    std::set<std::string> to;
    for (const TxOut& output : row.tx.outputs) {
      fee -= spends ? output.value : 0;
      to.insert(crypto::hash160_to_address(output.get_pubkey_hash(), 0));
    }
    for (const TxIn& input : row.tx.inputs) {
      if (spends) {
        fee += ledger.made.at(input.prevout).value;
        from.insert(crypto::hash160_to_address(ledger.made.at(input.prevout).get_pubkey_hash(), 0));
      }
    }
    from.erase("");
    to.erase("");
    const JsonValue found = call("gettransaction", std::vector<JsonValue>{txid});
    EXPECT_EQ(found.get("txid").string, txid);
    EXPECT_EQ(found.get("type").string, row.tx.type == TransactionType::COINBASE ? "coinbase" : "transfer");
    EXPECT_EQ(found.get("fee_satoshis").to_string(), std::to_string(fee));
    EXPECT_DOUBLE_EQ(found.get("fee").number * 1e8, static_cast<double>(fee));
    EXPECT_EQ(found.get("value_satoshis").to_string(), std::to_string(row.tx.total_output_value()));
    EXPECT_EQ(found.get("hex").string, hex_of(row.tx));
    EXPECT_EQ(call("getrawtransaction", object_of("txid", txid)).string, hex_of(row.tx));
    EXPECT_EQ(found.get("blockhash").string, row.block.get_hash().to_hex());
    EXPECT_EQ(found.get("blockheight").number, row.block.height);
    EXPECT_EQ(found.get("confirmations").number, scene_.chain().get_best_height() - row.block.height + 1);
    EXPECT_EQ(found.get("time").number, static_cast<double>(row.block.header.timestamp));
    const auto texts = [&](const char* key) {
      std::set<std::string> all;
      for (const JsonValue& text : found.get(key).array) {
        all.insert(text.string);
      }
      EXPECT_EQ(all.size(), found.get(key).array.size());
      EXPECT_EQ(found.get(std::string(key) + "_address").string, found.get(key)[0].string);
      return all;
    };
    EXPECT_EQ(texts("from"), from);
    EXPECT_EQ(texts("to"), to);
    if (const std::string note = found.get("message").string; !note.empty()) {
      size_t offset = 0;
      const auto message = crypto::EncryptedMessage::deserialize(crypto::hex_to_bytes(note), offset);
      EXPECT_EQ(crypto::decrypt_message(message, sample_key(4).private_key), "hello");
    }
    EXPECT_EQ(found.get("message").string.empty(), row.tx.outputs.empty() || !row.tx.outputs[0].message);
  }
}

TEST_F(NodeMethods, ShowThePool) {
  const Transaction parent = spend(output_of(scene_.extend().transactions[0]), {8 * kCoin - 500});
  const Transaction child = spend(output_of(parent), {8 * kCoin - 1'200}, 2, 3);
  for (const Transaction& tx : {parent, child}) {
    const JsonValue result = call("sendrawtransaction", object_of("hex", hex_of(tx)));
    EXPECT_EQ(result.to_string(), "{\"accepted\":true,\"txid\":\"" + tx.get_txid().to_hex() + "\"}");
  }
  const std::string bytes = std::to_string(parent.size() + child.size());
  EXPECT_EQ(call("getmempoolinfo").to_string(), "{\"bytes\":" + bytes + ",\"size\":2,\"usage\":" + bytes + "}");
  std::set<std::string> txids;
  const JsonValue listed = call("getrawmempool");
  for (const JsonValue& txid : listed.array) {
    txids.insert(txid.string);
  }
  EXPECT_EQ(txids, (std::set{parent.get_txid().to_hex(), child.get_txid().to_hex()}));
  const JsonValue found = call("gettransaction", object_of("txid", child.get_txid().to_hex()));
  EXPECT_EQ(found.get("fee_satoshis").number, 700);
  EXPECT_EQ(found.get("from_address").string, sample_key(2).address);
  EXPECT_EQ(found.get("confirmations").to_string(), "0");
  EXPECT_EQ(found.get("blockhash").to_string() + found.get("blockheight").to_string(), "nullnull");
  EXPECT_EQ(call("getrawtransaction", object_of("txid", child.get_txid().to_hex())).string, hex_of(child));
}

// Over several pieces of the walk.
TEST_F(NodeMethods, ListTheMostValuableOutputs) {
  Transaction many = spend(output_of(scene_.extend().transactions[0]), {9});
  many.outputs.resize(10'002, many.outputs[0]);
  many.outputs[3].value = 8;
  many.outputs[5].value = 7;
  many.sign_input(0, sample_key(1).private_key, Script::create_p2pkh_output(sample_key(1).pubkey_hash));
  include({many}, 8 * kCoin - 90'015);
  AddressOutputReader reader;
  const AddressOutputs all = reader.read(scene_.chain(), sample_key(2).pubkey_hash, 10'002);
  EXPECT_EQ(all.count, 10'002u);
  EXPECT_EQ(all.balance, 90'015);
  EXPECT_EQ(all.largest.size(), 10'002u);
  EXPECT_EQ(call("getutxos", object_of("address", sample_key(2).address)).array.size(), 10'002u);
  const AddressOutputs most = reader.read(scene_.chain(), sample_key(2).pubkey_hash, 10'000);
  ASSERT_EQ(most.largest.size(), 10'000u);
  EXPECT_EQ(most.largest[3].outpoint.index, 4u);
  EXPECT_EQ(most.largest[4].outpoint.index, 6u);
}

TEST_F(NodeMethods, TakeBlocksAndRefuseTheRest) {
  const Block block = make_child(scene_.tip());
  const auto data_of = [](const Block& offered) {
    return object_of("data", crypto::bytes_to_hex(offered.serialize()));
  };
  Block forged = block;
  forged.header.merkle_root = uint256(uint64_t{1});
  mine(forged);
  EXPECT_EQ(refusal("submitblock", data_of(forged)), "Block rejected: Invalid merkle root");
  EXPECT_EQ(refusal("submitblock", object_of("data", "00ff")), "Block rejected: Not enough data");
  EXPECT_EQ(refusal("submitblock", object_of("data", "xy")), "Block rejected: invalid hexadecimal");
  EXPECT_EQ(refusal("submitblock", object_of("data", std::string(2'000'001, '0'))), "Block rejected: Block too large");
  EXPECT_NE(refusal("submitblock", object_of("data", "0x" + std::string(2'000'000, '0'))),
            "Block rejected: Block too large");
  EXPECT_EQ(call("submitblock", data_of(block)).to_string(),
            "{\"accepted\":true,\"hash\":\"" + block.get_hash().to_hex() + "\",\"height\":1}");
  EXPECT_EQ(scene_.chain().get_best_hash(), block.get_hash());
  EXPECT_EQ(refusal("submitblock", data_of(block)), "Block rejected: Block already exists");
}

TEST_F(NodeMethods, SayWhyATransactionIsRefused) {
  const auto coin = output_of(scene_.extend().transactions[0]);
  const Transaction known = spend(coin, {8 * kCoin});
  const Transaction unknown = spend({{uint256(uint64_t{5}), 0}, coin.second}, {9 * kCoin});
  call("sendrawtransaction", object_of("hex", hex_of(known)));
  const struct {
    const char* label;
    std::string hex;
    std::string error;
  } rows[] = {
      {"overspent, also in the pool", hex_of(spend(coin, {8 * kCoin + 1})),
       "Invalid transaction: outputs exceed inputs"},
      {"overspent output of the pool", hex_of(spend(output_of(known), {8 * kCoin + 1}, 2)),
       "Invalid transaction: outputs exceed inputs"},
      {"unknown input", hex_of(unknown), "Transaction rejected: missing parent " + uint256(uint64_t{5}).to_hex()},
      {"known", hex_of(known), "Mempool rejected: Transaction already in mempool"},
      {"conflict", hex_of(spend(coin, {1})), "Mempool rejected: Input already spent in mempool"},
      {"cut", "01000000", "Transaction rejected: Not enough data for version"},
      {"too long", std::string(2'000'003, '0'), "Transaction rejected: Transaction too large"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    EXPECT_EQ(refusal("sendrawtransaction", object_of("hex", row.hex)), row.error);
  }
}

TEST_F(NodeMethods, RefuseBadParameters) {
  make_history();
  const std::string key_hidden =
      "No public key available for this address. The address must send at least one transaction first to reveal its "
      "public key.";
  const std::string hash(64, 'a');
  const std::string long_address = "[\"" + std::string(65, '1') + "\"]";
  const struct {
    const char* method;
    std::string params;
    std::string error;
  } rows[] = {
      {"getblocktemplate", "{}", "Mining address required"},
      {"getblocktemplate", "[7]", "Mining address required"},
      {"getblocktemplate", long_address, "Invalid address"},
      {"submitblock", "[]", "Block data required"},
      {"sendrawtransaction", "{\"hex\":\"\"}", "Transaction hex required"},
      {"getbalance", "null", "Address required"},
      {"getbalance", "[\"1abc\"]", "Invalid address"},
      {"getutxos", "{\"address\":5}", "Address required"},
      {"getutxos", long_address, "Invalid address"},
      {"listtransactions", "{}", "Address required"},
      {"getaddressinfo", "{\"address\":\"0\"}", "Invalid address"},
      {"getpubkeyforaddress", "[]", "Missing address parameter"},
      {"getpubkeyforaddress", "null", "Missing address parameter"},
      {"getpubkeyforaddress", "[1]", "Invalid address parameter"},
      {"getpubkeyforaddress", "{}", "Missing or invalid 'address' parameter"},
      {"getpubkeyforaddress", long_address, "Invalid address"},
      {"getpubkeyforaddress", "[\"" + sample_key(9).address + "\"]", key_hidden},
      {"getblock", "[]", "Block hash required"},
      {"getblock", "[\"" + hash + "\"]", "Block not found"},
      {"getblockheader", "{\"hash\":\"0x12\"}", "Block not found"},
      {"getblockhash", "{}", "Block height required"},
      {"getblockhash", "[1.5]", "Block height required"},
      {"getblockhash", "[14]", "Block not found at height 14"},
      {"getblockhash", "{\"height\":-1}", "Block not found at height -1"},
      {"getblockhash", "[4294967296]", "Block not found at height 4294967296"},
      {"gettransaction", "{}", "Transaction ID required"},
      {"gettransaction", "[\"" + hash + "\"]", "Transaction not found"},
      {"getrawtransaction", "[]", "TXID required"},
      {"getrawtransaction", "{\"txid\":\"zz\"}", "Transaction not found"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.method + row.params);
    EXPECT_EQ(refusal(row.method, JsonValue::parse(row.params)), row.error);
  }
  EXPECT_EQ(call("getpubkeyforaddress", std::vector<JsonValue>{sample_key(1).address}).string,
            crypto::bytes_to_hex(sample_key(1).pubkey));
}

TEST_F(NodeMethods, NameTheMissingComponent) {
  const NodeComponents whole{borrow(scene_.chain()), borrow(pool_), borrow(network_)};
  const std::map<std::string, std::string> needs = {
      {"getblocktemplate", "BM"},
      {"submitblock", "BMN"},
      {"getbalance", "B"},
      {"sendrawtransaction", "BMN"},
      {"getblockcount", "B"},
      {"getbestblockhash", "B"},
      {"getblock", "B"},
      {"getblockheader", "B"},
      {"gettransaction", "B"},
      {"getpeerinfo", "N"},
      {"getnetworkinfo", "N"},
      {"getmininginfo", "B"},
      {"getmempoolinfo", "M"},
      {"getutxos", "B"},
      {"getpubkeyforaddress", "B"},
      {"listtransactions", "B"},
      {"getaddressinfo", "B"},
      {"getblockhash", "B"},
      {"getrawmempool", "M"},
      {"getrawtransaction", "B"},
  };
  EXPECT_EQ(methods_.size(), needs.size());
  for (const auto& [letter, name] :
       std::map<char, std::string>{{'B', "Blockchain"}, {'M', "Mempool"}, {'N', "Network"}}) {
    set_components({letter == 'B' ? nullptr : whole.chain, letter == 'M' ? nullptr : whole.pool,
                    letter == 'N' ? nullptr : whole.network});
    for (const auto& [method, letters] : needs) {
      const bool is_refused = refusal(method, JsonValue()) == name + " not initialized";
      EXPECT_EQ(is_refused, letters.find(letter) != std::string::npos) << method << " without " << name;
    }
  }
}

// Whoever has very many gets the newest ones.
TEST_F(NodeMethods, BoundAListOfTransactions) {
  const auto signed_again = [](Transaction tx) {
    tx.sign_input(0, sample_key(1).private_key, Script::create_p2pkh_output(sample_key(1).pubkey_hash));
    return tx;
  };
  for (int i = 0; i < 10; ++i) {
    include({}, 0, 1);
    Transaction tx = spend(output_of(scene_.tip().transactions[0]), {1}, 1, 4);
    tx.outputs.emplace_back().script_pubkey = Bytes(900'000, 0x51);
    include({signed_again(tx)}, 8 * kCoin - 1);
  }
  const JsonValue list = call("listtransactions", std::vector<JsonValue>{sample_key(4).address, 100});
  EXPECT_EQ(list.array.size(), 9u);  // of 1.8 million digits each
  EXPECT_EQ(list[0].get("confirmations").number, 1);
}

}  // namespace
}  // namespace norvel::rpc
