#include "network/dialler.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <utility>
#include <vector>

#include "core/console.h"
#include "network/address_text.h"

namespace norvel::network {

namespace {

constexpr int kStopCheckMs = 50;

sockaddr_in socket_address(const std::string& ip, uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  if (::inet_pton(AF_INET, ip.c_str(), &address.sin_addr) != 1) {
    address.sin_family = AF_UNSPEC;
  }
  return address;
}

// Waits until a connection under way has come about; false when it has failed.
bool await_connection(int fd, const StopSignal& stop) {
  const Deadline deadline = std::chrono::steady_clock::now() + kConnectTimeout;
  while (!stop.is_raised() && std::chrono::steady_clock::now() < deadline) {
    pollfd waiting{fd, POLLOUT, 0};
    if (::poll(&waiting, 1, kStopCheckMs) > 0) {
      int error = 0;
      socklen_t error_bytes = sizeof error;
      return ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &error_bytes) == 0 && error == 0;
    }
  }
  return false;
}

}  // namespace

// What is dialled, by key, while it lives.
class Dialler::InFlight {
 public:
  InFlight(Dialler& dialler, std::string key) : dialler_(dialler), key_(std::move(key)) {
    const MutexLock lock(dialler_.mutex_);
    admitted_ = dialler_.in_flight_.insert(key_).second;
  }
  ~InFlight() {
    if (admitted_) {
      const MutexLock lock(dialler_.mutex_);
      dialler_.in_flight_.erase(key_);
    }
  }
  InFlight(const InFlight&) = delete;
  InFlight& operator=(const InFlight&) = delete;

  bool admitted() const { return admitted_; }

 private:
  Dialler& dialler_;
  const std::string key_;
  bool admitted_ = false;
};

// A dial on its caller's thread, while it lives.
class Dialler::CallersDial {
 public:
  explicit CallersDial(Dialler& dialler) : dialler_(dialler) {
    const MutexLock lock(dialler_.mutex_);
    admitted_ = dialler_.workers_ + dialler_.callers_ < kDialsMax;
    dialler_.callers_ += admitted_ ? 1 : 0;
  }
  ~CallersDial() {
    if (admitted_) {
      give_back();
      dialler_.start_worker();
    }
  }
  CallersDial(const CallersDial&) = delete;
  CallersDial& operator=(const CallersDial&) = delete;

  bool admitted() const { return admitted_; }

 private:
  void give_back() {
    const MutexLock lock(dialler_.mutex_);
    --dialler_.callers_;
  }

  Dialler& dialler_;
  bool admitted_ = false;
};

Dialler::Dialler(std::string bind_address, Connections& connections, AddressBook& book, DialBackoff& backoff,
                 const Listener& listener, LogLimiter& log, Connected connected)
    : bind_address_(std::move(bind_address)),
      connections_(connections),
      book_(book),
      backoff_(backoff),
      listener_(listener),
      log_(log),
      connected_(std::move(connected)) {
  stop_.raise();
}

void Dialler::stop() {
  stop_.raise();
  const MutexLock lock(mutex_);
  queue_.clear();
  queued_.clear();
}

bool Dialler::dial(const std::string& host, uint16_t port, Urgency urgency) {
  const CallersDial place(*this);
  return place.admitted() && dial_now(host, port, urgency);
}

bool Dialler::dial_now(const std::string& host, uint16_t port, Urgency urgency) {
  const std::string key = make_key(host, port);
  const InFlight flight(*this, key);
  if (!flight.admitted() || stop_.is_raised() || is_self(key, urgency) || !connections_.has_outbound_room() ||
      !is_due(key, urgency)) {
    return false;
  }
  if (!parse_ipv4(host)) {
    return dial_name(host, port, urgency);
  }
  return is_wanted(host, port, urgency) && dial_resolved(host, port);
}

bool Dialler::dial_name(const std::string& name, uint16_t port, Urgency urgency) {
  const std::string name_key = make_key(name, port);
  if (is_name_connected(name_key)) {
    return false;
  }
  backoff_.note_dial(name_key);
  const auto found = lookup_.resolve(name, stop_);
  if (!found) {
    return false;
  }
  const std::string ip = format_ipv4(*found);
  const std::string key = make_key(ip, port);
  {
    const MutexLock lock(mutex_);
    if (resolved_.size() >= kNamesMax && !resolved_.contains(name_key)) {
      resolved_.clear();
    }
    resolved_[name_key] = key;
  }
  const InFlight flight(*this, key);
  return flight.admitted() && is_wanted(ip, port, urgency) && is_due(key, urgency) && dial_resolved(ip, port);
}

// So that a name is not looked up again and again while its host is connected.
bool Dialler::is_name_connected(const std::string& name_key) {
  std::string key;
  {
    const MutexLock lock(mutex_);
    const auto at = resolved_.find(name_key);
    if (at == resolved_.end()) {
      return false;
    }
    key = at->second;
  }
  return connections_.table().connected_keys().contains(key);
}

bool Dialler::is_due(const std::string& key, Urgency urgency) const {
  if (urgency == Urgency::NOW) {
    return true;
  }
  const bool urgent = urgency == Urgency::URGENT || connections_.table().outbound_count() == 0;
  return backoff_.may_dial(key, urgent ? kDialDelayUrgentMs : kDialDelayMaxMs);
}

