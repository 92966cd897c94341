#include "core/password_file.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "core/file_io.h"

namespace norvel {

Password read_password(const std::string& path) {
  const auto bytes = read_whole_file(path, kPasswordBytesMax);
  if (!bytes) {
    throw std::runtime_error("password file " + path + ": " + std::strerror(errno));
  }
  Password password{std::string(bytes->begin(), bytes->end())};
  for (const char end : {'\n', '\r'}) {
    if (!password.text.empty() && password.text.back() == end) {
      password.text.pop_back();
    }
  }
  if (password.text.empty() || password.text.find_first_of(std::string("\r\n\0", 3)) != std::string::npos) {
    throw std::runtime_error("password file " + path + ": one line with the password is wanted");
  }
  struct stat status = {};
  password.readable_by_others = stat(path.c_str(), &status) == 0 && (status.st_mode & (S_IRGRP | S_IROTH)) != 0;
  return password;
}

}  // namespace norvel
