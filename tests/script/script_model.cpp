#include "script/script_model.h"

#include <algorithm>
#include <functional>
#include <map>
#include <stdexcept>

#include "crypto/hash.h"
#include "crypto/signature.h"
#include "script/script.h"
#include "script/sighash.h"

namespace norvel {
namespace {

struct Failed : std::runtime_error {
  Failed() : std::runtime_error("script failed") {}
};

struct Node {
  uint8_t opcode = 0;
  Bytes data;                           // of a push
  std::vector<std::vector<Node>> arms;  // of a conditional: the blocks between its ELSEs
};

constexpr uint8_t kIf = 0x63, kNotIf = 0x64, kElse = 0x67, kEndIf = 0x68;

class Parser {
 public:
  explicit Parser(const Bytes& script) : rest_(script) {}

  // Up to an ELSE or ENDIF that belongs to an outer block, or the end.
  std::vector<Node> parse_block() {
    std::vector<Node> block;
    while (!at_end() && rest_[at_] != kElse && rest_[at_] != kEndIf) {
      Node node;
      node.opcode = rest_[at_++];
      if (node.opcode == kIf || node.opcode == kNotIf) {
        do {
          node.arms.push_back(parse_block());
        } while (next() == kElse);
      } else if (node.opcode <= 0x4e) {
        size_t length = node.opcode;
        if (node.opcode > 0x4b) {
          length = number(node.opcode == 0x4c ? 1 : node.opcode == 0x4d ? 2 : 4);
        }
        while (length-- > 0) {
          node.data.push_back(next());
        }
      }
      block.push_back(std::move(node));
    }
    return block;
  }

  bool at_end() const { return at_ == rest_.size(); }

 private:
  uint8_t next() { return at_end() ? throw Failed() : rest_[at_++]; }

  size_t number(int bytes) { return bytes == 0 ? 0 : next() + 256 * number(bytes - 1); }

  const Bytes& rest_;
  size_t at_ = 0;
};

using Stack = std::vector<Bytes>;

struct Context {
  const Bytes& script;
  const Transaction& tx;
  size_t input_index;
};

bool truth(const Bytes& bytes) {
  return bytes.size() != static_cast<size_t>(std::count(bytes.begin(), bytes.end(), 0));
}

Bytes pop(Stack& stack) {
  if (stack.empty()) {
    throw Failed();
  }
  const Bytes top = stack.back();
  stack.pop_back();
  return top;
}

void require(bool condition) {
  if (!condition) {
    throw Failed();
  }
}

Bytes flag(bool value) {
  return {static_cast<uint8_t>(value)};
}

void check_signature(Stack& stack, const Context& in) {
  const Bytes key = pop(stack);
  Bytes signature = pop(stack);
  bool valid = false;
  if (!signature.empty()) {
    const uint8_t type = signature.back();
    signature.pop_back();
    const uint256 hash = SignatureHasher::compute_signature_hash(in.tx, in.input_index, Script(in.script), type);
    valid = crypto::verify_signature(hash.to_bytes(), signature, key);
  }
  stack.push_back(flag(valid));
}

void check_lock_time(Stack& stack, const Context& in) {
  Bytes number = stack.empty() ? throw Failed() : stack.back();
  bool negative = false;
  if (!number.empty()) {
    negative = number.back() >= 0x80;
    number.back() %= 0x80;
  }
  require(!negative || !truth(number));
  number.resize(4);
  const uint32_t wanted = number[0] + 256u * number[1] + 65'536u * number[2] + 16'777'216u * number[3];
  require(wanted <= in.tx.locktime);
  require(wanted / 500'000'000 == 0 ? in.tx.locktime < 500'000'000 : true);
  require(in.tx.inputs.at(in.input_index).sequence < 0xffffffff);
}

using Action = std::function<void(Stack&, const Context&)>;

const std::map<uint8_t, Action>& actions() {
  static const std::map<uint8_t, Action> table = {
      {0x6d, [](Stack& stack, const Context&) { pop(stack), pop(stack); }},
      {0x75, [](Stack& stack, const Context&) { pop(stack); }},
      {0x76, [](Stack& stack, const Context&) { stack.insert(stack.end(), 2, pop(stack)); }},
      {0x87, [](Stack& stack, const Context&) { stack.push_back(flag(pop(stack) == pop(stack))); }},
      {0x88, [](Stack& stack, const Context&) { require(pop(stack) == pop(stack)); }},
      {0xa8, [](Stack& stack, const Context&) { stack.push_back(crypto::sha256(pop(stack)).to_bytes()); }},
      {0xa9, [](Stack& stack, const Context&) { stack.push_back(crypto::hash160(pop(stack))); }},
      {0xac, check_signature},
      {0xb1, check_lock_time},
  };
  return table;
}

void walk(const std::vector<Node>& block, Stack& stack, const Context& in) {
  for (const Node& node : block) {
    if (!node.arms.empty()) {
      const bool first = truth(pop(stack)) == (node.opcode == kIf);
      for (size_t arm = first ? 0 : 1; arm < node.arms.size(); arm += 2) {
        walk(node.arms[arm], stack, in);
      }
    } else if (node.opcode <= 0x4e) {
      stack.push_back(node.data);
    } else if (node.opcode > 0x50 && node.opcode <= 0x60) {
      stack.push_back({static_cast<uint8_t>(node.opcode - 0x50)});
    } else {
      const auto action = actions().find(node.opcode);
      require(action != actions().end());
      action->second(stack, in);
    }
  }
}

}  // namespace

std::optional<std::vector<Bytes>> model_run(const std::vector<Bytes>& scripts, const Transaction& tx,
                                            size_t input_index) {
  Stack stack;
  try {
    for (const Bytes& script : scripts) {
      Parser parser(script);
      const std::vector<Node> program = parser.parse_block();
      require(parser.at_end());
      walk(program, stack, {script, tx, input_index});
    }
  } catch (const Failed&) {
    return std::nullopt;
  }
  return stack;
}

}  // namespace norvel
