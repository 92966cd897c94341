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

// Written in one piece, since a result may be large.
std::string RpcResponse::to_json() const {
  std::string text = "{";
  if (is_error) {
    JsonValue error = JsonValue::make_object();
    error.set("code", error_code);
    error.set("message", error_message);
    text += R"("error":)";
    error.append_to(text);
    text += ',';
  }
  text += R"("id":)";
  id.append_to(text);
  text += R"(,"jsonrpc":"2.0")";
  if (!is_error) {
    text += R"(,"result":)";
    result.append_to(text);
  }
  return text += '}';
}

}  // namespace norvel::rpc
