// Dials other nodes: on the caller's thread, or from a queue on a few threads of
// its own.
//
// Invariants:
//   1. At most kDialsMax dials are under way, of which the queue has at most
//      kQueueDialsMax: addresses where nobody answers leave room for a caller.
//   2. No address and no name is dialled twice at a time. A look-up and the dial of
//      what it found are one dial, which stands for the name and for the address.
//   3. A job that waits has a worker, or gets one with the next job or when a
//      caller's dial ends.
//
// Threads: safe from any thread. Errors: what does not work out is false or
// forgotten; a peer that was reached is handed over by a callback.

#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>

#include "core/file_io.h"
#include "core/sync.h"
#include "network/address_book.h"
#include "network/connections.h"
#include "network/dial_backoff.h"
#include "network/listener.h"
#include "network/name_lookup.h"
#include "network/thread_group.h"

namespace norvel::network {

inline constexpr size_t kDialsMax = 16;
inline constexpr size_t kQueueDialsMax = 12;
static_assert(kQueueDialsMax < kDialsMax);
inline constexpr size_t kDialQueueMax = 1'000;
inline constexpr size_t kToldDialsMax = 64;
inline constexpr size_t kNamesMax = 1'000;  // whose address is remembered
inline constexpr std::chrono::milliseconds kConnectTimeout{10'000};

class Dialler {
 public:
  enum class Urgency {
    TOLD,    // as NORMAL, but only while fewer than kToldDialsMax wait: peers can name as many as they like
    NORMAL,  // waits for the address's delay
    URGENT,  // waits kDialDelayUrgentMs at most: the operator named it
    NOW,     // does not wait: somebody asks for this very connection
  };

  // Gets each peer that was reached, in the table already.
  using Connected = std::function<void(const PeerPtr& peer)>;

  // All of them outlive the dialler. `bind_address` is that of dialling sockets.
  Dialler(std::string bind_address, Connections& connections, AddressBook& book, DialBackoff& backoff,
          const Listener& listener, LogLimiter& log, Connected connected);

  void start() { stop_.lower(); }

  // Ends dials and waits of look-ups; later dials fail.
  void stop();

  void join() { threads_.join(); }
  bool wait_until(Deadline deadline) { return threads_.wait_until(deadline); }
  bool is_finished() const { return threads_.is_finished() && lookup_.is_finished(); }

  // False when it is under way, connected (also as what the name stood for when it
  // was looked up last) or this node itself, when there is no room for one more
  // peer, when kDialsMax dials are under way, or when nobody answers.
  bool dial(const std::string& host, uint16_t port, Urgency urgency) EXCLUDES(mutex_);

  // The handshake with a peer that was dialled is complete: its delays start over,
  // those of names that stood for it included.
  void note_success(const Peer& peer) EXCLUDES(mutex_);

  // Dials later; left out when it waits already or the queue is full. Urgent ones
  // come before the others and push one of those out of a full queue.
  void enqueue(const std::string& host, uint16_t port, Urgency urgency) EXCLUDES(mutex_);

  // Forgets those that wait, but for the urgent ones: for a caller who names all
  // that is due anew, in the order that counts now.
  void drop_waiting() EXCLUDES(mutex_);

 private:
  struct Job {
    std::string key;
    std::string host;
    uint16_t port = 0;
    Urgency urgency = Urgency::NORMAL;
  };

  class InFlight;
  class CallersDial;

  bool dial_now(const std::string& host, uint16_t port, Urgency urgency) EXCLUDES(mutex_);
  bool dial_name(const std::string& name, uint16_t port, Urgency urgency) EXCLUDES(mutex_);
  bool is_due(const std::string& key, Urgency urgency) const;
  bool is_self(const std::string& key, Urgency urgency) const;
  bool is_wanted(const std::string& ip, uint16_t port, Urgency urgency) const;
  bool dial_resolved(const std::string& ip, uint16_t port);
  FileDescriptor connect(const std::string& ip, uint16_t port);
  void bind_outbound(int fd) const;
  bool is_name_connected(const std::string& name_key) EXCLUDES(mutex_);
  void add_job(Job job) REQUIRES(mutex_);
  void start_worker() EXCLUDES(mutex_);
  void work_queue() EXCLUDES(mutex_);
  std::optional<Job> next_job() EXCLUDES(mutex_);

  const std::string bind_address_;
  Connections& connections_;
  AddressBook& book_;
  DialBackoff& backoff_;
  const Listener& listener_;
  LogLimiter& log_;
  const Connected connected_;
  NameLookup lookup_;
  StopSignal stop_;

  Mutex mutex_;  // leaf
  std::set<std::string> in_flight_ GUARDED_BY(mutex_);
  std::map<std::string, std::string> resolved_ GUARDED_BY(mutex_);  // keys of names and of what they stood for
  std::deque<Job> queue_ GUARDED_BY(mutex_);                        // the urgent ones first
  std::set<std::string> queued_ GUARDED_BY(mutex_);                 // keys of the queue
  size_t workers_ GUARDED_BY(mutex_) = 0;                           // each has at most one dial under way
  size_t callers_ GUARDED_BY(mutex_) = 0;                           // dials under way on their threads

  // A worker that has left counts until its thread has ended, hence the room. Last:
  // its end waits for threads that use the rest.
  ThreadGroup threads_{2 * kQueueDialsMax};
};

}  // namespace norvel::network
