#include "rpc/connection_slots.h"

#include <sys/socket.h>

#include <algorithm>
#include <utility>

#include "core/descriptor_limit.h"

namespace norvel::rpc {

namespace {

constexpr uint64_t kDescriptorsLeft = 8;  // of each server's quarter

}  // namespace

ConnectionTicket::ConnectionTicket(std::shared_ptr<ConnectionSlots> slots, uint64_t id, int socket)
    : slots_(std::move(slots)), id_(id), socket_(socket) {}

ConnectionTicket::~ConnectionTicket() {
  if (slots_) {
    slots_->end(id_);
  }
}

bool ConnectionTicket::hold_body(size_t bytes) {
  const MutexLock lock(slots_->mutex_);
  ConnectionSlots::Entry& entry = slots_->entries_.at(id_);
  if (entry.phase == ConnectionSlots::Phase::kGone) {
    return false;
  }
  const size_t more = slots_->counted(entry.body_bytes + bytes) - slots_->counted(entry.body_bytes);
  while (more > slots_->limits_.bodies_bytes - slots_->bodies_bytes_) {
    if (!slots_->shed_one_body(id_)) {
      return false;
    }
  }
  entry.body_bytes += bytes;
  slots_->bodies_bytes_ += more;
  return true;
}

void ConnectionTicket::release_body() {
  const MutexLock lock(slots_->mutex_);
  const size_t body_bytes = std::exchange(slots_->entries_.at(id_).body_bytes, 0);
  slots_->bodies_bytes_ -= slots_->counted(body_bytes);
}

bool ConnectionTicket::hold_answer(size_t bytes) {
  const MutexLock lock(slots_->mutex_);
  ConnectionSlots::Entry& entry = slots_->entries_.at(id_);
  if (entry.phase == ConnectionSlots::Phase::kGone) {
    return false;
  }
  while (bytes > slots_->limits_.answers_bytes - slots_->answers_bytes_) {
    if (!slots_->shed_one_answer()) {
      return false;
    }
  }
  entry.answer_bytes = bytes;
  slots_->answers_bytes_ += bytes;
  return true;
}

bool ConnectionTicket::begin_work() {
  const MutexLock lock(slots_->mutex_);
  ConnectionSlots::Entry& entry = slots_->entries_.at(id_);
  if (entry.phase == ConnectionSlots::Phase::kGone) {
    return false;
  }
  entry.phase = ConnectionSlots::Phase::kWork;
  return true;
}

void ConnectionTicket::end_work() {
  const MutexLock lock(slots_->mutex_);
  ConnectionSlots::Entry& entry = slots_->entries_.at(id_);
  slots_->release(entry);
  if (entry.phase != ConnectionSlots::Phase::kGone) {
    entry.phase = ConnectionSlots::Phase::kClosing;
  }
}

std::optional<ConnectionTicket> ConnectionSlots::admit(FileDescriptor socket) {
  const MutexLock lock(mutex_);
  const size_t most = connections_max();
  const bool is_full = entries_.size() - gone_count_ >= most;
  // Those that gave way still have their threads for a moment.
  if ((is_full && !shed_one()) || entries_.size() >= 2 * most) {
    return std::nullopt;
  }
  const int fd = socket.get();
  entries_[next_id_].socket = std::move(socket);
  return std::optional<ConnectionTicket>(std::in_place, shared_from_this(), next_id_++, fd);
}

// Two servers with peers beside them leave some descriptors to the node's files.
size_t ConnectionSlots::connections_max() const {
  const uint64_t share = descriptor_limit() / 4;
  return std::min<uint64_t>(limits_.connections, share > kDescriptorsLeft ? share - kDescriptorsLeft : 1);
}

void ConnectionSlots::shed_waiting() {
  const MutexLock lock(mutex_);
  while (shed_one()) {
  }
}

bool ConnectionSlots::wait_until_empty(int64_t timeout_ms) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  const MutexLock lock(mutex_);
  while (!entries_.empty()) {
    if (ended_.wait_until(mutex_, deadline) == std::cv_status::timeout) {
      return entries_.empty();
    }
  }
  return true;
}

void ConnectionSlots::give_way(Entry& entry) {
  ::shutdown(entry.socket.get(), SHUT_RDWR);
  entry.phase = Phase::kGone;
  ++gone_count_;
  release(entry);
}

size_t ConnectionSlots::counted(size_t body_bytes) const {
  return body_bytes - std::min(body_bytes, limits_.body_bytes_free);
}

void ConnectionSlots::release(Entry& entry) {
  bodies_bytes_ -= counted(std::exchange(entry.body_bytes, 0));
  answers_bytes_ -= std::exchange(entry.answer_bytes, 0);
}

bool ConnectionSlots::shed_one() {
  for (const Phase phase : {Phase::kClosing, Phase::kRequest}) {
    for (auto& [id, entry] : entries_) {
      if (entry.phase == phase) {
        give_way(entry);
        return true;
      }
    }
  }
  return false;
}

bool ConnectionSlots::shed_one_body(uint64_t except) {
  for (auto& [id, entry] : entries_) {
    if (id != except && entry.phase == Phase::kRequest && counted(entry.body_bytes) > 0) {
      give_way(entry);
      return true;
    }
  }
  return false;
}

bool ConnectionSlots::shed_one_answer() {
  for (auto& [id, entry] : entries_) {
    if (entry.answer_bytes > 0) {
      give_way(entry);
      return true;
    }
  }
  return false;
}

void ConnectionSlots::end(uint64_t id) {
  const MutexLock lock(mutex_);
  const auto entry = entries_.find(id);
  gone_count_ -= entry->second.phase == Phase::kGone ? 1 : 0;
  release(entry->second);
  entries_.erase(entry);
  ended_.notify_all();
}

}  // namespace norvel::rpc
