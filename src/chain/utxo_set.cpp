#include "chain/utxo_set.h"

#include <filesystem>
#include <fstream>
#include <limits>
#include <stdexcept>

namespace norvel {

namespace {

void write_bytes(std::ofstream& file, ByteView bytes) {
  file.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

void write_record(std::ofstream& file, const Bytes& record) {
  write_bytes(file, to_le(static_cast<uint32_t>(record.size())));
  write_bytes(file, record);
}

struct UnopenedFile {};

// Reads a file front to back and knows how much of it is left, so that no
// length in it sizes an allocation beyond the file.
class RecordReader {
 public:
  // Opens regular files only: another kind may block, or have no size.
  explicit RecordReader(const std::string& path) {
    std::error_code failure;
    if (std::filesystem::is_regular_file(path, failure)) {
      file_.open(path, std::ios::binary);
      left_ = std::filesystem::file_size(path, failure);
    }
    if (!file_.is_open() || failure) {
      throw UnopenedFile();
    }
  }

  uint32_t read_u32() {
    size_t offset = 0;
    return read_le<uint32_t>(read(4), offset);
  }

  Bytes read_record() { return read(read_u32()); }
  bool at_end() const { return left_ == 0; }

 private:
  Bytes read(size_t len) {
    if (len > left_) {
      throw std::runtime_error(kNotEnoughData);
    }
    Bytes bytes(len);
    if (!file_.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(len))) {
      throw std::runtime_error("Read failed");
    }
    left_ -= len;
    return bytes;
  }

  std::ifstream file_;
  uintmax_t left_ = 0;
};

template <class Record>
Record decode_whole(const Bytes& bytes) {
  size_t offset = 0;
  Record record = Record::deserialize(bytes, offset);
  if (offset != bytes.size()) {
    throw std::runtime_error("Record longer than its content");
  }
  return record;
}

}  // namespace

void UTXOSet::add_utxo(const OutPoint& outpoint, const TxOut& txout) {
  const MutexLock lock(mutex_);
  outputs_.insert_or_assign(outpoint, txout);
}

void UTXOSet::remove_utxo(const OutPoint& outpoint) {
  const MutexLock lock(mutex_);
  outputs_.erase(outpoint);
}

std::optional<TxOut> UTXOSet::get_utxo(const OutPoint& outpoint) const {
  const MutexLock lock(mutex_);
  const auto found = outputs_.find(outpoint);
  return found == outputs_.end() ? std::nullopt : std::optional(found->second);
}

bool UTXOSet::has_utxo(const OutPoint& outpoint) const {
  const MutexLock lock(mutex_);
  return outputs_.contains(outpoint);
}

void UTXOSet::apply_transaction(const Transaction& tx) {
  const MutexLock lock(mutex_);
  for (const TxIn& input : tx.inputs) {
    if (!input.prevout.is_null()) {
      outputs_.erase(input.prevout);
    }
  }
  const uint256 txid = tx.get_txid();
  for (size_t i = 0; i < tx.outputs.size(); ++i) {
    outputs_.insert_or_assign({txid, static_cast<uint32_t>(i)}, tx.outputs[i]);
  }
}

void UTXOSet::unapply_transaction(const Transaction& tx) {
  const MutexLock lock(mutex_);
  const uint256 txid = tx.get_txid();
  for (size_t i = 0; i < tx.outputs.size(); ++i) {
    outputs_.erase({txid, static_cast<uint32_t>(i)});
  }
}

int64_t UTXOSet::get_balance(const Bytes& pubkey_hash) const {
  const MutexLock lock(mutex_);
  uint64_t sum = 0;
  for (const auto& [outpoint, output] : outputs_) {
    if (output.get_pubkey_hash() == pubkey_hash) {
      sum += static_cast<uint64_t>(output.value);
    }
  }
  return static_cast<int64_t>(sum);
}

std::vector<std::pair<OutPoint, TxOut>> UTXOSet::get_utxos_for_address(const Bytes& pubkey_hash) const {
  const MutexLock lock(mutex_);
  std::vector<std::pair<OutPoint, TxOut>> matches;
  for (const auto& entry : outputs_) {
    if (entry.second.get_pubkey_hash() == pubkey_hash) {
      matches.push_back(entry);
    }
  }
  return matches;
}

std::map<OutPoint, TxOut> UTXOSet::get_all() const {
  const MutexLock lock(mutex_);
  return outputs_;
}

size_t UTXOSet::size() const {
  const MutexLock lock(mutex_);
  return outputs_.size();
}

void UTXOSet::clear() {
  const MutexLock lock(mutex_);
  outputs_.clear();
}

void UTXOSet::visit(const std::function<void(const OutPoint&, const TxOut&)>& visitor) const {
  const MutexLock lock(mutex_);
  for (const auto& [outpoint, output] : outputs_) {
    visitor(outpoint, output);
  }
}

std::optional<OutPoint> UTXOSet::visit_after(const std::optional<OutPoint>& outpoint, size_t count_max,
                                             const std::function<void(const OutPoint&, const TxOut&)>& visitor) const {
  const MutexLock lock(mutex_);
  std::optional<OutPoint> last;
  auto entry = outpoint ? outputs_.upper_bound(*outpoint) : outputs_.begin();
  for (size_t count = 0; count < count_max && entry != outputs_.end(); ++count, ++entry) {
    visitor(entry->first, entry->second);
    last = entry->first;
  }
  return last;
}

void UTXOSet::assign(std::vector<std::pair<OutPoint, TxOut>> ascending) {
  std::map<OutPoint, TxOut> outputs;
  for (auto& entry : ascending) {
    outputs.insert(outputs.end(), std::move(entry));
  }
  const MutexLock lock(mutex_);
  outputs_.swap(outputs);
}

bool UTXOSet::save_to_file(const std::string& path) const {
  const MutexLock lock(mutex_);
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  if (!file) {
    return false;
  }
  if (outputs_.size() > std::numeric_limits<uint32_t>::max()) {
    return false;
  }
  write_bytes(file, to_le(static_cast<uint32_t>(outputs_.size())));
  for (const auto& [outpoint, output] : outputs_) {
    write_record(file, outpoint.serialize());
    write_record(file, output.serialize());
  }
  file.close();
  return file.good();
}

bool UTXOSet::load_from_file(const std::string& path) {
  const MutexLock lock(mutex_);
  try {
    RecordReader reader(path);
    outputs_.clear();
    const uint32_t count = reader.read_u32();
    for (uint32_t i = 0; i < count; ++i) {
      const auto outpoint = decode_whole<OutPoint>(reader.read_record());
      outputs_.insert_or_assign(outpoint, decode_whole<TxOut>(reader.read_record()));
    }
    if (reader.at_end()) {
      return true;
    }
    outputs_.clear();
  } catch (const UnopenedFile&) {
    // Nothing was read.
  } catch (const std::exception&) {
    outputs_.clear();
  }
  return false;
}

}  // namespace norvel
