// A TCP client that sends any bytes to a server on loopback, and a server for it.

#pragma once

#include <gtest/gtest.h>

#include <array>
#include <memory>
#include <string>
#include <string_view>

#include "rpc/loopback_server.h"
#include "rpc/server.h"

namespace norvel::rpc {

class RawClient {
 public:
  // `from` is an address of the loopback network; the name of the peer to the server.
  explicit RawClient(uint16_t port, const char* from = "127.0.0.1")
      : fd_(network::bound_socket(from)), connected_(network::connect_to(fd(), "127.0.0.1", port)) {}

  int fd() const { return fd_.get(); }
  bool is_connected() const { return connected_; }
  void send(std::string_view bytes) const { send_text(fd(), bytes); }
  void end_sending() const { ::shutdown(fd(), SHUT_WR); }

  // What comes until the server closes; "stalled" behind it when it does not.
  std::string read_all() const {
    std::string all;
    std::array<char, 65'536> chunk;
    while (wait_readable(fd())) {
      const ssize_t received = ::recv(fd(), chunk.data(), chunk.size(), 0);
      if (received <= 0) {
        return all;
      }
      all.append(chunk.data(), static_cast<size_t>(received));
    }
    return all + "stalled";
  }

 private:
  FileDescriptor fd_;
  bool connected_;
};

inline std::string post(const std::string& body, const std::string& headers = "") {
  return "POST / HTTP/1.1\r\nHost: node\r\n" + headers + "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" +
         body;
}

// A call without id and parameters, which are null in the answer.
inline std::string call_of(const std::string& method) {
  return post(R"({"method":")" + method + R"("})");
}

inline std::string ok(const std::string& body) {
  return RpcServer::build_http_response(body, 200);
}

inline std::string result_of(const std::string& value) {
  return ok(R"({"id":null,"jsonrpc":"2.0","result":)" + value + "}");
}

// `id` and `message` as they stand in JSON.
inline std::string error_of(int code, const std::string& message, const std::string& id = "null") {
  return ok(R"({"error":{"code":)" + std::to_string(code) + R"(,"message":")" + message + R"("},"id":)" + id +
            R"(,"jsonrpc":"2.0"})");
}

inline const std::string kPing = R"({"method":"ping","params":7,"id":1})";
inline const std::string kPong = ok(R"({"id":1,"jsonrpc":"2.0","result":7})");

// The answer to `request`, sent in one piece.
inline std::string answer_to(uint16_t port, const std::string& request, const char* from = "127.0.0.1") {
  const RawClient client(port, from);
  client.send(request);
  return client.read_all();
}

// A server whose connections must end with the test.
class ServerTest : public testing::Test {
 protected:
  ServerTest() {
    testing::internal::CaptureStdout();
    make_server({});
  }
  ~ServerTest() override {
    server_->stop();
    EXPECT_TRUE(server_->wait_for_connections(kPatienceMs));
    testing::internal::GetCapturedStdout();
  }

  void make_server(const ServerLimits& limits) {
    server_ = std::make_unique<RpcServer>(0, "127.0.0.1", limits);
    server_->register_method("ping", [](const JsonValue& params) { return params; });
    server_->register_method("large", [](const JsonValue&) { return std::string(16'000'000, 'x'); });
  }

  uint16_t start() {
    EXPECT_TRUE(server_->start());
    return server_->get_port();
  }

  std::unique_ptr<RpcServer> server_;
};

}  // namespace norvel::rpc
