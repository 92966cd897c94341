#include "cli/options.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <filesystem>
#include <memory>
#include <stdexcept>

#include "cli/amount.h"
#include "cli/failures.h"
#include "cli/key_file.h"
#include "core/home_directory.h"
#include "core/password_file.h"
#include "core/settings_file.h"

namespace norvel::cli {

namespace {

constexpr const char kCommands[] =
    "Commands (any other METHOD is asked of the node, its parameters given as text or JSON):\n"
    "  getinfo                    The state of the node on one screen\n"
    "  health                     Status 0 when the node is well, otherwise 1 and why\n"
    "  newkey FILE                Makes a key pair in a new file and prints its address\n"
    "  keyaddress FILE            Prints the address of a key file\n"
    "  validateaddress ADDRESS    Status 0 when the address is one\n"
    "  send KEYFILE ADDRESS AMOUNT [--fee FEE] [--message TEXT]\n"
    "                             Pays an amount, in coins, and prints the transaction id\n"
    "\nExit status: 0 done, 1 error reply or failure, 2 usage, 3 no connection\n";

// The usage line of a program whose method takes all that follows it.
class MethodFormatter : public CLI::Formatter {
 public:
  std::string make_usage(const CLI::App*, std::string) const override {
    return "Usage: norvel-cli [OPTIONS] METHOD [PARAM ...]\n";
  }
};

// A decimal number of 16 bits.
std::optional<uint16_t> parse_port(const std::string& text) {
  uint16_t port = 0;
  const char* const end = text.data() + text.size();
  const std::from_chars_result read = std::from_chars(text.data(), end, port);
  return read.ec == std::errc() && read.ptr == end ? std::optional(port) : std::nullopt;
}

// CLI11 wants the arguments last first.
void parse(CLI::App& app, std::vector<std::string> arguments) {
  std::ranges::reverse(arguments);
  try {
    app.parse(std::move(arguments));
  } catch (const CLI::CallForHelp&) {
    throw;
  } catch (const CLI::CallForVersion&) {
    throw;
  } catch (const CLI::ParseError& failure) {
    throw UsageError(failure.what());
  }
}

void add_options(CLI::App& app, CommandLine& line) {
  app.add_option("--rpchost", line.rpc_host, "Host of the node: IPv4 address or name (127.0.0.1)");
  const auto set_port = [&line](const std::string& text) {
    line.rpc_port = parse_port(text);
    if (line.rpc_port.value_or(0) == 0) {
      throw CLI::ValidationError("--rpcport", "'" + text + "' is not a number from 1 to 65535");
    }
  };
  app.add_option_function<std::string>("--rpcport", set_port, "Its RPC port (8332)");
  app.add_option("--rpc-user", line.rpc_user, "User name for the node");
  app.add_option("--rpc-password-file", line.rpc_password_file, "File with the password for the node");
  app.add_flag("--rpc-tls", line.rpc_tls, "Talk TLS and check the node's certificate");
  app.add_option("--rpc-ca", line.rpc_ca, "Certificates to trust (PEM), instead of the system's; implies --rpc-tls");
  app.add_option("--datadir", line.data_dir, "The node's directory, for its norvel.conf (~/.norvel)");
  app.set_version_flag("--version", std::string("norvel-cli ") + NORVEL_VERSION, "Print the version");
  app.formatter(std::make_shared<MethodFormatter>());
  app.footer(kCommands);
  app.prefix_command();  // what follows the method belongs to it
}

void check_params(const CommandLine& line) {
  if (line.method == "send") {
    return;  // has options of its own
  }
  for (const std::string& param : line.params) {
    if (param.starts_with("--")) {
      throw UsageError("Options stand before the method: " + param);
    }
  }
}

uint16_t read_port(const std::string& path, const Setting& entry) {
  const auto port = parse_port(entry.value);
  if (!port) {
    refuse_setting(path, entry, "bad value of " + entry.key + ": " + entry.value);
  }
  return *port;
}

// What norvel.conf says of the way to the node.
struct Configured {
  std::optional<std::string> bind;
  std::optional<uint16_t> port;  // 0: any, which only the node's log names
  std::optional<std::string> user;
  std::optional<std::string> password_file;
  std::optional<std::string> certificate;
};

Configured read_configuration(const std::string& path) {
  // Relative paths are taken from where the file is, as the node does.
  const std::filesystem::path directory = std::filesystem::path(path).parent_path();
  Configured configured;
  for (const Setting& entry : read_settings(path).value_or(std::vector<Setting>())) {
    if (entry.key == "rpc-bind") {
      configured.bind = entry.value;
    } else if (entry.key == "rpc-port") {
      configured.port = read_port(path, entry);
    } else if (entry.key == "rpc-user") {
      configured.user = entry.value;
    } else if (entry.key == "rpc-password-file") {
      configured.password_file = (directory / entry.value).string();
    } else if (entry.key == "rpc-tls-cert") {
      configured.certificate = (directory / entry.value).string();
    }
  }
  return configured;
}

// What the file says; nothing where no directory is known.
Configured read_configuration_of(const std::string& data_dir) {
  if (data_dir.empty()) {
    return {};
  }
  try {
    return read_configuration(data_dir + "/norvel.conf");
  } catch (const std::runtime_error& failure) {
    throw UsageError(failure.what());
  }
}

std::string read_password(const std::string& path) {
  try {
    const Password password = norvel::read_password(path);
    warn_if_readable_by_others(path);
    return password.text;
  } catch (const std::runtime_error& failure) {
    throw UsageError(failure.what());
  }
}

int64_t read_amount(const std::string& what, const std::string& text) {
  const std::optional<int64_t> units = parse_coins(text);
  if (!units) {
    throw UsageError(what + " is no number of coins with at most " + std::to_string(kCoinDecimals) +
                     " decimal places: " + text);
  }
  return *units;
}

}  // namespace

CommandLine parse_command_line(const std::vector<std::string>& arguments) {
  CommandLine line;
  CLI::App app("Asks a Norvel node, and makes keys and payments.");
  add_options(app, line);
  try {
    parse(app, arguments);
  } catch (const CLI::CallForHelp&) {
    line.text_to_print = app.help();
    return line;
  } catch (const CLI::CallForVersion& version) {
    line.text_to_print = std::string(version.what()) + "\n";
    return line;
  }
  line.rpc_tls = line.rpc_tls || line.rpc_ca.has_value();
  if (line.data_dir.empty()) {
    line.data_dir = default_data_directory();
  }
  line.params = app.remaining();
  if (line.params.empty()) {
    throw UsageError("No method is given; --help lists the commands");
  }
  line.method = line.params.front();
  line.params.erase(line.params.begin());
  if (line.method.starts_with("-")) {
    throw UsageError("Unknown option: " + line.method);
  }
  check_params(line);
  return line;
}

PaymentOrder parse_payment_order(const std::vector<std::string>& arguments) {
  PaymentOrder order;
  std::string amount;
  std::optional<std::string> fee;
  CLI::App app;
  app.set_help_flag();
  app.add_option("KEYFILE", order.key_file)->required();
  app.add_option("ADDRESS", order.address)->required();
  app.add_option("AMOUNT", amount)->required();
  app.add_option("--fee", fee);
  app.add_option("--message", order.message);
  parse(app, arguments);
  order.amount = read_amount("AMOUNT", amount);
  if (order.amount == 0) {
    throw UsageError("AMOUNT is zero");
  }
  if (fee) {
    order.fee = read_amount("--fee", *fee);
  }
  return order;
}

NodeAddress find_node(const CommandLine& line) {
  const Configured configured = read_configuration_of(line.data_dir);
  NodeAddress node;
  const bool listens_everywhere = configured.bind.value_or("0.0.0.0") == "0.0.0.0";
  node.host = line.rpc_host.value_or(listens_everywhere ? node.host : *configured.bind);
  node.port = line.rpc_port.value_or(configured.port.value_or(node.port));
  if (node.port == 0) {
    throw UsageError(line.data_dir + "/norvel.conf: rpc-port = 0 is any free port; give --rpcport");
  }
  // The node's own credentials are for that node alone, and its own certificate
  // says what to trust of no other.
  const bool is_own = !line.rpc_host.has_value();
  node.user = line.rpc_user.value_or(is_own ? configured.user.value_or("") : "");
  const auto password_file = line.rpc_password_file || !is_own ? line.rpc_password_file : configured.password_file;
  if (password_file) {
    node.password = read_password(*password_file);
  }
  node.tls = line.rpc_tls || configured.certificate.has_value();
  node.ca_file = line.rpc_ca.value_or(is_own ? configured.certificate.value_or("") : "");
  return node;
}

}  // namespace norvel::cli
