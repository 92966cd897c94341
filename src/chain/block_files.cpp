#include "chain/block_files.h"

#include <fcntl.h>

#include <algorithm>
#include <filesystem>
#include <limits>
#include <map>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <utility>

#include "chain/block_append_log.h"
#include "chain/block_file_repair.h"
#include "chain/block_file_scan.h"
#include "chain/block_positions.h"
#include "core/console.h"
#include "core/file_io.h"

namespace norvel {

namespace {

constexpr std::string_view kNamePrefix = "blk";
constexpr std::string_view kNameSuffix = ".dat";
constexpr size_t kNumberDigitsMin = 5;

// Exactly the names that block_file_name() makes, for any number.
bool is_block_file_name(std::string_view name) {
  if (!name.starts_with(kNamePrefix) || !name.ends_with(kNameSuffix) ||
      name.size() < kNamePrefix.size() + kNumberDigitsMin + kNameSuffix.size()) {
    return false;
  }
  const auto number = name.substr(kNamePrefix.size(), name.size() - kNamePrefix.size() - kNameSuffix.size());
  return std::all_of(number.begin(), number.end(), [](char c) { return c >= '0' && c <= '9'; }) &&
         (number.size() == kNumberDigitsMin || number[0] != '0');
}

void report_length(uint32_t length) {
  console::error_line("[Blockchain] ERROR: Invalid block size read from disk: " + std::to_string(length));
}

// True when the walk came as far as the lengths lead.
bool finish_walk(const RecordWalk& walk, const std::string& path) {
  if (walk.end() == WalkEnd::READ_FAILED) {
    report_file_error("Cannot read block file", path);
    return false;
  }
  if (walk.end() == WalkEnd::TOO_LONG) {
    report_length(walk.block_bytes());
  }
  return true;
}

// What a look-up asks for.
struct Wanted {
  uint256 hash;
  uint32_t height;
};

// The block of the first readable record of it. `has_failed` becomes true when
// reading fails.
std::optional<Block> read_block(const OpenedFile& file, const FilePositions& positions, const Wanted& wanted,
                                bool& has_failed) {
  FileWindow window(file.fd(), file.bytes);
  for (const RecordPosition& record : positions.records) {
    if (record.hash != wanted.hash) {
      continue;
    }
    const auto bytes = window.read(record.offset + kRecordPrefixBytes, record.block_bytes);
    auto block = bytes ? read_record(*bytes) : std::nullopt;
    if (block && block->get_hash() == wanted.hash && block->height == wanted.height) {
      return block;
    }
  }
  has_failed = window.has_failed();
  return std::nullopt;
}

}  // namespace

struct BlockFiles::State {
  explicit State(std::string data_directory) : directory(std::move(data_directory)) {}

  std::string path_of(const std::string& file_name) const { return directory + "/" + file_name; }

  // False, and a line, for a file that is shorter than this run left it, or gone.
  bool check_not_shorter(const std::string& file_name) const;

  // Makes the file one that a record can be appended to: as append() says.
  bool prepare(const std::string& file_name, const IsIndexed& is_indexed);
  bool cut_if_not_indexed(const OpenedFile& file, const std::string& file_name, const IsIndexed& is_indexed);

  std::optional<Block> load(const std::string& file_name, const Wanted& wanted, bool& has_failed);

  const std::string directory;
  BlockAppendLog log;
  PositionCache positions;

