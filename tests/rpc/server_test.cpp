// What the server answers, to whom.

#include "rpc/server.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <atomic>
#include <chrono>
#include <stdexcept>
#include <thread>

#include "rpc/raw_client.h"
#include "support/captured_stderr.h"

namespace norvel::rpc {
namespace {

class Server : public testing::Test {
 protected:
  Server() {
    testing::internal::CaptureStdout();
    server_.register_method("ping", [](const JsonValue& params) { return params; });
    server_.register_method("submitblock", [](const JsonValue&) { return JsonValue("taken"); });
    server_.register_method("throw", [](const JsonValue&) -> JsonValue { throw std::runtime_error("boom"); });
    server_.register_method("throw odd", [](const JsonValue&) -> JsonValue { throw 1; });
  }
  ~Server() override {
    server_.stop();
    EXPECT_TRUE(server_.wait_for_connections(kPatienceMs));
    testing::internal::GetCapturedStdout();
  }

  uint16_t start() {
    EXPECT_TRUE(server_.start());
    return server_.get_port();
  }

  RpcServer server_{0, "127.0.0.1"};
};

TEST_F(Server, RefusesByMethodThenByAddressThenCalls) {
  server_.trust_address("10.0.0.9");
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
      {"", "127.0.0.1", -32601, "Method not found: "},
      {"throw", "10.0.0.5", -1, "Error: boom"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(std::string(row.method) + " from " + row.from);
    const RpcResponse response = server_.handle_rpc_request({row.method, 3, "seven"}, row.from);
    EXPECT_EQ(response.is_error, row.code != 0);
    EXPECT_EQ(response.error_code, row.code);
    EXPECT_EQ(response.error_message, row.text);
    EXPECT_EQ(response.id.string, "seven");
  }
}

TEST_F(Server, AnswersOneRequestInOneReply) {
  const struct {
    const char* label;
    std::string request;
    std::string want;
  } rows[] = {
      {"call", post(kPing),
       "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: 35\r\n"
       "Connection: close\r\n\r\n{\"id\":1,\"jsonrpc\":\"2.0\",\"result\":7}"},
      {"no length, body with the header block", "POST / HTTP/1.1\r\n\r\n" + kPing, kPong},
      {"length cut by another header", "content-length: 0\r\n" + post(kPing), kPong},
      {"error", post(R"({"method":"throw","id":[1]})"),
       ok(R"({"error":{"code":-1,"message":"Error: boom"},"id":[1],"jsonrpc":"2.0"})")},
      {"no object", post("nonsense"),
       ok(R"({"error":{"code":-32601,"message":"Method not found: "},"id":null,"jsonrpc":"2.0"})")},
      {"reader throws", post(R"({"method":"ping","id":-})"),
       ok(R"({"error":{"code":-32700,"message":"Parse error"},"id":null,"jsonrpc":"2.0"})")},
      {"web page", post(kPing, "origin: http://a\r\n"),
       ok(R"({"error":{"code":-32003,"message":"not permitted"},"id":null,"jsonrpc":"2.0"})")},
      {"web page, none of the body sent", "POST /\r\nOrigin: a\r\nContent-Length: 9999999\r\n\r\n",
       ok(R"({"error":{"code":-32003,"message":"not permitted"},"id":null,"jsonrpc":"2.0"})")},
      {"handler throws what is no exception", post(R"({"method":"throw odd"})"), ""},
      {"bad length", "POST /\r\nContent-Length: x\r\n\r\n" + kPing, ""},
      {"negative length", "POST /\r\nContent-Length: -1\r\n\r\n" + kPing, kPong},
  };
  const uint16_t port = start();
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    EXPECT_EQ(answer_to(port, row.request), row.want);
  }
  EXPECT_EQ(answer_to(port, post(kPing) + post(kPing)), kPong) << "two requests in one";
}

TEST_F(Server, TakesARequestSplitAnywhereOrEndedEarly) {
  const uint16_t port = start();
  const std::string request = post(kPing);
  for (size_t cut = 1; cut < request.size(); ++cut) {
    SCOPED_TRACE(cut);
    const RawClient client(port);
    client.send(request.substr(0, cut));
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    client.send(request.substr(cut));
    EXPECT_EQ(client.read_all(), kPong);
  }
  const RawClient half_closed(port);
  half_closed.send(request);
  half_closed.end_sending();
  EXPECT_EQ(half_closed.read_all(), kPong);
  const RawClient shorter(port);
  shorter.send("POST /\r\nContent-Length: 999\r\n\r\n" + kPing);
  shorter.end_sending();
  EXPECT_EQ(shorter.read_all(), kPong);
}

TEST_F(Server, RunsTheRequestOfAClientThatHasGone) {
  std::atomic<int> calls{0};
  server_.register_method("count", [&](const JsonValue&) { return JsonValue(++calls); });
  const uint16_t port = start();
  RawClient(port).send(post(R"({"method":"count"})"));
  for (int i = 0; i < kPatienceMs && calls == 0; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  EXPECT_EQ(calls, 1);
}

TEST_F(Server, CredentialsComeBeforeTheBody) {
  server_.set_credentials("alice", "s:cret");
  const uint16_t port = start();
  const std::string refusal =
      "HTTP/1.1 401 Unauthorized\r\nWWW-Authenticate: Basic realm=\"norvel\"\r\nContent-Type: application/json\r\n"
      "Content-Length: 76\r\nConnection: close\r\n\r\n"
      R"({"jsonrpc":"2.0","error":{"code":-32600,"message":"Unauthorized"},"id":null})";
  const std::string good = "Authorization: Basic YWxpY2U6czpjcmV0\r\n";
  EXPECT_EQ(answer_to(port, post(kPing, good)), kPong);
  EXPECT_EQ(answer_to(port, post(kPing)), refusal);
  EXPECT_EQ(answer_to(port, post(kPing, "AUTHORIZATION: Basic YWxpY2U6czpjcmV0\r\n")), refusal);
  EXPECT_EQ(answer_to(port, post("x" + good)), refusal) << "credentials in the body";
  EXPECT_EQ(answer_to(port, "POST /\r\nContent-Length: 5000000\r\n\r\n"), refusal) << "none of the body sent";
  EXPECT_EQ(answer_to(port, post(std::string(3'000'000, ' '))), refusal) << "all of it sent";
}

TEST_F(Server, TakesTheAddressFromTheSocketAndAnUnreadableOneAsLocal) {
  const uint16_t port = start();
  const std::string submit = post(R"({"method":"submitblock"})");
  const std::string taken = ok(R"({"id":null,"jsonrpc":"2.0","result":"taken"})");
  EXPECT_EQ(answer_to(port, submit), taken);
  EXPECT_EQ(answer_to(port, submit, "127.0.0.2"),
            ok(R"({"error":{"code":-32003,"message":"Method 'submitblock' is not permitted from 127.0.0.2"},)"
               R"("id":null,"jsonrpc":"2.0"})"));
  int pair[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
  send_text(pair[0], submit);
  ::shutdown(pair[0], SHUT_WR);
  server_.handle_client(pair[1]);
  std::string answer(taken.size() + 1, '\0');
  answer.resize(static_cast<size_t>(::recv(pair[0], answer.data(), answer.size(), MSG_WAITALL)));
  EXPECT_EQ(answer, taken);
  ::close(pair[0]);
}

TEST_F(Server, ServesTrustedAddressesOnly) {
  server_.trust_address("127.0.0.3");
  server_.serve_trusted_only();
  const uint16_t port = start();
  EXPECT_EQ(answer_to(port, post(kPing)), kPong);
  EXPECT_EQ(answer_to(port, post(kPing), "127.0.0.3"), kPong);
  EXPECT_EQ(answer_to(port, post(R"({"method":"submitblock"})"), "127.0.0.2"),
            ok(R"({"id":null,"jsonrpc":"2.0","result":"taken"})"));
  EXPECT_FALSE(server_.is_command_allowed("submitblock", "10.0.0.5"));
  EXPECT_FALSE(server_.is_command_allowed("submitblock", "128.0.0.1"));
}

TEST(ServerLife, StartsStopsAndSaysSo) {
  CapturedStderr errors;
  testing::internal::CaptureStdout();
  RpcServer server(0, "127.0.0.1");
  server.register_method("ping", [](const JsonValue& params) { return params; });
  server.stop();
  EXPECT_TRUE(server.start());
  const std::string place = "127.0.0.1:" + std::to_string(server.get_port());
  EXPECT_FALSE(RpcServer(server.get_port(), "127.0.0.1").start());
  EXPECT_FALSE(RpcServer(1, "no address").start());
  server.stop();
  server.stop();
  EXPECT_FALSE(RawClient(server.get_port()).is_connected());
  EXPECT_TRUE(server.start());
  EXPECT_EQ(answer_to(server.get_port(), post(kPing)), kPong);
  server.stop();
  const std::string life = "[RPC] Server started on " + place + "\n[RPC] Server stopped\n";
  EXPECT_EQ(testing::internal::GetCapturedStdout(), life + life);
  EXPECT_EQ(errors.text(), "[RPC] Failed to bind to " + place + "\n[RPC] Failed to bind to no address:1\n");
}

TEST(ServerLife, ConnectionsMayOutliveTheServer) {
  testing::internal::CaptureStdout();
  std::atomic<bool> entered{false};
  std::atomic<bool> leave{false};
  auto server = std::make_unique<RpcServer>(0, "127.0.0.1");
  server->register_method("ping", [&](const JsonValue& params) {
    for (entered = true; !leave;) {
      std::this_thread::yield();
    }
    return params;
  });
  ASSERT_TRUE(server->start());
  const RawClient client(server->get_port());
  client.send(post(kPing));
  const RawClient idle(server->get_port());
  while (!entered) {
    std::this_thread::yield();
  }
  server->stop();
  EXPECT_FALSE(server->wait_for_connections(20));
  EXPECT_EQ(idle.read_all(), "");
  server.reset();
  leave = true;
  EXPECT_EQ(client.read_all(), kPong);
  testing::internal::GetCapturedStdout();
}

TEST_F(Server, WaitsForDescriptorsAndSaysSoOnce) {
  const CapturedStderr errors;
  const uint16_t port = start();
  rlimit before{};
  ::getrlimit(RLIMIT_NOFILE, &before);
  const int waiting = ::socket(AF_INET, SOCK_STREAM, 0);
  const rlimit none{0, before.rlim_max};
  ::setrlimit(RLIMIT_NOFILE, &none);
  const sockaddr_in server = loopback_address("127.0.0.1", port);
  ::connect(waiting, reinterpret_cast<const sockaddr*>(&server), sizeof server);
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  ::setrlimit(RLIMIT_NOFILE, &before);
  EXPECT_EQ(answer_to(port, post(kPing)), kPong);
  server_.stop();
  EXPECT_EQ(errors.text(), "[RPC] Failed to accept connection\n");
  ::close(waiting);
}

}  // namespace
}  // namespace norvel::rpc
