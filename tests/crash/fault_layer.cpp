// A library to preload: counts the calls that change files (write, fsync,
// fdatasync, rename, ftruncate, unlink, remove) below NORVEL_FAULT_DIRECTORY and
// lets the one numbered NORVEL_FAULT_AT go wrong:
//
//   kill      half of a write is made, then the process dies by SIGKILL
//   powercut  as kill, and of each file and name only what was synced is left
//   eio       this one call fails with EIO
//   enospc    this call and every write after it fail with ENOSPC
//   emfile    counts open, openat and opendir instead; this one fails with EMFILE
//   emfiles   as emfile, and so does every one after it
//   hang      nothing is counted; syncs wait while the file NORVEL_FAULT_MARK is there
//
// A fault that does not kill creates the file NORVEL_FAULT_MARK.

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <mutex>
#include <optional>
#include <string>

namespace {

namespace fs = std::filesystem;

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
  return !directory().empty() && path.starts_with(directory());
}

std::string path_of(int fd) {
  char path[PATH_MAX];
  const ssize_t length = readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), path, sizeof(path));
  return length > 0 ? std::string(path, static_cast<size_t>(length)) : "";
}

// Nothing: there is no such file.
using Content = std::optional<std::string>;

// Through the streams of the standard library, whose opens are none of those below.
Content read_file(const std::string& path) {
  std::error_code ignored;
  if (!fs::is_regular_file(path, ignored)) {
    return std::nullopt;
  }
  std::ifstream file(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(file), {});
}

// What the disk is sure to hold. A name is durable with the file that has it once
// that file or its directory was synced.
struct Durable {
  Content under_name;  // what a power cut leaves there
  Content of_file;     // of the file that has the name now
};

std::mutex disk_mutex;
std::map<std::string, Durable>& disk() {
  static auto* files = new std::map<std::string, Durable>();  // outlives every destructor that still writes
  return *files;
}

// Asked for before the first change: what is there then has been there.
Durable& durable(const std::string& path) {
  const auto found = disk().find(path);
  if (found != disk().end()) {
    return found->second;
  }
  const Content content = read_file(path);
  return disk().emplace(path, Durable{content, content}).first->second;
}

template <class Note>
void note(const std::string& path, const Note& change) {
  if (kind() == "powercut" && is_watched(path)) {
    const std::lock_guard lock(disk_mutex);
    change();
  }
}

void note_synced(const std::string& path) {
  if (const Content content = read_file(path)) {
    durable(path) = {content, content};
    return;
  }
  for (auto& [name, file] : disk()) {
    if (fs::path(name).parent_path() == path) {
      file.under_name = fs::exists(name) ? file.of_file.value_or("") : Content();
    }
  }
}

// A directory counts as renamed on disk at once, with all that is in it.
void note_renamed(const std::string& from, const std::string& to) {
  durable(to).of_file = durable(from).of_file.value_or("");
  durable(from).of_file.reset();
  for (auto at = disk().lower_bound(from + "/"); at != disk().end() && at->first.starts_with(from + "/");) {
    auto moved = disk().extract(at++);
    moved.key() = to + moved.key().substr(from.size());
    disk().insert(std::move(moved));
  }
}

void cut_power() {
  for (const auto& [path, file] : disk()) {
    if (file.under_name) {
      std::ofstream(path, std::ios::binary) << *file.under_name;
    } else {
      real<int(const char*)>("unlink")(path.c_str());
    }
  }
}

