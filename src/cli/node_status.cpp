#include "cli/node_status.h"

#include <string_view>

#include "cli/amount.h"
#include "core/console.h"
#include "core/number_text.h"

namespace norvel::cli {

namespace {

using rpc::JsonType;
using rpc::JsonValue;

constexpr size_t kLabelWidth = 14;
constexpr int kDifficultyDecimals = 4;

std::string line(std::string_view label, const std::string& text) {
  std::string out(label);
  out += ':';
  out.append(kLabelWidth - out.size(), ' ');
  return out + text + "\n";
}

std::string figure(const JsonValue& value) {
  return value.type == JsonType::kNumber ? console::printable(value.to_string()) : "?";
}

std::string treasury_text(const JsonValue& balance) {
  if (balance.type != JsonType::kNumber) {
    return "?";
  }
  try {
    return coins_text(read_units(balance, "the treasury's balance")) + " NVL";
  } catch (const std::exception&) {
    return "more than JSON can carry exactly";
  }
}

std::string height_text(const JsonValue& status) {
  const JsonValue& best_known = status.get("best_known_height");
  const bool is_behind = best_known.type == JsonType::kNumber && best_known.number > status.get("height").number;
  return figure(status.get("height")) + (is_behind ? " of " + figure(best_known) + " known" : "");
}

std::string difficulty_text(const JsonValue& difficulty) {
  return difficulty.type == JsonType::kNumber ? to_fixed(difficulty.number, kDifficultyDecimals) : "?";
}

std::string tip_age_text(const JsonValue& status, int64_t now) {
  return status.get("tip_time").type == JsonType::kNumber ? std::to_string(tip_age_s(status, now)) + " s" : "?";
}

}  // namespace

int64_t tip_age_s(const JsonValue& status, int64_t now) {
  // Bounded on both sides, so that the difference fits whatever the node says.
  const uint32_t tip_time = rpc::to_u32(status.get("tip_time").number);
  return now - int64_t{tip_time};
}

std::string status_text(const JsonValue& status, int64_t now) {
  const JsonValue& tip = status.get("tip");
  std::string text = line("Height", height_text(status));
  text += line("Tip", tip.type == JsonType::kString ? console::printable(tip.string) : "?");
  text += line("Tip age", tip_age_text(status, now));
  text += line("Difficulty", difficulty_text(status.get("difficulty")));
  text += line("Peers", figure(status.get("peers_in")) + " in, " + figure(status.get("peers_out")) + " out");
  text += line("Mempool",
               figure(status.get("mempool_size")) + " transactions, " + figure(status.get("mempool_bytes")) + " bytes");
  text += line("Treasury", treasury_text(status.get("treasury_balance")));
  text += line("Uptime", figure(status.get("uptime")) + " s");
  const std::vector<JsonValue>& warnings = status.get("warnings").array;
  if (warnings.empty()) {
    text += line("Warnings", "none");
  }
  for (const JsonValue& warning : warnings) {
    text += line("Warning", console::printable(warning.string));
  }
  return text;
}

std::vector<std::string> find_complaints(const JsonValue& status, int64_t now) {
  std::vector<std::string> complaints;
  if (status.get("tip_time").type != JsonType::kNumber) {
    complaints.emplace_back("The node does not tell its tip");
  } else if (const int64_t age = tip_age_s(status, now); age >= kTipAgeMaxS) {
    complaints.push_back("The tip is " + std::to_string(age) + " s old");
  }
  for (const JsonValue& warning : status.get("warnings").array) {
    complaints.push_back("Warning: " + console::printable(warning.string));
  }
  return complaints;
}

}  // namespace norvel::cli
