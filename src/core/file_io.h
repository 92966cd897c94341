// Files as the stores on disk need them: descriptors that close themselves,
// writes that are whole or reported, and the syncs that make a write or a
// rename survive a power cut.
//
// Errors: a failing call returns false or nothing and leaves errno; nothing
// throws but std::bad_alloc. EINTR is retried. Threads: free functions without
// state; a FileDescriptor belongs to one thread at a time.

#pragma once

#include <sys/types.h>

#include <cerrno>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <utility>

#include "core/bytes.h"

namespace norvel {

// Owns a descriptor; -1 means none.
class FileDescriptor {
 public:
  FileDescriptor() = default;
  explicit FileDescriptor(int fd) : fd_(fd) {}
  FileDescriptor(FileDescriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  FileDescriptor& operator=(FileDescriptor&& other) noexcept;
  ~FileDescriptor() { close(); }

  int get() const { return fd_; }
  bool is_open() const { return fd_ >= 0; }
  void close();

 private:
  int fd_ = -1;
};

// Whether the error of a call on a socket only says "not now".
inline bool would_block(int error) {
  return error == EAGAIN || error == EWOULDBLOCK || error == EINTR;
}

// Opens with O_CLOEXEC; a new file gets mode 0600. `flags` as for open(2).
FileDescriptor open_file(const std::string& path, int flags);

// Writes all of `data` at the descriptor's position.
bool write_all(int fd, ByteView data);

// Reads exactly `data.size()` bytes from `offset`; false at the end of the file,
// with ENODATA.
bool read_exactly_at(int fd, uint64_t offset, std::span<uint8_t> data);

// Size in bytes of a regular file; nothing for anything else.
std::optional<uint64_t> file_size(int fd);

// The whole of a regular file of at most `bytes_max`.
std::optional<Bytes> read_whole_file(const std::string& path, uint64_t bytes_max);

// fdatasync(2). After a failure the system may have dropped what was not on disk
// yet: it must be written again, not only synced again.
bool sync_data(int fd);

// Makes the names in `directory` durable.
bool sync_directory(const std::string& directory);

// Puts `data` under `path` so that at any instant the old content or the new
// one is there whole: written to `path` + ".tmp", synced, renamed, directory
// synced. On failure the old file is untouched and the temporary one removed;
// only where the directory itself does not sync the new file is there already.
bool replace_file(const std::string& path, ByteView data);

// The directory part of `path`, "." when it has none.
std::string directory_of(const std::string& path);

}  // namespace norvel
