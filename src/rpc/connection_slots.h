// Who may hold a connection of a server, and how many bytes of bodies and of
// answers all of them may hold together. Where room is short, connections that
// have not delivered a complete request give way, or, for an answer, those that
// have not taken theirs; the oldest first. They are shut down, which their thread
// sees as the end of the stream.
//
// Threads: ConnectionSlots is safe from any thread; a ticket belongs to the
// connection's thread.

#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>

#include "core/file_io.h"
#include "core/sync.h"
#include "rpc/server_limits.h"

namespace norvel::rpc {

class ConnectionSlots;

// The right to a connection. Owns its socket, which is closed when the ticket
// ends.
class ConnectionTicket {
 public:
  using Clock = std::chrono::steady_clock;

  ConnectionTicket(std::shared_ptr<ConnectionSlots> slots, uint64_t id, int socket);
  ConnectionTicket(ConnectionTicket&&) noexcept = default;
  ~ConnectionTicket();

  int socket() const { return socket_; }
  Clock::time_point admitted_at() const { return admitted_at_; }

  // Counts `bytes` more of body as held. False when neither room is left nor
  // another connection with a part of a body can give way.
  bool hold_body(size_t bytes);
  void release_body();

  // Counts the one answer as held until end_work(). False when it is larger than
  // all may be together, or the connection has given way.
  bool hold_answer(size_t bytes);

  // The request is complete: this connection gives way no longer. False when it
  // has done so already; then what was read may lack its end.
  bool begin_work();

  // The answer is sent, nothing is held: this connection is the first to give way.
  void end_work();

 private:
  std::shared_ptr<ConnectionSlots> slots_;
  uint64_t id_;
  int socket_;
  Clock::time_point admitted_at_ = Clock::now();
};

class ConnectionSlots : public std::enable_shared_from_this<ConnectionSlots> {
 public:
  explicit ConnectionSlots(const ServerLimits& limits) : limits_(limits) {}

  // Nothing, the socket closed, when all slots are taken by complete requests.
  std::optional<ConnectionTicket> admit(FileDescriptor socket) EXCLUDES(mutex_);

  // Makes all connections without a complete request give way.
  void shed_waiting() EXCLUDES(mutex_);

  // Whether, within `timeout_ms`, no ticket is left.
  bool wait_until_empty(int64_t timeout_ms) EXCLUDES(mutex_);

 private:
  friend class ConnectionTicket;

  enum class Phase {
    kRequest,  // reading; to kWork by begin_work(), to kGone by give_way()
    kWork,     // to kClosing by end_work()
    kClosing,  // answered; to kGone by give_way()
    kGone,     // shut down, its thread about to end
  };

  struct Entry {
    FileDescriptor socket;
    Phase phase = Phase::kRequest;
    size_t body_bytes = 0;
    size_t answer_bytes = 0;
  };

  // Fewer than configured where the process may open few descriptors.
  size_t connections_max() const;

  // What of a body counts.
  size_t counted(size_t body_bytes) const;

  void give_way(Entry& entry) REQUIRES(mutex_);
  bool shed_one() REQUIRES(mutex_);                      // for a newcomer
  bool shed_one_body(uint64_t except) REQUIRES(mutex_);  // for a body
  bool shed_one_answer() REQUIRES(mutex_);               // for an answer
  void release(Entry& entry) REQUIRES(mutex_);           // what it holds
  void end(uint64_t id) EXCLUDES(mutex_);

  const ServerLimits limits_;

  // Leaf but for shutdown and close of the sockets that it guards, which do not
  // block: a descriptor must not be reused between look-up and shutdown.
  Mutex mutex_;
  std::condition_variable_any ended_;
  std::map<uint64_t, Entry> entries_ GUARDED_BY(mutex_);  // by admission, oldest first
  uint64_t next_id_ GUARDED_BY(mutex_) = 0;
  size_t gone_count_ GUARDED_BY(mutex_) = 0;
  size_t bodies_bytes_ GUARDED_BY(mutex_) = 0;   // sum over the entries, as far as they count
  size_t answers_bytes_ GUARDED_BY(mutex_) = 0;  // sum over the entries
};

}  // namespace norvel::rpc
