#include "core/home_directory.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>

namespace norvel {

std::string home_directory() {
  const char* home = std::getenv("HOME");
  if (home != nullptr && *home != '\0') {
    return home;
  }
  const passwd* user = getpwuid(getuid());
  return user != nullptr && user->pw_dir != nullptr ? user->pw_dir : "";
}

std::string default_data_directory() {
  const std::string home = home_directory();
  return home.empty() ? "" : home + "/.norvel";
}

}  // namespace norvel
