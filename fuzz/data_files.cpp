// The smaller files of a data directory, as their readers
// find them at a start.

#include <fcntl.h>

#include "chain/undo_journal.h"
#include "chain/utxo_set.h"
#include "core/file_io.h"
#include "live_chain.h"
#include "mempool/admission.h"
#include "network/address_book.h"
#include "node/mempool_file.h"

namespace {

using namespace norvel;

// What was read is written so that it reads the same.
void read_outputs(const std::string& path) {
  UTXOSet outputs;
  if (outputs.load_from_file(path)) {
    UTXOSet again;
    require(outputs.save_to_file(path) && again.load_from_file(path) && again.size() == outputs.size());
  }
}

void read_peers(const std::string& path) {
  const network::NetworkClock clock;
  network::AddressBook book(clock);
  const auto count = book.load(path);
  require(count && *count <= network::kKnownPeersMax && book.save(path));
  network::AddressBook again(clock);
  require(again.load(path).has_value());
}

// A damaged tail is dropped by the first sync, and is gone then.
void read_undo_journal(const std::string& path) {
  UndoJournal journal(path);
  journal.load();
  require(journal.size() == 0 && journal.sync());
}

void read_pool(const std::string& directory) {
  static LiveChain live;
  TransactionAdmission admission(*live.chain, *live.pool);
  const node::StopRequest stop;
  require(node::load_mempool(admission, directory, stop));
  require(live.pool->size() == 0);  // a chain without coins
}

}  // namespace

// The first byte says which file the others are.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const ScratchDirectory directory;
  if (size == 0) {
    return 0;
  }
  const std::string path = directory.path() + norvel::node::kMempoolFile;
  {
    const FileDescriptor file = open_file(path, O_WRONLY | O_CREAT | O_TRUNC);
    require(file.is_open() && write_all(file.get(), {data + 1, size - 1}));
  }
  switch (data[0] % 4) {
    case 0:
      read_outputs(path);
      break;
    case 1:
      read_peers(path);
      break;
    case 2:
      read_undo_journal(path);
      break;
    default:
      read_pool(directory.path());
  }
  return 0;
}
