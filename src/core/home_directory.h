// Where a user's files are. Threads: as getpwuid(3), one at a time.

#pragma once

#include <string>

namespace norvel {

// $HOME, else what the user database says; empty when neither does.
std::string home_directory();

// ".norvel" in the home directory: where a node's files are unless its user says
// otherwise. Empty when no home is known.
std::string default_data_directory();

}  // namespace norvel
