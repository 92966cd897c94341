#include "chain/block_positions.h"

#include <algorithm>
#include <utility>

namespace norvel {

std::optional<FilePositions> read_positions(const OpenedFile& file, const std::string& path) {
  FilePositions positions;
  RecordWalk walk(file.fd(), file.bytes);
  while (walk.next()) {
    if (const auto hash = walk.header_hash()) {
      positions.records.push_back({*hash, walk.offset(), walk.block_bytes()});
    }
  }
  if (walk.end() == WalkEnd::READ_FAILED) {
    report_file_error("Cannot read block file", path);
    return std::nullopt;
  }
  positions.file_bytes = file.bytes;
  positions.end = walk.end();
  positions.last_length = walk.block_bytes();
  return positions;
}

const FilePositions* PositionCache::find(const std::string& path, uint64_t file_bytes) {
  const auto found = files_.find(path);
  if (found == files_.end() || found->second.positions.file_bytes != file_bytes) {
    return nullptr;
  }
  found->second.last_use = ++use_count_;
  return &found->second.positions;
}

const FilePositions* PositionCache::store(const std::string& path, FilePositions positions) {
  if (files_.size() >= kFilesMax && !files_.contains(path)) {
    files_.erase(std::min_element(files_.begin(), files_.end(),
                                  [](const auto& a, const auto& b) { return a.second.last_use < b.second.last_use; }));
  }
  Entry& entry = files_[path];
  entry = {std::move(positions), ++use_count_};
  return &entry.positions;
}

void PositionCache::note_appended(const std::string& path, uint64_t file_bytes, const RecordPosition& record) {
  const auto found = files_.find(path);
  if (found == files_.end()) {
    return;
  }
  FilePositions& positions = found->second.positions;
  if (positions.file_bytes != file_bytes || positions.end != WalkEnd::FILE_END) {
    files_.erase(found);
    return;
  }
  positions.records.push_back(record);
  positions.file_bytes += kRecordPrefixBytes + record.block_bytes;
}

}  // namespace norvel
