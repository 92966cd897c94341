// What a node is told by its command line and its config file: the same names in
// both, the command line over the file over the defaults.
//
// Errors: as in Invocation. Threads: single-threaded.

#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace norvel::node {

struct Options {
  std::string data_dir;  // without a slash at the end

  // Peers
  std::string bind = "0.0.0.0";
  uint16_t port = 8333;
  bool no_listen = false;
  std::vector<std::string> connect;     // HOST:PORT; when there are any, only these are dialled
  std::vector<std::string> seed_nodes;  // HOST:PORT
  uint32_t max_inbound = 117;
  uint32_t max_outbound = 8;
  uint32_t ban_duration_s = 86'400;

  // JSON-RPC
  std::string rpc_bind = "127.0.0.1";
  uint16_t rpc_port = 8332;  // 0: the system chooses
  std::string rpc_user;
  std::string rpc_password_file;
  std::string rpc_tls_cert;
  std::string rpc_tls_key;
  std::vector<std::string> rpc_trust;  // dotted addresses
  uint16_t mining_port = 0;            // 0: no such listener
  std::string mining_bind = "127.0.0.1";

  uint32_t max_mempool_mb = 300;  // of 1,000,000 bytes
  std::string log_file;           // empty: none
  bool rebuild = false;
  bool check = false;

  // The rules of a private network; what is not given is what the data directory
  // was made with.
  std::optional<uint32_t> retarget_interval;      // blocks
  std::optional<uint32_t> target_spacing_s;       // seconds
  std::optional<uint32_t> distribution_interval;  // blocks; for tests, not shown by --help
};

struct Invocation {
  Options options;
  std::optional<int> exit_status;  // set when there is nothing to run
  std::string output;              // for standard output, as it is
  std::string error;               // a line for standard error, without its newline
};

// Reads the arguments that follow the program's name, then the config file:
// --config FILE, or norvel.conf in the data directory, where it may be missing.
// The exit status is 0 for --help and --version, CLI11's (100 and more) for a
// command line that does not parse, 1 for a config file that does not or for
// options that contradict each other.
Invocation read_options(const std::vector<std::string>& arguments);

}  // namespace norvel::node
