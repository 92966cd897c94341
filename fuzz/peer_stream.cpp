// The bytes of a peer, in pieces, into a live message handler with its chain and
// pool. Whatever comes: what the node writes are whole frames, another peer's
// PING is answered within the same pass, and the connection's place is given back.

#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <string>

#include "fuzz_target.h"
#include "live_chain.h"
#include "network/message_handler.h"

namespace {

using namespace norvel;
using namespace norvel::network;

constexpr int kPassesMax = 50;

// The far end of a connection to the node.
struct Wire {
  FileDescriptor end;
  Bytes received;

  void write(ByteView bytes) const { (void)!::send(end.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL); }

  void read() {
    std::array<uint8_t, 65'536> chunk;
    for (ssize_t got = 0; (got = ::recv(end.get(), chunk.data(), chunk.size(), MSG_DONTWAIT)) > 0;) {
      append(received, ByteView(chunk).first(static_cast<size_t>(got)));
    }
  }

  // Takes the whole frames that were received; whether one of them has the type.
  bool take_frames(MessageType wanted) {
    bool found = false;
    size_t offset = 0;
    while (const auto message = Message::deserialize(ByteView(received).subspan(offset), kPayloadBytesMax)) {
      found = found || message->type == wanted;
      offset += kFrameHeaderBytes + message->payload.size();
    }
    received.erase(received.begin(), received.begin() + static_cast<std::ptrdiff_t>(offset));
    return found;
  }
};

class Node {
 public:
  Node() {
    handshake_.attach(live_.chain.get(), live_.pool.get());
    relay_.attach(live_.chain.get(), live_.pool.get());
    handler_.attach(live_.chain.get());
    connections_.open();
    witness_ = connect("127.0.0.1");
    witness_.write(Message{MessageType::VERSION, encode_version({})}.serialize());
    witness_.write(Message{MessageType::VERACK, {}}.serialize());
  }
  ~Node() { connections_.close(); }

  // `pieces` from 1 on.
  void serve(ByteView stream, size_t pieces) {
    clock_.advance_ms(1'000);  // rates of connections and messages begin anew
    connections_.lift_expired_bans();
    peer_number_ = (peer_number_ + 1) % 256;
    Wire wire = connect("10.1.1." + std::to_string(peer_number_));
    witness_.write(Message{MessageType::PING, {}}.serialize());
    const size_t piece_bytes = stream.size() / pieces + 1;
    for (size_t at = 0; at < stream.size(); at += piece_bytes) {
      wire.write(stream.subspan(at, std::min(piece_bytes, stream.size() - at)));
      pass(wire);
    }
    pass(wire);
    require(witness_.take_frames(MessageType::PONG));
    wire.end = FileDescriptor();
    for (int passes = 0; connections_.table().snapshot().size() > 1; ++passes) {
      require(passes < kPassesMax);
      handler_.pass(0);
    }
  }

 private:
  Wire connect(const std::string& ip) {
    std::array<int, 2> ends{};
    require(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends.data()) == 0);
    Wire wire{FileDescriptor(ends[0]), {}};
    require(connections_.admit_inbound(FileDescriptor(ends[1]), ip, 8333));
    return wire;
  }

  void pass(Wire& wire) {
    handler_.pass(0);
    witness_.read();
    wire.read();
    wire.take_frames(MessageType::PONG);
    const size_t begun = std::min(wire.received.size(), constants::MAGIC.size());
    require(std::equal(wire.received.begin(), wire.received.begin() + static_cast<std::ptrdiff_t>(begun),
                       constants::MAGIC.begin()));
  }

  LiveChain live_;
  NetworkClock clock_;
  LogLimiter log_{clock_};
  NetworkCallbacks callbacks_;
  Connections connections_{{.inbound_max = 8, .outbound_max = 0, .ban_duration_s = 0}, clock_, log_, callbacks_};
  AddressBook book_{clock_};
  DialBackoff backoff_{clock_};
  Listener listener_{log_};
  Relay relay_{connections_, clock_, log_, callbacks_};
  Dialler dialler_{"127.0.0.1", connections_, book_, backoff_, listener_, log_, [](const PeerPtr&) {}};
  Handshake handshake_{{clock_, log_, callbacks_, connections_, book_, dialler_, relay_}, 8333};
  MessageHandler handler_{clock_, log_, connections_, handshake_, relay_};
  Wire witness_;
  uint32_t peer_number_ = 0;
};

}  // namespace

// The first byte says in how many pieces the rest comes.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static Node node;
  if (size > 0) {
    node.serve(ByteView(data, size).subspan(1), 1 + data[0] % 8u);
  }
  return 0;
}
