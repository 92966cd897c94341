// The rules that a data directory was made with, remembered in DATADIR/params: a
// chain that was made by other rules would be refused block by block.
//
// The file has the lines of settings_file.h, each key once:
//   retarget-interval, target-spacing, distribution-interval
//
// Threads: free functions without state.

#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "chain/blockchain.h"
#include "consensus/retarget.h"
#include "node/options.h"

namespace norvel::node {

struct NodeParams {
  uint32_t retarget_interval = consensus::DifficultyConfig().retarget_interval;  // blocks
  uint32_t target_spacing_s = consensus::DifficultyConfig().target_spacing;      // seconds
  uint32_t distribution_interval = ChainOptions().distribution_interval;         // blocks

  bool operator==(const NodeParams&) const = default;

  consensus::DifficultyConfig difficulty() const { return {retarget_interval, target_spacing_s, false}; }
};

// What the directory was made with; one that holds blocks but no such file was
// made with the defaults. Nothing for a directory without either. Throws
// std::runtime_error ("FILE:LINE: ...") for a file that does not read back.
std::optional<NodeParams> read_params(const std::string& directory);

// The rules to check the directory by: those that it was made with, or for one
// without any the defaults. Throws as settle_params() and writes nothing.
NodeParams read_params_for_check(const std::string& directory, const Options& options);

// The rules to run with: those of the directory, or for a new one `options` over
// the defaults, which are then written. Under the directory's lock. Throws
// std::runtime_error with a line for the user when the options ask for others,
// when the rules cannot be computed with, or when the file cannot be read or
// written.
NodeParams settle_params(const std::string& directory, const Options& options);

}  // namespace norvel::node
