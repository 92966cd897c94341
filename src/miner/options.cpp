#include "miner/options.h"

#include <algorithm>
#include <string_view>
#include <utility>

namespace norvel::miner {

namespace {

constexpr std::string_view kValueOptions[] = {"--address", "--rpchost", "--rpcport", "--threads"};

void apply(Options& options, const std::string& name, const std::string& value) {
  if (name == "--address") {
    options.mining_address = value;
  } else if (name == "--rpchost") {
    options.rpc_host = value;
  } else if (name == "--rpcport") {
    options.rpc_port = static_cast<uint16_t>(std::stoi(value));
  } else if (name == "--threads") {
    options.threads = std::stoi(value);
  }
}

}  // namespace

Options parse_options(const std::vector<std::string>& arguments) {
  Options options;
  std::vector<std::pair<std::string, std::string>> settings;
  for (size_t i = 0; i < arguments.size(); ++i) {
    const std::string& argument = arguments[i];
    if (argument == "--help" || argument == "-h") {
      options.help = true;
      return options;
    }
    const bool takes_value =
        std::find(std::begin(kValueOptions), std::end(kValueOptions), argument) != std::end(kValueOptions);
    if (takes_value && i + 1 < arguments.size()) {
      settings.emplace_back(argument, arguments[++i]);
    }
  }
  // Converted only now, so that a request for help after a bad number is still met.
  for (const auto& [name, value] : settings) {
    apply(options, name, value);
  }
  return options;
}

std::string usage_text() {
  return "Usage: norvel-miner [options]\n\n"
         "Options:\n"
         "  --address <addr>   Mining address (required)\n"
         "  --rpchost <host>   RPC server host (default: 127.0.0.1)\n"
         "  --rpcport <port>   RPC server port (default: 8332)\n"
         "  --threads <n>      Number of threads (default: auto)\n"
         "  --help, -h         Show this help message\n";
}

std::string configuration_text(const Options& options) {
  const std::string threads = options.threads == 0 ? "Auto" : std::to_string(options.threads);
  return "Miner Configuration:\n"
         "  Mining Address: " +
         options.mining_address +
         "\n"
         "  RPC Server:     " +
         options.rpc_host + ":" + std::to_string(options.rpc_port) +
         "\n"
         "  Threads:        " +
         threads + "\n\n";
}

}  // namespace norvel::miner
