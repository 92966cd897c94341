// One HTTP request and its reply over a fresh IPv4 connection that can be cut
// from outside at any moment.
//
// Errors: std::runtime_error when no socket can be made, no connection is
// reached or the request cannot be sent; the exceptions of HttpReply::append()
// propagate. The socket is closed on every way out.
// Threads: free functions without shared state.

#pragma once

#include <csignal>
#include <cstdint>
#include <functional>
#include <string>

#include "rpc/http_reply.h"

namespace norvel::rpc {

// How the caller stays in command of an exchange.
struct ExchangeControl {
  // True ends the exchange with what has arrived (nothing, while connecting or
  // sending) and without an error. Asked before connecting, before every wait
  // and at least every 50 ms while waiting. May be empty.
  std::function<bool()> cut;

  // The thread's signal mask during waits, and each time before `cut` is asked,
  // so that signals blocked elsewhere are handled there. Must outlive the
  // exchange. Null: the mask stays as it is.
  const sigset_t* wait_mask = nullptr;
};

// On the monotonic clock, in milliseconds.
struct ExchangeTimeouts {
  int64_t step_ms = 30'000;    // connect, a send without progress, a receive
  int64_t whole_ms = 120'000;  // ends the exchange as a cut does
};

// A stalled node must not hold a worker for longer than people wait.
static_assert(ExchangeTimeouts{}.step_ms == 30'000 && ExchangeTimeouts{}.whole_ms == 120'000);

struct HttpExchange {
  HttpReply reply;
  bool was_cut = false;  // by the caller or the time of the whole exchange, so that the reply may lack its end
};

// The bytes of a POST of `body` to path "/" of host and port.
std::string build_http_request(const std::string& host, uint16_t port, const std::string& body);

// Sends `request` and reads the reply until it is complete, the peer closes, a
// receive fails or times out. `host` is a numeric IPv4 address in any form that
// inet_aton reads; any other cannot be connected to.
HttpExchange send_http_request(const std::string& host, uint16_t port, const std::string& request,
                               const ExchangeControl& control = {}, const ExchangeTimeouts& timeouts = {});

}  // namespace norvel::rpc
