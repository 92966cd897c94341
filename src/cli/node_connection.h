// A node as the commands see it: one JSON-RPC call per connection, over TCP or
// TLS, with or without credentials. Nothing is retried.
//
// Threads: single-threaded.

#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "rpc/json.h"

namespace norvel::cli {

struct NodeAddress {
  std::string host = "127.0.0.1";  // numeric IPv4 or a name
  uint16_t port = 8332;
  std::string user;  // user and password empty: none are sent
  std::string password;
  bool tls = false;
  std::string ca_file;  // for TLS; empty: what the system trusts
};

class NodeConnection {
 public:
  // No connection is made yet.
  explicit NodeConnection(NodeAddress address);

  // The result of `method`; an only parameter that is an object stands for all
  // parameters, by name. Throws ErrorReply with the node's message; and
  // ConnectionError, with text that may be printed, when the node cannot be
  // reached or the answer is not a whole JSON-RPC reply.
  rpc::JsonValue call(const std::string& method, std::vector<rpc::JsonValue> params = {});

 private:
  std::string exchange(const std::string& request, const std::string& numeric_host) const;

  const NodeAddress address_;
  std::string numeric_host_;  // once looked up
};

// `text` in Base64 (RFC 4648, section 4).
std::string to_base64(const std::string& text);

}  // namespace norvel::cli
