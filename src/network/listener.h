// The listening socket and the thread's loop that accepts from it.
//
// Threads: open() and close() by whoever owns the thread of run(); interrupt() in
// between; is_own() from any thread at any time.

#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>

#include "core/file_io.h"
#include "network/log_limiter.h"
#include "network/thread_group.h"

namespace norvel::network {

// Whether an empty `bind_address` or "0.0.0.0" was given.
bool binds_any(const std::string& bind_address);

class Listener {
 public:
  using Accept = std::function<void(FileDescriptor connection, const std::string& ip, uint16_t port)>;

  // The log outlives the listener.
  explicit Listener(LogLimiter& log) : log_(log) {}

  // Binds and listens; false, with a line, when that fails. A bind address that
  // does not read as one is replaced by any, with a line.
  bool open(const std::string& bind_address, uint16_t port);

  // Gives each connection (non-blocking) to `accept` until interrupted. What that
  // throws closes the connection.
  void run(StopSignal& stop, const Accept& accept);

  // Makes run() return. The descriptor stays until close().
  void interrupt();

  // To be called when run() has returned.
  void close();

  // From open() to interrupt().
  bool is_listening() const { return listening_; }

  // Whether a connection to that address would come to this listener.
  bool is_own(const std::string& ip, uint16_t port) const;

 private:
  int accept_one(const Accept& accept);

  LogLimiter& log_;

  // Set when the members below are, which then stay as they are until the next open().
  std::atomic<bool> listening_{false};

  FileDescriptor socket_;
  std::string address_;  // "0.0.0.0" for any
  uint16_t port_ = 0;
};

}  // namespace norvel::network
