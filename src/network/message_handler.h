// The message handler: reads from every peer, cuts the bytes into messages, has
// them handled, writes what is queued, and ends peers that broke the framing or
// take nothing any more. One pass serves all peers a little each, beginning with
// another one every time, so that none keeps the others waiting.
//
// Threads: single-threaded; whoever runs it has it for as long.

#pragma once

#include <poll.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "chain/blockchain.h"
#include "network/connections.h"
#include "network/handshake.h"
#include "network/log_limiter.h"
#include "network/network_clock.h"
#include "network/relay.h"
#include "network/thread_group.h"

namespace norvel::network {

inline constexpr size_t kReceiveBytesMax = 65'536;       // of a peer in one pass
inline constexpr size_t kUnparsedBytesMax = 10'485'760;  // in a receive buffer
inline constexpr size_t kPauseQueuedBytes = 4 << 20;     // no more is read from such a peer
inline constexpr size_t kResumeQueuedBytes = 1 << 20;    // until it has drained so far
inline constexpr int64_t kWriteTimeoutMs = 60'000;       // while something is queued
inline constexpr uint32_t kSpamMessagesMax = 50;         // a second, of the kinds that are counted
static_assert(kPayloadBytesMax + kReceiveBytesMax < kUnparsedBytesMax);

class MessageHandler {
 public:
  // All of them outlive the handler; `clock` is told of its passes.
  MessageHandler(NetworkClock& clock, LogLimiter& log, Connections& connections, Handshake& handshake, Relay& relay);

  // May be null. Before the thread starts.
  void attach(Blockchain* chain) { chain_ = chain; }

  void run(StopSignal& stop);

  // One pass over all peers, after at most `wait_ms` for one to be readable.
  void pass(int wait_ms);

 private:
  enum class Cut {
    NEXT,   // another frame may follow
    PAUSE,  // nothing more in this pass
    WAIT,   // a whole frame is there, but costly ones have had their time in this pass
    END,    // the peer is to be disconnected
  };

  void take_snapshot();
  void wait_readable(int wait_ms);
  void serve(size_t index);
  bool receive(Peer& peer);
  bool cut_frames(const PeerPtr& peer);
  Cut cut_frame(const PeerPtr& peer, size_t& offset);
  bool has_to_wait(MessageType type) const;
  bool is_spam(Peer& peer, MessageType type);
  void handle(const PeerPtr& peer, const Message& message);
  void answer_addresses(const PeerPtr& peer, int& answers_left);
  void finish(const PeerPtr& peer);
  bool write_queued(Peer& peer);
  void refill_write_buffer(Peer& peer);
  bool is_overdue(const Peer& peer) const;
  void disconnect_doomed();
  void let_go();

  NetworkClock& clock_;
  LogLimiter& log_;
  Connections& connections_;
  Handshake& handshake_;
  Relay& relay_;
  Blockchain* chain_ = nullptr;

  PeerList peers_;             // of this pass, beginning with another one every time
  std::vector<pollfd> polls_;  // of peers_
  PeerList doomed_;            // to be disconnected at the end of the pass
  size_t first_ = 0;
  std::weak_ptr<Peer> refused_;                       // the first of the pass whose costly frame has to wait
  std::chrono::steady_clock::time_point costly_end_;  // of the time for costly frames in this pass
  int64_t heard_ms_ = 0;                              // NetworkClock, at the start of the pass
  bool work_left_ = false;                            // whole frames wait in some buffer
  std::array<uint8_t, kReceiveBytesMax> chunk_{};
};

}  // namespace norvel::network
