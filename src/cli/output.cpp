#include "cli/output.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>

namespace norvel::cli {

void print(std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = ::write(STDOUT_FILENO, text.data(), text.size());
    if (written > 0) {
      text.remove_prefix(static_cast<size_t>(written));
    } else if (written < 0 && errno == EAGAIN) {  // another program has set the flag
      pollfd waiting{STDOUT_FILENO, POLLOUT, 0};
      ::poll(&waiting, 1, -1);
    } else if (written == 0 || errno != EINTR) {
      throw std::runtime_error(std::string("Standard output: ") + std::strerror(written == 0 ? EIO : errno));
    }
  }
}

}  // namespace norvel::cli
