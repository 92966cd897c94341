// Whom to ask, when to ask again, and what not to request.

#include "network/block_sync.h"

#include <gtest/gtest.h>

namespace norvel::network {
namespace {

using Ask = BlockSync::Ask;
using Fate = BlockSync::Fate;
using PeerPtr = BlockSync::PeerPtr;

uint256 block(uint64_t number) {
  return uint256(number + 1);
}

struct Scene {
  static PeerPtr peer(uint32_t height) {
    auto made = std::make_shared<Peer>(FileDescriptor(), "10.0.0.1", 1, true);
    made->best_height = height;
    return made;
  }

  bool ask(const PeerPtr& of, uint64_t start, bool urgent = false, Ask::From from = Ask::From::TIP) {
    return sync.begin({of, from, 0, {}, urgent}, block(start), 100, now);
  }

  // Blocks first to last, of which those beyond `new_to` are known.
  BlockSync::InvOutcome inv(const PeerPtr& from, uint64_t first, uint64_t last, uint64_t new_to = ~0ull) {
    BlockSync::Inv list{.items = {}, .peer_height = from->best_height, .our_height = 100};
    for (uint64_t i = first; i <= last; ++i) {
      list.items.push_back({{kInvBlock, block(i)}, i > new_to});
    }
    return sync.receive_inv(from, list, now);
  }

  BlockSync::DeliveryOutcome deliver(const PeerPtr& from, uint64_t number, Fate fate = Fate::TAKEN,
                                     bool has_work = true) {
    return sync.delivered(from,
                          {.hash = block(number),
                           .parent = block(number - 1),
                           .height = static_cast<uint32_t>(number),
                           .fate = fate,
                           .has_work = has_work,
                           .parked = true,
                           .connected = fate == Fate::TAKEN},
                          now);
  }

  // Sends what may be sent of blocks first to last; returns how many.
  size_t request(const PeerPtr& of, uint64_t first, uint64_t last) {
    size_t count = 0;
    for (uint64_t i = first; i <= last; ++i) {
      if (sync.check_request(of, block(i), now) == BlockSync::Request::SEND) {
        sync.requested(of, {kInvBlock, block(i)}, now);
        ++count;
      }
    }
    return count;
  }

