// Where the chain reports what concerns the pool of unconfirmed transactions.
// This is all that the chain knows about it.

#pragma once

namespace norvel {

class Block;

// Called by one thread at a time, in the order of the chain's changes, with no
// lock of the chain held. A tip change is delivered whole: the blocks that
// joined the active chain from the lowest up, then those that left it from the
// lowest up, then tip_changed(). A call that throws is repeated, with the same
// arguments, before the next event. Must not add blocks.
class PoolSink {
 public:
  virtual ~PoolSink() = default;

  virtual void block_connected(const Block& block) = 0;
  virtual void block_disconnected(const Block& block) = 0;
  virtual void tip_changed() = 0;

  // A block of the change under way could not be read from disk: whatever the
  // pool holds must be looked at again.
  virtual void block_lost() = 0;
};

}  // namespace norvel
