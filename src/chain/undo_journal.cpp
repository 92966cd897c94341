#include "chain/undo_journal.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "core/console.h"
#include "core/file_io.h"
#include "crypto/hash.h"

namespace norvel {

namespace {

constexpr size_t kHeaderBytes = 4 + 4 + uint256::kSize;
constexpr size_t kDigestBytes = uint256::kSize;
constexpr size_t kFrameBytesMin = kHeaderBytes + kDigestBytes;
static_assert(kFrameBytesMin == 72);

ByteView without_checksum(const Bytes& frame) {
  return ByteView(frame).first(frame.size() - kDigestBytes);
}

uint256 checksum_of(const Bytes& frame) {
  return uint256(ByteView(frame).last(kDigestBytes));
}

ByteView content_of(const Bytes& frame) {
  return without_checksum(frame).subspan(kHeaderBytes);
}

Bytes make_frame(uint32_t height, const uint256& hash, ByteView content) {
  Bytes frame;
  frame.reserve(kFrameBytesMin + content.size());
  append_le(frame, static_cast<uint32_t>(content.size()));
  append_le(frame, height);
  append(frame, hash.bytes());
  append(frame, content);
  append(frame, crypto::sha256(frame).bytes());
  return frame;
}

// The bytes of the record at `offset` of a file of `size` bytes; nothing when it
// is not whole.
std::optional<Bytes> read_frame(int fd, uint64_t offset, uint64_t size) {
  std::array<uint8_t, 4> length_bytes;
  if (size - offset < kFrameBytesMin || !read_exactly_at(fd, offset, length_bytes)) {
    return std::nullopt;
  }
  size_t at = 0;
  const auto length = read_le<uint32_t>(length_bytes, at);
  if (length > UndoJournal::kContentBytesMax || length > size - offset - kFrameBytesMin) {
    return std::nullopt;
  }
  Bytes frame(kFrameBytesMin + length);
  if (!read_exactly_at(fd, offset, frame) || crypto::sha256(without_checksum(frame)) != checksum_of(frame)) {
    return std::nullopt;
  }
  return frame;
}

}  // namespace

UndoJournal::UndoJournal(std::string path) : path_(std::move(path)) {}

void UndoJournal::push(uint32_t height, const uint256& hash, Bytes record) {
  Record entry{height, hash, make_frame(height, hash, record)};
  while (!entries_.empty() && entries_.back().height >= height) {
    entries_.pop_back();
  }
  if (!entries_.empty() && entries_.back().height != height - 1) {
    entries_.clear();
  }
  entries_.push_back(std::move(entry));
  trim();
}

void UndoJournal::keep_all(bool on) {
  keeps_all_ = on;
  trim();
}

void UndoJournal::trim() {
  while (!keeps_all_ && entries_.size() > kDepth) {
    entries_.pop_front();
  }
}

std::optional<Bytes> UndoJournal::tip_record(const uint256& tip_hash) const {
  if (entries_.empty() || entries_.back().hash != tip_hash) {
    return std::nullopt;
  }
  const ByteView content = content_of(entries_.back().frame);
  return Bytes(content.begin(), content.end());
}

void UndoJournal::pop() {
  if (!entries_.empty()) {
    entries_.pop_back();
  }
}

size_t UndoJournal::size() const {
  return entries_.size();
}

void UndoJournal::clear() {
  entries_.clear();
}

// Nothing in the file can be put under the entries in memory.
bool UndoJournal::is_complete() const {
  return entries_.size() >= kDepth || (!entries_.empty() && entries_.front().height == 0);
}

bool UndoJournal::is_stored(const Record& record) const {
  const auto found = stored_.find(record.hash);
  return found != stored_.end() && found->second == checksum_of(record.frame);
}

void UndoJournal::load() {
  aside_.clear();
  stored_.clear();
  file_bytes_ = 0;
  is_read_ = true;
  must_rewrite_ = true;  // until all of the file was read
  const FileDescriptor file = open_file(path_, O_RDONLY | O_NONBLOCK);
  if (!file.is_open() && errno == ENOENT) {
    return;
  }
  const auto size = file.is_open() ? file_size(file.get()) : std::nullopt;
  if (!size) {
    console::error_line("[Blockchain] Undo journal " + path_ + " cannot be read and is ignored");
    return;
  }
  read_records(file.get(), *size);
  must_rewrite_ = file_bytes_ != *size;
  if (must_rewrite_) {
    console::error_line("[Blockchain] Undo journal " + path_ + " is damaged at byte " + std::to_string(file_bytes_) +
                        " and is used up to there");
  }
}

void UndoJournal::read_records(int fd, uint64_t size) {
  const bool is_wanted = !is_complete();
  while (file_bytes_ < size) {
    std::optional<Bytes> frame = read_frame(fd, file_bytes_, size);
    if (!frame) {
      return;
    }
    file_bytes_ += frame->size();
    Record record;
    size_t offset = 4;
    record.height = read_le<uint32_t>(*frame, offset);
    record.hash = uint256::deserialize(*frame, offset);
    stored_[record.hash] = checksum_of(*frame);
    if (is_wanted) {
      record.frame = std::move(*frame);
      aside_[record.hash] = std::move(record);
    }
  }
}

void UndoJournal::adopt(uint32_t top_height, std::span<const uint256> hashes) {
  uint64_t height = entries_.empty() ? uint64_t{top_height} + 1 : entries_.front().height;
  if (height == uint64_t{top_height} + 1) {
    for (const uint256& hash : hashes) {
      const auto found = aside_.find(hash);
      if (entries_.size() >= kDepth || height == 0 || found == aside_.end() || found->second.height != height - 1) {
        break;
      }
      entries_.push_front(std::move(found->second));
      aside_.erase(found);
      --height;
    }
  }
  aside_.clear();
}

bool UndoJournal::sync() {
  if (!is_read_) {
    load();
  }
  if (is_complete()) {
    aside_.clear();
  }
  uint64_t needed_bytes = 0;
  Records missing;
  for (const Record& entry : entries_) {
    needed_bytes += entry.frame.size();
    if (!is_stored(entry) && content_of(entry.frame).size() <= kContentBytesMax) {
      missing.push_back(&entry);
    }
  }
  // Until the entries are complete the next start may still need what else the file holds.
  const bool is_mostly_left = is_complete() && file_bytes_ > kShortenedBytesMin && 2 * needed_bytes < file_bytes_;
  if (must_rewrite_ || (!missing.empty() && is_mostly_left)) {
    return rewrite();
  }
  return missing.empty() || append_to_file(missing);
}

bool UndoJournal::append_to_file(const Records& records) {
  const FileDescriptor file = open_file(path_, O_WRONLY | O_APPEND | O_NONBLOCK);
  if (!file.is_open() || file_size(file.get()) != file_bytes_) {
    return rewrite();  // taken away or changed by someone else
  }
  for (const Record* record : records) {
    if (!write_all(file.get(), record->frame)) {
      return fail();
    }
  }
  if (!sync_data(file.get())) {
    return fail();
  }
  for (const Record* record : records) {
    stored_[record->hash] = checksum_of(record->frame);
    file_bytes_ += record->frame.size();
  }
  return true;
}

bool UndoJournal::rewrite() {
  Records records;
  std::map<uint256, uint256> stored;
  uint64_t bytes = 0;
  const auto add = [&](const Record& record) {
    if (content_of(record.frame).size() <= kContentBytesMax) {
      records.push_back(&record);
      stored[record.hash] = checksum_of(record.frame);
      bytes += record.frame.size();
    }
  };
  for (const auto& [hash, record] : aside_) {
    add(record);
  }
  for (const Record& entry : entries_) {
    add(entry);
  }
  const std::string temporary = path_ + ".tmp";
  FileDescriptor file = open_file(temporary, O_WRONLY | O_CREAT | O_TRUNC | O_NONBLOCK);
  bool is_written = file.is_open();
  for (const Record* record : records) {
    is_written = is_written && write_all(file.get(), record->frame);
  }
  is_written = is_written && sync_data(file.get());
  file.close();
  if (!is_written || std::rename(temporary.c_str(), path_.c_str()) != 0 || !sync_directory(directory_of(path_))) {
    fail();
    std::remove(temporary.c_str());
    return false;
  }
  stored_ = std::move(stored);
  file_bytes_ = bytes;
  must_rewrite_ = false;
  return true;
}

// Reports errno.
bool UndoJournal::fail() {
  console::error_line("[Blockchain] ERROR: Failed to write undo journal " + path_ + ": " + std::strerror(errno));
  must_rewrite_ = true;
  return false;
}

}  // namespace norvel
