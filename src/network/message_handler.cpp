#include "network/message_handler.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <optional>
#include <set>
#include <string>
#include <utility>

#include "core/console.h"

namespace norvel::network {

namespace {

constexpr int kPassWaitMs = 10;
constexpr std::chrono::milliseconds kPassGap{1};  // so that bytes that trickle in do not make it spin

// What the frames of one peer may take of a pass, but for the last of them.
constexpr std::chrono::milliseconds kPeerTime{5};

// For the frames that can cost much, of all peers together in one pass, so that
// everybody else's are answered however many peers send them.
constexpr std::chrono::milliseconds kCostlyTime{200};

constexpr size_t kWriteChunkBytes = 65'536;

// What stays reserved for a receive buffer between two large messages.
constexpr size_t kIdleBufferBytes = 2 * kReceiveBytesMax;

// Answers to GETADDR in one pass, all peers together: each walks the whole book.
constexpr int kAddressAnswersMax = 8;

constexpr uint32_t kBadMagicPoints = 20;
constexpr uint32_t kOversizedPoints = 50;
constexpr uint32_t kUndecodablePoints = 10;
constexpr uint32_t kSpamPoints = 2;

bool is_counted(MessageType type) {
  switch (type) {
    case MessageType::GETBLOCKS:
    case MessageType::GETDATA:
    case MessageType::BLOCK:
    case MessageType::TX:
    case MessageType::INV:
      return false;
    default:
      return true;
  }
}

// Runs one step and prints what it throws; whether it went through.
template <class Step>
bool guarded(LogLimiter& log, Step step) {
  try {
    step();
    return true;
  } catch (const std::exception& error) {
    log.failure("handler", "Message handling failed", error.what());
    return false;
  }
}

}  // namespace

MessageHandler::MessageHandler(NetworkClock& clock, LogLimiter& log, Connections& connections, Handshake& handshake,
                               Relay& relay)
    : clock_(clock), log_(log), connections_(connections), handshake_(handshake), relay_(relay) {}

void MessageHandler::run(StopSignal& stop) {
  while (!stop.is_raised()) {
    const auto begin = std::chrono::steady_clock::now();
    if (!guarded(log_, [this] { pass(work_left_ ? 0 : kPassWaitMs); })) {
      disconnect_doomed();
    }
    if (std::chrono::steady_clock::now() - begin < kPassGap) {
      stop.wait_for(kPassGap);
    }
  }
  let_go();
}

void MessageHandler::pass(int wait_ms) {
  clock_.begin_pass();
  heard_ms_ = clock_.heard_ms();
  take_snapshot();
  wait_readable(wait_ms);
  work_left_ = false;
  {
    std::optional<Blockchain::WriteScope> scope;
    if (chain_ != nullptr) {
      scope.emplace(*chain_);
    }
    refused_.reset();
    costly_end_ = std::chrono::steady_clock::now() + kCostlyTime;
    for (size_t i = 0; i < peers_.size(); ++i) {
      if (!guarded(log_, [&] { serve(i); })) {
        doomed_.push_back(peers_[i]);
      }
    }
    guarded(log_, [this] { relay_.work_off(peers_); });
  }
  int answers_left = kAddressAnswersMax;
  for (const PeerPtr& peer : peers_) {
    if (!guarded(log_, [&] {
          answer_addresses(peer, answers_left);
          finish(peer);
        })) {
      doomed_.push_back(peer);
    }
  }
  disconnect_doomed();
}

// Has the relay forget who has left since the last pass.
void MessageHandler::take_snapshot() {
  PeerList now = connections_.table().snapshot();
  const std::set<PeerPtr> present(now.begin(), now.end());
  for (PeerPtr& peer : peers_) {
    if (peer != nullptr && !present.contains(peer)) {
      relay_.forget(peer);
    }
  }
  if (!now.empty()) {
    const auto refused = std::ranges::find(now, refused_.lock());
    first_ = refused == now.end() ? (first_ + 1) % now.size() : static_cast<size_t>(refused - now.begin());
    std::rotate(now.begin(), now.begin() + static_cast<std::ptrdiff_t>(first_), now.end());
  }
  peers_ = std::move(now);
}

void MessageHandler::wait_readable(int wait_ms) {
  polls_.clear();
  for (const PeerPtr& peer : peers_) {
    const int reads = peer->reading_paused || peer->has_whole_frame ? 0 : POLLIN;
    const int writes = peer->write_blocked_since_ms != 0 ? POLLOUT : 0;
    polls_.push_back({peer->connection.get(), static_cast<short>(reads | writes), 0});
  }
  if (::poll(polls_.data(), polls_.size(), wait_ms) < 0) {
    for (pollfd& each : polls_) {
      each.revents = 0;
    }
  }
}

void MessageHandler::serve(size_t index) {
  const PeerPtr& peer = peers_[index];
  const int events = polls_[index].revents;
  if (peer->is_closed) {
    return;
  }
  bool sound = true;
  if (peer->reading_paused) {
    peer->silent_since_ms = clock_.heard_ms();
    sound = (events & (POLLERR | POLLHUP)) == 0;
  } else if (!peer->has_whole_frame && (events & (POLLIN | POLLERR | POLLHUP)) != 0) {
    sound = receive(*peer);
  }
  if (!peer->reading_paused && !cut_frames(peer)) {
    sound = false;
  }
  if (!sound) {
    doomed_.push_back(peer);
  }
}

// False when the connection has ended.
bool MessageHandler::receive(Peer& peer) {
  const ssize_t received = ::recv(peer.connection.get(), chunk_.data(), chunk_.size(), 0);
  if (received <= 0) {
    return received < 0 && would_block(errno);
  }
  const auto bytes = static_cast<size_t>(received);
  append(peer.recv_buffer, ByteView(chunk_).first(bytes));
  peer.last_recv = clock_.now();
  peer.silent_since_ms = clock_.heard_ms();
  peer.bytes_received += bytes;
  return true;
}

// Handles the whole frames of the buffer, as many as the peer's time allows.
// False when the peer is to be disconnected.
bool MessageHandler::cut_frames(const PeerPtr& peer) {
  const auto end = std::chrono::steady_clock::now() + kPeerTime;
  size_t offset = 0;
  Cut cut = Cut::NEXT;
  peer->has_whole_frame = false;
  while (cut == Cut::NEXT && !peer->is_closed) {
    if (peer->queued_bytes >= kPauseQueuedBytes) {
      peer->reading_paused = true;
      break;
    }
    if (offset > 0 && std::chrono::steady_clock::now() >= end) {
      peer->has_whole_frame = true;
      work_left_ = true;
      break;
    }
    cut = cut_frame(peer, offset);
  }
  if (cut == Cut::WAIT) {
    peer->has_whole_frame = true;
    work_left_ = true;
    if (refused_.expired()) {
      refused_ = peer;
    }
  }
  Bytes& buffer = peer->recv_buffer;
  buffer.erase(buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(offset));
  if (buffer.size() < kReceiveBytesMax && buffer.capacity() > kIdleBufferBytes) {
    buffer.shrink_to_fit();
  }
  if (cut != Cut::END && buffer.size() > kUnparsedBytesMax) {
    connections_.add_misbehavior(*peer, kOversizedPoints);
    return false;
  }
  return cut != Cut::END;
}

// Handles the frame at `offset`, which moves behind it; stays when the frame is
// not whole.
MessageHandler::Cut MessageHandler::cut_frame(const PeerPtr& peer, size_t& offset) {
  const ByteView rest = ByteView(peer->recv_buffer).subspan(offset);
  if (rest.size() < kFrameHeaderBytes) {
    return Cut::PAUSE;
  }
  if (!std::ranges::equal(rest.first(constants::MAGIC.size()), constants::MAGIC)) {
    connections_.add_misbehavior(*peer, kBadMagicPoints);
    return Cut::END;
  }
  size_t length_at = kFrameHeaderBytes - sizeof(uint32_t);
  const size_t length = read_le<uint32_t>(rest, length_at);
  if (length > kPayloadBytesMax) {
    connections_.add_misbehavior(*peer, kOversizedPoints);
    return Cut::END;
  }
  if (length > rest.size() - kFrameHeaderBytes) {
    return Cut::PAUSE;
  }
  if (has_to_wait(static_cast<MessageType>(rest[constants::MAGIC.size()]))) {
    return Cut::WAIT;
  }
  const auto message = Message::deserialize(rest, kPayloadBytesMax);
  offset += kFrameHeaderBytes + length;
  if (!message) {
    connections_.add_misbehavior(*peer, kUndecodablePoints);
    return Cut::PAUSE;
  }
  if (!is_spam(*peer, message->type)) {
    ++peer->messages_received;
    handle(peer, *message);
  }
  return Cut::NEXT;
}

bool MessageHandler::has_to_wait(MessageType type) const {
  const bool is_costly =
      type == MessageType::INV || type == MessageType::BLOCK || type == MessageType::TX || type == MessageType::ADDR;
  return is_costly && std::chrono::steady_clock::now() >= costly_end_;
}

bool MessageHandler::is_spam(Peer& peer, MessageType type) {
  if (!is_counted(type)) {
    return false;
  }
  const int64_t now = clock_.now();
  if (peer.spam_second != now) {
    peer.spam_second = now;
    peer.spam_count = 0;
  }
  if (++peer.spam_count <= kSpamMessagesMax) {
    return false;
  }
  connections_.add_misbehavior(peer, kSpamPoints);
  return true;
}

void MessageHandler::handle(const PeerPtr& peer, const Message& message) {
  switch (message.type) {
    case MessageType::VERSION:
      handshake_.on_version(peer, message.payload);
      break;
    case MessageType::VERACK:
      handshake_.on_verack(peer);
      break;
    case MessageType::PING:
      connections_.send_message_to_peer(peer, {MessageType::PONG, message.payload});
      break;
    case MessageType::PONG:
      peer->last_pong = clock_.now();
      break;
    case MessageType::GETADDR:
      peer->wants_addresses = true;
      break;
    case MessageType::ADDR:
      handshake_.on_addresses(peer, message.payload);
      break;
    case MessageType::REJECT:
      log_.out("reject", "[Network] Peer " + key_of_peer(*peer) + " sent REJECT");
      break;
    case MessageType::INV:
    case MessageType::GETDATA:
    case MessageType::GETBLOCKS:
    case MessageType::BLOCK:
    case MessageType::TX:
    case MessageType::MEMPOOL:
      relay_.handle(peer, message);
      break;
    case MessageType::BLOCKS:
    default:
      break;
  }
}

void MessageHandler::answer_addresses(const PeerPtr& peer, int& answers_left) {
  if (peer->wants_addresses && !peer->is_closed && answers_left > 0 && peer->queued_bytes < kResumeQueuedBytes) {
    --answers_left;
    peer->wants_addresses = false;
    handshake_.send_addresses(peer);
  }
}

// Writes, and looks whether the peer's time is up.
void MessageHandler::finish(const PeerPtr& peer) {
  if (peer->is_closed) {
    return;
  }
  if (!write_queued(*peer) || is_overdue(*peer)) {
    doomed_.push_back(peer);
  }
  if (peer->reading_paused && peer->queued_bytes < kResumeQueuedBytes) {
    peer->reading_paused = false;
    peer->silent_since_ms = clock_.heard_ms();
    work_left_ = true;
  }
}

// Until nothing is queued or the socket takes no more. False on an error.
bool MessageHandler::write_queued(Peer& peer) {
  bool went_on = false;
  while (true) {
    if (peer.written_bytes == peer.write_buffer.size()) {
      refill_write_buffer(peer);
    }
    const ByteView rest = ByteView(peer.write_buffer).subspan(peer.written_bytes);
    if (rest.empty()) {
      peer.write_blocked_since_ms = 0;
      return true;
    }
    const ssize_t sent = ::send(peer.connection.get(), rest.data(), rest.size(), MSG_NOSIGNAL);
    if (sent < 0) {
      if (!would_block(errno)) {
        return false;
      }
      break;
    }
    const auto bytes = static_cast<size_t>(sent);
    peer.written_bytes += bytes;
    peer.bytes_sent += bytes;
    peer.queued_bytes -= bytes;
    went_on = went_on || bytes > 0;
  }
  if (went_on || peer.write_blocked_since_ms == 0) {
    peer.write_blocked_since_ms = clock_.now_ms();
  }
  return true;
}

// Takes messages from the queue: one, and further ones while they are small.
void MessageHandler::refill_write_buffer(Peer& peer) {
  peer.write_buffer.clear();
  peer.written_bytes = 0;
  if (peer.write_buffer.capacity() > kIdleBufferBytes) {
    peer.write_buffer.shrink_to_fit();
  }
  const MutexLock lock(peer.send_mutex);
  while (!peer.send_queue.empty() && peer.write_buffer.size() < kWriteChunkBytes) {
    append(peer.write_buffer, peer.send_queue.front().serialize());
    peer.send_queue.pop_front();
  }
}

// A write has just been tried; what was read counts up to the start of the pass.
bool MessageHandler::is_overdue(const Peer& peer) const {
  if (peer.write_blocked_since_ms != 0 && clock_.now_ms() - peer.write_blocked_since_ms >= kWriteTimeoutMs) {
    return true;
  }
  return !peer.handshake_complete && heard_ms_ - peer.handshake_since_ms >= kHandshakeTimeoutMs;
}

void MessageHandler::disconnect_doomed() {
  for (const PeerPtr& peer : std::exchange(doomed_, {})) {
    guarded(log_, [&] { connections_.disconnect(*peer); });
  }
}

// So that nothing of this run stays open or counts in the next.
void MessageHandler::let_go() {
  relay_.forget_all();
  peers_.clear();
  doomed_.clear();
  refused_.reset();
  work_left_ = false;
  clock_.end_passes();
}

}  // namespace norvel::network
