// A second interpreter, made to be compared with the first: it parses a script
// into a tree of blocks and walks the tree recursively over plain byte strings.
// Slow, and only for scripts of moderate nesting.

#pragma once

#include <optional>
#include <vector>

#include "core/bytes.h"
#include "core/transaction.h"

namespace norvel {

// The stack that the two scripts leave one after the other, the last element on
// top; nullopt when either fails.
std::optional<std::vector<Bytes>> model_run(const std::vector<Bytes>& scripts, const Transaction& tx,
                                            size_t input_index);

}  // namespace norvel