[[noreturn]] void die() {
  const std::lock_guard lock(disk_mutex);
  const pid_t dying = getpid();
  if (kind() == "powercut" && fork() == 0) {
    while (getppid() == dying) {  // its other threads would see their files change
      usleep(1'000);
    }
    cut_power();
    _exit(0);
  }
  kill(dying, SIGKILL);
  for (;;) {
    pause();
  }
}

std::atomic<uint64_t> calls{0};
std::atomic<bool> lasts{false};  // a fault that began and does not end

// Counts one call; whether it is the one to go wrong.
bool is_next_at_fault() {
  static const uint64_t fault_at = std::strtoull(setting("NORVEL_FAULT_AT").c_str(), nullptr, 10);
  return ++calls == fault_at;
}

void fail_with(int reason, bool from_now_on) {
  std::ofstream(setting("NORVEL_FAULT_MARK")) << kind();
  lasts = from_now_on;
  errno = reason;
}

// False with errno set when a call that changes a file is to fail. `last_act` is
// what is done of a call in which the process dies.
bool goes_on(
    bool needs_space, const std::function<void()>& last_act = [] {}) {
  if (kind().starts_with("emfile") || kind() == "hang") {
    return true;
  }
  if (lasts && needs_space) {
    errno = ENOSPC;
    return false;
  }
  if (!is_next_at_fault()) {
    return true;
  }
  if (kind() == "kill" || kind() == "powercut") {
    last_act();
    die();
  }
  const bool is_full = kind() == "enospc";
  fail_with(is_full ? ENOSPC : EIO, is_full);
  return is_full && !needs_space;
}

int faulty_sync(int fd, int (*sync)(int)) {
  const std::string path = path_of(fd);
  while (kind() == "hang" && is_watched(path) && access(setting("NORVEL_FAULT_MARK").c_str(), F_OK) == 0) {
    usleep(10'000);
  }
  if (is_watched(path) && !goes_on(false)) {
    return -1;
  }
  note(path, [&] { note_synced(path); });
  return sync(fd);
}

int faulty_remove(const char* path, int (*take_away)(const char*)) {
  if (is_watched(path) && !goes_on(false)) {
    return -1;
  }
  note(path, [&] { durable(path).of_file.reset(); });
  return take_away(path);
}

// None, with errno set, when no file is to be opened any more.
template <class Opened, class Call>
Opened faulty_open(const std::string& path, bool writes, Opened none, Call open_it) {
  if (kind().starts_with("emfile") && is_watched(path) && (lasts || is_next_at_fault())) {
    fail_with(EMFILE, kind() == "emfiles");
    return none;
  }
  if (writes) {
    note(path, [&] { durable(path); });
  }
  return open_it();
}

}  // namespace

extern "C" {

ssize_t write(int fd, const void* data, size_t count) {
  static auto* const call = real<ssize_t(int, const void*, size_t)>("write");
  const bool counts = fd > STDERR_FILENO && is_watched(path_of(fd));
  return !counts || goes_on(true, [&] { call(fd, data, count / 2); }) ? call(fd, data, count) : -1;
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
  if (is_watched(to) && !goes_on(false)) {
    return -1;
  }
  note(to, [&] { note_renamed(from, to); });
  return call(from, to);
}

int ftruncate(int fd, off_t length) noexcept {
  static auto* const call = real<int(int, off_t)>("ftruncate");
  return !is_watched(path_of(fd)) || goes_on(false) ? call(fd, length) : -1;
}

int unlink(const char* path) noexcept {
  static auto* const call = real<int(const char*)>("unlink");
  return faulty_remove(path, call);
}

int remove(const char* path) noexcept {
  static auto* const call = real<int(const char*)>("remove");
  return faulty_remove(path, call);
}

// Under another name here, as the headers declare these two with "...".
int open_path(const char* path, int flags, mode_t mode) __asm__("open");
int open_path(const char* path, int flags, mode_t mode) {
  static auto* const call = real<int(const char*, int, ...)>("open");
  const bool writes = (flags & (O_WRONLY | O_RDWR)) != 0;
  return faulty_open(path, writes, -1, [&] { return call(path, flags, mode); });
}

int open_path_at(int at, const char* path, int flags, mode_t mode) __asm__("openat");
int open_path_at(int at, const char* path, int flags, mode_t mode) {
  static auto* const call = real<int(int, const char*, int, ...)>("openat");
  const std::string full = *path == '/' ? path : path_of(at) + "/" + path;
  return faulty_open(full, false, -1, [&] { return call(at, path, flags, mode); });
}

DIR* opendir(const char* path) {
  static auto* const call = real<DIR*(const char*)>("opendir");
  return faulty_open<DIR*>(path, false, nullptr, [&] { return call(path); });
}

}  // extern "C"
