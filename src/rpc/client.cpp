#include "rpc/client.h"

#include <stdexcept>
#include <string_view>
#include <utility>

namespace norvel::rpc {

namespace {

// Throws when `reply` carries an error.
void check_error(const JsonValue& reply) {
  const JsonValue& error = reply.get("error");
  if (error.type == JsonType::kNull) {
    return;
  }
  const bool explained = error.type == JsonType::kObject && error.object.contains("message");
  throw std::runtime_error(explained ? error.get("message").string : "RPC error");
}

// The result of a reply's body.
JsonValue read_result(std::string_view body, const JsonLimits& limits) {
  JsonValue reply = JsonValue::parse(body, limits);
  check_error(reply);
  return std::move(reply.object["result"]);  // a reply of another type has no members
}

}  // namespace

RpcClient::RpcClient(std::string host, uint16_t port) : host_(std::move(host)), port_(port) {}

JsonValue RpcClient::call(const std::string& method, JsonValue params, const ExchangeControl& control) {
  return exchange(method, std::move(params), control).result;
}

RpcClient::Outcome RpcClient::exchange(const std::string& method, JsonValue params, const ExchangeControl& control,
                                       const JsonLimits& limits) {
  JsonValue request;
  request.set("jsonrpc", "2.0");
  request.set("id", std::to_string(next_request_id_.fetch_add(1)));
  request.set("method", method);
  request.set("params", std::move(params));

  ExchangeTimeouts timeouts;
  timeouts.step_ms = int64_t{timeout_seconds_} * 1'000;
  const HttpExchange response =
      send_http_request(host_, port_, build_http_request(host_, port_, request.to_string()), control, timeouts);
  try {
    return {read_result(response.reply.body(), limits), response.was_cut};
  } catch (const std::exception&) {
    if (response.was_cut) {
      return {JsonValue(), true};
    }
    throw;
  }
}

}  // namespace norvel::rpc
