// Runs a harness's entry point without libFuzzer: once for every file named
// on the command line and every file in each directory named. Fails when no
// input was found, so that a lost corpus does not pass unnoticed.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* argc, char*** argv);

namespace fs = std::filesystem;

int main(int argc, char** argv) {
  if (LLVMFuzzerInitialize) LLVMFuzzerInitialize(&argc, &argv);
  std::vector<fs::path> inputs;
  for (int i = 1; i < argc; ++i) {
    if (fs::is_directory(argv[i])) {
      for (const auto& e : fs::directory_iterator(argv[i])) {
        if (e.is_regular_file()) inputs.push_back(e.path());
      }
    } else if (fs::is_regular_file(argv[i])) {
      inputs.emplace_back(argv[i]);
    }
  }
  for (const fs::path& p : inputs) {
    std::ifstream in(p, std::ios::binary);
    const std::string bytes{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    std::fprintf(stderr, "replay %s (%zu bytes)\n", p.c_str(), bytes.size());
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
  }
  std::printf("%zu inputs replayed\n", inputs.size());
  return inputs.empty() ? 1 : 0;
}
