// One accepted connection as a stream with deadlines, plain or under TLS.
//
// Nothing throws. A read or write that has failed ends the stream.
// Threads: single-threaded; another thread may shut the socket down.

#pragma once

#include <chrono>
#include <cstddef>
#include <optional>
#include <span>
#include <string_view>

#include "rpc/tls_context.h"

namespace norvel::rpc {

class ServerConnection {
 public:
  using TimePoint = std::chrono::steady_clock::time_point;

  // The socket stays the caller's; it may be a blocking one. `tls` may be null:
  // a plain stream.
  explicit ServerConnection(int socket) : socket_(socket) {}

  // Makes the stream a TLS one.
  bool handshake(SSL_CTX* tls, TimePoint deadline);

  // The bytes that have come, at least one; 0 at the peer's orderly end; nothing
  // after an error or at the deadline.
  std::optional<size_t> read(std::span<char> into, TimePoint deadline);

  // Whether the system has taken all of `text` by the deadline.
  bool write(std::string_view text, TimePoint deadline);

  // Ends the stream towards the peer and drops what still comes until it ends
  // its side, `bytes_max` have come or the deadline has passed: closing a socket
  // with unread bytes would make the system destroy an answer under way.
  void finish(size_t bytes_max, TimePoint deadline);

 private:
  // Repeats a TLS operation until it is done; its result, 0 or less on failure.
  template <typename Operation>
  int drive(Operation operation, TimePoint deadline);

  bool wait(short events, TimePoint deadline) const;
  std::optional<size_t> receive(std::span<char> into, TimePoint deadline) const;

  const int socket_;
  TlsSession tls_;
  bool tls_failed_ = false;  // a session that failed must not be shut down
};

}  // namespace norvel::rpc
