#include "node/mempool_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <set>
#include <stdexcept>
#include <string_view>
#include <vector>

#include "core/block.h"
#include "core/console.h"
#include "core/file_io.h"

namespace norvel::node {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::string_view kMagic = "NPOOL001";
constexpr size_t kLengthBytes = 4;
constexpr size_t kBufferBytes = 1 << 20;

// A larger file may take long to load, which is told before and every so often.
constexpr uint64_t kLargeFileBytes = 1'000'000;
constexpr std::chrono::seconds kProgressPeriod{10};

// Walks the ids of the pool, parents before their children, as long as `take`
// returns true. A transaction that leaves the pool meanwhile is simply not found.
template <class Take>
void walk_in_order(const Mempool& pool, const std::vector<uint256>& txids, const Take& take) {
  std::set<uint256> seen;
  std::vector<std::pair<uint256, bool>> open;  // and whether its parents are done
  for (const uint256& root : txids) {
    open.emplace_back(root, false);
    while (!open.empty()) {
      const auto [txid, is_ready] = open.back();
      open.pop_back();
      if (is_ready) {
        if (!take(txid)) {
          return;
        }
      } else if (seen.insert(txid).second) {
        open.emplace_back(txid, true);
        for (const OutPoint& spent : pool.get_prevouts(txid)) {
          if (!seen.contains(spent.txid) && pool.has_transaction(spent.txid)) {
            open.emplace_back(spent.txid, false);
          }
        }
      }
    }
  }
}

bool write_pool(const Mempool& pool, const std::string& path, Clock::time_point deadline) {
  const FileDescriptor file = open_file(path, O_WRONLY | O_CREAT | O_TRUNC | O_NONBLOCK);
  if (!file.is_open()) {
    return false;
  }
  Bytes buffer(kMagic.begin(), kMagic.end());
  size_t taken_count = 0;
  bool in_time = true;
  bool written = true;
  const std::vector<uint256> txids = pool.get_txids();
  walk_in_order(pool, txids, [&](const uint256& txid) {
    in_time = Clock::now() < deadline;
    if (!in_time) {
      return false;
    }
    if (const auto tx = pool.get_transaction(txid)) {
      const Bytes bytes = tx->serialize();
      append_le(buffer, static_cast<uint32_t>(bytes.size()));
      append(buffer, bytes);
      ++taken_count;
    }
    if (buffer.size() >= kBufferBytes) {
      written = write_all(file.get(), buffer);
      buffer.clear();
    }
    return written;
  });
  if (taken_count == 0 && !txids.empty()) {
    errno = ETIME;  // an old file is worth more than an empty one
    return false;
  }
  if (!in_time) {
    console::error_line("[Node] " + path + ": no time for more than " + std::to_string(taken_count) + " of " +
                        std::to_string(txids.size()) + " transactions");
  }
  return written && write_all(file.get(), buffer) && sync_data(file.get());
}

void report(const std::string& directory, const std::string& what) {
  console::error_line("[Node] " + directory + kMempoolFile + ": " + what);
}

void announce(const std::string& what) {
  console::write_out("[Node] " + what + "\n");
}

// Reads the records one by one.
class PoolReader {
 public:
  explicit PoolReader(const std::string& path) : file_(open_file(path, O_RDONLY | O_NONBLOCK)) {
    if (file_.is_open()) {
      bytes_ = file_size(file_.get()).value_or(0);
    }
  }

  bool is_open() const { return file_.is_open(); }

  bool read_magic() {
    Bytes magic(kMagic.size());
    return take(magic) && std::equal(magic.begin(), magic.end(), kMagic.begin());
  }

  bool at_end() const { return offset_ == bytes_; }
  uint64_t size() const { return bytes_; }
  uint64_t offset() const { return offset_; }

  // Throws std::runtime_error for a record that makes no sense.
  Transaction next() {
    Bytes prefix(kLengthBytes);
    size_t at = 0;
    const uint32_t length = take(prefix) ? read_le<uint32_t>(prefix, at) : 0;
    if (length == 0 || length > kBlockBytesMax) {
      throw std::runtime_error("damaged length");
    }
    Bytes record(length);
    if (!take(record)) {
      throw std::runtime_error("cut record");
    }
    return Transaction::deserialize(record);
  }

 private:
  bool take(std::span<uint8_t> out) {
    if (out.size() > bytes_ - offset_ || !read_exactly_at(file_.get(), offset_, out)) {
      return false;
    }
    offset_ += out.size();
    return true;
  }

  FileDescriptor file_;
  uint64_t bytes_ = 0;
  uint64_t offset_ = 0;  // at most bytes_
};

// Tells how far the loading of a large file has come.
class LoadProgress {
 public:
  explicit LoadProgress(const PoolReader& reader) : reader_(reader) {
    if (is_large()) {
      announce("Loading the pool: " + std::to_string(reader.size() / kMegabyte) + " MB of transactions to validate");
    }
  }

  void update(size_t read_count) {
    const Clock::time_point now = Clock::now();
    if (is_large() && now - told_at_ >= kProgressPeriod) {
      told_at_ = now;
      announce("Loading the pool: " + std::to_string(read_count) + " transactions, " +
               std::to_string(reader_.offset() * 100 / reader_.size()) + "%");
    }
  }

 private:
  static constexpr uint64_t kMegabyte = 1'000'000;

  bool is_large() const { return reader_.size() >= kLargeFileBytes; }

  const PoolReader& reader_;
  Clock::time_point told_at_ = Clock::now();
};

}  // namespace

bool save_mempool(const Mempool& pool, const std::string& directory, int64_t time_ms) {
  const std::string path = directory + kMempoolFile;
  const std::string temporary = path + ".tmp";
  const bool saved = write_pool(pool, temporary, Clock::now() + std::chrono::milliseconds(time_ms)) &&
                     std::rename(temporary.c_str(), path.c_str()) == 0 && sync_directory(directory);
  if (!saved) {
    report(directory, std::string("cannot be written: ") + std::strerror(errno));
    unlink(temporary.c_str());
  }
  return saved;
}

bool load_mempool(TransactionAdmission& admission, const std::string& directory, const StopRequest& stop) {
  PoolReader reader(directory + kMempoolFile);
  if (!reader.is_open()) {
    if (errno != ENOENT) {
      report(directory, std::string("cannot be read: ") + std::strerror(errno));
    }
    return !stop.is_requested();
  }
  size_t read_count = 0;
  size_t taken_count = 0;
  try {
    if (!reader.read_magic()) {
      throw std::runtime_error("not a file of this node");
    }
    LoadProgress progress(reader);
    for (; !reader.at_end() && !stop.is_requested(); ++read_count) {
      progress.update(read_count);
      std::string reason;
      int64_t fee = 0;
      taken_count += admission.accept(reader.next(), reason, fee) == AdmissionOutcome::ACCEPTED ? 1 : 0;
    }
  } catch (const std::runtime_error& failure) {
    report(directory, "ignored from record " + std::to_string(read_count) + " on: " + failure.what());
  }
  announce("Pool loaded: " + std::to_string(taken_count) + " of " + std::to_string(read_count) +
           " transaction(s) still valid");
  return !stop.is_requested();
}

}  // namespace norvel::node
