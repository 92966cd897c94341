#include "network/name_lookup.h"

#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstring>
#include <exception>
#include <thread>

namespace norvel::network {

namespace {

constexpr std::chrono::milliseconds kStopCheck{50};

// Shared by the thread that looks up and the one that waits.
struct Lookup {
  Mutex mutex;  // leaf
  bool done GUARDED_BY(mutex) = false;
  std::optional<Ipv4> ip GUARDED_BY(mutex);
};

std::optional<Ipv4> ask_system(const std::string& host) {
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (::getaddrinfo(host.c_str(), nullptr, &hints, &found) != 0 || found == nullptr) {
    return std::nullopt;
  }
  sockaddr_in address{};
  std::memcpy(&address, found->ai_addr, sizeof address);
  ::freeaddrinfo(found);
  Ipv4 ip;
  std::memcpy(ip.data(), &address.sin_addr, ip.size());
  return ip;
}

void look_up(const std::string& host, Lookup& lookup) {
  const auto ip = ask_system(host);
  const MutexLock lock(lookup.mutex);
  lookup.ip = ip;
  lookup.done = true;
}

}  // namespace

std::optional<Ipv4> NameLookup::resolve(const std::string& host, StopSignal& stop) {
  if (const auto ip = parse_ipv4(host)) {
    return ip;
  }
  const auto lookup = std::make_shared<Lookup>();
  if (++*running_ > kLookupsMax) {
    --*running_;
    return std::nullopt;
  }
  try {
    std::thread([running = running_, lookup, host] {
      look_up(host, *lookup);
      --*running;
    }).detach();
  } catch (const std::exception&) {  // no thread or no memory for one
    --*running_;
    return std::nullopt;
  }
  const Deadline deadline = std::chrono::steady_clock::now() + kLookupTimeout;
  while (!stop.wait_for(kStopCheck) && std::chrono::steady_clock::now() < deadline) {
    const MutexLock lock(lookup->mutex);
    if (lookup->done) {
      return lookup->ip;
    }
  }
  return std::nullopt;
}

}  // namespace norvel::network
