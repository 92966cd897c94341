#include "network/peer.h"

#include <utility>

namespace norvel::network {

Peer::Peer(FileDescriptor connected, std::string ip, uint16_t connection_port, bool dialled, int64_t now_ms,
           int64_t heard_ms)
    : connection(std::move(connected)),
      address(std::move(ip)),
      outbound(dialled),
      dialled_port(connection_port),
      port(connection_port),
      last_recv(now_ms / 1'000),
      last_pong(now_ms / 1'000),
      connected_time(now_ms / 1'000),
      silent_since_ms(heard_ms),
      handshake_since_ms(heard_ms) {}

}  // namespace norvel::network
