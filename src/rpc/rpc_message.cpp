#include "rpc/rpc_message.h"

#include <utility>

namespace norvel::rpc {

RpcRequest RpcRequest::from_json(JsonValue body) {
  const auto take = [&body](const char* key) {
    const auto member = body.object.find(key);
    return member == body.object.end() ? JsonValue() : std::move(member->second);
  };
  return {take("method").string, take("params"), take("id")};
}

RpcResponse RpcResponse::failure(int32_t code, std::string message, JsonValue id) {
  RpcResponse response;
  response.is_error = true;
  response.error_code = code;
  response.error_message = std::move(message);
  response.id = std::move(id);
  return response;
}

std::string RpcResponse::to_json() const {
  JsonValue object = JsonValue::make_object();
  object.set("jsonrpc", "2.0");
  if (is_error) {
    JsonValue error = JsonValue::make_object();
    error.set("code", error_code);
    error.set("message", error_message);
    object.set("error", std::move(error));
  } else {
    object.set("result", result);
  }
  object.set("id", id);
  return object.to_string();
}

}  // namespace norvel::rpc
