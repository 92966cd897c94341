// The interpreter against an independent model on random programs.

#include <gtest/gtest.h>

#include <exception>
#include <functional>
#include <map>

#include "crypto/hash.h"
#include "script/interpreter.h"
#include "script/script.h"
#include "script/script_testing.h"
#include "support/ledger_samples.h"

namespace norvel {
namespace {

constexpr uint64_t kSeed = 0x5eed0f5c21975;
constexpr int kPrograms = 250'000;

bool truth(const Bytes& bytes) {
  return bytes != Bytes(bytes.size());
}

// Runs the blocks of a script recursively on plain byte strings.
class Model {
 public:
  explicit Model(const Transaction& tx) : tx_(tx) {}

  // For input 0; false when either script fails.
  bool run(const Bytes& unlocking, const Bytes& locking) {
    stack.clear();
    try {
      for (const Bytes* script : {&unlocking, &locking}) {
        script_ = *script;
        at_ = 0;
        run_block(true);
        require(at_end());
      }
    } catch (const Failed&) {
      return false;
    }
    return true;
  }

  std::vector<Bytes> stack;

 private:
  struct Failed : std::exception {};
  enum : uint8_t { kPushData1 = 0x4c, kPushData4 = 0x4e, kIf = 0x63, kNotIf = 0x64, kElse = 0x67, kEndIf = 0x68 };

  static void require(bool condition) { condition ? void() : throw Failed(); }

  bool at_end() const { return at_ == script_.size(); }
  uint8_t next() { return at_end() ? throw Failed() : script_[at_++]; }
  size_t number(int bytes) { return bytes == 0 ? 0 : next() + 256 * number(bytes - 1); }

  Bytes top() const { return stack.empty() ? throw Failed() : stack.back(); }
  void push_flag(bool value) { stack.push_back({static_cast<uint8_t>(value)}); }

  Bytes pop() {
    Bytes last = top();
    stack.pop_back();
    return last;
  }

  // Up to an ELSE or ENDIF that belongs to an outer block, or the end.
  void run_block(bool active) {
    while (!at_end() && script_[at_] != kElse && script_[at_] != kEndIf) {
      const uint8_t opcode = next();
      if (opcode == kIf || opcode == kNotIf) {
        bool arm_active = active && truth(pop()) == (opcode == kIf);
        do {
          run_block(arm_active);
          arm_active = active && !arm_active;
        } while (next() == kElse);
      } else if (opcode <= kPushData4) {
        const size_t length = opcode < kPushData1 ? opcode : number(1 << (opcode - kPushData1));
        Bytes data;
        while (data.size() < length) {
          data.push_back(next());
        }
        active ? stack.push_back(data) : void();
      } else if (active) {
        execute(opcode);
      }
    }
  }

  void execute(uint8_t opcode) {
    if (opcode > 0x50 && opcode <= 0x60) {
      return stack.push_back({static_cast<uint8_t>(opcode - 0x50)});
    }
    const auto action = actions_.find(opcode);
    action == actions_.end() ? throw Failed() : action->second();
  }

  void check_lock_time() {
    Bytes wanted = top();
    if (!wanted.empty() && wanted.back() >= 0x80) {
      wanted.back() = static_cast<uint8_t>(wanted.back() - 0x80);
      require(!truth(wanted));
    }
    wanted.resize(4);
    const uint32_t time = wanted[0] + 256u * wanted[1] + 65'536u * wanted[2] + 16'777'216u * wanted[3];
    require(time <= tx_.locktime);
    require(time >= 500'000'000 || tx_.locktime < 500'000'000);
    require(tx_.inputs.at(0).sequence < 0xffffffff);
  }

