#include "node/data_directory.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <stdexcept>

namespace norvel::node {

namespace {

FileDescriptor open_lock(const std::string& path, LockFile if_missing) {
  FileDescriptor lock = open_file(path, O_RDWR | (if_missing == LockFile::CREATE ? O_CREAT : 0));
  if (!lock.is_open() && errno == EROFS) {
    return open_file(path, O_RDONLY);  // enough for flock() where nobody can write
  }
  return lock;
}

}  // namespace

FileDescriptor lock_data_directory(const std::string& directory, LockFile if_missing) {
  const std::string path = directory + "/.lock";
  FileDescriptor lock = open_lock(path, if_missing);
  if (!lock.is_open()) {
    throw std::runtime_error("lock of the data directory, " + path + ": " + std::strerror(errno));
  }
  if (flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
    throw std::runtime_error("another process uses data directory " + directory);
  }
  return lock;
}

void create_data_directory(const std::string& directory) {
  std::error_code failure;
  const auto parent = std::filesystem::absolute(directory, failure).parent_path();
  std::filesystem::create_directories(parent, failure);
  if (mkdir(directory.c_str(), S_IRWXU) != 0 && errno != EEXIST) {
    throw std::runtime_error("data directory " + directory + ": " + std::strerror(errno));
  }
}

std::optional<uint64_t> free_disk_bytes(const std::string& directory) {
  struct statvfs disk = {};
  if (statvfs(directory.c_str(), &disk) != 0) {
    return std::nullopt;
  }
  return uint64_t{disk.f_bavail} * disk.f_frsize;
}

}  // namespace norvel::node
