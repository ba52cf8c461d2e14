// Writes a generated download as DIR/download.json and DIR/device.lua.
#include "DownloadGenerator.h"

#include <cstdlib>
#include <fstream>
#include <iostream>
#include <string>

int main(int argc, char** argv) {
  if (argc != 5) {
    std::cerr << "usage: lkdh-generate-download FOLDERS FUNCTIONS_PER_FOLDER PARAMETERS DIR\n";
    return 2;
  }
  try {
    lkdh::bench::DownloadShape shape;
    shape.folders = static_cast<unsigned>(std::stoul(argv[1]));
    shape.functionsPerFolder = static_cast<unsigned>(std::stoul(argv[2]));
    shape.parametersPerFunction = static_cast<unsigned>(std::stoul(argv[3]));
    const auto download = lkdh::bench::GenerateDownload(shape);
    const std::string dir = argv[4];
    std::ofstream(dir + "/download.json") << lkdh::bench::ToDumpJson(*download);
    std::ofstream(dir + "/device.lua") << download->script;
  } catch (const std::exception& e) {
    std::cerr << "lkdh-generate-download: " << e.what() << "\n";
    return 2;
  }
  return 0;
}