  BlockSync sync;
  int64_t now = 1'000'000;
};

class Sync : public testing::Test, protected Scene {};

TEST_F(Sync, OneRequestIsOpenForThirtySecondsAndAStartRestsForTen) {
  const PeerPtr one = peer(200);
  EXPECT_TRUE(ask(one, 1));
  EXPECT_FALSE(ask(one, 2));
  EXPECT_TRUE(ask(one, 3, true));
  EXPECT_FALSE(ask(one, 3, true));
  now += kSameStartMs;
  EXPECT_TRUE(ask(one, 3, true));
  now += kAnswerWaitMs - 1;
  EXPECT_FALSE(ask(one, 4));
  EXPECT_TRUE(sync.tick({one}, now).empty());
  now += 1;
  EXPECT_EQ(sync.tick({one}, now).size(), 1u);
  EXPECT_TRUE(ask(one, 4));
}

TEST_F(Sync, AFullAnswerGoesOnBehindItsLastItemOnceItsBlocksCame) {
  const PeerPtr one = peer(2'000);
  ASSERT_TRUE(ask(one, 0));
  EXPECT_EQ(inv(one, 1, 600).wanted.size(), 600u) << "of which 500 are the answer";
  for (uint64_t i = 1; i < 500; ++i) {
    ASSERT_FALSE(deliver(one, i).ask) << i;
  }
  EXPECT_FALSE(ask(one, 499));  // one is owed
  const auto next = deliver(one, 500).ask;
  ASSERT_TRUE(next);
  EXPECT_EQ(next->hash, block(500));
  EXPECT_TRUE(sync.begin(*next, next->hash, 100, now));
  const auto known = inv(one, 501, 1'000, 0);
  EXPECT_TRUE(known.wanted.empty());
  ASSERT_TRUE(known.ask);
  EXPECT_EQ(known.ask->hash, block(1'000));
}

TEST_F(Sync, AnAnswerWithoutNewsLeadsDownOurChain) {
  const PeerPtr one = peer(200);
  uint64_t start = 10'000;
  for (const uint32_t height : {92u, 84u, 68u, 36u, 0u}) {
    ASSERT_TRUE(ask(one, start++, false, Ask::From::HASH));
    const auto next = inv(one, 1, 3, 0).ask;
    ASSERT_TRUE(next) << height;
    EXPECT_EQ(next->height, height);
  }
  ASSERT_TRUE(ask(one, start++, false, Ask::From::HASH));
  EXPECT_FALSE(inv(one, 1, 3, 0).ask);
  sync.taken({block(77)});
  ASSERT_TRUE(ask(one, start++, false, Ask::From::HASH));
  EXPECT_EQ(inv(one, 1, 3, 0).ask->height, 92u);
}

TEST_F(Sync, AFullAnswerAtTheEndOfTheStepsGoesOn) {
  const PeerPtr one = peer(20'000);
  uint64_t start = 10'000;
  for (int i = 0; i < 5; ++i) {
    ASSERT_TRUE(ask(one, start++, false, Ask::From::HASH));
    ASSERT_TRUE(inv(one, 1, 3, 0).ask);
  }
  ASSERT_TRUE(ask(one, start++, false, Ask::From::HASH));
  EXPECT_EQ(inv(one, 1, 1).wanted.size(), 1u) << "pushed, before the answer";
  EXPECT_FALSE(inv(one, 2, 501, 0).ask);
  const auto next = deliver(one, 1).ask;
  ASSERT_TRUE(next);
  EXPECT_EQ(next->hash, block(501));
}

TEST_F(Sync, WhatCouldNotBeSentIsAskedAgain) {
  const PeerPtr one = peer(200);
  for (const Ask::From from : {Ask::From::TIP, Ask::From::HASH}) {
    const Ask lost{one, from, 0, {}, false};
    ASSERT_TRUE(sync.begin(lost, block(1), 100, now));
    sync.take_back(lost, block(1), now);
    EXPECT_TRUE(sync.tick({one}, now).empty());
    now += 1'000;
    const auto asks = sync.tick({one}, now);
    ASSERT_EQ(asks.size(), 1u);
    EXPECT_EQ(asks[0].from, from);
    EXPECT_TRUE(sync.begin(asks[0], block(1), 100, now));
    now += kAnswerWaitMs;
  }
}

TEST_F(Sync, BlocksInFlightAreFew) {
  const PeerPtr one = peer(200);
  ASSERT_EQ(inv(one, 1, 400).wanted.size(), 400u);
  EXPECT_EQ(request(one, 1, 400), kInFlightMin);
  now += kInFlightMs;
  deliver(one, 1);
  deliver(one, 2);
  EXPECT_EQ(request(one, 1, 400), 4u) << "two more than before, as both came soon";
  now += 1;
  deliver(one, 3);
  EXPECT_EQ(request(one, 1, 400), 0u) << "16 again";
  now += kDeliveryWaitMs - 1;
  EXPECT_TRUE(inv(one, 1, 400).wanted.size() < 20u) << "all but those that came";
  now += 1;
  EXPECT_EQ(sync.check_request(one, block(300), now), BlockSync::Request::DROP) << "nothing came for 30 s";
  EXPECT_TRUE(inv(one, 300, 300).wanted.size() == 1u);
}

TEST_F(Sync, OthersAreAskedInTurnWhenNothingComes) {
  const PeerPtr boaster = peer(4'294'967'295);
  const PeerPtr honest = peer(300);
  const std::vector<PeerPtr> peers = {boaster, honest};
  EXPECT_EQ(sync.choose(peers, now), boaster);
  ASSERT_TRUE(ask(boaster, 1));
  now += kFruitlessMs - 1;
  EXPECT_EQ(sync.choose(peers, now), boaster);
  now += 1;
  const PeerPtr newcomer = peer(4'294'967'295);
  const std::vector<PeerPtr> more = {newcomer, boaster, honest};
  EXPECT_EQ(sync.choose(more, now), honest);
  ASSERT_TRUE(ask(honest, 1));
  deliver(honest, 101);
  now += kFruitlessMs;
  EXPECT_EQ(sync.choose(more, now), newcomer) << "that helped, so the heights count";
}

TEST_F(Sync, ItemsAreRequestedOnceInThirtySecondsOfEachPeer) {
  const PeerPtr one = peer(200);
  const PeerPtr two = peer(200);
  EXPECT_EQ(inv(one, 1, 2).wanted.size(), 2u);
  EXPECT_EQ(inv(one, 1, 3).wanted.size(), 1u);
  EXPECT_EQ(inv(two, 1, 3).wanted.size(), 3u);
  EXPECT_EQ(request(one, 1, 2), 2u);
  now += kSameItemMs;
  EXPECT_EQ(inv(one, 1, 3).wanted.size(), 3u);
}

TEST_F(Sync, RefusedBlocksAreLeftAloneWithWhatFollows) {
  const struct {
    const char* label;
    Fate fate;
    int64_t hold_ms;
    size_t from_others;  // of blocks 1 to 4, number 2 refused
  } rows[] = {{"verdict", Fate::VERDICT, kVerdictHoldMs, 1}, {"incident", Fate::REFUSED, kIncidentHoldMs, 4}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    Scene fresh;
    const PeerPtr one = peer(2'000);
    const PeerPtr two = peer(2'000);
    const auto named = [&](const PeerPtr& from, int64_t at) {
      fresh.now = at;
      return fresh.inv(from, 1, 4).wanted.size();
    };
    ASSERT_TRUE(fresh.ask(one, 0));
    ASSERT_EQ(named(one, now), 4u);
    fresh.deliver(one, 2, row.fate);
    for (uint64_t i = 1; i <= 4; ++i) {
      EXPECT_EQ(fresh.sync.check_request(one, block(i), now), BlockSync::Request::DROP) << i;
    }
    EXPECT_EQ(named(two, now), row.from_others);
    EXPECT_EQ(named(one, now + row.hold_ms - 1), 1u);
    EXPECT_EQ(named(one, now + row.hold_ms + kSameItemMs), 3u) << "all but the one wanted by then";
    fresh.deliver(one, 9, row.fate, false);
    EXPECT_FALSE(fresh.inv(one, 9, 9).wanted.empty()) << "no work";
  }
}

TEST_F(Sync, WordsWithoutBlocksDoNotCountForTenMinutes) {
  const PeerPtr boaster = peer(4'294'967'295);
  const PeerPtr slow = peer(900);
  const PeerPtr honest = peer(300);
  const std::vector<PeerPtr> peers = {honest, slow, boaster};
  EXPECT_EQ(sync.choose(peers, now), boaster);
  ASSERT_TRUE(ask(boaster, 1));
  now += kAnswerWaitMs;
  ASSERT_TRUE(ask(slow, 1));
  EXPECT_EQ(sync.choose({honest, boaster}, now), honest);
  // One block, and never the rest of the batch.
  inv(slow, 101, 102);
  deliver(slow, 101);
  now += kBatchWaitMs - 1;
  EXPECT_EQ(sync.choose(peers, now), slow);
  now += 1;
  EXPECT_EQ(sync.choose(peers, now), honest);
  EXPECT_EQ(sync.choose({slow, boaster}, now), boaster) << "all discredited: the one asked longest ago";
  now += kDiscreditMs;
  EXPECT_EQ(sync.choose(peers, now), boaster);
}

TEST_F(Sync, ABatchThatFailedIsAnothersTurn) {
  const PeerPtr honest = peer(300);
  const PeerPtr behind = peer(99);
  EXPECT_EQ(sync.choose({behind, honest}, now), honest);
  now += 1;
  const PeerPtr newcomer = peer(4'294'967'295);
  for (const bool leaves : {true, false}) {
    SCOPED_TRACE(leaves);
    const PeerPtr feeder = peer(4'294'967'295);
    ASSERT_EQ(sync.choose({feeder, honest}, now), feeder);
    ASSERT_TRUE(ask(feeder, 1));
    inv(feeder, 101, 150);
    for (uint64_t i = 101; i < 114; ++i) {
      deliver(feeder, i);
      now += 9'000;
    }
    if (leaves) {
      sync.forget(feeder);
    } else {
      now += kBatchWaitMs;
    }
    std::vector<PeerPtr> peers{newcomer, behind, honest};
    if (!leaves) {
      peers.push_back(feeder);
    }
    EXPECT_EQ(sync.choose(peers, now), honest);
    EXPECT_EQ(sync.choose(peers, now), newcomer) << "once";
  }
}

TEST_F(Sync, AnswersThatNameLittleMustProveTheHeightInTwoMinutes) {
  const struct {
    const char* label;
    uint64_t items;
    uint64_t news;  // the first of them; the rest is known
    uint32_t height;
    bool refused;  // the twelfth block, and nothing comes after it
    bool believed;
  } rows[] = {
      {"few items", 12, 12, 4'294'967'295, false, false},
      {"few items, as far as it announced", 400, 400, 500, false, true},
      {"many items, most of them known", 500, 12, 4'294'967'295, false, false},
      {"many items, the twelfth is refused", 500, 500, 4'294'967'295, true, false},
      {"many items", 500, 500, 4'294'967'295, false, true},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    Scene fresh;
    const std::vector<PeerPtr> peers = {peer(300), peer(row.height)};
    const PeerPtr& feeder = peers[1];
    ASSERT_TRUE(fresh.sync.choose(peers, now) == feeder);
    ASSERT_TRUE(fresh.ask(feeder, 100));
    fresh.inv(feeder, 101, 100 + row.items, 100 + row.news);
    for (uint64_t i = 1; i <= (row.refused ? 12 : row.news); ++i) {
      fresh.deliver(feeder, 100 + i, row.refused && i == 12 ? Fate::REFUSED : Fate::TAKEN);
    }
    EXPECT_TRUE(fresh.sync.choose(peers, now + kBatchWaitMs - 1) == feeder);
    for (int i = 0; i < 2; ++i) {
      EXPECT_EQ(fresh.sync.choose(peers, now + kBatchWaitMs) == feeder, row.believed);
    }
  }
}

TEST_F(Sync, NothingOfARunCountsInTheNext) {
  const PeerPtr honest = peer(300);
  EXPECT_EQ(sync.choose({honest}, now), honest);
  const PeerPtr other = peer(200);
  ASSERT_TRUE(ask(other, 1));
  inv(other, 101, 150);
  EXPECT_FALSE(ask(other, 2));
  sync.forget_all();
  now += kFruitlessMs;
  EXPECT_TRUE(sync.tick({honest}, now).empty());
  EXPECT_EQ(sync.choose({peer(200), honest}, now), honest);
}

TEST_F(Sync, OrphansAskAtOnceOnlyForAParentThatIsNowhere) {
  const PeerPtr one = peer(200);
  EXPECT_TRUE(deliver(one, 20, Fate::ORPHAN).parent_is_nowhere);
  EXPECT_FALSE(deliver(one, 21, Fate::ORPHAN).parent_is_nowhere) << "parked";
  inv(one, 29, 29);
  EXPECT_FALSE(deliver(one, 30, Fate::ORPHAN).parent_is_nowhere) << "requested";
  EXPECT_EQ(inv(one, 19, 22).wanted.size(), 2u) << "parked ones are not requested";
  sync.taken({block(19)});
  EXPECT_EQ(inv(one, 20, 21).wanted.size(), 2u) << "no longer parked once their parent came";
}

TEST_F(Sync, HashesMemoryIsBounded) {
  TimedMemory<uint64_t> memory(100, 1'000);
  for (uint64_t i = 0; i < 100'000; ++i) {
    memory.remember(i % 150, static_cast<int64_t>(i / 1'000));
  }
  EXPECT_FALSE(memory.contains((99'999 - 100) % 150, 100));
  EXPECT_TRUE(memory.contains((99'999 - 99) % 150, 100));
  EXPECT_TRUE(memory.contains(99'999 % 150, 1'098));
  EXPECT_FALSE(memory.contains(99'999 % 150, 1'099));
}

}  // namespace
}  // namespace norvel::network
