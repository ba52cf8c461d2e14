// The heap must not grow with the number of downloads beyond the registry slot
// each ShowIf function read keeps for the life of the interpreter. Measured with
// mallinfo2(), which AddressSanitizer's allocator does not feed.

#include "../../bench/MemoryGrowth.h"

#include <TempDir.h>

#include <gtest/gtest.h>

#include <fstream>
#include <iostream>
#include <string>

#if defined(__SANITIZE_ADDRESS__)
#define LKDH_UNDER_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define LKDH_UNDER_ASAN 1
#endif
#endif

namespace {

using lkdh::test::TempDir;

const std::string kDemoScript = LKDH_SOURCE_DIR "/examples/demo/demo.lua";
const std::string kDemoDump = LKDH_SOURCE_DIR "/examples/demo/demo-download.json";
constexpr int kWarmUp = 50;
constexpr int kDownloads = 1000;
// Generous: a leak of even one small object per download would pass this only
// if it were well under it; real leaks of a document or a Lua table are kilobytes.
constexpr double kBoundBytesPerDownload = 2048;

class MemoryGrowthTest : public ::testing::Test {
 protected:
  void SetUp() override {
#if defined(LKDH_UNDER_ASAN)
    GTEST_SKIP() << "mallinfo2() does not see AddressSanitizer's allocator";
#endif
  }

  lkdh::bench::GrowthFigures Measure(const boost::filesystem::path& script) {
    const lkdh::host::DownloadDump dumps[2] = {lkdh::bench::DemoDump(kDemoDump, false),
                                               lkdh::bench::DemoDump(kDemoDump, true)};
    const auto figures = lkdh::bench::MeasureGrowth(script, dir.Path(), dumps, kWarmUp, kDownloads);
    std::cout << script.filename().string() << ": " << figures.BytesPerDownload()
              << " B/download over " << kDownloads << " downloads\n";
    std::cout << "  lows of the first and last " << figures.kWindow << ": "
              << figures.FloorBytesPerDownload() << " B/download\n";
    RecordProperty("bytes_per_download", std::to_string(figures.BytesPerDownload()));
    RecordProperty("floor_bytes_per_download", std::to_string(figures.FloorBytesPerDownload()));
    RecordProperty("downloads", kDownloads);
    return figures;
  }

  TempDir dir;
};

TEST_F(MemoryGrowthTest, ShowIfFreeScriptDoesNotGrowTheHeap) {
  const auto script = dir.WriteFile("without-showif.lua",
                                    lkdh::bench::WithoutShowIf(lkdh::bench::ReadText(kDemoScript)));
  const auto figures = Measure(script);
  EXPECT_EQ(figures.written, kDownloads);
  EXPECT_LT(figures.BytesPerDownload(), kBoundBytesPerDownload);
  // Between collections nothing at all should stay behind; less than one registry slot is noise.
  EXPECT_LT(figures.FloorBytesPerDownload(), 16.0);
}

TEST_F(MemoryGrowthTest, DemoScriptGrowsByItsRegistryReferencesOnly) {
  const auto figures = Measure(kDemoScript);
  EXPECT_EQ(figures.written, kDownloads);
  EXPECT_LT(figures.BytesPerDownload(), kBoundBytesPerDownload);
}

}  // namespace
