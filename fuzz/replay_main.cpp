// Feeds every file of the given folders to the fuzz target, in a build without
// libFuzzer. Ends with status 1 when a folder holds no input.

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <vector>

#include "fuzz_target.h"

int main(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    std::vector<std::filesystem::path> inputs;
    for (const auto& entry : std::filesystem::directory_iterator(argv[i])) {
      inputs.push_back(entry.path());
    }
    std::sort(inputs.begin(), inputs.end());
    for (const auto& path : inputs) {
      std::ifstream file(path, std::ios::binary);
      // Exactly as large as the input, so that a read past its end is seen.
      const norvel::Bytes data{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
      LLVMFuzzerTestOneInput(data.data(), data.size());
    }
    std::cout << argv[i] << ": " << inputs.size() << " inputs\n";
    if (inputs.empty()) {
      return 1;
    }
  }
  return argc > 1 ? 0 : 1;
}
