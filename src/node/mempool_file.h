// The pool of transactions between two runs of the node, DATADIR/mempool.dat.
//
//   magic        8  "NPOOL001"
//   then, to the end of the file:
//     length L   4  little-endian, 1 to kBlockBytesMax
//     bytes      L  a transaction
// Parents stand before their children.
//
// The file is advice, not state: whatever it holds is validated as if it came
// from a peer.
//
// Threads: free functions; pool and chain have locks of their own.

#pragma once

#include <cstdint>
#include <string>

#include "mempool/admission.h"
#include "mempool/mempool.h"
#include "node/stop_request.h"

namespace norvel::node {

inline constexpr const char kMempoolFile[] = "/mempool.dat";

// Puts the pool's transactions into the file, in place of the old one. What was
// not reached within `time_ms` is left out, which a line tells. False, and a line, on failure, also
// when nothing of a pool was reached; the old file then stays as it was.
bool save_mempool(const Mempool& pool, const std::string& directory, int64_t time_ms);

// Offers what the file holds to the pool, and prints how many were taken; of a
// large file also that it is being loaded, and how far that has come. Damage
// ends the reading with a line; a missing file is none. One record at a time is
// in memory. False when a stop was requested before the end.
bool load_mempool(TransactionAdmission& admission, const std::string& directory, const StopRequest& stop);

}  // namespace norvel::node
