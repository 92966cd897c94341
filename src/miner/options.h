// The command line of norvel-miner.

#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace norvel::miner {

struct Options {
  std::string mining_address;
  std::string rpc_host = "127.0.0.1";
  uint16_t rpc_port = 8332;
  int threads = 0;  // 0: as many as the hardware has
  bool help = false;
};

// Reads the arguments that follow the program's name. An option takes the next
// argument, whatever it is; as the last argument it is ignored, and so is any
// unknown word. "--help" or "-h" where an option may stand wins over all else.
// Numbers are converted with std::stoi, whose exceptions are the caller's; a
// port is cut to its low 16 bits.
Options parse_options(const std::vector<std::string>& arguments);

std::string usage_text();

// The lines that repeat the settings before the miner connects.
std::string configuration_text(const Options& options);

}  // namespace norvel::miner
