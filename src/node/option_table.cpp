#include "node/option_table.h"

#include <arpa/inet.h>

#include <algorithm>
#include <charconv>
#include <limits>
#include <system_error>

#include "network/network_manager.h"

namespace norvel::node {

namespace {

using Check = std::function<std::string(const std::string&)>;

std::optional<uint64_t> parse_number(const std::string& text) {
  uint64_t number = 0;
  const char* const end = text.data() + text.size();
  const auto [stop, failure] = std::from_chars(text.data(), end, number);
  return failure == std::errc() && stop == end ? std::optional(number) : std::nullopt;
}

Check number_between(uint64_t least, uint64_t most) {
  return [least, most](const std::string& value) {
    const auto number = parse_number(value);
    return number && *number >= least && *number <= most
               ? std::string()
               : "'" + value + "' is not a number from " + std::to_string(least) + " to " + std::to_string(most);
  };
}

std::string check_ipv4(const std::string& value) {
  in_addr address = {};
  return inet_pton(AF_INET, value.c_str(), &address) == 1 ? "" : "'" + value + "' is not a dotted IPv4 address";
}

std::string check_host_port(const std::string& value) {
  std::string host;
  uint16_t port = 0;
  return network::utils::parse_address(value, host, port) && !host.empty() ? "" : "'" + value + "' is not HOST:PORT";
}

std::string check_not_empty(const std::string& value) {
  return value.empty() ? "the value is empty" : "";
}

std::string check_flag(const std::string& value) {
  return value == "true" || value == "false" ? "" : "'" + value + "' is neither true nor false";
}

OptionRow flag(std::string name, bool Options::*field, std::string help) {
  const auto store = [field](Options& options, std::span<const std::string> values) {
    options.*field = values.back() == "true";
  };
  return {std::move(name), "", std::move(help), OptionKind::FLAG, &check_flag, store};
}

OptionRow text(std::string name, std::string value_name, std::string Options::*field, Check check, std::string help) {
  const auto store = [field](Options& options, std::span<const std::string> values) { options.*field = values.back(); };
  return {std::move(name), std::move(value_name), std::move(help), OptionKind::VALUE, std::move(check), store};
}

OptionRow path(std::string name, std::string value_name, std::string Options::*field, std::string help) {
  OptionRow row = text(std::move(name), std::move(value_name), field, &check_not_empty, std::move(help));
  row.is_path = true;
  return row;
}

OptionRow list(std::string name, std::string value_name, std::vector<std::string> Options::*field, Check check,
               std::string help) {
  const auto store = [field](Options& options, std::span<const std::string> values) {
    (options.*field).assign(values.begin(), values.end());
  };
  return {std::move(name), std::move(value_name), std::move(help), OptionKind::LIST, std::move(check), store};
}

// `Number` is an unsigned integer or an optional one, and holds `most`.
template <class Number>
OptionRow number(std::string name, std::string value_name, Number Options::*field, uint64_t least, uint64_t most,
                 std::string help) {
  const auto store = [field](Options& options, std::span<const std::string> values) {
    const uint64_t value = parse_number(values.back()).value_or(0);
    if constexpr (std::is_integral_v<Number>) {
      options.*field = static_cast<Number>(value);
    } else {
      options.*field = static_cast<typename Number::value_type>(value);
    }
  };
  return {std::move(name),   std::move(value_name),       std::move(help),
          OptionKind::VALUE, number_between(least, most), store};
}

constexpr uint64_t kPortMax = std::numeric_limits<uint16_t>::max();
constexpr uint64_t kUint32Max = std::numeric_limits<uint32_t>::max();
constexpr uint64_t kConnectionsMax = 10'000;   // of each kind; every one is a descriptor
constexpr uint64_t kMempoolMbMax = 1'000'000;  // a terabyte

std::vector<OptionRow> make_table() {
  return {
      path("datadir", "DIR", &Options::data_dir, "Data directory [~/.norvel]"),
      text("bind", "ADDR", &Options::bind, &check_ipv4, "Address to listen on for peers [0.0.0.0]"),
      number("port", "N", &Options::port, 1, kPortMax, "Port to listen on for peers [8333]"),
      flag("no-listen", &Options::no_listen, "Take no connections from peers"),
      list("connect", "HOST:PORT", &Options::connect, &check_host_port, "Dial this peer; repeated: only these"),
      list("seednode", "HOST:PORT", &Options::seed_nodes, &check_host_port, "A peer to begin with; may be repeated"),
      number("max-inbound", "N", &Options::max_inbound, 0, kConnectionsMax, "Connections taken from peers [117]"),
      number("max-outbound", "N", &Options::max_outbound, 0, kConnectionsMax, "Connections made to peers [8]"),
      number("ban-duration", "S", &Options::ban_duration_s, 0, kUint32Max, "Seconds that a ban lasts [86400]"),
      text("rpc-bind", "ADDR", &Options::rpc_bind, &check_ipv4, "Address of the RPC server [127.0.0.1]"),
      number("rpc-port", "N", &Options::rpc_port, 0, kPortMax, "Port of the RPC server; 0: any free one [8332]"),
      text("rpc-user", "NAME", &Options::rpc_user, &check_not_empty, "User name that RPC clients must give"),
      path("rpc-password-file", "FILE", &Options::rpc_password_file, "File that holds the password"),
      path("rpc-tls-cert", "FILE", &Options::rpc_tls_cert, "Certificate chain (PEM): RPC over TLS"),
      path("rpc-tls-key", "FILE", &Options::rpc_tls_key, "Its private key (PEM)"),
      list("rpc-trust", "ADDR", &Options::rpc_trust, &check_ipv4,
           "Address that may call the restricted methods too; may be repeated"),
      number("mining-port", "N", &Options::mining_port, 1, kPortMax,
             "Port of a listener for miners, without credentials [off]"),
      text("mining-bind", "ADDR", &Options::mining_bind, &check_ipv4, "Address of that listener [127.0.0.1]"),
      number("max-mempool", "MB", &Options::max_mempool_mb, 1, kMempoolMbMax,
             "Size of the pool of transactions, in millions of bytes [300]"),
      path("log-file", "FILE", &Options::log_file, "Write every line here too, with its time; reopened on SIGHUP"),
      flag("rebuild", &Options::rebuild, "Compute index and state anew from the block files"),
      number("retarget-interval", "N", &Options::retarget_interval, 1, kUint32Max,
             "Private networks: blocks between difficulty adjustments [6]"),
      number("target-spacing", "S", &Options::target_spacing_s, 1, kUint32Max,
             "Private networks: intended seconds per block [10]"),
      number("distribution-interval", "N", &Options::distribution_interval, 1, kUint32Max, ""),
  };
}

}  // namespace

const std::vector<OptionRow>& option_table() {
  static const std::vector<OptionRow> table = make_table();
  return table;
}

const OptionRow* find_option(const std::string& name) {
  const auto found = std::ranges::find(option_table(), name, &OptionRow::name);
  return found == option_table().end() ? nullptr : &*found;
}

}  // namespace norvel::node
