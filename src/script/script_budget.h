// What the scripts of a transaction may cost before relay refuses it. Blocks
// have no budget.

#pragma once

#include <cstdint>

namespace norvel {

// A check takes the time of more bytes than these; but as many checks as relay
// allows still fit with the scripts that honest ones stand in.
inline constexpr uint64_t kSignatureCheckBytes = 450;

// Threads: a plain value; one transaction's inputs share one, in turn.
struct ScriptBudget {
  uint64_t signature_checks_left = 0;
  uint64_t hash_bytes_left = 0;  // by OP_SHA256, OP_HASH160 and signature hashes
  // Of scripts run: an operation takes a byte at least and costs time, counted or
  // not. A signature check counts as kSignatureCheckBytes more.
  uint64_t script_bytes_left = 0;
  bool exceeded = false;  // set by what found too little left, which then fails the script
};

}  // namespace norvel
