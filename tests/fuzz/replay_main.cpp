/// In place of libFuzzer: gives the target each file of some folders, and no bytes at all.
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <vector>

#include "fuzz_support.h"

int main(int argc, char** argv) {
  namespace fs = std::filesystem;
  std::vector<fs::path> seeds;
  for (int folder = 1; folder < argc; ++folder) {
    if (!fs::is_directory(argv[folder])) {
      static_cast<void>(fprintf(stderr, "Usage: %s FOLDER...\n", argv[0]));
      return 2;
    }
    seeds.insert(seeds.end(), fs::directory_iterator(argv[folder]), fs::directory_iterator());
  }
  std::sort(seeds.begin(), seeds.end());
  LLVMFuzzerTestOneInput(nullptr, 0);
  for (const fs::path& seed : seeds) {
    puts(seed.c_str());  // the last one shown is the one that a crash belongs to
    static_cast<void>(fflush(stdout));
    std::ostringstream text;
    text << std::ifstream(seed, std::ios::binary).rdbuf();
    const std::string input = text.str();
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(input.data()), input.size());
  }
  return seeds.empty() ? 1 : 0;
}
