// A key pair in a file of mode 0600: lines "key = value", "#" comments.
//
//   secret = 64 hexadecimal digits   the private key
//   public = 66 hexadecimal digits   the public key, SEC 1 compressed
//   address = 1...                   the address of the public key
//
// The secret is enough; where the other two stand they must belong to it.
// Errors: std::runtime_error that names the file. Threads: no state.

#pragma once

#include <string>

#include "core/bytes.h"

namespace norvel::cli {

struct KeyPair {
  KeyPair() = default;
  KeyPair(KeyPair&&) = default;
  KeyPair& operator=(KeyPair&&) = default;
  ~KeyPair();  // wipes the secret

  Bytes secret;
  Bytes public_key;
  std::string address;
};

// Makes a new key pair and stores it durably under `path`, which must not exist:
// nothing is ever overwritten. Returns the address.
std::string create_key_file(const std::string& path);

KeyPair read_key_file(const std::string& path);

// One line on standard error when others than the owner may read the file.
void warn_if_readable_by_others(const std::string& path);

}  // namespace norvel::cli
