#include "chain/block_file_scan.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

#include "core/block_header.h"
#include "core/console.h"

namespace norvel {

namespace {

// Read at once by a walk that asks for a length or a header.
constexpr size_t kWindowBytesMin = 4'096;

// So many zeros in a row are worth a search for their end.
constexpr uint64_t kZeroRunBytes = 64;

// Read at once by the search, whose pieces overlap by a header.
constexpr size_t kSearchBytes = 1 << 20;

// What every block that passed the rules has: a time before 2^40 seconds and
// bits with an exponent of 1 to 32 bytes. Tells headers from nearly all other
// bytes without hashing them, runs of zeros included.
bool may_be_header(ByteView bytes) {
  constexpr size_t kTime = 4 + 32 + 32;
  constexpr size_t kBitsExponent = kTime + 8 + 3;
  const bool is_time_plausible = bytes[kTime + 5] == 0 && bytes[kTime + 6] == 0 && bytes[kTime + 7] == 0;
  return is_time_plausible && bytes[kBitsExponent] >= 1 && bytes[kBitsExponent] <= 32;
}

bool is_not_zero(uint8_t byte) {
  return byte != 0;
}

uint256 hash_header(ByteView bytes) {
  size_t offset = 0;
  return BlockHeader::deserialize(bytes, offset).get_hash();
}

}  // namespace

void report_file_error(std::string_view what, const std::string& path) {
  const std::string reason = std::system_category().message(errno);
  console::error_line("[Blockchain] ERROR: " + std::string(what) + ": " + path + " (" + reason + ")");
}

std::optional<OpenedFile> open_block_file(const std::string& path, int flags) {
  OpenedFile file{open_file(path, flags | O_NONBLOCK), 0};  // does not wait for the writer of a pipe
  const auto bytes = file.descriptor.is_open() ? file_size(file.fd()) : std::nullopt;
  if (!bytes) {
    console::error_line("[Blockchain] ERROR: Cannot open block file: " + path);
    return std::nullopt;
  }
  file.bytes = *bytes;
  return file;
}

std::optional<uint64_t> find_data(int fd, uint64_t offset, uint64_t file_bytes) {
  Bytes piece;
  for (size_t piece_bytes = kWindowBytesMin; offset < file_bytes;
       piece_bytes = std::min(4 * piece_bytes, kSearchBytes)) {
    const off_t data = ::lseek(fd, static_cast<off_t>(offset), SEEK_DATA);
    if (data < 0 && errno == ENXIO) {
      return file_bytes;  // nothing but a hole
    }
    offset = data < 0 ? offset : std::min(std::max(offset, static_cast<uint64_t>(data)), file_bytes);
    piece.resize(static_cast<size_t>(std::min<uint64_t>(piece_bytes, file_bytes - offset)));
    if (!read_exactly_at(fd, offset, piece)) {
      return std::nullopt;
    }
    const auto found = std::ranges::find_if(piece, is_not_zero);
    offset += static_cast<uint64_t>(found - piece.begin());
    if (found != piece.end()) {
      return offset;
    }
  }
  return file_bytes;
}

std::optional<ByteView> FileWindow::read(uint64_t offset, size_t len) {
  if (failed_ || offset > file_bytes_ || len > file_bytes_ - offset) {
    return std::nullopt;
  }
  const bool is_inside = offset >= offset_ && offset - offset_ <= buffer_.size() &&
                         len <= buffer_.size() - static_cast<size_t>(offset - offset_);
  if (!is_inside) {
    buffer_.resize(static_cast<size_t>(std::min<uint64_t>(std::max(len, kWindowBytesMin), file_bytes_ - offset)));
    offset_ = offset;
    if (!read_exactly_at(fd_, offset, buffer_)) {
      buffer_.clear();
      failed_ = true;
      return std::nullopt;
    }
  }
  return ByteView(buffer_).subspan(static_cast<size_t>(offset - offset_), len);
}

bool RecordWalk::stop(WalkEnd end) {
  end_ = end;
  offset_ = next_offset_;
  return false;
}

// At next_offset_; nothing when reading fails.
std::optional<bool> RecordWalk::is_zero_to_the_end() {
  if (next_offset_ < data_offset_) {
    return false;
  }
  const uint64_t left = window_.file_bytes() - next_offset_;
  const auto near = window_.read(next_offset_, static_cast<size_t>(std::min(kZeroRunBytes, left)));
  if (!near) {
    return std::nullopt;
  }
  if (std::ranges::any_of(*near, is_not_zero)) {
    return false;
  }
  const auto found = find_data(fd_, next_offset_, window_.file_bytes());
  data_offset_ = found.value_or(next_offset_);
  return found ? std::optional(found == window_.file_bytes()) : std::nullopt;
}

bool RecordWalk::next() {
  if (window_.has_failed()) {
    return stop(WalkEnd::READ_FAILED);
  }
  if (next_offset_ == window_.file_bytes()) {
    return stop(WalkEnd::FILE_END);
  }
  const auto prefix = window_.read(next_offset_, kRecordPrefixBytes);
  if (!prefix) {
    return stop(window_.has_failed() ? WalkEnd::READ_FAILED : WalkEnd::CUT);
  }
  size_t at = 0;
  const auto block_bytes = read_le<uint32_t>(*prefix, at);
  if (block_bytes == 0) {
    const auto is_end = is_zero_to_the_end();
    if (!is_end || *is_end) {
      return stop(is_end ? WalkEnd::ZEROS : WalkEnd::READ_FAILED);
    }
  }
  if (block_bytes > kRecordBytesMax) {
    block_bytes_ = block_bytes;
    return stop(WalkEnd::TOO_LONG);
  }
  if (block_bytes > window_.file_bytes() - next_offset_ - kRecordPrefixBytes) {
    return stop(WalkEnd::CUT);
  }
  offset_ = next_offset_;
  block_bytes_ = block_bytes;
  next_offset_ += kRecordPrefixBytes + block_bytes;
  return true;
}

std::optional<uint256> RecordWalk::header_hash() {
  if (block_bytes_ < BlockHeader::kSize) {
    return std::nullopt;
  }
  const auto header = window_.read(offset_ + kRecordPrefixBytes, BlockHeader::kSize);
  return header ? std::optional(hash_header(*header)) : std::nullopt;
}

std::optional<Block> RecordWalk::block() {
  if (block_bytes_ < BlockHeader::kSize) {
    return std::nullopt;  // a long run of zeros is many records
  }
  const auto record = bytes();
  return record ? read_record(*record) : std::nullopt;
}

bool search_headers(int fd, uint64_t file_bytes, uint64_t begin, uint64_t end,
                    const std::function<uint64_t(uint64_t header_offset, const uint256& hash)>& visit) {
  FileWindow window(fd, file_bytes);
  uint64_t offset = begin;
  while (offset < end && offset < file_bytes && BlockHeader::kSize <= file_bytes - offset) {
    const auto piece = window.read(offset, static_cast<size_t>(std::min<uint64_t>(kSearchBytes, file_bytes - offset)));
    if (!piece) {
      return false;
    }
    const uint64_t stop = std::min(end, offset + piece->size() - BlockHeader::kSize + 1);
    uint64_t at = offset;
    while (at < stop) {
      const ByteView header = piece->subspan(static_cast<size_t>(at - offset), BlockHeader::kSize);
      at = may_be_header(header) ? std::max(visit(at, hash_header(header)), at + 1) : at + 1;
    }
    offset = at;
  }
  return true;
}

}  // namespace norvel
