// The interpreter against the model on random programs.

#include <gtest/gtest.h>

#include <array>
#include <random>

#include "crypto/crypto_testing.h"
#include "crypto/keys.h"
#include "crypto/signature.h"
#include "script/interpreter.h"
#include "script/script.h"
#include "script/script_model.h"
#include "script/script_testing.h"
#include "script/sighash.h"

namespace norvel {
namespace {

constexpr uint64_t kSeed = 0x5eed0f5c21975;
constexpr int kPrograms = 250'000;
constexpr int kSignedEvery = 500;  // signing takes the time of a thousand programs

class ProgramGenerator {
 public:
  explicit ProgramGenerator(std::mt19937_64& random) : random_(random) {}

  // Mostly runs well on a stack of `depth` elements, and updates it.
  Bytes program(int& depth) {
    program_ = Script();
    depth_ = depth;
    append_block(static_cast<int>(below(14)), 0);
    if (one_in(40)) {
      spoil();
    }
    depth = depth_;
    return program_.bytes;
  }

 private:
  uint64_t below(uint64_t limit) { return random_() % limit; }
  bool one_in(uint64_t count) { return below(count) == 0; }

  void append_block(int steps, int nesting) {
    for (int i = 0; i < steps; ++i) {
      if (nesting < 5 && one_in(6)) {
        append_conditional(nesting);
      } else if (depth_ < 2 || one_in(3)) {
        append_push();
      } else {
        append_operation();
      }
    }
  }

  void append_conditional(int nesting) {
    append_push();
    program_.push_opcode(one_in(2) ? OpCode::OP_IF : OpCode::OP_NOTIF);
    const int before = --depth_;
    for (uint64_t arm = below(3);; --arm) {
      depth_ = before;
      append_block(static_cast<int>(below(5)), nesting + 1);
      if (arm == 0) {
        break;
      }
      program_.push_opcode(OpCode::OP_ELSE);
    }
    program_.push_opcode(OpCode::OP_ENDIF);
  }

  void append_push() {
    ++depth_;
    switch (below(5)) {
      case 0:
        program_.push_data({});
        break;
      case 1:
        program_.push_data(crypto::random_bytes(random_, 1 + below(6)));
        break;
      case 2:
        program_.push_data(Bytes(one_in(8) ? 70 + below(400) : below(4), static_cast<uint8_t>(below(2) * 0x80)));
        break;
      default:
        program_.bytes.push_back(static_cast<uint8_t>(0x51 + below(one_in(2) ? 16 : 2)));
    }
  }

  void append_operation() {
    struct Operation {
      OpCode opcode;
      int depth_change;
    };
    static constexpr std::array<Operation, 12> kOperations = {{{OpCode::OP_DUP, 1},
                                                               {OpCode::OP_DUP, 1},
                                                               {OpCode::OP_DUP, 1},
                                                               {OpCode::OP_EQUAL, -1},
                                                               {OpCode::OP_SHA256, 0},
                                                               {OpCode::OP_HASH160, 0},
                                                               {OpCode::OP_SHA256, 0},
                                                               {OpCode::OP_HASH160, 0},
                                                               {OpCode::OP_DROP, -1},
                                                               {OpCode::OP_2DROP, -2},
                                                               {OpCode::OP_CHECKSIG, -1},
                                                               {OpCode::OP_CHECKLOCKTIMEVERIFY, 0}}};
    const Operation& operation = kOperations[below(kOperations.size())];
    if (operation.opcode == OpCode::OP_CHECKLOCKTIMEVERIFY) {
      append_lock_time();
    } else if (one_in(20)) {
      program_.push_opcode(OpCode::OP_DUP);
      program_.push_opcode(OpCode::OP_EQUALVERIFY);
      --depth_;
      return;
    }
    program_.push_opcode(operation.opcode);
    depth_ += operation.depth_change;
  }

  // About as large as the lock times of the transaction, of either sign and
  // any length.
  void append_lock_time() {
    Bytes number(below(8), 0);
    if (!number.empty()) {
      number.front() = static_cast<uint8_t>(below(6));
      number.back() = static_cast<uint8_t>(number.back() | (one_in(8) ? 0x80 : 0));
    }
    program_.push_data(number);
    ++depth_;
  }

  void spoil() {
    const uint64_t at = below(program_.bytes.size() + 1);
    if (one_in(2)) {
      program_.bytes.resize(at);
    } else {
      program_.bytes.insert(program_.bytes.begin() + static_cast<ptrdiff_t>(at), static_cast<uint8_t>(random_()));
    }
  }

  std::mt19937_64& random_;
  Script program_;
  int depth_ = 0;
};

TEST(ScriptModel, AgreesWithTheInterpreterOnRandomPrograms) {
  std::mt19937_64 random(kSeed);
  ProgramGenerator generator(random);
  const Bytes secret(32, 7);
  const Bytes pub = crypto::derive_public_key(secret);
  Transaction tx = sample_transaction();
  int succeeded = 0, true_count = 0, signed_count = 0;
  for (int i = 0; i < kPrograms; ++i) {
    tx.locktime = random() % 8 == 0 ? 600'000'000 : static_cast<uint32_t>(3 + random() % 3);
    tx.inputs[0].sequence = random() % 8 == 0 ? 0xffffffff : 5;
    int depth = 0;
    Bytes unlocking = generator.program(depth);
    Bytes locking = generator.program(depth);
    if (i % kSignedEvery == 0) {
      locking.insert(locking.begin(), 0xac);
      const uint256 hash = SignatureHasher::compute_signature_hash(tx, 0, Script(locking), static_cast<uint8_t>(i));
      Script push;
      push.push_data(join({crypto::sign_message(hash.bytes(), secret), {static_cast<uint8_t>(i)}}));
      push.push_data(pub);
      append(unlocking, push.bytes);
    }

    ScriptStack stack;
    const bool ran = ScriptInterpreter::execute_script(Script(unlocking), stack, tx, 0) &&
                     ScriptInterpreter::execute_script(Script(locking), stack, tx, 0);
    const auto model = model_run({unlocking, locking}, tx, 0);
    const std::vector<Bytes> left(stack.begin(), stack.end());
    ASSERT_TRUE(ran ? model == left : !model)
        << "seed " << kSeed << ", program " << i << ": " << crypto::bytes_to_hex(unlocking) << " / "
        << crypto::bytes_to_hex(locking);
    const bool top_true = model && !model->empty() && model->back() != Bytes(model->back().size());
    ASSERT_EQ(ScriptInterpreter::verify_script(tx, 0, Script(unlocking), Script(locking)), top_true) << i;
    succeeded += ran;
    true_count += top_true;
    signed_count += top_true && i % kSignedEvery == 0;
  }
  std::cout << "seed " << kSeed << ": " << succeeded << " of " << kPrograms << " ran, " << true_count << " true, "
            << signed_count << " of those signed\n";
  EXPECT_GT(succeeded, kPrograms / 4);
  EXPECT_LT(succeeded, kPrograms * 9 / 10);
  EXPECT_GT(true_count, kPrograms / 10);
  EXPECT_GT(signed_count, kPrograms / kSignedEvery / 10);
}

}  // namespace
}  // namespace norvel
