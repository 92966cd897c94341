#include "cli/commands.h"

#include <unistd.h>

#include <functional>
#include <iostream>
#include <map>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "cli/amount.h"
#include "cli/failures.h"
#include "cli/json_text.h"
#include "cli/key_file.h"
#include "cli/node_connection.h"
#include "cli/node_status.h"
#include "cli/output.h"
#include "cli/payment.h"
#include "core/clock.h"
#include "core/console.h"
#include "core/transaction.h"
#include "crypto/address.h"
#include "crypto/hex.h"

namespace norvel::cli {

namespace {

using rpc::JsonValue;

// The longest address has 34 characters.
constexpr size_t kAddressCharactersMax = 64;

// Beyond this many transactions the pool is not looked through for outputs that
// are spent already; the node then refuses what spends one of them again.
constexpr double kPoolLookedThroughMax = 2'000;

int64_t now_s() {
  return static_cast<int64_t>(unix_time_seconds());
}

void check_param_count(const CommandLine& line, size_t count, const std::string& form) {
  if (line.params.size() != count) {
    throw UsageError("Usage: norvel-cli " + form);
  }
}

bool is_address(const std::string& text) {
  return text.size() <= kAddressCharactersMax && crypto::validate_address(text);
}

int ask_node(const CommandLine& line) {
  std::vector<JsonValue> params;
  params.reserve(line.params.size());
  for (const std::string& param : line.params) {
    params.push_back(read_parameter(param));
  }
  NodeConnection node(find_node(line));
  print(result_text(node.call(line.method, std::move(params))) + "\n");
  return kSuccess;
}

int get_info(const CommandLine& line) {
  check_param_count(line, 0, "getinfo");
  NodeConnection node(find_node(line));
  print(status_text(node.call("getnodestatus"), now_s()));
  return kSuccess;
}

int check_health(const CommandLine& line) {
  check_param_count(line, 0, "health");
  const NodeAddress address = find_node(line);
  std::vector<std::string> complaints;
  try {
    complaints = find_complaints(NodeConnection(address).call("getnodestatus"), now_s());
  } catch (const UsageError&) {
    throw;
  } catch (const std::exception& failure) {
    complaints.push_back(console::printable(failure.what()));
  }
  for (const std::string& complaint : complaints) {
    console::error_line(complaint);
  }
  if (complaints.empty()) {
    print("The node is well\n");
  }
  return complaints.empty() ? kSuccess : kFailure;
}

int make_key(const CommandLine& line) {
  check_param_count(line, 1, "newkey FILE");
  print(create_key_file(line.params[0]) + "\n");
  return kSuccess;
}

int print_key_address(const CommandLine& line) {
  check_param_count(line, 1, "keyaddress FILE");
  print(read_key_file(line.params[0]).address + "\n");
  return kSuccess;
}

int validate_address(const CommandLine& line) {
  check_param_count(line, 1, "validateaddress ADDRESS");
  if (!is_address(line.params[0])) {
    console::error_line("Invalid address");
    return kFailure;
  }
  print("valid\n");
  return kSuccess;
}

// The outpoints that transactions of the node's pool spend: getutxos tells the
// chain's outputs only, and a payment that spends one twice would be refused.
std::set<OutPoint> find_spent_in_pool(NodeConnection& node) {
  std::set<OutPoint> spent;
  if (node.call("getmempoolinfo").get("size").number > kPoolLookedThroughMax) {
    return spent;
  }
  const JsonValue txids = node.call("getrawmempool");
  if (static_cast<double>(txids.array.size()) > kPoolLookedThroughMax) {
    return spent;  // whatever it said before
  }
  for (const JsonValue& txid : txids.array) {
    try {
      const JsonValue hex = node.call("getrawtransaction", {txid});
      for (const TxIn& input : Transaction::deserialize(crypto::hex_to_bytes(hex.string)).inputs) {
        spent.insert(input.prevout);
      }
    } catch (const ErrorReply&) {
      continue;  // has left the pool meanwhile
    }
  }
  return spent;
}

// Whether `made` has the output that the node named.
bool holds_output(const Transaction& made, const OutPoint& outpoint, const TxOut& named) {
  if (made.get_txid() != outpoint.txid || outpoint.index >= made.outputs.size()) {
    return false;
  }
  const TxOut& output = made.outputs[outpoint.index];
  return output.value == named.value && output.locking_script() == named.locking_script();
}

// A signature does not cover the values that it spends. A node that names an
// output smaller than it is would have the rest go to whoever mines the payment.
void check_spent_outputs(NodeConnection& node, const Transaction& tx, const SpendableOutputs& spendable) {
  const std::map<OutPoint, TxOut> named(spendable.begin(), spendable.end());
  std::set<OutPoint> spent;  // those of one transaction side by side, so that each is fetched once
  for (const TxIn& input : tx.inputs) {
    spent.insert(input.prevout);
  }
  std::optional<Transaction> made;
  for (const OutPoint& outpoint : spent) {
    if (!made || made->get_txid() != outpoint.txid) {
      const JsonValue hex = node.call("getrawtransaction", {JsonValue(outpoint.txid.to_hex())});
      made = Transaction::deserialize(crypto::hex_to_bytes(hex.string));
    }
    if (!holds_output(*made, outpoint, named.at(outpoint))) {
      throw std::runtime_error("The node named an output that is not as it says; nothing is sent");
    }
  }
}

std::string payment_text(const PaymentOrder& order, const Transaction& tx, const SpendableOutputs& spendable) {
  return "Pay " + coins_text(order.amount) + " NVL to " + order.address + ", fee " + coins_text(fee_of(tx, spendable)) +
         " NVL" + (order.message.empty() ? "" : ", with a message");
}

// A person at a terminal is asked; a script has decided.
bool is_confirmed(const std::string& text) {
  if (::isatty(STDIN_FILENO) == 0) {
    return true;
  }
  std::cerr << text << "? [y/N] " << std::flush;  // standard output is for the transaction id
  std::string answer;
  std::getline(std::cin, answer);
  return answer == "y" || answer == "Y" || answer == "yes";
}

int send_payment(const CommandLine& line) {
  const PaymentOrder order = parse_payment_order(line.params);
  if (!is_address(order.address)) {
    throw UsageError("Invalid address: " + console::printable(order.address));
  }
  const KeyPair sender = read_key_file(order.key_file);
  NodeConnection node(find_node(line));
  Bytes recipient_key;
  if (!order.message.empty()) {
    recipient_key = order.address == sender.address
                        ? sender.public_key
                        : crypto::hex_to_bytes(node.call("getpubkeyforaddress", {JsonValue(order.address)}).string);
  }
  const std::set<OutPoint> taken = find_spent_in_pool(node);
  const SpendableOutputs spendable =
      read_spendable(node.call("getutxos", {JsonValue(sender.address)}), sender.address, taken);
  const Transaction tx = make_payment(order, sender, spendable, recipient_key);
  check_spent_outputs(node, tx, spendable);
  if (!is_confirmed(payment_text(order, tx, spendable))) {
    console::error_line("Nothing is sent");
    return kFailure;
  }
  const JsonValue result = node.call("sendrawtransaction", {JsonValue(crypto::bytes_to_hex(tx.serialize()))});
  if (!result.get("accepted").boolean) {
    throw std::runtime_error("The node did not accept the transaction");
  }
  const std::string txid = tx.get_txid().to_hex();
  try {
    print(txid + "\n");
  } catch (const std::runtime_error&) {
    console::error_line("The payment is sent, as " + txid);  // not to be repeated
    throw;
  }
  return kSuccess;
}

}  // namespace

int run_command(const CommandLine& line) {
  const std::map<std::string_view, std::function<int(const CommandLine&)>> own = {
      {"getinfo", &get_info},
      {"health", &check_health},
      {"newkey", &make_key},
      {"keyaddress", &print_key_address},
      {"validateaddress", &validate_address},
      {"send", &send_payment},
  };
  const auto found = own.find(line.method);
  return found == own.end() ? ask_node(line) : found->second(line);
}

}  // namespace norvel::cli
