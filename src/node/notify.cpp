#include "node/notify.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>

#include "core/file_io.h"

namespace norvel::node {

bool notify_service_manager(std::string_view state) {
  const char* variable = std::getenv("NOTIFY_SOCKET");
  const std::string_view name = variable == nullptr ? "" : variable;
  sockaddr_un address = {};
  if (name.empty() || (name[0] != '/' && name[0] != '@') || name.size() >= sizeof(address.sun_path)) {
    return false;
  }
  address.sun_family = AF_UNIX;
  std::ranges::copy(name, address.sun_path);
  if (name[0] == '@') {
    address.sun_path[0] = '\0';
  }
  const FileDescriptor socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!socket.is_open()) {
    return false;
  }
  const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
  const ssize_t sent = sendto(socket.get(), state.data(), state.size(), MSG_NOSIGNAL | MSG_DONTWAIT,
                              reinterpret_cast<const sockaddr*>(&address), length);
  return sent == static_cast<ssize_t>(state.size());
}

}  // namespace norvel::node
