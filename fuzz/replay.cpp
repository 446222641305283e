#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "support/files.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

// Runs a target over every file of the folders named, for compilers without a fuzzer.
int main(int argc, char** argv) {
  std::size_t count = 0;
  for (const std::string& folder : std::vector<std::string>(argv + 1, argv + argc)) {
    for (const auto& [name, bytes] : verdel::internal::testing::contents_of(folder)) {
      std::fprintf(stderr, "%s\n", name.c_str());  // the last one is the one that failed
      LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
      ++count;
    }
  }
  std::fprintf(stderr, "%zu inputs\n", count);
  return count == 0 ? 1 : 0;
}
