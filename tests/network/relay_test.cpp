// What a node sends, prints and takes for each message of a peer.

#include "network/relay.h"

#include <gtest/gtest.h>

#include "network/block_sync.h"
#include "network/inventory_server.h"
#include "network/relay_node.h"
#include "script/script.h"

namespace norvel::network {
namespace {

using enum AdmissionOutcome;

class RelayMessages : public testing::Test {
 protected:
  RelayMessages() {
    const Blockchain::WriteScope quick(node.scene.chain());
    for (int i = 0; i < 12; ++i) {
      blocks.push_back(node.scene.extend());
    }
    peer = node.add_peer(0);
  }

  Transaction payment(size_t height, int64_t fee = 1'000) const {
    const auto coin = output_of(blocks[height - 1].transactions[0]);
    return pay(sample_key(1), {coin}, {coin.second.value - fee});
  }

  static Transaction child_of(const Transaction& parent) {
    return pay(sample_key(2), {output_of(parent)}, {parent.outputs[0].value - 1'000});
  }

  void accept(const Transaction& tx) {
    std::string reason;
    ASSERT_EQ(node.relay.try_accept_tx(tx, reason), ACCEPTED) << reason;
    for (const PeerPtr& other : node.peers) {
      node.take_sent(other);
    }
  }

  void send_block(const Block& block) { node.handle(peer, MessageType::BLOCK, block.serialize()); }
  void send_tx(const Transaction& tx) { node.handle(peer, MessageType::TX, tx.serialize()); }

  // The items of each message, which all must be of this type.
  std::vector<std::vector<InvVector>> sent_items(MessageType type, const PeerPtr& to) {
    std::vector<std::vector<InvVector>> lists;
    for (const Message& message : node.take_sent(to)) {
      EXPECT_EQ(message.type, type);
      lists.push_back(decode_inventory(message.payload));
    }
    return lists;
  }

  static std::string short_id(const Transaction& tx) { return tx.get_txid().to_hex().substr(0, 16); }

  RelayNode node;
  PeerPtr peer;
  std::vector<Block> blocks;  // heights 1 to 12
};

TEST_F(RelayMessages, EachUnknownItemIsRequestedAlone) {
  const Transaction pooled = payment(1);
  accept(pooled);
  const InvVector unknown_block{kInvBlock, uint256(uint64_t{1})};
  const InvVector unknown_tx{kInvTransaction, uint256(uint64_t{2})};
  const InvVector odd{77, blocks[0].get_hash()};
  node.handle_inv(peer, {{kInvBlock, blocks[3].get_hash()},
                         unknown_block,
                         {kInvTransaction, pooled.get_txid()},
                         unknown_tx,
                         {kInvTransaction, blocks[3].transactions[0].get_txid()},
                         odd});
  EXPECT_EQ(sent_items(MessageType::GETDATA, peer),
            (std::vector<std::vector<InvVector>>{{unknown_block}, {unknown_tx}, {odd}}));
}

TEST_F(RelayMessages, APassThatStallsIsNobodysSilence) {
  const PeerPtr ahead = node.add_peer(1'000);
  node.clock.begin_pass();
  node.relay.check_sync_with_peer(ahead);
  EXPECT_EQ(node.take_sent(ahead).size(), 1u);
  for (int i = 0; i < 2; ++i) {
    node.clock.stall_ms(kBatchWaitMs);
    node.relay.check_sync_with_peer(ahead);
    EXPECT_TRUE(node.take_sent(peer).empty()) << "the answer may wait to be read";
    node.clock.begin_pass();
  }
  node.clock.advance_ms(kAnswerWaitMs);
  node.relay.check_sync_with_peer(ahead);
  EXPECT_EQ(node.take_sent(peer).size(), 1u);
}

TEST_F(RelayMessages, AParkedTwinDoesNotKeepTheTrueBlockOut) {
  const std::vector<Block> ahead = make_branch(blocks.back(), 3);
  const PeerPtr liar = node.add_peer(0);
  Block twin = ahead[1];
  twin.height = 99;
  node.handle(liar, MessageType::BLOCK, twin.serialize());
  node.handle(liar, MessageType::BLOCK, ahead[2].serialize());
  node.take_sent(peer);
  node.handle_inv(
      peer, {{kInvBlock, ahead[0].get_hash()}, {kInvBlock, ahead[1].get_hash()}, {kInvBlock, ahead[2].get_hash()}});
  EXPECT_EQ(sent_items(MessageType::GETDATA, peer).size(), 2u) << "all but the last, which is parked as it is";
  send_block(ahead[0]);
  send_block(ahead[1]);
  EXPECT_EQ(node.height(), 15u);
}

TEST_F(RelayMessages, GetDataIsAnsweredWithWhatThereIs) {
  const Transaction pooled = payment(1);
  accept(pooled);
  const Transaction& mined = blocks[1].transactions[0];
  testing::internal::CaptureStderr();
  node.handle(peer, MessageType::GETDATA,
              encode_inventory({{kInvBlock, blocks[4].get_hash()},
                                {kInvBlock, mined.get_txid()},
                                {kInvTransaction, pooled.get_txid()},
                                {3, blocks[4].get_hash()},
                                {kInvTransaction, mined.get_txid()}}));
  const std::vector<Message> sent = node.take_sent(peer);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  ASSERT_EQ(sent.size(), 3u);
  EXPECT_EQ(sent[0].payload, blocks[4].serialize());
  EXPECT_EQ(sent[0].type, MessageType::BLOCK);
  EXPECT_EQ(sent[1].payload, pooled.serialize());
  EXPECT_EQ(sent[1].type, MessageType::TX);
  EXPECT_EQ(sent[2].payload, mined.serialize());
}

TEST_F(RelayMessages, GetBlocksNamesTheChainBehindTheFork) {
  const Block side = make_child(blocks[5], {.message = "side"});
  node.scene.add(side);
  const uint256 none;
  const struct {
    const char* label;
    uint256 start, stop;
    uint32_t first, last;
  } rows[] = {
      {"active block", blocks[3].get_hash(), none, 5, 12},
      {"side-chain block", side.get_hash(), none, 7, 12},
      {"unknown start", uint256(uint64_t{5}), none, 1, 12},
      {"stop is included", blocks[3].get_hash(), blocks[6].get_hash(), 5, 7},
      {"stop behind the start", blocks[3].get_hash(), blocks[1].get_hash(), 5, 12},
      {"tip", blocks[11].get_hash(), none, 13, 12},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    std::vector<InvVector> want;
    for (uint32_t height = row.first; height <= row.last; ++height) {
      want.push_back({kInvBlock, blocks[height - 1].get_hash()});
    }
    node.handle(peer, MessageType::GETBLOCKS, encode_get_blocks({row.start, row.stop}));
    const auto lists = sent_items(MessageType::INV, peer);
    ASSERT_EQ(lists.size(), want.empty() ? 0u : 1u);
    EXPECT_TRUE(want.empty() || lists[0] == want);
  }
  node.handle(peer, MessageType::GETBLOCKS, Bytes(kGetBlocksBytes - 1));
  EXPECT_TRUE(node.take_sent(peer).empty());
}

TEST_F(RelayMessages, AnOrphanAsksTheHighestPeerAndItsParentBringsItIn) {
  const PeerPtr high = node.add_peer(50);
  node.add_peer(50);
  const std::vector<Block> next = make_branch(blocks.back(), 2);
  testing::internal::CaptureStdout();
  send_block(next[1]);
  EXPECT_NE(testing::internal::GetCapturedStdout().find(
                "[Network] Orphan block at height 14 — requesting missing parent blocks\n"),
            std::string::npos);
  EXPECT_TRUE(node.take_sent(peer).empty());
  const std::vector<Message> asked = node.take_sent(high);
  ASSERT_EQ(asked.size(), 1u);
  EXPECT_EQ(decode_get_blocks(asked[0].payload), (GetBlocksPayload{blocks.back().get_hash(), {}}));
  node.clock.advance_ms(kAnswerWaitMs);
  const std::vector<Message> asked_later = node.take_sent(peer);
  ASSERT_EQ(asked_later.size(), 1u) << "the sender, when the highest has not helped";
  EXPECT_EQ(asked_later[0].payload, asked[0].payload);

  std::vector<uint32_t> told;
  node.callbacks.block_received = [&told](const Block& block) { told.push_back(block.height); };
  send_block(next[0]);
  EXPECT_EQ(node.height(), 14u);
  EXPECT_EQ(told, std::vector<uint32_t>{13});
  EXPECT_EQ(peer->best_height, 13u);
  const auto announced = sent_items(MessageType::INV, peer);
  EXPECT_EQ(announced, (std::vector<std::vector<InvVector>>{{{kInvBlock, next[0].get_hash()}},
                                                            {{kInvBlock, next[1].get_hash()}}}));
  EXPECT_FALSE(node.relay.validate_and_relay_block(next[0])) << "known";
}

TEST_F(RelayMessages, OrphansWithoutWorkWaitTheirTurn) {
  const std::vector<Block> next = make_branch(blocks.back(), 6);
  send_block(next[3]);
  EXPECT_EQ(node.take_sent(peer).size(), 1u);
  for (uint64_t i = 0; i < 100; ++i) {
    Block junk = next[5];
    junk.header.prev_hash = uint256(i + 1);
    junk.header.bits = 0x01000000;
    if (i == 50) {
      node.scene.add(next[0]);
    }
    send_block(junk);
  }
  EXPECT_TRUE(node.take_sent(peer).empty()) << "one request is open";
  send_block(next[5]);
  EXPECT_EQ(node.take_sent(peer).size(), 1u) << "work speaks for a parent that is nowhere";
}

TEST_F(RelayMessages, BadPayloadsCostPoints) {
  Transaction overspent = payment(1, -1);
  Block wrong = make_child(blocks.back());
  wrong.height = 20;
  const struct {
    const char* label;
    MessageType type;
    Bytes payload;
    uint32_t points;
    std::string line;
  } rows[] = {
      {"block cut", MessageType::BLOCK, Bytes(50), 10, "[Network] Block decode error from 10.0.0.1: "},
      {"block refused", MessageType::BLOCK, wrong.serialize(), 0,
       "[Network] Block rejected (height=20): Invalid block"},
      {"transaction cut", MessageType::TX, Bytes(5), 20, "[Network] TX decode error from 10.0.0.1: "},
      {"transaction invalid", MessageType::TX, overspent.serialize(), 10,
       "[Network] Invalid TX from 10.0.0.1: Outputs exceed inputs\n"},
      {"unknown parent", MessageType::TX, child_of(payment(2)).serialize(), 0, ""},
      {"GETDATA fragment", MessageType::GETDATA, Bytes(32), 0, ""},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    node.points.clear();
    testing::internal::CaptureStderr();
    node.handle(peer, row.type, row.payload);
    EXPECT_TRUE(testing::internal::GetCapturedStderr().starts_with(row.line));
    EXPECT_EQ(node.points["10.0.0.1"], row.points);
  }
}

TEST_F(RelayMessages, OrphansFollowTheirParentsInAnyOrder) {
  const Transaction first = payment(1);
  const Transaction second = child_of(first);
  const Transaction third = child_of(second);
  testing::internal::CaptureStdout();
  send_tx(third);
  send_tx(second);
  EXPECT_EQ(node.pool.size(), 0u);
  send_tx(first);
  const std::string lines = testing::internal::GetCapturedStdout();
  EXPECT_EQ(node.pool.size(), 3u);
  for (const std::string& line : {short_id(third) + "... queued (waiting for parent)\n",
                                  "TX " + short_id(first) + "... accepted to mempool (fee 1000)\n",
                                  "Orphan TX " + short_id(third) + "... parent arrived — accepted\n"}) {
    EXPECT_NE(lines.find(line), std::string::npos) << line;
  }
  EXPECT_EQ(sent_items(MessageType::INV, peer).size(), 3u);
}

TEST_F(RelayMessages, OrphansExpire) {
  const Transaction parent = payment(1);
  send_tx(child_of(parent));
  node.clock.advance_ms(300'000);
  node.relay.process_orphan_txs();
  node.clock.advance_ms(2'000);
  testing::internal::CaptureStdout();
  node.relay.process_orphan_txs();
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "[Network] Orphan TX " + short_id(child_of(parent)) + "... expired\n");
  send_tx(parent);
  EXPECT_EQ(node.pool.size(), 1u);
}

TEST_F(RelayMessages, ThePoolIsListedByFeeRateOnceAMinute) {
  std::vector<InvVector> want;
  for (const size_t height : {3u, 1u, 2u}) {
    const Transaction tx = payment(height, 10'000 - 1'000 * static_cast<int64_t>(want.size()));
    accept(tx);
    want.push_back({kInvTransaction, tx.get_txid()});
  }
  testing::internal::CaptureStdout();
  node.handle(peer, MessageType::MEMPOOL, {});
  EXPECT_EQ(sent_items(MessageType::INV, peer), std::vector<std::vector<InvVector>>{want});
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "[Network] Sent 3 mempool TX INVs to 10.0.0.1\n");
  node.handle(peer, MessageType::MEMPOOL, {});
  EXPECT_TRUE(node.take_sent(peer).empty());
  node.clock.advance_ms(kMempoolIntervalMs);
  node.handle(peer, MessageType::MEMPOOL, {});
  EXPECT_EQ(node.take_sent(peer).size(), 1u);
}

TEST_F(RelayMessages, OneListOfThePoolServesAllForAMinute) {
  const PeerPtr other = node.add_peer(0);
  const PeerPtr late = node.add_peer(0);
  accept(payment(1));
  peer->queued_bytes = kQueuedBytesMax;
  node.handle(peer, MessageType::MEMPOOL, {});
  accept(payment(2));
  node.handle(other, MessageType::MEMPOOL, {});
  EXPECT_EQ(sent_items(MessageType::INV, other)[0].size(), 1u) << "as listed for the first";
  node.clock.advance_ms(15'000);
  node.handle(late, MessageType::MEMPOOL, {});
  EXPECT_EQ(sent_items(MessageType::INV, late)[0].size(), 2u);
  node.clock.advance_ms(45'000);
  testing::internal::CaptureStdout();
  node.take_sent(peer);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "[Network] Sent 0 mempool TX INVs to 10.0.0.1\n");
}

TEST_F(RelayMessages, ScriptsOverTheBudgetAreCheckedOnceAMinute) {
  Transaction funding = payment(1);
  funding.outputs[0].script_pubkey = {0x51};
  for (int i = 0; i < 2'001; ++i) {
    append(funding.outputs[0].script_pubkey, Bytes{0x76, 0x76, 0xac, 0x75});  // DUP DUP CHECKSIG DROP
  }
  const auto coin = output_of(blocks[0].transactions[0]);
  funding.sign_input(0, sample_key(1).private_key, Script(coin.second.locking_script()));
  send_tx(funding);
  ASSERT_EQ(node.pool.size(), 1u);
  Transaction costly = child_of(funding);
  costly.inputs[0].signature.clear();
  costly.inputs[0].pubkey.assign(TxIn::kHtlcMarker.begin(), TxIn::kHtlcMarker.end());
  costly.invalidate_cache();
  send_tx(costly);
  EXPECT_EQ(node.pool.size(), 1u);
  // From here on a check would let it pass.
  node.scene.chain().get_verified_inputs().remember(costly, 0, funding.outputs[0]);
  send_tx(costly);
  EXPECT_EQ(node.pool.size(), 1u);
  node.clock.advance_ms(60'000);
  send_tx(costly);
  EXPECT_EQ(node.pool.size(), 2u);
}

TEST_F(RelayMessages, AnswersWaitWhileMuchIsQueued) {
  const PeerPtr other = node.add_peer(0);
  const std::vector<InvVector> many(kPendingItemsMax, {kInvBlock, blocks[0].get_hash()});
  node.handle(peer, MessageType::GETDATA, encode_inventory(many));
  node.handle(peer, MessageType::GETDATA, encode_inventory(many));
  node.handle(other, MessageType::GETDATA, encode_inventory({many[0]}));
  peer->queued_bytes = kQueuedBytesMax;
  EXPECT_TRUE(node.take_sent(peer).empty());
  EXPECT_EQ(node.take_sent(other).size(), 1u);
  peer->queued_bytes = 0;
  size_t total = 0;
  const size_t one_bytes = kFrameHeaderBytes + blocks[0].size();
  for (size_t count = 1; count > 0; total += count) {
    count = node.take_sent(peer).size();
    EXPECT_LT(count * one_bytes, kPassBytesMax + one_bytes);
  }
  EXPECT_EQ(total, kPendingItemsMax);
}

TEST_F(RelayMessages, HeightsAreCompared) {
  const struct {
    uint32_t theirs;
    std::string line;
  } rows[] = {
      {13, "[Network] Peer 10.0.0.1 is ahead (their=13 ours=12) — requesting blocks\n"},
      {12, ""},
      {9,
       "[Network] Peer 10.0.0.1 is behind (their=9 ours=12) — pushing INVs\n"
       "[Network] Sent 3 INVs to 10.0.0.1 (blocks 10..12)\n"},
  };
  for (const auto& row : rows) {
    peer->best_height = row.theirs;
    testing::internal::CaptureStdout();
    node.relay.check_sync_with_peer(peer);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), row.line);
  }
}

TEST(RelayAlone, ANodeThatIsNotReadyTakesNothing) {
  RelayNode node;
  node.relay.attach(nullptr, nullptr);
  const PeerPtr peer = node.add_peer(7);
  for (int type = 0; type < 16; ++type) {
    node.handle(peer, static_cast<MessageType>(type), Bytes(84 + 4 + 4));
  }
  node.relay.check_sync_with_peer(peer);
  node.relay.process_orphan_txs();
  std::string reason;
  EXPECT_EQ(node.relay.try_accept_tx(Transaction(), reason), NOT_TAKEN);
  EXPECT_EQ(reason, "node not ready");
  EXPECT_FALSE(node.relay.accept_block(Block(), reason));
  EXPECT_FALSE(node.relay.validate_and_relay_block(Block()));
}

}  // namespace
}  // namespace norvel::network
