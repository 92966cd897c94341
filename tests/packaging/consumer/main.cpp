#include <iostream>

#include "chain/blockchain.h"

// Makes a chain in the directory named and prints the hash of its only block.
int main(int, char** argv) {
  norvel::Blockchain chain(argv[1]);
  std::string error;
  const bool opened = chain.initialize(error);
  std::cout << (opened ? chain.get_best_hash().to_hex() : error) << "\n";
  return opened ? 0 : 1;
}
