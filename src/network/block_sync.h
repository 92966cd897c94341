// Decides which peer is asked for which part of the chain, and when, so that
// synchronisation neither stops nor repeats itself: what was asked of each peer,
// what it answered and still owes, what it has proven, and which blocks may not
// be requested. Knows neither chain nor sockets: callers look up what it asks
// for, and send what it says.
//
// A peer's GETBLOCKS: open by begin() -> answered by the next INV with a block
// item, or given up after 30 s. Its batch: owed by receive_inv() -> come by
// delivered(), forgotten when one of it is refused, or given up. A wanted block:
// waiting by receive_inv() -> in flight by requested() -> come by delivered() or
// not_needed(), or forgotten with all others when 30 s passed without any.
//
// Times are milliseconds in which peers could be heard (NetworkClock): an answer
// that waits in a socket while a block is validated is not late.
//
// Threads: safe from any thread; one mutex, a leaf.

#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <utility>
#include <vector>

#include "core/sync.h"
#include "core/uint256.h"
#include "network/message.h"
#include "network/peer.h"
#include "network/timed_memory.h"

namespace norvel::network {

inline constexpr size_t kWantedItemsMax = 50'000;    // requested of one peer, or waiting to be
inline constexpr size_t kAnswerBlocksMax = 500;      // items of one answer to GETBLOCKS
inline constexpr size_t kAnswerNewsMin = 250;        // of these, for which a greater height is believed for longer
inline constexpr size_t kRefusedHashesMax = 10'000;  // in each memory of refusals
inline constexpr uint32_t kFirstStepDepth = 8;       // below the tip, doubled with each step
inline constexpr int64_t kAnswerWaitMs = 30'000;     // for the answer, and for the first block that is taken
inline constexpr int64_t kSameStartMs = 10'000;      // before the same start goes to the same peer again
inline constexpr int64_t kSameItemMs = 30'000;       // before the same item is requested of the same peer again
inline constexpr int64_t kDeliveryWaitMs = 30'000;   // after a peer's last block
inline constexpr int64_t kBatchWaitMs = 120'000;     // after the answer, for all of it, or for what the peer announced
inline constexpr int64_t kVerdictHoldMs = 600'000;   // a block that broke a rule
inline constexpr int64_t kIncidentHoldMs = 60'000;   // a block refused for anything else, from its sender
inline constexpr int64_t kDiscreditMs = 600'000;     // a peer's word counts for nothing
inline constexpr int64_t kParkedHoldMs = 600'000;    // as long as the chain keeps orphans

// Blocks asked of one peer and not come yet: as many as come within kInFlightMs,
// between these. More would only be sent twice should another peer be asked too.
inline constexpr size_t kInFlightMin = 16;
inline constexpr size_t kInFlightMax = 128;
inline constexpr int64_t kInFlightMs = 2'000;

// How long a request from our tip may bring nothing before others are asked in
// turn: halved with each such request in a row, down to the smaller.
inline constexpr int64_t kFruitlessMs = 10'000;
inline constexpr int64_t kFruitlessMinMs = 1'000;

class BlockSync {
 public:
  using PeerPtr = std::shared_ptr<Peer>;

  // A GETBLOCKS to be sent, once begin() agrees.
  struct Ask {
    enum class From { TIP, HEIGHT, HASH };

    PeerPtr peer;
    From from = From::TIP;
    uint32_t height = 0;  // of our active chain; with HEIGHT
    uint256 hash = {};    // with HASH
    bool urgent = false;  // in spite of an open one
  };

  struct InvItem {
    InvVector item;
    bool known = false;  // a block of the index, a transaction of pool or chain
  };

  struct Inv {
    std::vector<InvItem> items;
    bool begins_at_height_1 = false;  // the first block item is a known block of height 1
    uint32_t peer_height = 0;
    uint32_t our_height = 0;
    size_t room = kWantedItemsMax;  // what may be wanted
  };

  struct InvOutcome {
    std::vector<InvVector> wanted;  // in their order; count as requested
    std::optional<Ask> ask;
  };

  enum class Fate {
    TAKEN,
    KNOWN,
    ORPHAN,
    VERDICT,  // broke a rule, in bytes that its hash binds
    REFUSED,  // for anything else
  };

  struct Delivery {
    uint256 hash;
    uint256 parent;
    uint32_t height = 0;  // of a block TAKEN or KNOWN
    Fate fate = Fate::REFUSED;
    bool has_work = false;      // proof of work for allowed bits
    bool parked = false;        // an ORPHAN that the chain may keep, as its maker made it
    bool parent_known = false;  // of an ORPHAN
    bool connected = false;     // a block TAKEN that is on the active chain now
  };

