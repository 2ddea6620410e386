// Replays every file of the given corpus folders through the fuzz entry point, so that each seed (and
// each crash that became a seed) runs in ordinary test builds without libFuzzer.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv) {
  size_t count = 0;
  for (int i = 1; i < argc; ++i) {
    std::error_code ec;
    if (!std::filesystem::exists(argv[i], ec)) continue;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(argv[i])) {
      if (!entry.is_regular_file()) continue;
      std::ifstream in(entry.path(), std::ios::binary);
      std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
      // Exactly sized copy: an over-read by one byte shows up under the sanitizers.
      std::vector<uint8_t> exact(bytes.begin(), bytes.end());
      LLVMFuzzerTestOneInput(exact.data(), exact.size());
      ++count;
    }
  }
  std::printf("replayed %zu inputs\n", count);
  return 0;
}
