// Heap growth per download over 1,000 downloads of the demo device in one
// process, with the demo script (one ShowIf function) and with the same script
// without ShowIf. Usage: lkdh_memory_growth [DOWNLOADS] [--json FILE]
#include "MemoryGrowth.h"

#include <boost/filesystem/operations.hpp>

#include <cstdlib>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <sstream>
#include <string>

namespace fs = boost::filesystem;

namespace {

const std::string kDemoScript = LKDH_SOURCE_DIR "/examples/demo/demo.lua";
const std::string kDemoDump = LKDH_SOURCE_DIR "/examples/demo/demo-download.json";
constexpr int kWarmUp = 50;

struct Row {
  std::string name;
  lkdh::bench::GrowthFigures figures;
  int showIfReads = 0;
};

std::string Json(const Row& row) {
  std::ostringstream out;
  out << std::fixed << std::setprecision(2) << "{\"script\": \"" << row.name
      << "\", \"warm_up\": " << row.figures.warmUp << ", \"downloads\": " << row.figures.downloads
      << ", \"written\": " << row.figures.written
      << ", \"heap_after_warm_up\": " << row.figures.heapAfterWarmUp
      << ", \"heap_after\": " << row.figures.heapAfter
      << ", \"bytes_per_download\": " << row.figures.BytesPerDownload()
      << ", \"floor_first\": " << row.figures.floorFirst
      << ", \"floor_last\": " << row.figures.floorLast
      << ", \"floor_bytes_per_download\": " << row.figures.FloorBytesPerDownload()
      << ", \"showif_reads_per_download\": " << row.showIfReads
      << ", \"expected_registry_bytes_per_download\": "
      << row.showIfReads * lkdh::bench::kRegistrySlotBytes << "}";
  return out.str();
}

}  // namespace

int main(int argc, char** argv) {
  int downloads = 1000;
  std::string jsonPath;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--json" && i + 1 < argc) {
      jsonPath = argv[++i];
    } else if (!arg.empty() && arg.find_first_not_of("0123456789") == std::string::npos) {
      downloads = std::atoi(arg.c_str());
    } else {
      std::cerr << "usage: lkdh_memory_growth [DOWNLOADS] [--json FILE]\n";
      return 2;
    }
  }
  if (downloads <= 0) downloads = 1000;

  const fs::path dir = fs::temp_directory_path() / fs::unique_path("lkdh-memory-%%%%-%%%%");
  fs::create_directories(dir);
  const fs::path withoutShowIf = dir / "demo-without-showif.lua";
  std::ofstream(withoutShowIf.string())
      << lkdh::bench::WithoutShowIf(lkdh::bench::ReadText(kDemoScript));
  const lkdh::host::DownloadDump dumps[2] = {lkdh::bench::DemoDump(kDemoDump, false),
                                             lkdh::bench::DemoDump(kDemoDump, true)};

  Row rows[2];
  const fs::path scripts[2] = {kDemoScript, withoutShowIf};
  const char* names[2] = {"demo.lua (ShowIf)", "demo.lua without ShowIf"};
  for (int i = 0; i < 2; ++i) {
    const fs::path work = dir / std::to_string(i);
    fs::create_directories(work);
    rows[i].name = names[i];
    rows[i].figures = lkdh::bench::MeasureGrowth(scripts[i], work, dumps, kWarmUp, downloads);
    rows[i].showIfReads =
        i == 0 ? lkdh::bench::DemoShowIfReads(lkdh::bench::ReadText(work / "etsproject.xml")) : 0;
  }
  boost::system::error_code ignored;
  fs::remove_all(dir, ignored);

  std::cout << std::fixed << std::setprecision(1);
  std::cout << "heap (mallinfo2 uordblks) over " << downloads << " downloads after " << kWarmUp
            << " warm-up downloads, two documents alternately (every download writes)\n";
  for (const auto& row : rows) {
    std::cout << "  " << std::left << std::setw(26) << row.name << std::right
              << " heap after warm-up " << row.figures.heapAfterWarmUp << " B, after "
              << row.figures.heapAfter << " B, growth " << row.figures.BytesPerDownload()
              << " B/download (lows of the first and last " << lkdh::bench::GrowthFigures::kWindow
              << ": " << row.figures.floorFirst << " B, " << row.figures.floorLast << " B, "
              << row.figures.FloorBytesPerDownload()
              << " B/download); ShowIf functions read per download " << row.showIfReads
              << " -> registry growth expected "
              << row.showIfReads * lkdh::bench::kRegistrySlotBytes << " B/download\n";
  }
  if (!jsonPath.empty()) {
    std::ofstream json(jsonPath);
    json << "[" << Json(rows[0]) << ",\n " << Json(rows[1]) << "]\n";
    if (!json) {
      std::cerr << "cannot write " << jsonPath << "\n";
      return 1;
    }
  }
  return 0;
}
