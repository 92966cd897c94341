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
#include "mempool/mempool.h"
#include "mempool/pool_updater.h"
#include "network/network_manager.h"
#include "rpc/address_outputs.h"
#include "rpc/method_scene.h"

namespace norvel::rpc {
namespace {

using Transactions = std::vector<Transaction>;

// Without the member that says in whole coins what `units` says.
JsonValue without_coins(JsonValue object, const char* coins, const char* units) {
  EXPECT_DOUBLE_EQ(object.get(coins).number * 1e8, object.get(units).number);
  object.object.erase(coins);
  return object;
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
    std::vector<JsonValue> txids;
    for (const Transaction& tx : block.transactions) {
      txids.push_back(tx.get_txid().to_hex());
    }
    JsonValue found = call("getblock", object_of("hash", block.get_hash().to_hex()));
    EXPECT_EQ(call("getblockheader", std::vector<JsonValue>{block.get_hash().to_hex()}).to_string(), found.to_string());
    EXPECT_DOUBLE_EQ(found.get("difficulty").number, difficulty::get_difficulty(block.header.bits));
    found.object.erase("difficulty");
    EXPECT_EQ(found.to_string(),
              fill(R"({"bits":%,"hash":"%","height":%,"merkleroot":"%","nonce":%,"previousblockhash":"%","size":%,)"
                   R"("time":%,"tx":%,"tx_count":%,"version":1})",
                   block.header.bits, block.get_hash().to_hex(), block.height, block.header.merkle_root.to_hex(),
                   block.header.nonce, block.header.prev_hash.to_hex(), block.serialize().size(),
                   block.header.timestamp, JsonValue(txids).to_string(), txids.size()));
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

// What the blocks alone say.
struct Ledger {
  explicit Ledger(ChainScene& scene) : best_height(scene.chain().get_best_height()) {
    for (uint32_t height = 0; height <= best_height; ++height) {
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

  struct Row {
    Transaction tx;
    Block block;
  };

  // The entries of listtransactions for an address.
  std::vector<std::string> newest_first(const Bytes& pubkey_hash) const {
    std::vector<std::string> entries;
    for (size_t i = rows.size(); i-- > 0;) {
      const Row& row = rows[i];
      int64_t amount = 0;
      bool pays = false;
      bool pays_others = false;
      bool sends = false;
      for (const TxOut& output : row.tx.outputs) {
        const bool is_own = output.get_pubkey_hash() == pubkey_hash;
        (is_own ? pays : pays_others) = true;
        amount += is_own ? output.value : 0;
      }
      for (const TxIn& input : row.tx.inputs) {
        const auto output = made.find(input.prevout);
        if (output != made.end() && output->second.get_pubkey_hash() == pubkey_hash) {
          sends = true;
          amount -= output->second.value;
        }
      }
      const bool is_coinbase = row.tx.type == TransactionType::COINBASE;
      if (pays || sends) {
        entries.push_back(
            fill(R"({"amount":%,"blockhash":"%","blockheight":%,"confirmations":%,"has_message":%,"hex":"%","time":%,)"
                 R"("txid":"%","type":"%"})",
                 amount, row.block.get_hash().to_hex(), row.block.height, best_height + 1 - row.block.height,
                 row.tx.outputs[0].message ? "true" : "false", hex_of(row.tx), row.block.header.timestamp,
                 row.tx.get_txid().to_hex(),
                 is_coinbase   ? "coinbase"
                 : !sends      ? "receive"
                 : pays_others ? "send"
                               : "self"));
      }
    }
    return entries;
  }

  uint32_t best_height;
  std::vector<Row> rows;  // in block order
  std::map<OutPoint, TxOut> made;
  std::set<OutPoint> spent;
};

TEST_F(NodeMethods, AccountForEveryAddress) {
  make_history();
  const Ledger ledger(scene_);
  for (uint8_t seed = 1; seed <= 5; ++seed) {
    SCOPED_TRACE(int{seed});
    const SampleKey key = sample_key(seed);
    JsonValue params = object_of("address", key.address);
    std::string outputs;
    int64_t balance = 0;
    size_t output_count = 0;
    for (const auto& [outpoint, output] : ledger.made) {
      if (output.get_pubkey_hash() == key.pubkey_hash && !ledger.spent.contains(outpoint)) {
        balance += output.value;
        outputs += fill(R"(%{"txid":"%","value":%,"vout":%})", output_count++ == 0 ? "" : ",", outpoint.txid.to_hex(),
                        output.value, outpoint.index);
      }
    }
    JsonValue utxos = call("getutxos", params);
    for (JsonValue& entry : utxos.array) {
      entry = without_coins(entry, "value_nvl", "value");
    }
    EXPECT_EQ(utxos.to_string(), "[" + outputs + "]");
    const std::vector<std::string> history = ledger.newest_first(key.pubkey_hash);
    const std::string account = fill(R"({"address":"%","balance_satoshis":%)", key.address, balance);
    EXPECT_EQ(without_coins(call("getbalance", params), "balance", "balance_satoshis").to_string(), account + "}");
    EXPECT_EQ(without_coins(call("getaddressinfo", params), "balance", "balance_satoshis").to_string(),
              account + fill(R"(,"tx_count":%,"utxo_count":%})", history.size(), output_count));
    for (const size_t count : {size_t{10}, size_t{100}, size_t{3}, size_t{0}}) {
      const JsonValue list = call("listtransactions", params);
      ASSERT_EQ(list.array.size(), std::min(count, history.size()));
      for (size_t i = 0; i < list.array.size(); ++i) {
        EXPECT_EQ(list[i].to_string(), history[i]);
      }
      params.set("count", count == 10 ? 100 : count == 100 ? 3 : 0);  // ten without it
    }
  }
}

TEST_F(NodeMethods, DescribeEveryTransaction) {
  make_history();
  const Ledger ledger(scene_);
  for (const Ledger::Row& row : ledger.rows) {
    const std::string txid = row.tx.get_txid().to_hex();
    SCOPED_TRACE(txid);
    const bool spends = row.tx.inputs[0].prevout.index < 1'000;
    int64_t fee = spends ? -row.tx.total_output_value() : 0;
    std::vector<TxOut> inputs;
    for (const TxIn& input : row.tx.inputs) {
      if (spends) {
        inputs.push_back(ledger.made.at(input.prevout));
        fee += inputs.back().value;
      }
    }
    // Of each address the first place counts; contracts have none.
    const auto addresses = [](const std::vector<TxOut>& outputs) {
      std::vector<JsonValue> texts;
      for (const TxOut& output : outputs) {
        const std::string address = crypto::hash160_to_address(output.get_pubkey_hash(), 0);
        if (!address.empty() && std::ranges::count(texts, address, &JsonValue::string) == 0) {
          texts.push_back(address);
        }
      }
      return JsonValue(texts);
    };
    JsonValue found = call("gettransaction", std::vector<JsonValue>{txid});
    if (const std::string note = found.get("message").string; !note.empty()) {
      size_t offset = 0;
      const auto message = crypto::EncryptedMessage::deserialize(crypto::hex_to_bytes(note), offset);
      EXPECT_EQ(crypto::decrypt_message(message, sample_key(4).private_key), "hello");
    }
    EXPECT_EQ(found.get("message").string.empty(), row.tx.outputs.empty() || !row.tx.outputs[0].message);
    found.object.erase("message");
    found = without_coins(without_coins(found, "fee", "fee_satoshis"), "value", "value_satoshis");
    const JsonValue from = addresses(inputs);
    const JsonValue to = addresses(row.tx.outputs);
    EXPECT_EQ(
        found.to_string(),
        fill(R"({"blockhash":"%","blockheight":%,"confirmations":%,"fee_satoshis":%,"from":%,"from_address":"%",)"
             R"("hex":"%","time":%,"to":%,"to_address":"%","txid":"%","type":"%","value_satoshis":%})",
             row.block.get_hash().to_hex(), row.block.height, ledger.best_height - row.block.height + 1, fee,
             from.to_string(), from[0].string, hex_of(row.tx), row.block.header.timestamp, to.to_string(), to[0].string,
             txid, row.tx.type == TransactionType::COINBASE ? "coinbase" : "transfer", row.tx.total_output_value()));
    EXPECT_EQ(call("getrawtransaction", object_of("txid", txid)).string, hex_of(row.tx));
  }
}

TEST_F(NodeMethods, ShowThePool) {
  const Transaction parent = spend(output_of(scene_.extend().transactions[0]), {8 * kCoin - 500});
  const Transaction child = spend(output_of(parent), {8 * kCoin - 1'200}, 2, 3);
  for (const Transaction& tx : {parent, child}) {
    EXPECT_EQ(call("sendrawtransaction", object_of("hex", hex_of(tx))).to_string(),
              fill(R"({"accepted":true,"txid":"%"})", tx.get_txid().to_hex()));
  }
  const size_t bytes = parent.size() + child.size();
  EXPECT_EQ(call("getmempoolinfo").to_string(), fill(R"({"bytes":%,"size":2,"usage":%})", bytes, bytes));
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
  include({signed_again(many)}, 8 * kCoin - 90'015);
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
            fill(R"({"accepted":true,"hash":"%","height":1})", block.get_hash().to_hex()));
  EXPECT_EQ(scene_.chain().get_best_hash(), block.get_hash());
  EXPECT_EQ(refusal("submitblock", data_of(block)), "Block rejected: Block already exists");
}

TEST_F(NodeMethods, SayWhyATransactionIsRefused) {
  const auto coin = output_of(scene_.extend().transactions[0]);
  const Transaction known = spend(coin, {8 * kCoin});
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
      {"known", hex_of(known), "Mempool rejected: Transaction already in mempool"},
      {"conflict", hex_of(spend(coin, {1})), "Mempool rejected: Input already spent in mempool"},
      {"cut", "01000000", "Transaction rejected: Not enough data for version"},
      {"too long", std::string(2'000'003, '0'), "Transaction rejected: Transaction too large"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(refusal("sendrawtransaction", object_of("hex", row.hex)), row.error) << row.label;
  }
}

// Look-ups that find nothing are asked of a whole node, in both forms of their parameters.
TEST_F(NodeMethods, RefuseBadParameters) {
  make_history();
  const std::string key_hidden =
      "No public key available for this address. The address must send at least one transaction first to reveal its "
      "public key.";
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
      {"getpubkeyforaddress", "[]", "Missing address parameter"},
      {"getpubkeyforaddress", "null", "Missing address parameter"},
      {"getpubkeyforaddress", "[1]", "Invalid address parameter"},
      {"getpubkeyforaddress", "{}", "Missing or invalid 'address' parameter"},
      {"getpubkeyforaddress", long_address, "Invalid address"},
      {"getpubkeyforaddress", "[\"" + sample_key(9).address + "\"]", key_hidden},
      {"getblockhash", "[1.5]", "Block height required"},
      {"getblockhash", "[14]", "Block not found at height 14"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(refusal(row.method, JsonValue::parse(row.params)), row.error) << row.method + row.params;
  }
  EXPECT_EQ(call("getpubkeyforaddress", std::vector<JsonValue>{sample_key(1).address}).string,
            crypto::bytes_to_hex(sample_key(1).pubkey));
}

TEST_F(NodeMethods, NameTheMissingComponent) {
  EXPECT_EQ(methods_.size(), 20u);
  const struct {
    NodeComponents components;
    std::string refusal;
    std::string methods;  // that give it
  } rows[] = {
      {{nullptr, borrow(pool_), borrow(network_)},
       "Blockchain not initialized",
       "getaddressinfo getbalance getbestblockhash getblock getblockcount getblockhash getblockheader "
       "getblocktemplate getmininginfo getpubkeyforaddress getrawtransaction gettransaction getutxos "
       "listtransactions sendrawtransaction submitblock "},
      {{borrow(scene_.chain()), nullptr, borrow(network_)},
       "Mempool not initialized",
       "getblocktemplate getmempoolinfo getrawmempool sendrawtransaction submitblock "},
      {{borrow(scene_.chain()), borrow(pool_), nullptr},
       "Network not initialized",
       "getnetworkinfo getpeerinfo sendrawtransaction submitblock "},
  };
  for (const auto& row : rows) {
    set_components(row.components);
    std::string refusing;
    for (const auto& [method, handler] : methods_) {
      refusing += refusal(method, JsonValue()) == row.refusal ? method + " " : "";
    }
    EXPECT_EQ(refusing, row.methods) << row.refusal;
  }
}

// Whoever has very many gets the newest ones.
TEST_F(NodeMethods, BoundAListOfTransactions) {
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
