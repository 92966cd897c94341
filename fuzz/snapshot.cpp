#include "chain/snapshot_codec.h"

#include "crypto/hash.h"
#include "fuzz_target.h"

// The input is a snapshot without its checksum, which is made here so that the
// sections are reached.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace norvel;
  Bytes file(data, data + size);
  append(file, crypto::sha256(file).bytes());
  SnapshotData snapshot;
  std::string reason;
  if (!decode_snapshot(file, snapshot, reason)) {
    require(!reason.empty());
    return 0;
  }
  const auto encode = [](SnapshotData& from) {
    UTXOSet utxos;
    utxos.assign(std::move(from.outputs));
    return encode_snapshot(from.header, utxos, from.treasury, from.indexes);
  };
  const Bytes first = encode(snapshot);
  require(decode_snapshot(first, snapshot, reason));
  require(encode(snapshot) == first);
  return 0;
}
