// The stack of a running script and its elements: immutable byte strings whose
// copies share one counted buffer, so that duplicating an element of any size
// costs one pointer.
//
// Invariants:
//   1. An empty element has no buffer; elements of one byte share a table of
//      256 buffers that live as long as the process and are never written.
//   2. A buffer is hashed at most once with each function while it has several
//      owners: the digest is kept with it. A kept digest is an element like any
//      other, handed out again by the next call.
//   3. A digest is kept only for an element that outlives the call, so each
//      link of a chain of digests costs a script two opcodes.
//
// Threads: one thread at a time for all elements that descend from one another;
// the counts are not atomic. Unrelated elements are independent.

#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "core/bytes.h"

namespace norvel {

class ScriptElement {
 public:
  ScriptElement() = default;
  // Copies the bytes.
  explicit ScriptElement(ByteView bytes);
  ScriptElement(const Bytes& bytes) : ScriptElement(ByteView(bytes)) {}

  ScriptElement(const ScriptElement& other) noexcept;
  ScriptElement(ScriptElement&& other) noexcept : buffer_(std::exchange(other.buffer_, nullptr)) {}
  ScriptElement& operator=(ScriptElement other) noexcept;
  ~ScriptElement();

  // Valid while any copy of this element lives.
  ByteView view() const;
  operator Bytes() const;

  const uint8_t* data() const { return view().data(); }
  const uint8_t* begin() const { return view().data(); }
  const uint8_t* end() const { return begin() + size(); }
  size_t size() const { return view().size(); }
  bool empty() const { return buffer_ == nullptr; }

  // By bytes; O(1) between copies of one element.
  friend bool operator==(const ScriptElement& a, const ScriptElement& b) { return a.equals(b); }

  // Whether any byte is non-zero; 0x80 alone is true. O(1).
  bool is_true() const;

  // Whether the bytes, read as a little-endian number whose sign is the top bit
  // of the last byte, are below zero; negative zero is not. O(1).
  bool is_negative() const;

  // SHA-256 of the bytes, 32 bytes.
  ScriptElement sha256() const;

  // RIPEMD-160 of their SHA-256, 20 bytes.
  ScriptElement hash160() const;

  // Bytes that the next call of these two hashes, for HASH160 with the 32 of the
  // inner digest: 0 when the digest is kept.
  size_t sha256_cost() const { return digest_cost(Digest::SHA256); }
  size_t hash160_cost() const { return digest_cost(Digest::HASH160); }

 private:
  struct Buffer;
  enum class Digest : size_t { SHA256, HASH160 };

  explicit ScriptElement(Buffer* owned) : buffer_(owned) {}

  bool equals(const ScriptElement& other) const;
  ScriptElement digest(Digest function) const;
  size_t digest_cost(Digest function) const;
  static ScriptElement compute(Digest function, ByteView bytes);
  static ScriptElement small_digest(Digest function, ByteView bytes);
  static Buffer* single_byte(uint8_t byte);
  static void release(Buffer* buffer) noexcept;

  Buffer* buffer_ = nullptr;
};

// Top at the end.
using ScriptStack = std::vector<ScriptElement>;

}  // namespace norvel
