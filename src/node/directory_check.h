// norveld --check: verifies what a data directory holds without changing it.
//
// Checked: every record of the block files is readable (its body matches its
// Merkle root) and in the file where the index looks for it; the index leads from
// the genesis block to the tip, with the bits that the rules ask for; the state
// replayed from the blocks equals the treasury and supply of the database, and
// at its height the snapshot, byte for byte. Signatures are not verified again: a
// start with --rebuild does that.
//
// Cost: the block files are read twice, the whole state is in memory, and the
// database is copied to a directory under $TMPDIR (or /tmp), since LevelDB
// changes what it opens.
//
// Threads: free functions without state.

#pragma once

#include "node/options.h"
#include "node/stop_request.h"

namespace norvel::node {

// Checks the options' data directory, under its lock. Prints what was found and
// returns the exit status: 0 when nothing is wrong, else 1, also when a stop was
// requested or the options ask for other rules than the directory was made with.
// Sets the difficulty rule to that of the directory.
int check_directory(const Options& options, const StopRequest& stop);

}  // namespace norvel::node
