// One HTTP request and its reply over TLS 1.2 or later, as
// rpc::send_http_request() does it over plain TCP.
//
// Threads: no shared state. Expects that SIGPIPE is ignored.

#pragma once

#include <cstdint>
#include <string>

#include "rpc/http_exchange.h"
#include "rpc/http_reply.h"

namespace norvel::cli {

struct TlsPeer {
  std::string address;  // numeric IPv4
  uint16_t port = 0;
  std::string name;     // what the certificate must be made out to: a host name or a numeric IPv4 address
  std::string ca_file;  // PEM certificates to trust, a self-signed one included; empty: those of the system
};

// Sends `request` once the peer has proven to be `peer.name`; reads the reply
// until it is complete, the peer closes or the time is up. The times hold for
// the handshake and each of its messages too; what has come when they are up is
// still read, for a second at most. A peer that sends 1 MiB without ending its
// handshake, or without a byte of its reply, counts as lost. Throws ConnectionError when there
// is no connection, no proof or the request cannot be sent in time, UsageError
// when the file of certificates cannot be read; the exceptions of
// HttpReply::append() propagate.
rpc::HttpReply send_tls_request(const TlsPeer& peer, const std::string& request,
                                const rpc::ExchangeTimeouts& timeouts = {});

}  // namespace norvel::cli
