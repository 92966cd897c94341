#include "node/node_params.h"

#include <cerrno>
#include <charconv>
#include <cstring>
#include <filesystem>
#include <limits>
#include <set>
#include <stdexcept>

#include "chain/block_files.h"
#include "core/file_io.h"
#include "core/settings_file.h"

namespace norvel::node {

namespace {

constexpr char kFileName[] = "/params";

struct Rule {
  const char* name;
  uint32_t NodeParams::*value;
  std::optional<uint32_t> Options::*asked;
};

constexpr Rule kRules[] = {
    {"retarget-interval", &NodeParams::retarget_interval, &Options::retarget_interval},
    {"target-spacing", &NodeParams::target_spacing_s, &Options::target_spacing_s},
    {"distribution-interval", &NodeParams::distribution_interval, &Options::distribution_interval},
};

const Rule* find_rule(const std::string& name) {
  for (const Rule& rule : kRules) {
    if (name == rule.name) {
      return &rule;
    }
  }
  return nullptr;
}

uint32_t parse_value(const std::string& path, const Setting& setting) {
  uint32_t value = 0;
  const char* const end = setting.value.data() + setting.value.size();
  const auto [stop, failure] = std::from_chars(setting.value.data(), end, value);
  if (failure != std::errc() || stop != end || value == 0) {
    refuse_setting(path, setting, setting.key + ": '" + setting.value + "' is not a rule");
  }
  return value;
}

std::string to_text(const NodeParams& params) {
  std::string text = "# The rules that this chain was made with. Another value makes its blocks invalid.\n";
  for (const Rule& rule : kRules) {
    text += std::string(rule.name) + " = " + std::to_string(params.*rule.value) + "\n";
  }
  return text;
}

// The retarget rule computes four times the span in 32 bits.
void check_span(const NodeParams& params) {
  constexpr uint64_t kSpanMax = std::numeric_limits<uint32_t>::max() / 4;
  if (uint64_t{params.retarget_interval} * params.target_spacing_s > kSpanMax) {
    throw std::runtime_error("--retarget-interval times --target-spacing exceeds " + std::to_string(kSpanMax) +
                             " seconds");
  }
}

void refuse_other_rules(const std::string& directory, const NodeParams& made_with, const Options& options) {
  for (const Rule& rule : kRules) {
    const std::optional<uint32_t> asked = options.*rule.asked;
    const uint32_t value = made_with.*rule.value;
    if (asked && *asked != value) {
      throw std::runtime_error("data directory " + directory + " was made with --" + rule.name + " " +
                               std::to_string(value) + ", not " + std::to_string(*asked));
    }
  }
}

}  // namespace

std::optional<NodeParams> read_params(const std::string& directory) {
  const std::string path = directory + kFileName;
  const auto settings = read_settings(path);
  if (!settings) {
    std::error_code ignored;
    const bool has_blocks = std::filesystem::exists(directory + "/" + block_file_name(0), ignored);
    return has_blocks ? std::optional(NodeParams()) : std::nullopt;
  }
  NodeParams params;
  std::set<std::string> seen;
  for (const Setting& setting : *settings) {
    const Rule* rule = find_rule(setting.key);
    if (rule == nullptr || !seen.insert(setting.key).second) {
      refuse_setting(path, setting, setting.key + ": unknown or standing here twice");
    }
    params.*rule->value = parse_value(path, setting);
  }
  if (seen.size() != std::size(kRules)) {
    throw std::runtime_error(path + ": a rule is missing");
  }
  check_span(params);
  return params;
}

NodeParams read_params_for_check(const std::string& directory, const Options& options) {
  const auto made_with = read_params(directory);
  if (made_with) {
    refuse_other_rules(directory, *made_with, options);
  }
  return made_with.value_or(NodeParams());
}

NodeParams settle_params(const std::string& directory, const Options& options) {
  if (const auto made_with = read_params(directory)) {
    refuse_other_rules(directory, *made_with, options);
    return *made_with;
  }
  NodeParams params;
  for (const Rule& rule : kRules) {
    params.*rule.value = (options.*rule.asked).value_or(params.*rule.value);
  }
  check_span(params);
  const std::string text = to_text(params);
  if (!replace_file(directory + kFileName, {reinterpret_cast<const uint8_t*>(text.data()), text.size()})) {
    throw std::runtime_error(directory + kFileName + ": " + std::strerror(errno));
  }
  return params;
}

}  // namespace norvel::node
