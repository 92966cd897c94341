// How the methods of a node read the params of a request: a value is a member of
// an object, or an element of an array.
//
// Errors: what a caller must give throws std::runtime_error with the reason;
// what is looked up only is absent. Nothing is decoded before its length has
// been checked. Threads: free functions without state.

#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "core/bytes.h"
#include "core/uint256.h"
#include "rpc/json.h"

namespace norvel::rpc {

inline constexpr const char kInvalidAddress[] = "Invalid address";

// Decoding Base58 is quadratic, and no address is longer than 34 characters.
inline constexpr size_t kAddressCharactersMax = 64;

// Member `key` of an object, element `index` of an array, else a null. The
// reference is good as long as `params` is.
const JsonValue& find_parameter(const JsonValue& params, const std::string& key, size_t index = 0);

// The text of find_parameter(). Throws `missing` when there is none or it is empty.
const std::string& require_text(const JsonValue& params, const std::string& key, const char* missing);

// The hash written as exactly 64 hexadecimal digits.
std::optional<uint256> read_hash(const std::string& text);

// The 20-byte public-key hash of an address.
std::optional<Bytes> read_address(const std::string& text);

struct AddressParameter {
  std::string text;
  Bytes pubkey_hash;
};

// The parameter "address". Throws "Address required" or "Invalid address".
AddressParameter require_address(const JsonValue& params);

// The bytes of `text`, which may begin with "0x"; there may be `bytes_max`. Throws `too_long`
// before decoding, or "invalid hexadecimal".
Bytes read_hex(const std::string& text, size_t bytes_max, const char* too_long);

}  // namespace norvel::rpc
