// A library to preload: counts the calls that change files (write, pwrite,
// fsync, fdatasync, rename, ftruncate) below NORVEL_FAULT_DIRECTORY and lets the
// one numbered NORVEL_FAULT_AT go wrong:
//
//   kill      half of a write is made, then the process dies by SIGKILL
//   powercut  as kill, and what was written since each file's last sync is gone
//   eio       this one call fails with EIO
//   enospc    this call and every write after it fail with ENOSPC
//
// A fault that does not kill creates the file NORVEL_FAULT_MARK.

#include <dlfcn.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <map>
#include <mutex>
#include <string>

namespace {

template <class Function>
Function* real(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

std::string setting(const char* name) {
  const char* value = std::getenv(name);
  return value == nullptr ? "" : value;
}

const std::string& directory() {
  static const std::string value = setting("NORVEL_FAULT_DIRECTORY");
  return value;
}

const std::string& kind() {
  static const std::string value = setting("NORVEL_FAULT_KIND");
  return value;
}

bool is_watched(const std::string& path) {
  return !directory().empty() && path.compare(0, directory().size(), directory()) == 0;
}

std::string path_of(int fd) {
  char path[PATH_MAX];
  const ssize_t length = readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), path, sizeof(path));
  return length > 0 ? std::string(path, static_cast<size_t>(length)) : "";
}

std::mutex sizes_mutex;
std::map<std::string, off_t>& synced_sizes() {
  static auto* sizes = new std::map<std::string, off_t>();  // outlives every destructor that still writes
  return *sizes;
}

// What a file has on disk for certain: its size when first seen, then at each sync.
void note_size(int fd, const std::string& path, bool synced) {
  struct stat status;
  if (fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
    return;
  }
  const std::lock_guard lock(sizes_mutex);
  if (synced) {
    synced_sizes()[path] = status.st_size;
  } else {
    synced_sizes().emplace(path, status.st_size);
  }
}

[[noreturn]] void die() {
  if (kind() == "powercut") {
    const std::lock_guard lock(sizes_mutex);
    for (const auto& [path, size] : synced_sizes()) {
      struct stat status;
      if (stat(path.c_str(), &status) == 0 && status.st_size > size) {
        (void)!truncate(path.c_str(), size);
      }
    }
  }
  kill(getpid(), SIGKILL);
  for (;;) {
    pause();
  }
}

std::atomic<uint64_t> calls{0};
std::atomic<bool> disk_full{false};

// Counts one call; false with errno set when it is to fail. `last_act` is what is
// done of a call in which the process dies.
bool goes_on(
    bool needs_space, const std::function<void()>& last_act = [] {}) {
  static const uint64_t fault_at = std::strtoull(setting("NORVEL_FAULT_AT").c_str(), nullptr, 10);
  if (disk_full && needs_space) {
    errno = ENOSPC;
    return false;
  }
  if (++calls != fault_at) {
    return true;
  }
  if (kind() == "kill" || kind() == "powercut") {
    last_act();
    die();
  }
  close(open(setting("NORVEL_FAULT_MARK").c_str(), O_WRONLY | O_CREAT, 0600));
  disk_full = kind() == "enospc";
  errno = disk_full ? ENOSPC : EIO;
  return disk_full && !needs_space;
}

template <class Write>
ssize_t faulty_write(int fd, size_t count, Write write_bytes) {
  const std::string path = fd > STDERR_FILENO ? path_of(fd) : "";
  if (!is_watched(path)) {
    return write_bytes(count);
  }
  note_size(fd, path, false);
  return goes_on(true, [&] { write_bytes(count / 2); }) ? write_bytes(count) : -1;
}

int faulty_sync(int fd, int (*sync)(int)) {
  const std::string path = path_of(fd);
  if (!is_watched(path)) {
    return sync(fd);
  }
  if (!goes_on(false)) {
    return -1;
  }
  note_size(fd, path, true);
  return sync(fd);
}

}  // namespace

extern "C" {

ssize_t write(int fd, const void* data, size_t count) {
  static auto* const call = real<ssize_t(int, const void*, size_t)>("write");
  return faulty_write(fd, count, [&](size_t length) { return call(fd, data, length); });
}

ssize_t pwrite(int fd, const void* data, size_t count, off_t offset) {
  static auto* const call = real<ssize_t(int, const void*, size_t, off_t)>("pwrite");
  return faulty_write(fd, count, [&](size_t length) { return call(fd, data, length, offset); });
}

int fsync(int fd) {
  static auto* const call = real<int(int)>("fsync");
  return faulty_sync(fd, call);
}

int fdatasync(int fd) {
  static auto* const call = real<int(int)>("fdatasync");
  return faulty_sync(fd, call);
}

int rename(const char* from, const char* to) noexcept {
  static auto* const call = real<int(const char*, const char*)>("rename");
  if (is_watched(to)) {
    if (!goes_on(false)) {
      return -1;
    }
    const std::lock_guard lock(sizes_mutex);
    if (auto moved = synced_sizes().extract(from)) {
      moved.key() = to;
      synced_sizes().erase(to);
      synced_sizes().insert(std::move(moved));
    }
  }
  return call(from, to);
}

int ftruncate(int fd, off_t length) noexcept {
  static auto* const call = real<int(int, off_t)>("ftruncate");
  return !is_watched(path_of(fd)) || goes_on(false) ? call(fd, length) : -1;
}

}  // extern "C"
