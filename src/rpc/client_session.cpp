#include "rpc/client_session.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "rpc/http_request.h"
#include "rpc/http_text.h"
#include "rpc/rpc_message.h"
#include "rpc/server_connection.h"

namespace norvel::rpc {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kStatusOk = 200;

constexpr const char kTooLargeText[] = "Request too large";
constexpr const char kNotPermittedText[] = "not permitted";
constexpr const char kBusyText[] = "Error: server busy";

// Unlike a response's object its members are in the order of the request.
constexpr std::string_view kUnauthorizedBody =
    R"({"jsonrpc":"2.0","error":{"code":-32600,"message":"Unauthorized"},"id":null})";
static_assert(kUnauthorizedBody.size() == 76 && kUnauthorized == -32600);

// Apart, since a large body is not to be copied.
struct Answer {
  std::string head;
  std::string body;
};

// Up to here a body is sent in one piece with its header block: two short packets
// would wait for each other.
constexpr size_t kOnePieceBytesMax = 65'536;

Answer unauthorized_answer() {
  return {
      "HTTP/1.1 401 Unauthorized\r\nWWW-Authenticate: Basic realm=\"norvel\"\r\n"
      "Content-Type: application/json\r\nContent-Length: " +
          std::to_string(kUnauthorizedBody.size()) + "\r\nConnection: close\r\n\r\n",
      std::string(kUnauthorizedBody)};
}

std::string http_head(size_t body_bytes, int status) {
  return "HTTP/1.1 " + std::to_string(status) +
         " OK\r\nContent-Type: application/json\r\nContent-Length: " + std::to_string(body_bytes) +
         "\r\nConnection: close\r\n\r\n";
}

Answer answer_of(const RpcResponse& response) {
  std::string body = response.to_json();
  return {http_head(body.size(), kStatusOk), std::move(body)};
}

Clock::time_point from_now(int64_t ms) {
  return Clock::now() + std::chrono::milliseconds(ms);
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
    std::optional<Answer> text = answer();
    if (text && ticket_.hold_answer(text->body.capacity()) && send(*text)) {
      text.reset();
      request_ = HttpRequest(context_.limits);
      ticket_.end_work();
      connection_.finish(context_.limits.closing_bytes_max, from_now(context_.limits.closing_ms));
    }
  }

 private:
  enum class Received { kRequest, kTooLarge, kUnauthorized, kWebPage, kNothing };

  // Nothing closes the connection without a word.
  std::optional<Answer> answer() {
    switch (receive()) {
      case Received::kRequest:
        return ticket_.begin_work() ? call() : std::nullopt;
      case Received::kTooLarge:
        return too_large();
      case Received::kUnauthorized:
        return unauthorized_answer();
      case Received::kWebPage:
        return answer_of(RpcResponse::failure(kNotPermitted, kNotPermittedText));
      case Received::kNothing:
        break;
    }
    return std::nullopt;
  }

  static Answer too_large() { return answer_of(RpcResponse::failure(kParseError, kTooLargeText)); }

  bool send(const Answer& answer) {
    const Clock::time_point deadline = from_now(context_.limits.answer_ms);
    if (answer.body.size() <= kOnePieceBytesMax) {
      return connection_.write(answer.head + answer.body, deadline);
    }
    return connection_.write(answer.head, deadline) && connection_.write(answer.body, deadline);
  }

  // Credentials and origin are looked at as soon as the header block is there, so
  // that no body is held for a stranger or a web page. A request that its client ends early is taken
  // as it is.
  Received receive() {
    bool authorized = false;
    std::array<char, kChunkBytesMax> chunk;
    for (;;) {
      if (!authorized && request_.has_headers()) {
        if (!context_.auth.accepts(request_.headers())) {
          return Received::kUnauthorized;
        }
        if (request_.has_origin()) {
          return Received::kWebPage;
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

  // The body's bytes and values stay counted until the call is done: its
  // parameters hold as much.
  std::optional<Answer> call() {
    const size_t values_max = context_.limits.values;
    // Each value takes a character at least.
    const size_t characters = request_.body().size();
    const size_t wanted = characters <= context_.limits.values_free ? 0 : std::min(values_max, characters);
    auto values = context_.values.take(wanted, deadline_);
    if (!values) {
      return std::nullopt;
    }
    RpcRequest call;
    try {
      // One more than permitted tells a body at the limit from one beyond it.
      size_t values_read = 0;
      call = RpcRequest::from_json(JsonValue::parse(request_.body(), {.values = values_max + 1}, values_read));
      if (values_read > values_max || repeats_too_much(call)) {
        return too_large();
      }
      values->shrink(std::min(values_read, wanted));
    } catch (const std::logic_error&) {  // a number that does not convert
      return answer_of(RpcResponse::failure(kParseError, "Parse error"));
    }
    request_ = HttpRequest(context_.limits);
    const bool is_heavy = context_.methods.weight_of(call.method) == CallWeight::kHeavy;
    // A heavy call does not wait with values that others, the miners' blocks among them, wait for.
    const Clock::time_point turn_deadline = is_heavy && wanted > 0 ? Clock::now() : deadline_;
    const auto turn = (is_heavy ? context_.heavy_calls : context_.light_calls).take(1, turn_deadline);
    if (!turn) {
      return answer_of(RpcResponse::failure(kHandlerError, kBusyText, std::move(call.id)));
    }
    Answer answer = answer_of(context_.methods.handle(std::move(call), client_address_));
    ticket_.release_body();
    return answer;
  }

  // Whether the answer would repeat more of the request than it may.
  bool repeats_too_much(const RpcRequest& call) const {
    const size_t most = context_.limits.echo_bytes;
    return call.method.size() > most || call.id.string.size() > most || call.id.to_string().size() > most;
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
  return http_head(body.size(), status) + body;
}

void serve_connection(SessionContext& context, ConnectionTicket& ticket, const std::string& client_address) {
  ClientSession(context, ticket, client_address).serve();
}

}  // namespace norvel::rpc
