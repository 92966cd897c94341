// The command line of norvel-cli and what norvel.conf adds to it: command line
// over file over default.
//
// Errors: UsageError. Threads: no state.

#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "cli/node_connection.h"

namespace norvel::cli {

struct CommandLine {
  std::optional<std::string> rpc_host;
  std::optional<uint16_t> rpc_port;
  std::optional<std::string> rpc_user;
  std::optional<std::string> rpc_password_file;
  bool rpc_tls = false;
  std::optional<std::string> rpc_ca;
  std::string data_dir;  // empty where no home directory is known

  std::string method;
  std::vector<std::string> params;  // all that follows the method

  std::string text_to_print;  // with --help or --version, and nothing else is to be done
};

// The arguments of `send`.
struct PaymentOrder {
  std::string key_file;
  std::string address;
  int64_t amount = 0;          // base units, above 0
  std::optional<int64_t> fee;  // base units
  std::string message;
};

// Reads the arguments that follow the program's name. Options stand before the
// method.
CommandLine parse_command_line(const std::vector<std::string>& arguments);

// Reads what follows "send".
PaymentOrder parse_payment_order(const std::vector<std::string>& arguments);

// The node that the command line and DATADIR/norvel.conf name, with the
// password read from its file. Without --rpchost it is the address that the node
// listens on according to the file, and only then user, password file and
// certificate of the file are taken. Keys of the node's that matter to it alone
// are passed over.
NodeAddress find_node(const CommandLine& command_line);

}  // namespace norvel::cli