  struct DeliveryOutcome {
    std::optional<Ask> ask;          // for what follows the batch
    bool parent_is_nowhere = false;  // of an ORPHAN: neither known, parked nor requested
  };

  // What to do with a wanted block.
  enum class Request {
    SEND,
    WAIT,  // enough is in flight
    DROP,  // no longer wanted
  };

  // The peer for the next request, of `peers` in the order of their keys: the
  // greatest height, the first among equals. A peer that was discredited counts
  // with the height it has proven; when all are, the one asked longest ago. After
  // a request from our tip that brought nothing, every second choice, and any
  // that would have to wait, is the idle one asked longest ago, whatever its
  // height; so is the first after a peer left or ran out of time with blocks of its
  // batch owed or less proven than it announced, of those that are ahead of us if
  // any is. A newcomer counts as asked when it came, so that reconnecting gains
  // nothing. Null for no peers.
  PeerPtr choose(const std::vector<PeerPtr>& peers, int64_t now_ms) EXCLUDES(mutex_);

  // Whether the GETBLOCKS for `ask` may go now; it then counts as open. Otherwise
  // the ask comes back from tick() when it may, one from TIP perhaps for another
  // peer. `start_height` is the largest number for a start that is not in the index.
  bool begin(const Ask& ask, const uint256& start, uint32_t start_height, int64_t now_ms) EXCLUDES(mutex_);

  // Takes back a begin() whose message the connection did not take; the ask comes
  // back from tick().
  void take_back(const Ask& ask, const uint256& start, int64_t now_ms) EXCLUDES(mutex_);

  InvOutcome receive_inv(const PeerPtr& peer, const Inv& inv, int64_t now_ms) EXCLUDES(mutex_);

  // Whether the GETDATA for a wanted block of the peer may go now.
  Request check_request(const PeerPtr& peer, const uint256& block, int64_t now_ms) EXCLUDES(mutex_);

  // The GETDATA for a wanted item has gone.
  void requested(const PeerPtr& peer, const InvVector& item, int64_t now_ms) EXCLUDES(mutex_);

  // `sender` may be null: a block that no peer sent.
  DeliveryOutcome delivered(const PeerPtr& sender, const Delivery& block, int64_t now_ms) EXCLUDES(mutex_);

  // A wanted block that has come from elsewhere before it was requested.
  std::optional<Ask> not_needed(const PeerPtr& peer, const uint256& hash, int64_t now_ms) EXCLUDES(mutex_);

  // The chain took these blocks, wherever they came from.
  void taken(const std::vector<uint256>& hashes) EXCLUDES(mutex_);

  // The chain has an orphan's ancestors elsewhere to come from, so the sender is
  // asked only if the orphan still waits after kAnswerWaitMs.
  void ask_sender_later(const PeerPtr& sender, int64_t now_ms) EXCLUDES(mutex_);

  // What has become due; `peers` as for choose(). Also forgets peers that are gone.
  std::vector<Ask> tick(const std::vector<PeerPtr>& peers, int64_t now_ms) EXCLUDES(mutex_);

  void forget(const PeerPtr& peer) EXCLUDES(mutex_);

  // Forgets all peers and what was asked of them; refused and parked blocks stay so.
  void forget_all() EXCLUDES(mutex_);

 private:
  using ItemKey = std::pair<uint8_t, uint256>;

  struct PeerState {
    // The open GETBLOCKS.
    int64_t open_until_ms = 0;  // 0: none
    uint32_t start_height = 0;
    int64_t late_until_ms = 0;  // till then its true answer may come behind another INV
    TimedMemory<uint256> starts{64, kSameStartMs};
    std::optional<Ask> deferred;
    int64_t deferred_due_ms = 0;

    // Steps down our chain.
    uint32_t depth = 0;
    bool stepped_to_genesis = false;
    std::optional<uint256> orphan;  // the last one it sent, while it waits
    int64_t orphan_due_ms = 0;      // 0: the sender need not be asked

    // The batch: the blocks of the last answer.
    std::set<uint256> owed;
    bool continues = false;  // a full answer, so the chain goes on behind `last`
    uint256 last;
    int64_t last_delivery_ms = 0;
    int64_t deadline_ms = 0;

