#include "chain/block_file_repair.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <limits>

#include "core/console.h"

namespace norvel {

namespace {

constexpr size_t kCopyBytes = 1 << 20;

bool copy_bytes(const OpenedFile& from, ByteRange range, int to) {
  Bytes buffer;
  while (range.begin < range.end) {
    buffer.resize(static_cast<size_t>(std::min<uint64_t>(kCopyBytes, range.end - range.begin)));
    if (!read_exactly_at(from.fd(), range.begin, buffer) || !write_all(to, buffer)) {
      return false;
    }
    range.begin += buffer.size();
  }
  return true;
}

// An offset from which on the file is zeros, a piece behind its last other byte at
// most; nothing when reading fails.
std::optional<uint64_t> end_of_data(const OpenedFile& file, uint64_t offset) {
  uint64_t end = offset;
  while (const auto data = find_data(file.fd(), end, file.bytes)) {
    if (*data == file.bytes) {
      return end;
    }
    end = std::min(*data + kCopyBytes, file.bytes);
  }
  return std::nullopt;
}

// Appends the file from `offset` on to FILE.cut, but not the zeros at its end;
// returns how many bytes, which then are on disk.
std::optional<uint64_t> keep_tail(const OpenedFile& file, const std::string& path, uint64_t offset) {
  const auto data_end = end_of_data(file, offset);
  if (!data_end) {
    report_file_error("Cannot read block file", path);
    return std::nullopt;
  }
  if (*data_end == offset) {
    return 0;
  }
  const std::string cut_path = path + ".cut";
  const FileDescriptor cut = open_file(cut_path, O_WRONLY | O_APPEND | O_CREAT | O_NONBLOCK);
  const auto kept_bytes = cut.is_open() ? file_size(cut.get()) : std::nullopt;
  if (!kept_bytes) {
    report_file_error("Cannot open", cut_path);
    return std::nullopt;
  }
  if (copy_bytes(file, {offset, *data_end}, cut.get()) && sync_data(cut.get()) &&
      sync_directory(directory_of(cut_path))) {
    return *data_end - offset;
  }
  report_file_error("Cannot keep the damaged end of a block file in", cut_path);
  // What is left of the copy does no harm, so nothing depends on this.
  [[maybe_unused]] const int ignored = ::ftruncate(cut.get(), static_cast<off_t>(*kept_bytes));
  return std::nullopt;
}

void report_cut(const OpenedFile& file, const std::string& path, uint64_t offset, uint64_t kept_bytes) {
  const std::string kept = kept_bytes == 0 ? " that were zeros" : ", kept in " + path + ".cut";
  console::error_line("[Blockchain] Damaged block file: " + path + ", cut off " + std::to_string(file.bytes - offset) +
                      " bytes from offset " + std::to_string(offset) + kept);
}

// The block whose header stands at `offset`, whatever length stands before it;
// one that the index names has passed the rule of size.
std::optional<Block> block_at(FileWindow& window, uint64_t offset) {
  const auto bytes =
      window.read(offset, static_cast<size_t>(std::min<uint64_t>(kBlockBytesMax, window.file_bytes() - offset)));
  return bytes ? read_record(*bytes) : std::nullopt;
}

// Offsets of headers of readable blocks of `missing` between the records, each
// block once; those found leave `missing`.
std::optional<std::vector<uint64_t>> find_missing(const OpenedFile& file, const std::vector<ByteRange>& gaps,
                                                  std::map<uint256, uint32_t>& missing) {
  std::vector<uint64_t> found;
  FileWindow window(file.fd(), file.bytes);
  const auto visit = [&](uint64_t offset, const uint256& hash) {
    const auto wanted = missing.find(hash);
    const auto block = wanted != missing.end() ? block_at(window, offset) : std::nullopt;
    if (!block || block->height != wanted->second) {
      return offset + 1;
    }
    missing.erase(wanted);
    found.push_back(offset);
    return missing.empty() ? std::numeric_limits<uint64_t>::max() : offset + block->size();
  };
  for (const ByteRange& gap : gaps) {
    if (missing.empty()) {
      break;
    }
    const bool is_read = search_headers(file.fd(), file.bytes, gap.begin, gap.end, visit);
    if (!is_read || window.has_failed()) {
      return std::nullopt;
    }
  }
  return found;
}

// Writes the first `intact_bytes` and then the found blocks under `path`;
// returns the size.
std::optional<uint64_t> write_image(const OpenedFile& file, const std::string& path, uint64_t intact_bytes,
                                    const std::vector<uint64_t>& found) {
  const FileDescriptor image = open_file(path, O_WRONLY | O_CREAT | O_TRUNC | O_NONBLOCK);
  if (!image.is_open() || !copy_bytes(file, {0, intact_bytes}, image.get())) {
    return std::nullopt;
  }
  FileWindow window(file.fd(), file.bytes);
  uint64_t bytes = intact_bytes;
  for (const uint64_t offset : found) {
    const auto block = block_at(window, offset);
    if (!block) {
      return std::nullopt;
    }
    const Bytes record = make_record(*block);
    if (!write_all(image.get(), record)) {
      return std::nullopt;
    }
    bytes += record.size();
  }
  return sync_data(image.get()) ? std::optional(bytes) : std::nullopt;
}

// Puts intact records and found blocks in the place of the file.
std::optional<uint64_t> write_anew(const OpenedFile& file, const std::string& path, uint64_t intact_bytes,
                                   const std::vector<uint64_t>& found) {
  const std::string temporary = path + ".tmp";
  const auto bytes = write_image(file, temporary, intact_bytes, found);
  if (!bytes) {
    report_file_error("Cannot write a block file anew", temporary);
    ::unlink(temporary.c_str());
    return std::nullopt;
  }
  const auto kept_bytes = keep_tail(file, path, intact_bytes);
  if (!kept_bytes) {
    ::unlink(temporary.c_str());
    return std::nullopt;
  }
  if (std::rename(temporary.c_str(), path.c_str()) != 0) {
    report_file_error("Cannot replace block file", path);
    ::unlink(temporary.c_str());
    return std::nullopt;
  }
  if (intact_bytes < file.bytes) {
    report_cut(file, path, intact_bytes, *kept_bytes);
  }
  console::error_line("[Blockchain] Damaged block file: " + path + ", " + std::to_string(found.size()) +
                      " blocks found behind the damage and stored again");
  return bytes;
}

}  // namespace

std::optional<FileCheck> check_block_file(const OpenedFile& file, const std::string& path) {
  FileCheck check;
  uint64_t covered = 0;
  RecordWalk walk(file.fd(), file.bytes);
  while (walk.next()) {
    const auto block = walk.block();
    if (!block) {
      continue;
    }
    check.readable[block->get_hash()].insert(block->height);
    if (walk.offset() > covered) {
      check.gaps.push_back({covered, walk.offset()});
    }
    // Not the whole record: with a length that is too large it covers the start of the next one.
    covered = std::min(walk.offset() + kRecordPrefixBytes + block->size(), walk.next_offset());
    check.intact_bytes = walk.next_offset();
  }
  if (walk.end() == WalkEnd::READ_FAILED) {
    report_file_error("Cannot read block file", path);
    return std::nullopt;
  }
  if (walk.end() == WalkEnd::FILE_END) {
    check.intact_bytes = file.bytes;
  }
  const uint64_t data_end = walk.end() == WalkEnd::ZEROS ? walk.next_offset() : file.bytes;
  if (covered < data_end) {
    check.gaps.push_back({covered, data_end});
  }
  return check;
}

bool cut_block_file(const OpenedFile& file, const std::string& path, uint64_t offset) {
  const auto kept_bytes = keep_tail(file, path, offset);
  if (!kept_bytes) {
    return false;
  }
  if (::ftruncate(file.fd(), static_cast<off_t>(offset)) != 0 || !sync_data(file.fd())) {
    report_file_error("Cannot cut off the damaged end of block file", path);
    return false;
  }
  report_cut(file, path, offset, *kept_bytes);
  return true;
}

std::optional<RepairedFile> repair_block_file(const std::string& path, const std::map<uint256, uint32_t>& indexed) {
  const auto file = open_block_file(path, O_RDWR);
  if (!file) {
    return std::nullopt;
  }
  const auto check = check_block_file(*file, path);
  if (!check) {
    return std::nullopt;
  }
  std::map<uint256, uint32_t> missing = indexed;
  std::erase_if(missing, [&](const auto& block) {
    const auto records = check->readable.find(block.first);
    return records != check->readable.end() && records->second.contains(block.second);
  });
  std::vector<uint64_t> found;
  if (!missing.empty()) {
    auto searched = find_missing(*file, check->gaps, missing);
    if (!searched) {
      report_file_error("Cannot read block file", path);
      return std::nullopt;
    }
    found = std::move(*searched);
  }
  std::optional<uint64_t> bytes = check->intact_bytes;
  if (!found.empty()) {
    bytes = write_anew(*file, path, check->intact_bytes, found);
  } else if (check->intact_bytes < file->bytes && !cut_block_file(*file, path, check->intact_bytes)) {
    bytes.reset();
  }
  if (!bytes) {
    return std::nullopt;
  }
  // An earlier run may have ended before its sync, and the index will name what was just found here.
  if (!sync_data(file->fd()) || !sync_directory(directory_of(path))) {
    report_file_error("Cannot sync block file", path);
    return std::nullopt;
  }
  RepairedFile repaired{*bytes, {}};
  for (const auto& [hash, height] : missing) {
    repaired.lost.push_back(hash);
  }
  return repaired;
}

}  // namespace norvel
