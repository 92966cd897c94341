// What the server answers, to whom.

#include "rpc/server.h"

#include <sys/resource.h>

#include <atomic>
#include <chrono>
#include <stdexcept>
#include <thread>

#include "rpc/raw_client.h"
#include "support/captured_stderr.h"

namespace norvel::rpc {
namespace {

class Server : public ServerTest {
 protected:
  Server() {
    server_->register_method("submitblock", [](const JsonValue&) { return JsonValue("taken"); });
    server_->register_method("throw", [](const JsonValue&) -> JsonValue { throw std::runtime_error("boom"); });
    server_->register_method("throw odd", [](const JsonValue&) -> JsonValue { throw 1; });
  }
};

const std::string kSubmit = call_of("submitblock");
const std::string kTaken = result_of("\"taken\"");

TEST_F(Server, RefusesByMethodThenByAddressThenCalls) {
  server_->trust_address("10.0.0.9");
  const struct {
    const char* method;
    const char* from;
    int32_t code;  // 0: no error
    const char* text;
  } rows[] = {
      {"ping", "10.0.0.5", 0, ""},
      {"submitblock", "127.0.0.1", 0, ""},
      {"submitblock", "::1", 0, ""},
      {"submitblock", "10.0.0.9", 0, ""},
      {"submitblock", "10.0.0.5", -32003, "Method 'submitblock' is not permitted from 10.0.0.5"},
      {"sendrawtransaction", "10.0.0.5", -32601, "Method not found: sendrawtransaction"},
      {"throw", "10.0.0.5", -1, "Error: boom"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(std::string(row.method) + " from " + row.from);
    const RpcResponse response = server_->handle_rpc_request({row.method, 3, "seven"}, row.from);
    EXPECT_EQ(response.is_error, row.code != 0);
    EXPECT_EQ(response.error_code, row.code);
    EXPECT_EQ(response.error_message, row.text);
    EXPECT_EQ(response.id.string, "seven");
  }
}

TEST_F(Server, AnswersOneRequestInOneReply) {
  const std::string no_origin = error_of(-32003, "not permitted");
  const struct {
    const char* label;
    std::string request;
    std::string want;
  } rows[] = {
      {"call", post(kPing),
       "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: 35\r\n"
       "Connection: close\r\n\r\n{\"id\":1,\"jsonrpc\":\"2.0\",\"result\":7}"},
      {"two requests in one", post(kPing) + post(kPing), kPong},
      {"no length, body with the header block", "POST / HTTP/1.1\r\n\r\n" + kPing, kPong},
      {"length cut by another header", "content-length: 0\r\n" + post(kPing), kPong},
      {"error", post(R"({"method":"throw","id":[1]})"), error_of(-1, "Error: boom", "[1]")},
      {"no object", post("nonsense"), error_of(-32601, "Method not found: ")},
      {"reader throws", post(R"({"method":"ping","id":-})"), error_of(-32700, "Parse error")},
      {"web page", post(kPing, "origin: http://a\r\n"), no_origin},
      {"web page, none of the body sent", "POST /\r\nOrigin: a\r\nContent-Length: 9999999\r\n\r\n", no_origin},
      {"handler throws what is no exception", call_of("throw odd"), ""},
      {"bad length", "POST /\r\nContent-Length: x\r\n\r\n" + kPing, ""},
      {"negative length", "POST /\r\nContent-Length: -1\r\n\r\n" + kPing, kPong},
  };
  const uint16_t port = start();
  for (const auto& row : rows) {
    EXPECT_EQ(answer_to(port, row.request), row.want) << row.label;
  }
}

TEST_F(Server, TakesARequestInPiecesOrEndedEarly) {
  const uint16_t port = start();
  for (const std::string& request : {post(kPing), "POST /\r\nContent-Length: 999\r\n\r\n" + kPing}) {
    const RawClient client(port);
    for (const char& byte : request) {
      client.send({&byte, 1});
      std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    client.end_sending();
    EXPECT_EQ(client.read_all(), kPong);
  }
}

TEST_F(Server, RunsTheRequestOfAClientThatHasGone) {
  std::atomic<int> calls{0};
  server_->register_method("count", [&](const JsonValue&) { return JsonValue(++calls); });
  RawClient(start()).send(call_of("count"));
  for (int i = 0; i < kPatienceMs && calls == 0; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  EXPECT_EQ(calls, 1);
}

TEST_F(Server, CredentialsComeBeforeTheBody) {
  server_->set_credentials("alice", "s:cret");
  const uint16_t port = start();
  const std::string refusal =
      "HTTP/1.1 401 Unauthorized\r\nWWW-Authenticate: Basic realm=\"norvel\"\r\nContent-Type: application/json\r\n"
      "Content-Length: 76\r\nConnection: close\r\n\r\n"
      R"({"jsonrpc":"2.0","error":{"code":-32600,"message":"Unauthorized"},"id":null})";
  const std::string good = "Authorization: Basic YWxpY2U6czpjcmV0\r\n";
  EXPECT_EQ(answer_to(port, post(kPing, good)), kPong);
  EXPECT_EQ(answer_to(port, post(kPing)), refusal);
  EXPECT_EQ(answer_to(port, post("x" + good)), refusal) << "credentials in the body";
  EXPECT_EQ(answer_to(port, "POST /\r\nContent-Length: 5000000\r\n\r\n"), refusal) << "none of the body sent";
  EXPECT_EQ(answer_to(port, post(std::string(3'000'000, ' '))), refusal) << "all of it sent";
}

TEST_F(Server, TakesTheAddressFromTheSocketAndAnUnreadableOneAsLocal) {
  const uint16_t port = start();
  EXPECT_EQ(answer_to(port, kSubmit), kTaken);
  EXPECT_EQ(answer_to(port, kSubmit, "127.0.0.2"),
            error_of(-32003, "Method 'submitblock' is not permitted from 127.0.0.2"));
  int pair[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
  const FileDescriptor client(pair[0]);
  send_text(pair[0], kSubmit);
  ::shutdown(pair[0], SHUT_WR);
  server_->handle_client(pair[1]);
  std::string answer(kTaken.size() + 1, '\0');
  answer.resize(static_cast<size_t>(::recv(pair[0], answer.data(), answer.size(), MSG_WAITALL)));
  EXPECT_EQ(answer, kTaken);
}

TEST_F(Server, ServesTrustedAddressesOnly) {
  server_->serve_trusted_only();
  const uint16_t port = start();
  EXPECT_EQ(answer_to(port, post(kPing)), kPong);
  EXPECT_EQ(answer_to(port, kSubmit, "127.0.0.2"), kTaken);
  EXPECT_FALSE(server_->is_command_allowed("submitblock", "10.0.0.5"));
  EXPECT_FALSE(server_->is_command_allowed("submitblock", "128.0.0.1"));
}

TEST_F(Server, WaitsForDescriptorsAndSaysSoOnce) {
  const CapturedStderr errors;
  const uint16_t port = start();
  rlimit before{};
  ::getrlimit(RLIMIT_NOFILE, &before);
  const FileDescriptor waiting = network::bound_socket("127.0.0.1");
  const rlimit none{0, before.rlim_max};
  ::setrlimit(RLIMIT_NOFILE, &none);
  network::connect_to(waiting.get(), "127.0.0.1", port);
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  ::setrlimit(RLIMIT_NOFILE, &before);
  EXPECT_EQ(answer_to(port, post(kPing)), kPong);
  server_->stop();
  EXPECT_EQ(errors.text(), "[RPC] Failed to accept connection\n");
}

TEST_F(Server, StartsStopsAndSaysSo) {
  CapturedStderr errors;
  server_->stop();
  EXPECT_TRUE(server_->start());
  const uint16_t port = server_->get_port();
  const std::string place = "127.0.0.1:" + std::to_string(port);
  EXPECT_FALSE(RpcServer(port, "127.0.0.1").start());
  EXPECT_FALSE(RpcServer(1, "no address").start());
  server_->stop();
  server_->stop();
  EXPECT_FALSE(RawClient(port).is_connected());
  EXPECT_EQ(answer_to(start(), post(kPing)), kPong);
  server_->stop();
  const std::string life = "[RPC] Server started on " + place + "\n[RPC] Server stopped\n";
  EXPECT_EQ(testing::internal::GetCapturedStdout(), life + life);
  EXPECT_EQ(errors.text(), "[RPC] Failed to bind to " + place + "\n[RPC] Failed to bind to no address:1\n");
  testing::internal::CaptureStdout();
}

TEST_F(Server, LeavesConnectionsThatOutliveIt) {
  std::atomic<bool> entered{false};
  std::atomic<bool> leave{false};
  server_->register_method("wait", [&](const JsonValue&) {
    for (entered = true; !leave;) {
      std::this_thread::yield();
    }
    return JsonValue(true);
  });
  const RawClient client(start());
  client.send(call_of("wait"));
  const RawClient idle(server_->get_port());
  while (!entered) {
    std::this_thread::yield();
  }
  server_->stop();
  EXPECT_FALSE(server_->wait_for_connections(20));
  EXPECT_EQ(idle.read_all(), "");
  make_server({});
  leave = true;
  EXPECT_EQ(client.read_all(), result_of("true"));
}

}  // namespace
}  // namespace norvel::rpc
