// The options of a node, each once: name, what --help says, which values it
// takes and where they go.
//
// Threads: immutable.

#pragma once

#include <functional>
#include <span>
#include <string>
#include <vector>

#include "node/options.h"

namespace norvel::node {

enum class OptionKind { FLAG, VALUE, LIST };

struct OptionRow {
  std::string name;        // without dashes; the key in a config file
  std::string value_name;  // empty for a flag
  std::string help;        // empty: not shown
  OptionKind kind = OptionKind::VALUE;

  // What is wrong with a value; empty when nothing is. A flag takes true and false.
  std::function<std::string(const std::string& value)> check;

  // Stores checked values, at least one, replacing what was there.
  std::function<void(Options& options, std::span<const std::string> values)> store;

  bool is_path = false;  // names a file or directory
};

const std::vector<OptionRow>& option_table();

// Null for an unknown name.
const OptionRow* find_option(const std::string& name);

}  // namespace norvel::node
