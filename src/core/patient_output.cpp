#include "core/patient_output.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string>

namespace norvel {

namespace {

using Clock = PatientBuffer::Clock;

// A description of its own for the pipe or terminal behind `fd`, which does not
// block; -1 for anything else.
int open_without_blocking(int fd) {
  struct stat status = {};
  if (fstat(fd, &status) != 0 || !(S_ISFIFO(status.st_mode) || S_ISCHR(status.st_mode))) {
    return -1;
  }
  const std::string path = "/proc/self/fd/" + std::to_string(fd);
  return open(path.c_str(), O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
}

// Waits until `fd` takes bytes; false when that is not before `deadline`.
bool wait_writable(int fd, Clock::time_point deadline) {
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    pollfd waiting{fd, POLLOUT, 0};
    const int ready = poll(&waiting, 1, static_cast<int>(std::max<int64_t>(left.count(), 0)));
    if (ready >= 0 || errno != EINTR) {
      return ready > 0;
    }
  }
}

}  // namespace

PatientBuffer::PatientBuffer(int fd) : own_fd_(open_without_blocking(fd)), fd_(own_fd_ >= 0 ? own_fd_ : fd) {}

PatientBuffer::~PatientBuffer() {
  if (own_fd_ >= 0) {
    close(own_fd_);
  }
}

std::streamsize PatientBuffer::xsputn(const char* text, std::streamsize size) {
  const std::string_view piece(text, static_cast<size_t>(std::max<std::streamsize>(size, 0)));
  const Clock::time_point now = Clock::now();
  const Clock::time_point deadline = now < hasty_until_ ? now : now + kPatience;
  if ((torn_ && !write_all("\n", deadline)) || !write_all(piece, deadline)) {
    hasty_until_ = Clock::now() + kHaste;
    return 0;
  }
  return size;
}

PatientBuffer::int_type PatientBuffer::overflow(int_type character) {
  if (traits_type::eq_int_type(character, traits_type::eof())) {
    return traits_type::not_eof(character);
  }
  const char byte = traits_type::to_char_type(character);
  return xsputn(&byte, 1) == 1 ? character : traits_type::eof();
}

bool PatientBuffer::write_all(std::string_view text, Clock::time_point deadline) {
  const size_t size = text.size();
  while (!text.empty()) {
    const ssize_t written = write(fd_, text.data(), text.size());
    if (written > 0) {
      text.remove_prefix(static_cast<size_t>(written));
    } else if (written >= 0 || (errno == EAGAIN && !wait_writable(fd_, deadline)) ||
               (errno != EAGAIN && errno != EINTR)) {
      break;
    }
  }
  torn_ = !text.empty() && (torn_ || text.size() < size);
  return text.empty();
}

}  // namespace norvel