    // What its word counts.
    int64_t last_asked_ms = 0;  // before that, when it came
    bool was_asked = false;
    int64_t unpaid_since_ms = 0;  // asked, nothing taken since; 0: no
    uint32_t proven_height = 0;
    int64_t claim_until_ms = 0;  // till then it has to prove the height that it announced; 0: need not
    int64_t discredited_until_ms = 0;

    // Wanted blocks that have not come.
    std::set<uint256> waiting;
    std::map<uint256, int64_t> in_flight;  // since when
    size_t window = kInFlightMin;
    int64_t moving_ms = 0;  // one of them came, or the first of them was asked for

    TimedMemory<ItemKey> requested{kWantedItemsMax, kSameItemMs};
    TimedMemory<uint256> incidents{kRefusedHashesMax, kIncidentHoldMs};

    bool is_open(int64_t now_ms) const { return now_ms < open_until_ms; }
    bool owes(int64_t now_ms) const {
      return !owed.empty() && now_ms < deadline_ms && now_ms < last_delivery_ms + kDeliveryWaitMs;
    }
    bool is_busy(int64_t now_ms) const { return is_open(now_ms) || owes(now_ms); }
    bool is_due(const uint256& block) const { return waiting.contains(block) || in_flight.contains(block); }
  };

  struct Parked {
    uint256 hash;
    uint256 parent;
    int64_t until_ms = 0;
  };

  using States = std::map<std::weak_ptr<Peer>, PeerState, std::owner_less<std::weak_ptr<Peer>>>;

  PeerState& state_of(const PeerPtr& peer, int64_t now_ms) REQUIRES(mutex_);
  PeerPtr choose_locked(const std::vector<PeerPtr>& peers, int64_t now_ms) REQUIRES(mutex_);
  void judge_claim(const Peer& peer, PeerState& state, int64_t now_ms) REQUIRES(mutex_);
  bool is_fruitless(int64_t now_ms) const REQUIRES(mutex_);
  void defer(const Ask& ask, PeerState& state, int64_t tip_due_ms, int64_t other_due_ms) REQUIRES(mutex_);
  void note_arrival(PeerState& state, const uint256& block, int64_t now_ms) REQUIRES(mutex_);
  void forget_batch(PeerState& state) REQUIRES(mutex_);
  void expire(PeerState& state, int64_t now_ms) REQUIRES(mutex_);
  States::iterator leave(States::iterator at) REQUIRES(mutex_);
  bool is_parked(const uint256& hash, int64_t now_ms) const REQUIRES(mutex_);
  void park(const Delivery& block, int64_t now_ms) REQUIRES(mutex_);
  std::vector<InvVector> select_wanted(PeerState& state, const Inv& inv, bool& complete, int64_t now_ms)
      REQUIRES(mutex_);
  std::optional<Ask> take_answer(const PeerPtr& peer, PeerState& state, const Inv& inv, bool complete, int64_t now_ms)
      REQUIRES(mutex_);
  size_t begin_batch(PeerState& state, const Inv& inv, int64_t now_ms) REQUIRES(mutex_);
  std::optional<Ask> next_step(const PeerPtr& peer, PeerState& state, uint32_t our_height) REQUIRES(mutex_);
  std::optional<Ask> go_on(const PeerPtr& peer, PeerState& state) REQUIRES(mutex_);
  std::optional<Ask> settle(const PeerPtr& peer, PeerState& state, const uint256& hash, int64_t now_ms)
      REQUIRES(mutex_);

  Mutex mutex_;  // leaf
  States states_ GUARDED_BY(mutex_);
  std::vector<Parked> parked_ GUARDED_BY(mutex_);  // at most as many as the chain keeps
  TimedMemory<uint256> verdicts_ GUARDED_BY(mutex_){kRefusedHashesMax, kVerdictHoldMs};
  bool pending_ GUARDED_BY(mutex_) = false;  // a request from our tip waits for its peer
  int64_t pending_due_ms_ GUARDED_BY(mutex_) = 0;

  // The last request from our tip, as long as no peer that was asked brought anything.
  int64_t tip_asked_ms_ GUARDED_BY(mutex_) = 0;  // 0: the chain has grown since
  uint32_t fruitless_count_ GUARDED_BY(mutex_) = 0;
  bool in_turn_ GUARDED_BY(mutex_) = false;  // the next goes to the one asked longest ago

  bool batch_failed_ GUARDED_BY(mutex_) = false;  // a peer did not bring all of its batch; the same follows
  uint32_t our_height_ GUARDED_BY(mutex_) = 0;    // as it was last told
};

}  // namespace norvel::network
