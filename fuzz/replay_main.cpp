// Runs a fuzz target over corpus files, so that the test suite replays the
// corpus with any compiler (libFuzzer is only needed to find new inputs).
#include <boost/filesystem/operations.hpp>

#include <cstdint>
#include <fstream>
#include <iostream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace fs = boost::filesystem;

int main(int argc, char** argv) {
  std::size_t inputs = 0;
  for (int i = 1; i < argc; ++i) {
    std::vector<fs::path> files;
    if (fs::is_directory(argv[i])) {
      for (const auto& entry : fs::directory_iterator(argv[i])) files.push_back(entry.path());
    } else {
      files.emplace_back(argv[i]);
    }
    std::sort(files.begin(), files.end());
    for (const auto& file : files) {
      std::ifstream in(file.string(), std::ios::binary);
      const std::vector<std::uint8_t> bytes((std::istreambuf_iterator<char>(in)),
                                            std::istreambuf_iterator<char>());
      LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
      ++inputs;
    }
  }
  std::cout << "replayed " << inputs << " inputs\n";
  return inputs > 0 ? 0 : 1;
}
