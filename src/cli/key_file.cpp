#include "cli/key_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <tuple>
#include <vector>

#include "core/console.h"
#include "core/file_io.h"
#include "core/settings_file.h"
#include "crypto/address.h"
#include "crypto/hex.h"
#include "crypto/keys.h"
#include "crypto/secure_zero.h"

namespace norvel::cli {

namespace {

constexpr uint8_t kAddressVersion = 0;

[[noreturn]] void fail(const std::string& path, const std::string& reason) {
  throw std::runtime_error(path + ": " + reason);
}

// crypto::hex_to_bytes() is lenient; a mistyped secret must not become another one.
std::optional<Bytes> read_hex(const std::string& text, size_t size) {
  if (text.size() != 2 * size || text.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) {
    return std::nullopt;
  }
  return crypto::hex_to_bytes(text);
}

void wipe(std::string& text) {
  crypto::secure_zero(text.data(), text.size());
}

std::string key_file_text(const KeyPair& pair) {
  std::string secret = crypto::bytes_to_hex(pair.secret);
  std::string text;
  text.reserve(1'024);  // no copy with the secret is left behind by growing
  text += "# A Norvel key pair. Whoever reads the secret can spend the coins of the address;\n";
  text += "# whoever loses it cannot: keep a copy of this file in a safe place.\n";
  text += "secret = ";
  text += secret;
  text += "\npublic = " + crypto::bytes_to_hex(pair.public_key);
  text += "\naddress = " + pair.address + "\n";
  wipe(secret);
  return text;
}

void store_new_file(const std::string& path, ByteView data) {
  FileDescriptor file = open_file(path, O_WRONLY | O_CREAT | O_EXCL);
  if (!file.is_open()) {
    fail(path, errno == EEXIST ? "exists already, and is left as it is" : std::strerror(errno));
  }
  const bool stored = ::fchmod(file.get(), S_IRUSR | S_IWUSR) == 0 && write_all(file.get(), data) &&
                      sync_data(file.get()) && sync_directory(directory_of(path));
  if (!stored) {
    const int error = errno;
    ::unlink(path.c_str());
    fail(path, std::strerror(error));
  }
}

std::optional<std::string> find_value(const std::vector<Setting>& entries, const std::string& key) {
  for (const Setting& entry : entries) {
    if (entry.key == key) {
      return entry.value;
    }
  }
  return std::nullopt;
}

KeyPair read_pair(const std::vector<Setting>& entries, const std::string& path) {
  const auto secret = read_hex(find_value(entries, "secret").value_or(""), crypto::kPrivateKeyBytes);
  if (!secret) {
    fail(path, "no line \"secret = \" with 64 hexadecimal digits");
  }
  KeyPair pair;
  pair.secret = *secret;
  pair.public_key = crypto::derive_public_key(pair.secret);
  pair.address = crypto::pubkey_to_address(pair.public_key, kAddressVersion);
  const auto public_text = find_value(entries, "public");
  if (public_text && read_hex(*public_text, crypto::kPublicKeyBytes) != pair.public_key) {
    fail(path, "the public key does not belong to the secret");
  }
  if (find_value(entries, "address").value_or(pair.address) != pair.address) {
    fail(path, "the address does not belong to the secret");
  }
  return pair;
}

}  // namespace

KeyPair::~KeyPair() {
  crypto::secure_zero(secret);
}

std::string create_key_file(const std::string& path) {
  KeyPair pair;
  std::tie(pair.secret, pair.public_key) = crypto::generate_keypair();
  pair.address = crypto::pubkey_to_address(pair.public_key, kAddressVersion);
  std::string text = key_file_text(pair);
  const std::span<uint8_t> bytes(reinterpret_cast<uint8_t*>(text.data()), text.size());
  const crypto::WipeOnExit wipe_text(bytes);
  store_new_file(path, bytes);
  return pair.address;
}

KeyPair read_key_file(const std::string& path) {
  auto entries = read_settings(path);
  if (!entries) {
    fail(path, std::strerror(ENOENT));
  }
  warn_if_readable_by_others(path);
  KeyPair pair = read_pair(*entries, path);
  for (Setting& entry : *entries) {
    wipe(entry.value);
  }
  return pair;
}

void warn_if_readable_by_others(const std::string& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) == 0 && (status.st_mode & (S_IRGRP | S_IROTH)) != 0) {
    console::error_line("Warning: " + path + " can be read by other users; chmod 600 is advised");
  }
}

}  // namespace norvel::cli