// What others told counts for nothing against what the operator named.
bool Dialler::is_self(const std::string& key, Urgency urgency) const {
  return urgency == Urgency::URGENT ? book_.was_reached_as_self(key) : book_.is_self(key);
}

// Whether it is neither connected nor this node itself. Who asks for this node's
// own listener by name gets it, and the handshake finds out.
bool Dialler::is_wanted(const std::string& ip, uint16_t port, Urgency urgency) const {
  const std::string key = make_key(ip, port);
  return !connections_.table().connected_keys().contains(key) && !is_self(key, urgency) &&
         (urgency == Urgency::NOW || !listener_.is_own(ip, port));
}

bool Dialler::dial_resolved(const std::string& ip, uint16_t port) {
  if (!connections_.has_outbound_room()) {
    return false;
  }
  backoff_.note_dial(make_key(ip, port));  // also when it is refused at once
  auto slot = connections_.reserve_outbound(ip);
  if (!slot) {
    return false;
  }
  FileDescriptor connection = connect(ip, port);
  if (!connection.is_open() || stop_.is_raised()) {
    return false;
  }
  const PeerPtr peer = connections_.add_outbound(std::move(connection), ip, port, std::move(*slot));
  if (peer == nullptr) {
    return false;
  }
  connected_(peer);
  return true;
}

// The connected socket, non-blocking; none when it did not come about.
FileDescriptor Dialler::connect(const std::string& ip, uint16_t port) {
  FileDescriptor fd(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!fd.is_open()) {
    return {};
  }
  const int on = 1;
  ::setsockopt(fd.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  bind_outbound(fd.get());
  const sockaddr_in address = socket_address(ip, port);
  if (::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 &&
      ((errno != EINPROGRESS && errno != EINTR) || !await_connection(fd.get(), stop_))) {
    return {};
  }
  return fd;
}

void Dialler::bind_outbound(int fd) const {
  if (binds_any(bind_address_)) {
    return;
  }
  const sockaddr_in address = socket_address(bind_address_, 0);
  if (address.sin_family != AF_INET || ::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    log_.error("outbound bind",
               "[Network] Warning: could not bind outbound socket to " + console::printable(bind_address_));
  }
}

void Dialler::note_success(const Peer& peer) {
  const std::string key = make_key(peer.address, peer.dialled_port);
  std::vector<std::string> names;
  {
    const MutexLock lock(mutex_);
    for (const auto& [name_key, ip_key] : resolved_) {
      if (ip_key == key) {
        names.push_back(name_key);
      }
    }
  }
  backoff_.note_success(key, peer.version_received && peer.port == peer.dialled_port);
  for (const std::string& name_key : names) {
    backoff_.note_success(name_key, false);
  }
}

void Dialler::enqueue(const std::string& host, uint16_t port, Urgency urgency) {
  if (stop_.is_raised()) {
    return;
  }
  Job job{make_key(host, port), host, port, urgency == Urgency::TOLD ? Urgency::NORMAL : urgency};
  {
    const MutexLock lock(mutex_);
    if (urgency == Urgency::TOLD && queue_.size() >= kToldDialsMax) {
      return;
    }
    add_job(std::move(job));
  }
  start_worker();
}

void Dialler::drop_waiting() {
  const MutexLock lock(mutex_);
  std::erase_if(queue_, [](const Job& job) { return job.urgency == Urgency::NORMAL; });
  queued_.clear();
  for (const Job& job : queue_) {
    queued_.insert(job.key);
  }
}

void Dialler::add_job(Job job) {
  const bool urgent = job.urgency != Urgency::NORMAL;
  if (queued_.contains(job.key)) {
    const auto at = std::ranges::find(queue_, job.key, &Job::key);
    if (!urgent || at == queue_.end() || at->urgency != Urgency::NORMAL) {
      return;
    }
    queued_.erase(job.key);
    queue_.erase(at);
  }
  if (queue_.size() >= kDialQueueMax) {
    if (!urgent || queue_.back().urgency != Urgency::NORMAL) {
      return;
    }
    queued_.erase(queue_.back().key);
    queue_.pop_back();
  }
  const std::string key = job.key;
  queue_.insert(urgent ? std::ranges::find(queue_, Urgency::NORMAL, &Job::urgency) : queue_.end(), std::move(job));
  queued_.insert(key);
}

void Dialler::start_worker() {
  {
    const MutexLock lock(mutex_);
    if (queue_.empty() || workers_ == kQueueDialsMax || workers_ + callers_ >= kDialsMax) {
      return;
    }
    ++workers_;
  }
  if (!threads_.run([this] { work_queue(); })) {
    const MutexLock lock(mutex_);
    --workers_;
  }
}

void Dialler::work_queue() {
  while (const auto job = next_job()) {
    try {
      dial_now(job->host, job->port, job->urgency);
    } catch (const std::exception& error) {
      log_.failure("dial", "Dial given up", error.what());
    }
  }
}

// Nothing when there is no more to do, and with it the worker's place is given back.
std::optional<Dialler::Job> Dialler::next_job() {
  const MutexLock lock(mutex_);
  if (queue_.empty()) {
    --workers_;
    return std::nullopt;
  }
  Job job = std::move(queue_.front());
  queue_.pop_front();
  queued_.erase(job.key);
  return job;
}

}  // namespace norvel::network
