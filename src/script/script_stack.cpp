#include "script/script_stack.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <new>

#include "crypto/hash.h"

namespace norvel {

namespace {

constexpr uint8_t kNegativeBit = 0x80;
constexpr size_t kDigestCount = 2;
constexpr size_t kSha256Bytes = 32;

bool any_bit(ByteView bytes) {
  return std::any_of(bytes.begin(), bytes.end(), [](uint8_t byte) { return byte != 0; });
}

}  // namespace

// Followed in memory by `size` bytes: a script of a million bytes can make half
// a million elements, so one allocation of few fields each.
struct ScriptElement::Buffer {
  size_t owner_count = 1;  // elements, and the buffer that keeps this one as a digest
  union {
    size_t size;
    Buffer* next_dead;  // while release() works
  };
  std::array<Buffer*, kDigestCount> digests{};  // owned; by Digest
  bool is_permanent = false;                    // shared by all threads, therefore not counted
  bool is_kept = false;                         // some buffer's digest
  bool is_true = false;
  bool is_negative = false;

  static Buffer* create(ByteView bytes) {
    auto* buffer = new (::operator new(sizeof(Buffer) + bytes.size())) Buffer;
    buffer->size = bytes.size();
    std::memcpy(buffer->bytes(), bytes.data(), bytes.size());
    buffer->is_true = any_bit(bytes);
    const uint8_t last = bytes.back();
    const bool has_magnitude = (last & ~kNegativeBit) != 0 || any_bit(bytes.first(bytes.size() - 1));
    buffer->is_negative = (last & kNegativeBit) != 0 && has_magnitude;
    return buffer;
  }

  uint8_t* bytes() { return reinterpret_cast<uint8_t*>(this + 1); }
  ByteView view() { return {bytes(), size}; }

  // Whether an element other than the one that asks holds this buffer.
  bool is_shared() const { return owner_count - (is_kept ? 1 : 0) > 1; }

  Buffer* share() noexcept {
    if (!is_permanent) {
      ++owner_count;
    }
    return this;
  }
};

ScriptElement::Buffer* ScriptElement::single_byte(uint8_t byte) {
  static const std::array<Buffer*, 256> table = [] {
    std::array<Buffer*, 256> buffers{};
    for (size_t value = 0; value < buffers.size(); ++value) {
      const auto only = static_cast<uint8_t>(value);
      buffers[value] = Buffer::create({&only, 1});
      buffers[value]->is_permanent = true;
    }
    return buffers;
  }();
  return table[byte];
}

// A chain of digests may be as long as a script, so this does not recurse.
void ScriptElement::release(Buffer* buffer) noexcept {
  if (buffer == nullptr || buffer->is_permanent || --buffer->owner_count > 0) {
    return;
  }
  buffer->next_dead = nullptr;
  while (buffer != nullptr) {
    Buffer* dead = std::exchange(buffer, buffer->next_dead);
    for (Buffer* digest : dead->digests) {
      if (digest == nullptr) {
        continue;
      }
      digest->is_kept = false;
      if (--digest->owner_count == 0) {
        digest->next_dead = std::exchange(buffer, digest);
      }
    }
    ::operator delete(dead);
  }
}

ScriptElement::ScriptElement(ByteView bytes) {
  if (bytes.size() == 1) {
    buffer_ = single_byte(bytes[0]);
  } else if (!bytes.empty()) {
    buffer_ = Buffer::create(bytes);
  }
}

ScriptElement::ScriptElement(const ScriptElement& other) noexcept
    : buffer_(other.buffer_ == nullptr ? nullptr : other.buffer_->share()) {}

ScriptElement& ScriptElement::operator=(ScriptElement other) noexcept {
  std::swap(buffer_, other.buffer_);
  return *this;
}

ScriptElement::~ScriptElement() {
  release(buffer_);
}

ByteView ScriptElement::view() const {
  return buffer_ == nullptr ? ByteView() : buffer_->view();
}

ScriptElement::operator Bytes() const {
  const ByteView bytes = view();
  return Bytes(bytes.begin(), bytes.end());
}

bool ScriptElement::equals(const ScriptElement& other) const {
  return buffer_ == other.buffer_ || std::equal(begin(), end(), other.begin(), other.end());
}

bool ScriptElement::is_true() const {
  return buffer_ != nullptr && buffer_->is_true;
}

bool ScriptElement::is_negative() const {
  return buffer_ != nullptr && buffer_->is_negative;
}

ScriptElement ScriptElement::compute(Digest function, ByteView bytes) {
  return function == Digest::SHA256 ? ScriptElement(ByteView(crypto::sha256(bytes).bytes()))
                                    : ScriptElement(crypto::hash160(bytes));
}

// Elements of at most one byte are shared by everyone and keep nothing, so
// their digests have a table.
ScriptElement ScriptElement::small_digest(Digest function, ByteView bytes) {
  using Row = std::array<Bytes, kDigestCount>;
  const auto make_row = [](ByteView input) {
    return Row{compute(Digest::SHA256, input), compute(Digest::HASH160, input)};
  };
  static const Row of_nothing = make_row({});
  static const std::array<Row, 256> of_single_bytes = [&] {
    std::array<Row, 256> rows;
    for (size_t value = 0; value < rows.size(); ++value) {
      rows[value] = make_row(single_byte(static_cast<uint8_t>(value))->view());
    }
    return rows;
  }();
  const Row& row = bytes.empty() ? of_nothing : of_single_bytes[bytes[0]];
  return ScriptElement(row[static_cast<size_t>(function)]);
}

ScriptElement ScriptElement::digest(Digest function) const {
  if (size() < 2) {
    return small_digest(function, view());
  }
  Buffer*& kept = buffer_->digests[static_cast<size_t>(function)];
  if (kept != nullptr) {
    return ScriptElement(kept->share());
  }
  ScriptElement result = compute(function, view());
  if (buffer_->is_shared()) {
    kept = result.buffer_->share();
    kept->is_kept = true;
  }
  return result;
}

size_t ScriptElement::digest_cost(Digest function) const {
  const bool is_kept = size() < 2 || buffer_->digests[static_cast<size_t>(function)] != nullptr;
  const size_t inner_bytes = function == Digest::HASH160 ? kSha256Bytes : 0;
  return is_kept ? 0 : size() + inner_bytes;
}

ScriptElement ScriptElement::sha256() const {
  return digest(Digest::SHA256);
}

ScriptElement ScriptElement::hash160() const {
  return digest(Digest::HASH160);
}

}  // namespace norvel
