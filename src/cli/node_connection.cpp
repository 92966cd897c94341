#include "cli/node_connection.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <memory>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "cli/failures.h"
#include "cli/json_text.h"
#include "cli/tls_exchange.h"
#include "core/console.h"
#include "rpc/http_exchange.h"

namespace norvel::cli {

namespace {

using rpc::JsonType;
using rpc::JsonValue;

// The IPv4 address of `host` in dotted form.
std::string look_up(const std::string& host) {
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  const int error = ::getaddrinfo(host.c_str(), nullptr, &hints, &found);
  if (error != 0) {
    throw ConnectionError("Cannot look up " + host + ": " + ::gai_strerror(error));
  }
  const std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)> owner(found, &::freeaddrinfo);
  std::array<char, INET_ADDRSTRLEN> text{};
  const auto* address = reinterpret_cast<const sockaddr_in*>(found->ai_addr);
  ::inet_ntop(AF_INET, &address->sin_addr, text.data(), text.size());
  return text.data();
}

JsonValue make_params(std::vector<JsonValue> params) {
  if (params.size() == 1 && params[0].type == JsonType::kObject) {
    return std::move(params[0]);
  }
  return JsonValue(std::move(params));
}

std::string make_body(const std::string& method, std::vector<JsonValue> params) {
  JsonValue request;
  request.set("jsonrpc", "2.0");
  request.set("id", "0");
  request.set("method", method);
  request.set("params", make_params(std::move(params)));
  return request.to_string();
}

bool has_credentials(const NodeAddress& address) {
  return !address.user.empty() || !address.password.empty();
}

void warn_of_open_credentials(const NodeAddress& address, const std::string& numeric_host) {
  if (has_credentials(address) && !address.tls && !numeric_host.starts_with("127.")) {
    console::error_line("Warning: user and password travel unencrypted to " + console::printable(address.host) +
                        "; --rpc-tls encrypts them");
  }
}

std::string make_request(const NodeAddress& address, const std::string& body) {
  std::string request = rpc::build_http_request(address.host, address.port, body);
  if (has_credentials(address)) {
    request.insert(request.find("\r\n\r\n"),
                   "\r\nAuthorization: Basic " + to_base64(address.user + ":" + address.password));
  }
  return request;
}

// What the error member says. Whatever it is, it is a refusal.
std::string error_message(const JsonValue& error) {
  const std::string& message = error.type == JsonType::kString ? error.string : error.get("message").string;
  return message.empty() ? error.to_string() : message;
}

}  // namespace

NodeConnection::NodeConnection(NodeAddress address) : address_(std::move(address)) {}

JsonValue NodeConnection::call(const std::string& method, std::vector<JsonValue> params) {
  if (numeric_host_.empty()) {
    numeric_host_ = look_up(address_.host);
    warn_of_open_credentials(address_, numeric_host_);
  }
  const std::string body = exchange(make_request(address_, make_body(method, std::move(params))), numeric_host_);
  // A reply that was cut short would otherwise pass for a smaller one.
  JsonValue reply = read_json(body).value_or(JsonValue());
  const JsonValue& error = reply.get("error");
  if (error.type != JsonType::kNull) {
    throw ErrorReply(error_message(error));
  }
  if (reply.type != JsonType::kObject || !reply.object.contains("result")) {
    throw ConnectionError("No JSON-RPC reply from " + address_.host + ":" + std::to_string(address_.port) +
                          (address_.tls ? "" : " (does the node want TLS?)"));
  }
  return std::move(reply.object["result"]);
}

std::string NodeConnection::exchange(const std::string& request, const std::string& numeric_host) const {
  try {
    if (address_.tls) {
      const TlsPeer peer{numeric_host, address_.port, address_.host, address_.ca_file};
      return std::string(send_tls_request(peer, request).body());
    }
    return std::string(rpc::send_http_request(numeric_host, address_.port, request).reply.body());
  } catch (const UsageError&) {
    throw;
  } catch (const std::exception& failure) {
    throw ConnectionError(console::printable(failure.what()));
  }
}

std::string to_base64(const std::string& text) {
  constexpr std::string_view kDigits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  for (size_t at = 0; at < text.size(); at += 3) {
    const auto byte = [&](size_t i) { return i < text.size() ? uint32_t{static_cast<uint8_t>(text[i])} : 0U; };
    const uint32_t group = byte(at) << 16 | byte(at + 1) << 8 | byte(at + 2);
    for (const uint32_t shift : {18U, 12U, 6U, 0U}) {
      out += kDigits[group >> shift & 63U];
    }
  }
  const size_t padding = (3 - text.size() % 3) % 3;
  return out.replace(out.size() - padding, padding, padding, '=');
}

}  // namespace norvel::cli
