// Finds nonces for the functional tests: reads block headers, 84 bytes in
// hexadecimal a line, from standard input and answers each with a line that
// holds the lowest nonce, in decimal, with which it meets its own bits.

#include <iostream>
#include <string>

#include "consensus/difficulty.h"
#include "core/block_header.h"
#include "crypto/hex.h"

int main() {
  std::string line;
  while (std::getline(std::cin, line)) {
    size_t offset = 0;
    auto header = norvel::BlockHeader::deserialize(norvel::crypto::hex_to_bytes(line), offset);
    const norvel::uint256 target = norvel::difficulty::bits_to_target(header.bits);
    for (header.nonce = 0; header.get_hash() > target; ++header.nonce) {
    }
    std::cout << header.nonce << std::endl;
  }
}