  // By file name: where a walk in this run, or an append behind it, ended, which
  // was the file's end. Any other size means that the file is not as it was left.
  std::map<std::string, uint64_t> walked_bytes;
};

std::string block_file_name(uint32_t height) {
  std::string number = std::to_string(height / kHeightsPerFile);
  if (number.size() < kNumberDigitsMin) {
    number.insert(0, kNumberDigitsMin - number.size(), '0');
  }
  return std::string(kNamePrefix) + number + std::string(kNameSuffix);
}

BlockFiles::BlockFiles(std::string data_directory) : state_(std::make_unique<State>(std::move(data_directory))) {}

BlockFiles::~BlockFiles() = default;

bool BlockFiles::append(const Block& block, const IsIndexed& is_indexed) {
  const std::string name = block_file_name(block.height);
  const std::string path = state_->path_of(name);
  Bytes record = make_record(block);
  const size_t block_bytes = record.size() - kRecordPrefixBytes;
  if (block_bytes > kRecordBytesMax) {
    console::error_line("[Blockchain] ERROR: Block too large for a block file: " + std::to_string(block_bytes));
    return false;
  }
  if (!state_->check_not_shorter(name)) {
    return false;
  }
  auto file_bytes = state_->log.open(path, record.size());
  if (!file_bytes) {
    return false;
  }
  const auto walked = state_->walked_bytes.find(name);
  if (walked == state_->walked_bytes.end() || walked->second != *file_bytes) {
    if (!state_->prepare(name, is_indexed)) {
      return false;
    }
    file_bytes = state_->log.open(path, record.size());
    if (!file_bytes) {
      return false;
    }
  }
  const auto result = state_->log.append(path, *file_bytes, std::move(record));
  if (result == BlockAppendLog::Result::DONE) {
    state_->walked_bytes[name] = *file_bytes + kRecordPrefixBytes + block_bytes;
    state_->positions.note_appended(path, *file_bytes,
                                    {block.header.get_hash(), *file_bytes, static_cast<uint32_t>(block_bytes)});
  }
  return result == BlockAppendLog::Result::DONE;
}

bool BlockFiles::State::check_not_shorter(const std::string& file_name) const {
  const auto walked = walked_bytes.find(file_name);
  if (walked == walked_bytes.end()) {
    return true;
  }
  const std::string path = path_of(file_name);
  std::error_code failure;
  const uint64_t bytes = std::filesystem::file_size(path, failure);  // not of a descriptor that may outlive the name
  if (failure) {
    console::error_line("[Blockchain] ERROR: Block file " + path + " is gone (" + failure.message() +
                        "); its disk may have been unmounted");
    return false;
  }
  if (bytes < walked->second) {
    console::error_line("[Blockchain] ERROR: Block file " + path + " has become shorter; a restart mends it");
    return false;
  }
  return true;
}

bool BlockFiles::State::prepare(const std::string& file_name, const IsIndexed& is_indexed) {
  const std::string path = path_of(file_name);
  const auto file = open_block_file(path, O_RDWR);
  if (!file) {
    return false;
  }
  auto found = read_positions(*file, path);
  if (!found) {
    return false;
  }
  if (found->end == WalkEnd::FILE_END) {
    positions.store(path, std::move(*found));
    walked_bytes[file_name] = file->bytes;
    return true;
  }
  return cut_if_not_indexed(*file, file_name, is_indexed);
}

bool BlockFiles::State::cut_if_not_indexed(const OpenedFile& file, const std::string& file_name,
                                           const IsIndexed& is_indexed) {
  const std::string path = path_of(file_name);
  if (!log.sync()) {
    return false;  // what it holds would be written again behind the cut
  }
  const auto check = check_block_file(file, path);
  if (!check) {
    return false;
  }
  bool is_needed = false;
  const auto visit = [&](uint64_t offset, const uint256& hash) {
    is_needed = !check->readable.contains(hash) && is_indexed(file_name, hash);
    return is_needed ? std::numeric_limits<uint64_t>::max() : offset + 1;
  };
  // What stands before the cut stays; behind it there may be zeros only.
  const bool has_damage = !check->gaps.empty() && check->gaps.back().end > check->intact_bytes;
  const ByteRange damage = has_damage ? check->gaps.back() : ByteRange{file.bytes, file.bytes};
  if (!search_headers(file.fd(), file.bytes, damage.begin, damage.end, visit)) {
    report_file_error("Cannot read block file", path);
    return false;
  }
  if (is_needed) {
    console::error_line("[Blockchain] ERROR: Damaged block file: " + path +
                        ", blocks of the index stand behind offset " + std::to_string(check->intact_bytes) +
                        "; a restart mends it");
    return false;
  }
  positions.forget(path);
  if (check->intact_bytes < file.bytes && !cut_block_file(file, path, check->intact_bytes)) {
    return false;
  }
  walked_bytes[file_name] = check->intact_bytes;
  return true;
}

bool BlockFiles::sync() {
  return state_->log.sync();
}

std::optional<Block> BlockFiles::load(const std::string& file_name, const uint256& hash, uint32_t height,
                                      bool* has_failed) {
  bool failed = false;
  auto block = state_->load(file_name, {hash, height}, failed);
  if (has_failed != nullptr) {
    *has_failed = failed;
  }
  return block;
}

std::optional<Block> BlockFiles::State::load(const std::string& file_name, const Wanted& wanted, bool& has_failed) {
  has_failed = true;  // until all was read
  const std::string path = path_of(file_name);
  const auto file = open_block_file(path, O_RDONLY);
  if (!file) {
    return std::nullopt;
  }
  if (const FilePositions* known = positions.find(path, file->bytes)) {
    if (auto block = read_block(*file, *known, wanted, has_failed)) {
      has_failed = false;
      return block;
    }
  }
  // Not known yet, or the file has changed behind our back.
  auto read = read_positions(*file, path);
  if (!read) {
    has_failed = true;
    return std::nullopt;
  }
  const FilePositions* now = positions.store(path, std::move(*read));
  has_failed = false;
  auto block = read_block(*file, *now, wanted, has_failed);
  if (has_failed) {
    report_file_error("Cannot read block file", path);
  } else if (!block && now->end == WalkEnd::TOO_LONG) {
    report_length(now->last_length);
  } else if (!block) {
    console::error_line("[Blockchain] ERROR: No readable record of block " + wanted.hash.to_hex() + " at height " +
                        std::to_string(wanted.height) + " in " + path);
  }
  return block;
}

std::optional<Block> BlockFiles::load_from_file(const std::string& path, size_t record_index) {
  const auto file = open_block_file(path, O_RDONLY);
  if (!file) {
    return std::nullopt;
  }
  RecordWalk walk(file->fd(), file->bytes);
  for (size_t i = 0; walk.next(); ++i) {
    if (i != record_index) {
      continue;
    }
    try {
      const auto bytes = walk.bytes();
      return bytes ? std::optional(Block::deserialize(*bytes)) : std::nullopt;
    } catch (const std::runtime_error&) {
      return std::nullopt;
    }
  }
  return std::nullopt;
}

uint64_t BlockFiles::record_bytes(const std::string& file_name, const uint256& hash) {
  const std::string path = state_->path_of(file_name);
  const auto file = open_block_file(path, O_RDONLY);
  if (!file) {
    return 0;
  }
  const FilePositions* positions = state_->positions.find(path, file->bytes);
  if (positions == nullptr) {
    auto read = read_positions(*file, path);
    if (!read) {
      return 0;
    }
    positions = state_->positions.store(path, std::move(*read));
  }
  const auto found = std::find_if(positions->records.begin(), positions->records.end(),
                                  [&](const RecordPosition& record) { return record.hash == hash; });
  return found == positions->records.end() ? 0 : found->block_bytes;
}

std::vector<std::string> BlockFiles::list() const {
  std::vector<std::string> names;
  std::error_code failure;
  for (std::filesystem::directory_iterator entry(state_->directory, failure), end; !failure && entry != end;
       entry.increment(failure)) {
    const std::string name = entry->path().filename().string();
    if (is_block_file_name(name)) {
      names.push_back(name);
    }
  }
  if (failure) {
    console::error_line("[Blockchain] ERROR: Cannot list block files: " + state_->directory + " (" + failure.message() +
                        ")");
  }
  // By number: names of more digits are those of larger ones.
  std::sort(names.begin(), names.end(), [](const std::string& a, const std::string& b) {
    return a.size() != b.size() ? a.size() < b.size() : a < b;
  });
  return names;
}

bool BlockFiles::exists(const std::string& file_name) const {
  std::error_code failure;
  return std::filesystem::is_regular_file(state_->path_of(file_name), failure);
}

uint64_t BlockFiles::total_bytes() const {
  uint64_t total = 0;
  std::error_code failure;
  for (uint32_t height = 0; !failure; height += kHeightsPerFile) {
    const uint64_t bytes = std::filesystem::file_size(state_->path_of(block_file_name(height)), failure);
    total += failure ? 0 : bytes;
  }
  return total;
}

std::optional<std::vector<uint256>> BlockFiles::repair(const std::string& file_name,
                                                       const std::map<uint256, uint32_t>& indexed) {
  const std::string path = state_->path_of(file_name);
  if (!is_block_file_name(file_name)) {
    console::error_line("[Blockchain] ERROR: Not the name of a block file: " + console::printable(file_name));
    return std::nullopt;
  }
  state_->walked_bytes.erase(file_name);
  state_->positions.forget(path);
  if (!state_->log.sync()) {
    return std::nullopt;
  }
  auto repaired = repair_block_file(path, indexed);
  if (!repaired) {
    return std::nullopt;
  }
  state_->walked_bytes[file_name] = repaired->bytes;
  return std::move(repaired->lost);
}

bool BlockFiles::for_each_block(const std::string& file_name, const std::function<bool(const Block&)>& visit) {
  const std::string path = state_->path_of(file_name);
  const auto file = open_block_file(path, O_RDONLY);
  if (!file) {
    return false;
  }
  RecordWalk walk(file->fd(), file->bytes);
  while (walk.next()) {
    const auto block = walk.block();
    if (block && !visit(*block)) {
      return true;
    }
  }
  return finish_walk(walk, path);
}

bool BlockFiles::for_each_hash(const std::string& file_name, const std::function<void(const uint256&)>& visit) {
  const std::string path = state_->path_of(file_name);
  const auto file = open_block_file(path, O_RDONLY);
  if (!file) {
    return false;
  }
  RecordWalk walk(file->fd(), file->bytes);
  while (walk.next()) {
    if (const auto hash = walk.header_hash()) {
      visit(*hash);
    }
  }
  return finish_walk(walk, path);
}

}  // namespace norvel
