#include "rpc/client_session.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "rpc/http_request.h"
#include "rpc/rpc_message.h"
#include "rpc/server_connection.h"

namespace norvel::rpc {

namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kChunkBytesMax = 8'191;
constexpr int kStatusOk = 200;

constexpr const char kTooLargeText[] = "Request too large";
constexpr const char kNotPermittedText[] = "not permitted";

// Unlike a response's object its members are in the order of the request.
constexpr std::string_view kUnauthorizedBody =
    R"({"jsonrpc":"2.0","error":{"code":-32600,"message":"Unauthorized"},"id":null})";
static_assert(kUnauthorizedBody.size() == 76 && kUnauthorized == -32600);

std::string unauthorized_answer() {
  std::string answer =
      "HTTP/1.1 401 Unauthorized\r\nWWW-Authenticate: Basic realm=\"norvel\"\r\nContent-Type: application/json\r\n"
      "Content-Length: " +
      std::to_string(kUnauthorizedBody.size()) + "\r\nConnection: close\r\n\r\n";
  return answer.append(kUnauthorizedBody);
}

std::string answer_of(const RpcResponse& response) {
  return build_http_response(response.to_json(), kStatusOk);
}

Clock::time_point from_now(int64_t ms) {
  return Clock::now() + std::chrono::milliseconds(ms);
}

size_t count_values(const JsonValue& value) {
  size_t count = 1;
  for (const JsonValue& element : value.array) {
    count += count_values(element);
  }
  for (const auto& [key, member] : value.object) {
    count += count_values(member);
  }
  return count;
}

class ClientSession {
 public:
  ClientSession(SessionContext& context, ConnectionTicket& ticket, const std::string& client_address)
      : context_(context),
        ticket_(ticket),
        client_address_(client_address),
        deadline_(ticket.admitted_at() + std::chrono::milliseconds(context.limits.request_ms)),
        connection_(ticket.socket()),
        request_(context.limits) {}

  void serve() {
    if (context_.tls && !connection_.handshake(context_.tls.get(), deadline_)) {
      return;
    }
    const std::optional<std::string> text = answer();
    if (text && connection_.write(*text, from_now(context_.limits.answer_ms))) {
      ticket_.end_work();
      connection_.finish(context_.limits.closing_bytes_max, from_now(context_.limits.closing_ms));
    }
  }

 private:
  enum class Received { kRequest, kTooLarge, kUnauthorized, kNothing };

  // Nothing closes the connection without a word.
  std::optional<std::string> answer() {
    switch (receive()) {
      case Received::kRequest:
        return ticket_.begin_work() ? call() : std::nullopt;
      case Received::kTooLarge:
        return answer_of(RpcResponse::failure(kParseError, kTooLargeText));
      case Received::kUnauthorized:
        return unauthorized_answer();
      case Received::kNothing:
        break;
    }
    return std::nullopt;
  }

  // The credentials are checked as soon as the header block is there, so that no
  // body is held for a stranger. A request that its client ends early is taken
  // as it is.
  Received receive() {
    bool authorized = false;
    std::array<char, kChunkBytesMax> chunk;
    for (;;) {
      if (!authorized && request_.has_headers()) {
        if (!context_.auth.accepts(request_.headers())) {
          return Received::kUnauthorized;
        }
        authorized = true;
      }
      const HttpRequest::Progress progress = request_.progress();
      if (progress == HttpRequest::Progress::kComplete || progress == HttpRequest::Progress::kTooLarge) {
        return progress == HttpRequest::Progress::kComplete ? Received::kRequest : Received::kTooLarge;
      }
      const auto bytes = connection_.read(chunk, deadline_);
      if (!bytes) {
        return Received::kNothing;
      }
      if (*bytes == 0) {
        return authorized || context_.auth.accepts(request_.headers()) ? Received::kRequest : Received::kUnauthorized;
      }
      const size_t held = request_.body().size();
      request_.append({chunk.data(), *bytes});
      if (!ticket_.hold_body(request_.body().size() - held)) {
        return Received::kTooLarge;
      }
    }
  }

  std::optional<std::string> call() {
    const size_t values_max = context_.limits.values;
    // Each value takes a character at least.
    auto share = context_.values.take(std::min(values_max, request_.body().size()), deadline_);
    if (!share) {
      return std::nullopt;
    }
    const bool has_origin = request_.has_origin();
    RpcRequest call;
    try {
      // One more than permitted tells a body at the limit from one beyond it.
      JsonValue body = JsonValue::parse(request_.body(), {.values = values_max + 1});
      const size_t value_count = count_values(body);
      if (value_count > values_max) {
        return answer_of(RpcResponse::failure(kParseError, kTooLargeText));
      }
      share->shrink(value_count);
      call = RpcRequest::from_json(std::move(body));
    } catch (const std::logic_error&) {  // a number that does not convert
      return answer_of(RpcResponse::failure(kParseError, "Parse error"));
    }
    request_ = HttpRequest(context_.limits);
    ticket_.release_body();
    if (has_origin) {
      return answer_of(RpcResponse::failure(kNotPermitted, kNotPermittedText, std::move(call.id)));
    }
    return answer_of(context_.methods.handle(call, client_address_));
  }

  SessionContext& context_;
  ConnectionTicket& ticket_;
  const std::string& client_address_;
  const Clock::time_point deadline_;
  ServerConnection connection_;
  HttpRequest request_;
};

}  // namespace

std::string build_http_response(const std::string& body, int status) {
  return "HTTP/1.1 " + std::to_string(status) +
         " OK\r\nContent-Type: application/json\r\nContent-Length: " + std::to_string(body.size()) +
         "\r\nConnection: close\r\n\r\n" + body;
}

void serve_connection(SessionContext& context, ConnectionTicket& ticket, const std::string& client_address) {
  ClientSession(context, ticket, client_address).serve();
}

}  // namespace norvel::rpc
