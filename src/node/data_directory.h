// The data directory as a whole: its lock and the room on its disk.
//
// Threads: free functions without state.

#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "core/file_io.h"

namespace norvel::node {

// Takes the lock that every process holds while it uses the directory; it ends
// with the descriptor. `if_missing` says whether the lock's file may be made. On
// failure throws std::runtime_error with a line for the user.
enum class LockFile { CREATE, MUST_EXIST };
FileDescriptor lock_data_directory(const std::string& directory, LockFile if_missing);

// Makes the directory (mode 0700) and those above it, unless it is there. Throws
// likewise.
void create_data_directory(const std::string& directory);

// Bytes that an ordinary user can still write there; nothing when the system
// does not say.
std::optional<uint64_t> free_disk_bytes(const std::string& directory);

}  // namespace norvel::node
