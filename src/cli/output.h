// What a command prints: a result that somebody waits for, unlike the lines of a
// node, which goes out whole or makes the command fail.
//
// Threads: single-threaded.

#pragma once

#include <string_view>

namespace norvel::cli {

// Writes `text` to standard output, however long its reader takes. Throws
// std::runtime_error when it cannot be written whole.
void print(std::string_view text);

}  // namespace norvel::cli
