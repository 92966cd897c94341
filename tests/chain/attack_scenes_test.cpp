// Attacks on the chain that take more than one refused block: bodies that are
// not those of a header, locks opened too early, other spellings of the bytes,
// a coinbase made twice.

#include <random>
#include <tuple>

#include "chain/chain_scene.h"
#include "chain/transaction_rules.h"
#include "crypto/hash.h"
#include "mempool/admission.h"
#include "mempool/mempool.h"
#include "script/script.h"
#include "support/byte_strings.h"

namespace norvel {
namespace {

// A block with two payments and its child, above block 1, which both keep out.
struct Poisoned {
  explicit Poisoned(const Block& fork) {
    const auto coin = output_of(fork.transactions[0]);
    const Transaction first = pay(sample_key(1), {coin}, {coin.second.value});
    block = make_child(fork, {.txs = {first, pay(sample_key(2), {output_of(first)}, {coin.second.value})}});
    child = make_child(block);
  }

  Block block, child;
};

const std::tuple<const char*, void (*)(Block&), std::string> kPoisons[] = {
    {"junk", [](Block& b) { b.transactions.pop_back(); }, "Invalid merkle root"},
    {"doubled tail", [](Block& b) { b.transactions.push_back(b.transactions[2]); },
     "Block contains a transaction twice"},
    {"wrong height", [](Block& b) { b.height = 7; }, "Invalid block height (parent at 1, block claims 7"},
};

TEST(PoisonedBody, NeverTakesThePlaceOfTheTrueBlock) {
  for (const auto& [label, spoil, reason] : kPoisons) {
    for (const bool is_side : {false, true}) {
      for (const bool is_stored : {false, true}) {
        SCOPED_TRACE(testing::Message() << label << ", side chain: " << is_side << ", in the file: " << is_stored);
        ChainScene scene;
        const Poisoned genuine(scene.extend());
        if (is_side) {
          scene.extend({.message = "active"});
        }
        Block poison = genuine.block;
        spoil(poison);
        EXPECT_EQ(scene.refusal(poison), reason);
        if (is_stored) {
          ASSERT_TRUE(scene.chain().save_block_to_disk(poison));
        }
        scene.reopen();
        EXPECT_EQ(scene.refusal(poison), reason);
        scene.add(genuine.block);
        scene.add(genuine.child);
        scene.reopen();
        EXPECT_EQ(scene.chain().get_best_hash(), genuine.child.get_hash());
        EXPECT_EQ(scene.chain().load_block_from_disk(poison.get_hash())->serialize(), genuine.block.serialize());
      }
    }
  }
}

constexpr uint32_t kLockHeight = 5;

// Block 3 funds a contract that key 1 may have back from a height on; `coin` is
// the reward of block 2. Block 4 is the tip.
class LockTimes : public testing::Test {
 protected:
  LockTimes() {
    std::string error;
    const auto reward = output_of(scene_.extend().transactions[0]);
    coin_ = output_of(scene_.extend().transactions[0]);
    const auto funding =
        Transaction::create_htlc_tx(key_.private_key, key_.pubkey, kCoin, sample_key(2).pubkey_hash,
                                    crypto::sha256(Bytes{1}).to_bytes(), kLockHeight, {reward}, 1'000, error);
    scene_.extend({.txs = {funding.value()}});
    contract_ = output_of(*funding);
    scene_.extend();
  }

  Transaction refund(uint32_t locktime) {
    std::string error;
    return Transaction::create_htlc_refund_tx(key_.private_key, key_.pubkey, contract_.first, contract_.second,
                                              locktime, error)
        .value();
  }

  Transaction locked(uint64_t locktime) {
    Transaction tx = pay(key_, {coin_}, {coin_.second.value});
    tx.locktime = static_cast<uint32_t>(locktime);
    tx.inputs[0].sequence = 0;
    tx.sign_input(0, key_.private_key, Script(coin_.second.locking_script()));
    return tx;
  }

  AdmissionOutcome offer(const Transaction& tx) {
    std::string reason;
    int64_t fee = 0;
    Mempool pool(100'000);
    return TransactionAdmission(scene_.chain(), pool).accept(tx, reason, fee);
  }

  const SampleKey key_ = sample_key(1);
  ChainScene scene_;
  std::pair<OutPoint, TxOut> contract_, coin_;
};

TEST_F(LockTimes, HoldInPoolBlockAndBranchUntilTheirHeight) {
  using enum AdmissionOutcome;
  const std::string not_final = "Invalid transaction in block [1]: Transaction is not final";
  const std::string not_signed = "Invalid transaction signature in block";
  const uint64_t time = scene_.tip().header.timestamp + 10;  // of block 5
  const std::tuple<const char*, Transaction, AdmissionOutcome, std::string> rows[] = {
      {"refund before the contract lets it", refund(kLockHeight - 1), INVALID, not_signed},
      {"refund", refund(kLockHeight), NOT_TAKEN, not_final},
      {"height", locked(kLockHeight), NOT_TAKEN, not_final},
      {"time, past by the wall clock", locked(time), ACCEPTED, not_final},
  };
  const Block fourth = scene_.tip();
  for (const auto& [label, tx, in_pool, in_block] : rows) {
    EXPECT_EQ(offer(tx), in_pool) << label;
    EXPECT_EQ(scene_.refusal(make_child(fourth, {.txs = {tx}})), in_block) << label;
  }
  const Block fifth = scene_.extend();
  for (const auto& [label, tx, in_pool, in_block] : rows) {
    const Block early = make_child(fourth, {.txs = {tx}, .message = "early"});
    scene_.add(early);
    EXPECT_EQ(scene_.refusal(make_child(early)),
              "Reorg to side chain failed: candidate branch failed validation: " + in_block)
        << label;
    EXPECT_EQ(offer(tx), in_block == not_final ? ACCEPTED : INVALID) << label;
  }
  scene_.extend({.txs = {std::get<1>(rows[3])}});
  const Block sixth = make_child(fifth, {.txs = {std::get<1>(rows[1]), std::get<1>(rows[2])}});
  scene_.add(sixth);
  scene_.add(make_child(sixth));
  EXPECT_EQ(scene_.block_at(6).get_hash(), sixth.get_hash());
  EXPECT_FALSE(scene_.chain().get_utxo_set().has_utxo(contract_.first));
}

// Every freedom that the reader leaves: widths of script lengths, flags, what
// follows a note and a transaction.
Bytes respelled(const Transaction& tx, std::mt19937_64& random) {
  const auto junk = [&random] { return random_bytes(random, random() % 4); };
  Transaction head = tx;
  head.outputs.clear();
  Bytes out = head.serialize();
  out.resize(out.size() - 6);  // the count of outputs and the lock time
  append_le(out, static_cast<uint16_t>(tx.outputs.size()));
  for (const TxOut& output : tx.outputs) {
    const Bytes script = output.locking_script();
    append_le(out, static_cast<uint64_t>(output.value));
    if (random() % 2 == 0) {
      out.push_back(0xfe);
      append_le(out, static_cast<uint32_t>(script.size()));
    } else {
      out.push_back(0xff);
      append_le(out, uint64_t{script.size()});
    }
    append(out, script);
    out.push_back(output.message ? static_cast<uint8_t>(1 + random() % 255) : 0);
    if (output.message) {
      const Bytes note = join({output.message->serialize(), junk()});
      append_le(out, static_cast<uint16_t>(note.size()));
      append(out, note);
    }
  }
  append_le(out, tx.locktime);
  return join({out, junk()});
}

TEST(OtherSpellings, AreReadStoredAndRelayedAsTheCanonicalOne) {
  std::mt19937_64 random(6);
  for (int i = 0; i < 500; ++i) {
    const Transaction tx = random_transaction(random);
    if (fits_byte_format(tx)) {
      ASSERT_EQ(Transaction::deserialize(respelled(tx, random)).serialize(), tx.serialize()) << i;
    }
  }
  ChainScene scene;
  const Block parent = scene.extend();
  const auto coin = output_of(parent.transactions[0]);
  Transaction tx = pay(sample_key(1), {coin}, {coin.second.value});
  tx.outputs[0].message = crypto::EncryptedMessage{1, Bytes(9), Bytes(12), Bytes(33)};
  tx.sign_input(0, sample_key(1).private_key, Script(coin.second.locking_script()));

  Mempool pool(100'000);
  std::string reason;
  int64_t fee = 0;
  TransactionAdmission admission(scene.chain(), pool);
  const Transaction twin = Transaction::deserialize(respelled(tx, random));
  EXPECT_EQ(admission.accept(twin, reason, fee), AdmissionOutcome::ACCEPTED) << reason;
  EXPECT_EQ(admission.accept(tx, reason, fee), AdmissionOutcome::KNOWN);
  EXPECT_EQ(pool.get_transaction(tx.get_txid())->serialize(), tx.serialize());

  const Block block = make_child(parent, {.txs = {tx}});
  Bytes spelled = cut(block.serialize(), BlockHeader::kSize + 8);
  for (const Transaction& each : block.transactions) {
    const Bytes bytes = respelled(each, random);
    append_le(spelled, static_cast<uint32_t>(bytes.size()));
    append(spelled, bytes);
  }
  scene.add(Block::deserialize(join({spelled, {7}})));
  EXPECT_EQ(scene.refusal(block), "Block already exists");
  scene.reopen();
  EXPECT_EQ(scene.chain().load_block_from_disk(block.get_hash())->serialize(), block.serialize());
}

// With its spender, where that was spent before.
TEST(RepeatedCoinbase, TakesNoCoinAwayWhenItIsUndone) {
  for (const bool is_spent : {false, true}) {
    SCOPED_TRACE(is_spent);
    ChainScene scene;
    const Transaction coinbase = scene.extend().transactions[0];
    const auto coin = output_of(coinbase);
    const Transaction spend = pay(sample_key(1), {coin}, {coin.second.value}, 1);
    std::vector<Transaction> spends;
    if (is_spent) {
      spends = {spend};
    }
    const Block fork = scene.extend({.txs = spends});
    Block again = make_child(fork, {.txs = spends});
    again.transactions[0] = coinbase;
    seal(again);
    scene.add(again);
    EXPECT_EQ(scene.chain().get_transaction_height(coinbase.get_txid()), 3u);
    scene.add_all(make_branch(fork, 2, {.message = "other"}));
    EXPECT_EQ(scene.chain().get_best_height(), 4u);
    EXPECT_EQ(scene.chain().get_transaction_height(coinbase.get_txid()), 1u);
    EXPECT_EQ(scene.chain().get_snapshot_bytes(), scene.replayed_snapshot());
    const auto left = is_spent ? output_of(spend) : coin;
    scene.extend({.txs = {pay(sample_key(1), {left}, {left.second.value})}});
  }
}

}  // namespace
}  // namespace norvel
