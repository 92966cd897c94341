// A JSON-RPC 2.0 request and its response.
//
// Threads: plain values.

#pragma once

#include <cstdint>
#include <string>

#include "rpc/json.h"

namespace norvel::rpc {

inline constexpr int32_t kParseError = -32700;
inline constexpr int32_t kMethodNotFound = -32601;
inline constexpr int32_t kUnauthorized = -32600;
inline constexpr int32_t kNotPermitted = -32003;
inline constexpr int32_t kHandlerError = -1;

struct RpcRequest {
  // The members "method", "params" and "id" of `body`; empty or null where it
  // has none.
  static RpcRequest from_json(JsonValue body);

  std::string method;
  JsonValue params;
  JsonValue id;
};

struct RpcResponse {
  static RpcResponse failure(int32_t code, std::string message, JsonValue id = {});

  JsonValue result;
  bool is_error = false;
  int32_t error_code = 0;
  std::string error_message;
  JsonValue id;

  // The object with "jsonrpc", "id" and either "error" or "result", keys ascending.
  std::string to_json() const;
};

}  // namespace norvel::rpc
