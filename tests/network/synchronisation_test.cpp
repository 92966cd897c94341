// Two nodes joined in memory come to one chain, whatever branches they start
// from, whatever a third peer says, and without sending the same twice.

#include <gtest/gtest.h>

#include "network/inventory_server.h"
#include "network/relay_node.h"

namespace norvel::network {
namespace {

// Blocks that all tests share: 600 in common, then two branches.
struct Branches {
  std::vector<Block> common;  // heights 1 to 600
  std::vector<Block> shorter;
  std::vector<Block> longer;
};

std::vector<Block> first(const std::vector<Block>& blocks, size_t count) {
  return {blocks.begin(), blocks.begin() + static_cast<std::ptrdiff_t>(count)};
}

const Branches& branches() {
  static const Branches made = [] {
    ChainScene scene;
    Branches result;
    result.common = make_branch(scene.tip(), 600);
    result.shorter = make_branch(result.common.back(), 510, {.message = "short"});
    result.longer = make_branch(result.common.back(), 520, {.message = "long"});
    return result;
  }();
  return made;
}

void give(RelayNode& node, const std::vector<Block>& blocks) {
  const Blockchain::WriteScope quick(node.scene.chain());
  node.scene.add_all(blocks);
}

// Two nodes and what is on its way between them.
class Pair {
 public:
  // As after the handshake; both then compare heights.
  void join() {
    a_to_b_ = a.add_peer(b.height());
    b_to_a_ = b.add_peer(a.height());
    a.relay.check_sync_with_peer(a_to_b_);
    b.relay.check_sync_with_peer(b_to_a_);
  }

