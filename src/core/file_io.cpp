#include "core/file_io.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

namespace norvel {

namespace {

// Larger requests are cut by Linux anyway (read(2), write(2)).
constexpr size_t kTransferBytesMax = 0x7ffff000;

template <class Call>
auto retry_interrupted(Call call) {
  auto result = call();
  while (result < 0 && errno == EINTR) {
    result = call();
  }
  return result;
}

void remove_keeping_errno(const std::string& path) {
  const int reason = errno;
  ::unlink(path.c_str());
  errno = reason;
}

bool write_synced(const std::string& path, ByteView data) {
  // Not waiting for the reader of a pipe.
  const FileDescriptor file = open_file(path, O_WRONLY | O_CREAT | O_TRUNC | O_NONBLOCK);
  return file.is_open() && write_all(file.get(), data) && sync_data(file.get());
}

}  // namespace

FileDescriptor& FileDescriptor::operator=(FileDescriptor&& other) noexcept {
  if (this != &other) {
    close();
    fd_ = std::exchange(other.fd_, -1);
  }
  return *this;
}

void FileDescriptor::close() {
  if (fd_ >= 0) {
    const int reason = errno;
    ::close(std::exchange(fd_, -1));  // never retried: Linux frees the number even on EINTR
    errno = reason;
  }
}

FileDescriptor open_file(const std::string& path, int flags) {
  return FileDescriptor(retry_interrupted([&] { return ::open(path.c_str(), flags | O_CLOEXEC, 0600); }));
}

bool write_all(int fd, ByteView data) {
  while (!data.empty()) {
    const size_t len = std::min(data.size(), kTransferBytesMax);
    const ssize_t written = retry_interrupted([&] { return ::write(fd, data.data(), len); });
    if (written < 0) {
      return false;
    }
    if (written == 0) {
      errno = EIO;  // would go on for ever
      return false;
    }
    data = data.subspan(static_cast<size_t>(written));
  }
  return true;
}

bool read_exactly_at(int fd, uint64_t offset, std::span<uint8_t> data) {
  while (!data.empty()) {
    const size_t len = std::min(data.size(), kTransferBytesMax);
    const ssize_t count = retry_interrupted([&] { return ::pread(fd, data.data(), len, static_cast<off_t>(offset)); });
    if (count < 0) {
      return false;
    }
    if (count == 0) {
      errno = ENODATA;
      return false;
    }
    data = data.subspan(static_cast<size_t>(count));
    offset += static_cast<uint64_t>(count);
  }
  return true;
}

std::optional<uint64_t> file_size(int fd) {
  struct stat status {};
  if (::fstat(fd, &status) != 0) {
    return std::nullopt;
  }
  if (!S_ISREG(status.st_mode)) {
    errno = EINVAL;
    return std::nullopt;
  }
  return static_cast<uint64_t>(status.st_size);
}

std::optional<Bytes> read_whole_file(const std::string& path, uint64_t bytes_max) {
  const FileDescriptor file = open_file(path, O_RDONLY | O_NONBLOCK);  // does not wait for the writer of a pipe
  if (!file.is_open()) {
    return std::nullopt;
  }
  const auto size = file_size(file.get());
  if (!size) {
    return std::nullopt;
  }
  if (*size > bytes_max) {
    errno = EFBIG;
    return std::nullopt;
  }
  Bytes bytes(*size);
  return read_exactly_at(file.get(), 0, bytes) ? std::optional(std::move(bytes)) : std::nullopt;
}

bool sync_data(int fd) {
  return retry_interrupted([&] { return ::fdatasync(fd); }) == 0;
}

bool sync_directory(const std::string& directory) {
  const FileDescriptor handle = open_file(directory, O_RDONLY | O_DIRECTORY);
  return handle.is_open() && retry_interrupted([&] { return ::fsync(handle.get()); }) == 0;
}

bool replace_file(const std::string& path, ByteView data) {
  const std::string temporary = path + ".tmp";
  if (!write_synced(temporary, data) || std::rename(temporary.c_str(), path.c_str()) != 0) {
    remove_keeping_errno(temporary);
    return false;
  }
  return sync_directory(directory_of(path));
}

std::string directory_of(const std::string& path) {
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos) {
    return ".";
  }
  return slash == 0 ? "/" : path.substr(0, slash);
}

}  // namespace norvel
