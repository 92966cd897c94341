// The JSON-RPC 2.0 endpoint of a node: a plain or TLS listener that answers one
// HTTP POST per connection, checks HTTP Basic credentials (RFC 7617), decides by
// method and client address whether the call is permitted, and hands it to a
// registered handler.
//
// Bounds, whatever a client sends: see server_limits.h. A request with an Origin
// header comes from a web page and is refused, whoever's browser sent it.
//
// Errors: start-up failures print a line; those of a connection end it silently.
// Threads: safe from any thread once started; one thread accepts, each connection
// has one of its own, which may outlive the server and shares what it touches.

#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "rpc/method_handler.h"
#include "rpc/node_components.h"
#include "rpc/rpc_message.h"
#include "rpc/server_limits.h"

namespace norvel::rpc {

class RpcServer {
 public:
  // Dotted IPv4 address. Nothing is opened; no method is registered.
  RpcServer(uint16_t port, std::string bind_address, const ServerLimits& limits = {});
  ~RpcServer();  // stops
  RpcServer(const RpcServer&) = delete;
  RpcServer& operator=(const RpcServer&) = delete;

  // ---- Before start()

  // Both empty: no authentication.
  void set_credentials(const std::string& user, const std::string& password);

  // Serves TLS 1.2 or later with this PEM certificate chain and key. On failure
  // prints the reason on standard error and keeps what it had.
  void set_tls(const std::string& certificate_file, const std::string& key_file);
  bool has_tls() const;

  void set_components(NodeComponents components);
  NodeComponents get_components() const;

  // Adds or replaces a method; also while running.
  void register_method(const std::string& name, MethodHandler handler, CallWeight weight = CallWeight::kLight);

  // The methods of a node, over the components.
  void register_default_handlers();

  // getblockcount, getblocktemplate and submitblock only.
  void register_mining_handlers();

  // Restricted methods are permitted from this dotted address too.
  void trust_address(const std::string& address);

  // Closes connections from any address that is neither trusted nor of 127.0.0.0/8,
  // which is then trusted as a whole.
  void serve_trusted_only();

  // ---- Life

  // Listens and accepts. False, with a line on standard error, when the socket,
  // the address, the listening or the thread fails; also, without one, while
  // running.
  bool start();

  // The accept loop, on the server's thread; returns after stop().
  void run();

  // Ends the accept loop. Connections go on; see wait_for_connections().
  void stop();

  // Whether, within `timeout_ms`, every connection has ended. After stop().
  // Connections without a complete request are cut at once.
  bool wait_for_connections(int64_t timeout_ms);

  // The port that is listened on, which the system chooses for port 0.
  uint16_t get_port() const;

  // ---- One request

  bool is_command_allowed(const std::string& method, const std::string& client_address) const;

  // Whether the raw request carries the credentials; compares in constant time.
  bool check_auth(const std::string& raw) const;

  RpcResponse handle_rpc_request(const RpcRequest& request, const std::string& client_address) const;

  // Serves one connection, on the caller's thread, and closes it. A peer whose
  // address cannot be read is taken as 127.0.0.1.
  void handle_client(int socket);

  // What follows the first blank line; empty without one.
  static std::string parse_http_request(const std::string& raw);

  // The reason phrase is " OK" for every status.
  static std::string build_http_response(const std::string& body, int status);

 private:
  struct State;
  std::shared_ptr<State> state_;  // shared with connection threads
};

}  // namespace norvel::rpc
