#include "rpc/method_table.h"

#include <exception>
#include <utility>

namespace norvel::rpc {

void MethodTable::register_method(const std::string& name, MethodHandler handler, CallWeight weight) {
  Row row{std::move(handler), weight};
  const MutexLock lock(mutex_);
  std::swap(methods_[name], row);
}

CallWeight MethodTable::weight_of(const std::string& method) const {
  const MutexLock lock(mutex_);
  const auto row = methods_.find(method);
  return row == methods_.end() ? CallWeight::kLight : row->second.weight;
}

void MethodTable::trust_address(const std::string& address) {
  const MutexLock lock(mutex_);
  trusted_.insert(address);
}

void MethodTable::trust_loopback() {
  const MutexLock lock(mutex_);
  trusts_loopback_ = true;
}

bool MethodTable::trusts(const std::string& address) const {
  return trusted_.contains(address) || (trusts_loopback_ && address.starts_with("127."));
}

bool MethodTable::is_trusted(const std::string& address) const {
  const MutexLock lock(mutex_);
  return trusts(address);
}

bool MethodTable::is_command_allowed(const std::string& method, const std::string& client_address) const {
  const MutexLock lock(mutex_);
  return !restricted_.contains(method) || trusts(client_address);
}

RpcResponse MethodTable::handle(RpcRequest request, const std::string& client_address) const {
  const MethodHandler handler = find(request.method);
  if (!handler) {
    return RpcResponse::failure(kMethodNotFound, "Method not found: " + request.method, std::move(request.id));
  }
  if (!is_command_allowed(request.method, client_address)) {
    return RpcResponse::failure(kNotPermitted,
                                "Method '" + request.method + "' is not permitted from " + client_address,
                                std::move(request.id));
  }
  try {
    RpcResponse response;
    response.result = handler(request.params);
    response.id = std::move(request.id);
    return response;
  } catch (const std::exception& failure) {
    return RpcResponse::failure(kHandlerError, std::string("Error: ") + failure.what(), std::move(request.id));
  }
}

MethodHandler MethodTable::find(const std::string& method) const {
  const MutexLock lock(mutex_);
  const auto row = methods_.find(method);
  return row == methods_.end() ? MethodHandler() : row->second.handler;
}

}  // namespace norvel::rpc
