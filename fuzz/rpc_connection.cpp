// The bytes of an HTTP client into a live connection of the RPC server, with all
// methods of a node over a chain and a pool. Whatever comes: one whole answer of
// JSON, or none, and the connection's place is given back.

#include <sys/socket.h>

#include <array>
#include <string>

#include "fuzz_target.h"
#include "live_chain.h"
#include "rpc/server.h"

namespace {

using namespace norvel;

constexpr size_t kStreamBytesMax = 65'536;  // which a socket takes at once

class Node {
 public:
  explicit Node(const std::string& password) {
    server_.set_credentials(password.empty() ? "" : "user", password);
    server_.set_components({live_.chain, live_.pool, nullptr});
    server_.register_default_handlers();
  }

  std::string serve(std::string_view stream) {
    std::array<int, 2> ends{};
    require(::socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()) == 0);
    const FileDescriptor client(ends[0]);
    require(::send(client.get(), stream.data(), stream.size(), MSG_DONTWAIT) == static_cast<ssize_t>(stream.size()));
    ::shutdown(client.get(), SHUT_WR);
    server_.handle_client(ends[1]);
    std::string answer;
    std::array<char, 65'536> chunk;
    for (ssize_t got = 0; (got = ::recv(client.get(), chunk.data(), chunk.size(), 0)) > 0;) {
      answer.append(chunk.data(), static_cast<size_t>(got));
    }
    require(server_.wait_for_connections(0));
    return answer;
  }

 private:
  LiveChain live_;
  rpc::RpcServer server_{0, "127.0.0.1"};
};

void check_answer(const std::string& answer) {
  if (answer.empty()) {
    return;
  }
  require(answer.starts_with("HTTP/1.1 "));
  const size_t blank = answer.find("\r\n\r\n");
  require(blank != std::string::npos);
  const std::string body = answer.substr(blank + 4);
  require(answer.find("Content-Length: " + std::to_string(body.size()) + "\r\n") < blank);
  if (answer.starts_with("HTTP/1.1 200")) {
    require(body.starts_with('{') && body.ends_with('}') && body.find(R"("jsonrpc":"2.0")") != std::string::npos);
  }
}

}  // namespace

// The first byte says whether the server asks for credentials.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static Node open("");
  static Node closed("password");
  if (size > 0 && size <= kStreamBytesMax) {
    check_answer((data[0] % 2 == 0 ? open : closed).serve({reinterpret_cast<const char*>(data) + 1, size - 1}));
  }
  return 0;
}
