#include <sys/mman.h>

#include <algorithm>
#include <vector>

#include "chain/block_file_repair.h"
#include "chain/block_file_scan.h"
#include "fuzz_target.h"

namespace {

using namespace norvel;

OpenedFile make_file(ByteView bytes) {
  OpenedFile file{FileDescriptor(memfd_create("block_file", MFD_CLOEXEC)), bytes.size()};
  require(file.descriptor.is_open() && write_all(file.fd(), bytes));
  return file;
}

// Records by a walk over the bytes themselves.
void check_walk(const OpenedFile& file, ByteView bytes) {
  RecordWalk walk(file.fd(), file.bytes);
  size_t at = 0;
  while (bytes.size() - at >= 4) {
    size_t begin = at;
    const auto len = read_le<uint32_t>(bytes, begin);
    const auto is_zero = [](uint8_t byte) { return byte == 0; };
    if (len > kRecordBytesMax || len > bytes.size() - begin || std::ranges::all_of(bytes.subspan(at), is_zero)) {
      break;
    }
    require(walk.next() && walk.offset() == at && walk.block_bytes() == len);
    const auto hash = walk.header_hash();
    require(hash.has_value() == (len >= BlockHeader::kSize));
    const auto block = walk.block();
    require(!block || block->get_hash() == *hash);
    at = begin + len;
  }
  require(!walk.next() && walk.next_offset() == at && walk.end() != WalkEnd::READ_FAILED);
  require((walk.end() == WalkEnd::FILE_END) == (at == bytes.size()));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const OpenedFile file = make_file({data, size});
  check_walk(file, {data, size});
  const auto check = check_block_file(file, "");
  require(check && check->intact_bytes <= size);
  uint64_t covered = 0;
  for (const ByteRange& gap : check->gaps) {
    require(gap.begin >= covered && gap.begin < gap.end && gap.end <= size);
    uint64_t at = gap.begin;
    const auto visit = [&](uint64_t offset, const uint256&) {
      require(offset >= at && offset < gap.end && BlockHeader::kSize <= size - offset);
      at = offset + 1;
      return at;
    };
    require(search_headers(file.fd(), size, gap.begin, gap.end, visit));
    covered = gap.end;
  }
  return 0;
}
