// The methods of an RPC server, who may call them, and the call itself.
//
// Threads: safe from any thread; handlers run without the lock.

#pragma once

#include <map>
#include <set>
#include <string>

#include "core/sync.h"
#include "rpc/method_handler.h"
#include "rpc/rpc_message.h"

namespace norvel::rpc {

class MethodTable {
 public:
  // Adds or replaces.
  void register_method(const std::string& name, MethodHandler handler, CallWeight weight = CallWeight::kLight)
      EXCLUDES(mutex_);

  // Light for a method that does not exist.
  CallWeight weight_of(const std::string& method) const EXCLUDES(mutex_);

  // Restricted methods are permitted from this dotted address too.
  void trust_address(const std::string& address) EXCLUDES(mutex_);

  // All of 127.0.0.0/8 is trusted.
  void trust_loopback() EXCLUDES(mutex_);

  bool is_trusted(const std::string& address) const EXCLUDES(mutex_);

  // A restricted method from trusted addresses only, any other from everywhere.
  bool is_command_allowed(const std::string& method, const std::string& client_address) const EXCLUDES(mutex_);

  // Refuses or calls the handler. A std::exception of the handler is a response,
  // any other propagates.
  RpcResponse handle(RpcRequest request, const std::string& client_address) const EXCLUDES(mutex_);

 private:
  struct Row {
    MethodHandler handler;
    CallWeight weight = CallWeight::kLight;
  };

  bool trusts(const std::string& address) const REQUIRES(mutex_);
  MethodHandler find(const std::string& method) const EXCLUDES(mutex_);  // empty when there is none

  mutable Mutex mutex_;  // leaf
  std::map<std::string, Row> methods_ GUARDED_BY(mutex_);
  std::set<std::string> restricted_ GUARDED_BY(mutex_) = {"sendrawtransaction", "submitblock"};
  std::set<std::string> trusted_ GUARDED_BY(mutex_) = {"127.0.0.1", "::1"};
  bool trusts_loopback_ GUARDED_BY(mutex_) = false;
};

}  // namespace norvel::rpc
