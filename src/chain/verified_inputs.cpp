#include "chain/verified_inputs.h"

#include <algorithm>

#include "crypto/hash.h"
#include "crypto/keys.h"
#include "script/interpreter.h"

namespace norvel {

// The salt is 32 bytes that nobody knows, from the generator that makes keys.
VerifiedInputs::VerifiedInputs(size_t entry_count)
    : salt_(crypto::generate_keypair().first),
      bucket_count_(std::max<size_t>(entry_count / kBucketEntries, 1)),
      buckets_(bucket_count_) {}

VerifiedInputs::Place VerifiedInputs::place_of(const Transaction& tx, size_t input_index, const TxOut& spent) const {
  Bytes key = salt_;
  append(key, tx.get_txid().bytes());
  append_le(key, uint64_t{input_index});
  append(key, spent.locking_script());  // last, as the only part of varying length
  const uint256 digest = crypto::sha256(key);
  const ByteView bytes = digest.bytes();
  Place place;
  std::copy_n(bytes.begin(), place.entry.size(), place.entry.begin());
  size_t offset = place.entry.size();
  place.bucket_index = read_le<uint64_t>(bytes, offset) % bucket_count_;
  place.victim_index = read_le<uint64_t>(bytes, offset) % kBucketEntries;
  return place;
}

bool VerifiedInputs::holds(const Place& place) const {
  const MutexLock lock(mutex_);
  const Bucket& bucket = buckets_[place.bucket_index];
  return std::find(bucket.begin(), bucket.end(), place.entry) != bucket.end();
}

void VerifiedInputs::insert(const Place& place) {
  const MutexLock lock(mutex_);
  Bucket& bucket = buckets_[place.bucket_index];
  if (std::find(bucket.begin(), bucket.end(), place.entry) != bucket.end()) {
    return;
  }
  const auto free = std::find(bucket.begin(), bucket.end(), kFree);
  (free != bucket.end() ? *free : bucket[place.victim_index]) = place.entry;
}

bool VerifiedInputs::verify(const Transaction& tx, size_t input_index, const TxOut& spent) {
  const Place place = place_of(tx, input_index, spent);
  if (holds(place)) {
    return true;
  }
  if (!ScriptInterpreter::verify_input_signature(tx, input_index, spent)) {
    return false;
  }
  insert(place);
  return true;
}

bool VerifiedInputs::contains(const Transaction& tx, size_t input_index, const TxOut& spent) const {
  return holds(place_of(tx, input_index, spent));
}

void VerifiedInputs::remember(const Transaction& tx, size_t input_index, const TxOut& spent) {
  insert(place_of(tx, input_index, spent));
}

}  // namespace norvel
