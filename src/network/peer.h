// One live connection to another node, shared by the peer table and by whoever
// works with it. Its socket is shut down when the peer is disconnected and closed
// when the last owner lets go, so that no descriptor is reused under a reader.
//
// Threads: what the message handler alone writes is atomic where others read it;
// the rest says who may touch it.

#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>

#include "core/bytes.h"
#include "core/file_io.h"
#include "core/sync.h"
#include "network/message.h"

namespace norvel::network {

// Messages that may wait to be written; what comes beyond is dropped.
inline constexpr size_t kSendQueueMessagesMax = 5'000;

// The same in bytes. A peer's own requests stop being read at a quarter of this.
inline constexpr size_t kSendQueueBytesMax = 16 << 20;

struct Peer {
  // `now_ms` and `heard_ms` by NetworkClock, for all the times below.
  Peer(FileDescriptor connected, std::string ip, uint16_t connection_port, bool dialled, int64_t now_ms = 0,
       int64_t heard_ms = 0);

  // The connected socket; -1 once the peer is disconnected.
  int socket() const { return is_closed ? -1 : connection.get(); }

  const FileDescriptor connection;
  const std::string address;    // dotted IPv4
  const bool outbound;          // this node dialled it
  const uint16_t dialled_port;  // what was dialled, or the source port of an inbound peer

  std::atomic<uint16_t> port;  // as its VERSION announced it, before that the connection's
  std::atomic<uint32_t> version{0};
  std::atomic<uint32_t> start_height{0};
  std::atomic<uint32_t> best_height{0};  // announced, then what its blocks have shown
  std::atomic<uint64_t> services{0};
  std::atomic<int64_t> last_recv{0};       // seconds, NetworkClock
  std::atomic<int64_t> last_pong{0};       // the same
  std::atomic<int64_t> connected_time{0};  // the same
  std::atomic<bool> handshake_complete{false};
  std::atomic<bool> version_sent{false};
  std::atomic<bool> mempool_requested{false};
  std::atomic<uint32_t> misbehavior{0};  // of this connection, for information
  std::atomic<uint64_t> bytes_sent{0};
  std::atomic<uint64_t> bytes_received{0};
  std::atomic<uint32_t> messages_received{0};
  std::atomic<bool> is_closed{false};
  std::atomic<size_t> queued_bytes{0};  // waiting to be written, frame headers included
  std::atomic<bool> version_received{false};
  std::atomic<int64_t> clock_offset_s{0};  // its VERSION's time minus NetworkClock, once that came

  // Milliseconds, of the time in which peers could be heard (NetworkClock).
  std::atomic<int64_t> silent_since_ms{0};
  std::atomic<int64_t> handshake_since_ms{0};

  // Message handler's thread only.
  uint32_t spam_count = 0;  // messages counted in spam_second
  int64_t spam_second = 0;
  Bytes recv_buffer;                   // received, not yet framed
  bool has_whole_frame = false;        // recv_buffer was not worked off for want of time
  bool reading_paused = false;         // until the queue has drained
  bool wants_addresses = false;        // a GETADDR waits for its answer
  Bytes write_buffer;                  // frames taken from the queue
  size_t written_bytes = 0;            // of write_buffer
  int64_t write_blocked_since_ms = 0;  // when the last bytes went while more wait; 0 when nothing waits

  mutable Mutex user_agent_mutex;  // leaf
  std::string user_agent GUARDED_BY(user_agent_mutex);

  Mutex send_mutex;  // leaf
  std::deque<Message> send_queue GUARDED_BY(send_mutex);
};

}  // namespace norvel::network