  // Lets both work for this long, with a look at the heights every 10 s.
  void run(int seconds) {
    const Blockchain::WriteScope quick_a(a.scene.chain());
    const Blockchain::WriteScope quick_b(b.scene.chain());
    for (int second = 0; second < seconds; ++second) {
      b_to_a_->queued_bytes = 0;  // all was written
      for (bool moved = true; moved;) {
        moved = deliver(a, a_to_b_, b, b_to_a_);
        moved |= deliver(b, b_to_a_, a, a_to_b_);
      }
      a.clock.advance_ms(1'000);
      b.clock.advance_ms(1'000);
      if (second % 10 == 9) {
        check(a);
        check(b);
      }
    }
  }

  bool agree() { return a.scene.chain().get_best_hash() == b.scene.chain().get_best_hash(); }

  RelayNode a;
  RelayNode b;

 private:
  static bool deliver(RelayNode& from, const PeerPtr& to, RelayNode& receiver, const PeerPtr& sender) {
    const std::vector<Message> messages = from.take_sent(to);
    for (const Message& message : messages) {
      receiver.relay.handle(sender, message);
    }
    return !messages.empty();
  }

  static void check(RelayNode& node) {
    for (const PeerPtr& peer : node.peers) {
      if (peer->best_height > node.height()) {
        node.relay.check_sync_with_peer(peer);
      }
    }
  }

  PeerPtr a_to_b_;
  PeerPtr b_to_a_;
};

TEST(Synchronisation, BranchesRejoin) {
  const Branches& made = branches();
  const auto low = [&](size_t count, const char* message) {
    return make_branch(made.common[4], count, {.message = message});
  };
  const struct {
    const char* label;
    std::vector<Block> common, of_a, of_b;
    int seconds;
  } rows[] = {
      {"height 5, 1 against 2", first(made.common, 5), low(1, "x"), low(2, "y"), 5},
      {"height 5, 2 against 1", first(made.common, 5), low(2, "x"), low(1, "y"), 5},
      {"height 600, 1 against 2", made.common, first(made.shorter, 1), first(made.longer, 2), 5},
      {"height 600, 510 against 520", made.common, made.shorter, made.longer, 5},
      {"more orphans than are parked", made.common, first(made.shorter, 10), first(made.longer, 100), 60},
      {"from nothing", {}, {}, made.common, 5},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    Pair pair;
    give(pair.a, row.common);
    give(pair.b, row.common);
    give(pair.a, row.of_a);
    give(pair.b, row.of_b);
    pair.join();
    pair.run(row.seconds);
    EXPECT_TRUE(pair.agree()) << pair.a.height() << " and " << pair.b.height();
    EXPECT_EQ(pair.a.height(), row.common.size() + std::max(row.of_a.size(), row.of_b.size()));
  }
}

TEST(Synchronisation, EqualBranchesRejoinWithTheNextBlock) {
  const Branches& made = branches();
  Pair pair;
  give(pair.a, made.common);
  give(pair.b, made.common);
  give(pair.a, first(made.shorter, 40));
  give(pair.b, first(made.longer, 40));
  pair.join();
  pair.run(15);
  EXPECT_FALSE(pair.agree());
  std::string error;
  ASSERT_TRUE(pair.b.relay.accept_block(made.longer[40], error)) << error;
  pair.run(15);
  EXPECT_TRUE(pair.agree());
  EXPECT_EQ(pair.a.height(), 641u);
}

TEST(Synchronisation, CostsLittleMoreThanTheBlocks) {
  const Branches& made = branches();
  Pair pair;
  give(pair.b, made.common);
  give(pair.b, made.longer);
  pair.join();
  pair.run(60);
  ASSERT_TRUE(pair.agree());
  uint64_t block_bytes = 0;
  for (const auto* blocks : {&made.common, &made.longer}) {
    for (const Block& block : *blocks) {
      block_bytes += block.size();
    }
  }
  EXPECT_LE(pair.a.bytes_sent + pair.b.bytes_sent, block_bytes * 13 / 10 + 100 * 1'120);
}

// Blocks as large as what may be queued, one a second, so that 500 of them take
// longer than a batch may.
TEST(Synchronisation, ASlowLinkCarriesEachBlockOnce) {
  Pair pair;
  give(pair.b, branches().common);
  pair.b.queued_per_block = kQueuedBytesMax;
  pair.join();
  pair.run(1'000);
  EXPECT_TRUE(pair.agree()) << pair.a.height();
  EXPECT_EQ(pair.b.blocks_sent, branches().common.size());
}

TEST(Synchronisation, LiarsHoldItUpForAWhileOnly) {
  const struct {
    const char* label;
    size_t liars;
    int seconds;  // until they connect anew
    int times;
  } rows[] = {
      {"two that stay", 2, 30, 1},
      {"one that reconnects", 1, 25, 2},
      {"a hundred that stay", 100, 600, 1},
      {"twenty that reconnect", 20, 25, 5},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    Pair pair;
    give(pair.b, branches().common);
    for (size_t i = 0; i < row.liars; ++i) {
      pair.a.add_peer(4'294'967'295);
    }
    pair.join();
    for (int i = 0; i < row.times; ++i) {
      pair.run(row.seconds);
      for (size_t at = 0; at < row.liars; ++at) {
        pair.a.reconnect(at);
      }
    }
    EXPECT_TRUE(pair.agree()) << pair.a.height();
  }
}

TEST(Synchronisation, KnownBlocksNamedOverAndOverAreNotAskedForEndlessly) {
  const Branches& made = branches();
  RelayNode node;
  give(node, made.common);
  const PeerPtr liar = node.add_peer(1'000'000);
  std::vector<InvVector> known;
  for (const Block& block : first(made.common, 500)) {
    known.push_back({kInvBlock, block.get_hash()});
  }
  size_t asked = 0;
  node.clock.begin_pass();  // one for all, so that a slow machine gives no request up
  node.relay.check_sync_with_peer(liar);
  for (int i = 0; i < 1'000; ++i) {
    asked += node.take_sent(liar).size();
    node.clock.stall_ms(60);
    node.handle_inv(liar, known);
  }
  // The tip, 8 to 512 below it, genesis, and on from the last item.
  EXPECT_LE(asked, 10u);
  EXPECT_GE(asked, 8u);
}

}  // namespace
}  // namespace norvel::network