  const Transaction& tx_;
  Bytes script_;
  size_t at_ = 0;
  const std::map<uint8_t, std::function<void()>> actions_ = {
      {0x6d, [this] { pop(), pop(); }},
      {0x75, [this] { pop(); }},
      {0x76, [this] { stack.push_back(top()); }},
      {0x87, [this] { push_flag(pop() == pop()); }},
      {0x88, [this] { require(pop() == pop()); }},
      {0xa8, [this] { stack.push_back(crypto::sha256(pop()).to_bytes()); }},
      {0xa9, [this] { stack.push_back(crypto::hash160(pop())); }},
      {0xac, [this] { pop(), pop(), push_flag(false); }},  // random signatures never are valid
      {0xb1, [this] { check_lock_time(); }},
  };
};

// A program that mostly runs well on a stack of `depth` elements, which it updates.
Bytes random_program(std::mt19937_64& random, int& depth) {
  struct Step {
    Bytes bytes;
    int depth_change, nesting_change;
  };
  static const Step kSteps[] = {
      {hex("76"), 1, 0},   {hex("76"), 1, 0},  {hex("76"), 1, 0},   {hex("87"), -1, 0},   {hex("a8"), 0, 0},
      {hex("a9"), 0, 0},   {hex("75"), -1, 0}, {hex("6d"), -2, 0},  {hex("ac"), -1, 0},   {hex("7688"), -1, 0},
      {hex("5163"), 0, 1}, {hex("63"), -1, 1}, {hex("0063"), 0, 1}, {hex("0064"), 0, 1},  {hex("64"), -1, 1},
      {hex("67"), 0, 0},   {hex("67"), 0, 0},  {hex("68"), 0, -1},  {hex("b175"), -1, 0},
  };
  const auto below = [&](uint64_t limit) { return random() % limit; };
  Script program;
  int nesting = 0;
  for (uint64_t steps = below(20); steps > 0; --steps) {
    const Step& step = kSteps[below(std::size(kSteps))];
    const bool needs_conditional = step.bytes[0] == 0x67 || step.bytes[0] == 0x68;
    if (depth >= 3 && below(3) > 0 && (nesting > 0 || !needs_conditional)) {
      append(program.bytes, step.bytes);
      depth += step.depth_change;
      nesting += step.nesting_change;
      continue;
    }
    ++depth;
    switch (below(3)) {
      case 0:
        program.push_data(random_bytes(random, below(8) == 0 ? below(500) : below(4)));
        break;
      case 1:  // about as large as the lock times of the transaction, of either sign and any length
        program.push_data(join({{static_cast<uint8_t>(below(6))}, Bytes(below(7)), Bytes(below(8) == 0, 0x80)}));
        break;
      default:
        program.bytes.push_back(static_cast<uint8_t>(0x51 + below(16)));
    }
  }
  program.bytes.insert(program.bytes.end(), static_cast<size_t>(nesting), 0x68);
  if (below(40) == 0) {
    program.bytes.resize(below(program.bytes.size() + 1));
  } else if (below(40) == 0 && !program.bytes.empty()) {
    program.bytes[below(program.bytes.size())] = static_cast<uint8_t>(random());
  }
  return program.bytes;
}

TEST(ScriptModel, AgreesWithTheInterpreterOnRandomPrograms) {
  std::mt19937_64 random(kSeed);
  Transaction tx = sample_transaction();
  Model model(tx);
  int succeeded = 0;
  for (int i = 0; i < kPrograms; ++i) {
    tx.locktime = random() % 8 == 0 ? 600'000'000 : static_cast<uint32_t>(3 + random() % 3);
    tx.inputs[0].sequence = random() % 8 == 0 ? 0xffffffff : 5;
    int depth = 0;
    const Bytes unlocking = random_program(random, depth);
    const Bytes locking = random_program(random, depth);
    SCOPED_TRACE(crypto::bytes_to_hex(unlocking) + " / " + crypto::bytes_to_hex(locking));
    ScriptStack stack;
    const bool ran = ScriptInterpreter::execute_script(Script(unlocking), stack, tx, 0) &&
                     ScriptInterpreter::execute_script(Script(locking), stack, tx, 0);
    ASSERT_EQ(ran, model.run(unlocking, locking));
    ASSERT_TRUE(!ran || std::vector<Bytes>(stack.begin(), stack.end()) == model.stack);
    const bool top_true = ran && !model.stack.empty() && truth(model.stack.back());
    ASSERT_EQ(ScriptInterpreter::verify_script(tx, 0, Script(unlocking), Script(locking)), top_true);
    succeeded += ran;
  }
  EXPECT_GT(succeeded, kPrograms / 4);
  EXPECT_LT(succeeded, kPrograms * 9 / 10);
}

}  // namespace
}  // namespace norvel
