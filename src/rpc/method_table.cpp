#include "rpc/method_table.h"

#include <exception>
#include <utility>

namespace norvel::rpc {

void MethodTable::register_method(const std::string& name, MethodHandler handler) {
  const MutexLock lock(mutex_);
  handlers_[name].swap(handler);
}

void MethodTable::trust_address(const std::string& address) {
  const MutexLock lock(mutex_);
  trusted_.insert(address);
}

bool MethodTable::is_trusted(const std::string& address) const {
  const MutexLock lock(mutex_);
  return trusted_.contains(address);
}

bool MethodTable::is_command_allowed(const std::string& method, const std::string& client_address) const {
  const MutexLock lock(mutex_);
  return !restricted_.contains(method) || trusted_.contains(client_address);
}

RpcResponse MethodTable::handle(const RpcRequest& request, const std::string& client_address) const {
  const MethodHandler handler = find(request.method);
  if (!handler) {
    return RpcResponse::failure(kMethodNotFound, "Method not found: " + request.method, request.id);
  }
  if (!is_command_allowed(request.method, client_address)) {
    return RpcResponse::failure(kNotPermitted,
                                "Method '" + request.method + "' is not permitted from " + client_address, request.id);
  }
  try {
    RpcResponse response;
    response.result = handler(request.params);
    response.id = request.id;
    return response;
  } catch (const std::exception& failure) {
    return RpcResponse::failure(kHandlerError, std::string("Error: ") + failure.what(), request.id);
  }
}

MethodHandler MethodTable::find(const std::string& method) const {
  const MutexLock lock(mutex_);
  const auto entry = handlers_.find(method);
  return entry == handlers_.end() ? MethodHandler() : entry->second;
}

}  // namespace norvel::rpc
