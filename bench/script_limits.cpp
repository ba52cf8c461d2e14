// What the description script of the largest generated downloads costs: the
// Lua instructions of its most expensive single call (counted exactly) and the
// most memory its interpreter held, over one whole download. The handler's
// default limits are set from these figures (docs/description-scripts.md).
//
//   lkdh_script_limits [F N P ...]   (default: 255 255 4 and 255 255 100)
//
// One line per shape: F N P largest_call_instructions peak_interpreter_bytes
// (the peak from the end of loading to the end of the download).
#include "generator/DownloadGenerator.h"

#include <LuaKnxDownloadHandler/EtsXml.h>
#include <LuaKnxDownloadHandler/LuxHelper.h>

#include <log4cplus/logger.h>
#include <boost/filesystem/operations.hpp>

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <limits>
#include <string>
#include <vector>

namespace fs = boost::filesystem;

int main(int argc, char** argv) {
  std::vector<lkdh::bench::DownloadShape> shapes;
  for (int i = 1; i + 2 < argc; i += 3) {
    lkdh::bench::DownloadShape shape;
    shape.folders = static_cast<unsigned>(std::strtoul(argv[i], nullptr, 10));
    shape.functionsPerFolder = static_cast<unsigned>(std::strtoul(argv[i + 1], nullptr, 10));
    shape.parametersPerFunction = static_cast<unsigned>(std::strtoul(argv[i + 2], nullptr, 10));
    shapes.push_back(shape);
  }
  if (shapes.empty()) {
    shapes.resize(2);
    shapes[0].folders = shapes[1].folders = 255;
    shapes[0].functionsPerFolder = shapes[1].functionsPerFolder = 255;
    shapes[0].parametersPerFunction = 4;
    shapes[1].parametersPerFunction = 100;
  }
  const log4cplus::Logger logger = log4cplus::Logger::getInstance("KnxDownloadHandler");
  const fs::path dir = fs::temp_directory_path() / fs::unique_path("lkdh-limits-%%%%-%%%%");
  fs::create_directories(dir);
  int status = 0;
  for (const auto& shape : shapes) {
    const auto download = lkdh::bench::GenerateDownload(shape);
    const fs::path script = dir / "device.lua";
    std::ofstream(script.string()) << download->script;
    Korvex::luaknxdownloadhandler::LuxHelper bridge;
    // Counted at every instruction, never stopped.
    bridge.SetInstructionStep(1);
    bridge.SetLimits(std::numeric_limits<std::uint64_t>::max(), 0);
    if (!bridge.Load(script.string())) {
      std::cerr << "the generated script did not load\n";
      status = 1;
      continue;
    }
    bridge.TrackPeakMemory(true);
    Korvex::luaknxdownloadhandler::EtsXml builder(download->objects, download->memory,
                                                  download->descriptors, &logger, &bridge);
    if (!builder.Create()) {
      std::cerr << "no document\n";
      status = 1;
    }
    std::cout << shape.folders << " " << shape.functionsPerFolder << " "
              << shape.parametersPerFunction << " " << bridge.LargestCallInstructions() << " "
              << bridge.PeakMemoryInUse() << "\n";
  }
  fs::remove_all(dir);
  return status;
}
