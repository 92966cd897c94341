// A TCP client that sends any bytes to a server on loopback. Every wait is bounded, so that a server that stalls fails
// a test instead of hanging it.

#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <string>
#include <string_view>
#include <utility>

#include "rpc/loopback_server.h"
#include "rpc/server.h"

namespace norvel::rpc {

inline sockaddr_in loopback_address(const char* host, uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  ::inet_pton(AF_INET, host, &address.sin_addr);
  return address;
}

class RawClient {
 public:
  // `from` is an address of the loopback network; the name of the peer to the server.
  explicit RawClient(uint16_t port, const char* from = "127.0.0.1") : fd_(::socket(AF_INET, SOCK_STREAM, 0)) {
    const sockaddr_in own = loopback_address(from, 0);
    const sockaddr_in server = loopback_address("127.0.0.1", port);
    ::bind(fd_, reinterpret_cast<const sockaddr*>(&own), sizeof own);
    connected_ = ::connect(fd_, reinterpret_cast<const sockaddr*>(&server), sizeof server) == 0;
  }
  ~RawClient() {
    if (fd_ >= 0) {
      ::close(fd_);
    }
  }
  RawClient(RawClient&& other) noexcept : fd_(std::exchange(other.fd_, -1)), connected_(other.connected_) {}

  int fd() const { return fd_; }
  bool is_connected() const { return connected_; }
  void send(std::string_view bytes) const { send_text(fd_, bytes); }
  void end_sending() const { ::shutdown(fd_, SHUT_WR); }

  // What comes until the server closes; "stalled" behind it when it does not.
  std::string read_all(int patience_ms = kPatienceMs) const {
    std::string all;
    std::array<char, 65'536> chunk;
    while (wait_readable(fd_, patience_ms)) {
      const ssize_t received = ::recv(fd_, chunk.data(), chunk.size(), 0);
      if (received <= 0) {
        return all;
      }
      all.append(chunk.data(), static_cast<size_t>(received));
    }
    return all + "stalled";
  }

 private:
  int fd_;
  bool connected_ = false;
};

inline std::string post(const std::string& body, const std::string& headers = "") {
  return "POST / HTTP/1.1\r\nHost: node\r\n" + headers + "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" +
         body;
}

inline std::string ok(const std::string& body) {
  return RpcServer::build_http_response(body, 200);
}

inline const std::string kPing = R"({"method":"ping","params":7,"id":1})";
inline const std::string kPong = ok(R"({"id":1,"jsonrpc":"2.0","result":7})");

// The answer to `request`, sent in one piece.
inline std::string answer_to(uint16_t port, const std::string& request, const char* from = "127.0.0.1") {
  const RawClient client(port, from);
  client.send(request);
  return client.read_all();
}

}  // namespace norvel::rpc
