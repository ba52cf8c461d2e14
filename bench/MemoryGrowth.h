#pragma once
// Heap growth over many downloads in one process, measured with glibc's
// mallinfo2(): what a device that is never restarted would accumulate. Shared
// by bench/memory_growth.cpp and tests/reliability/memory_growth_test.cpp.

#include <DownloadDump.h>
#include <LuaKnxDownloadHandler/luaknxdownloadhandler.h>
#include <ovslua/PoolUsage.h>

#include <log4cplus/logger.h>
#include <log4cplus/loglevel.h>
#include <boost/filesystem/operations.hpp>

#include <malloc.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

namespace lkdh::bench {

namespace fs = boost::filesystem;

/// A Lua 5.4 registry slot (TValue: 8-byte value and tag, 16 bytes on 32 and 64 bit).
inline constexpr std::size_t kRegistrySlotBytes = 16;

struct GrowthFigures {
  static constexpr int kWindow = 100;
  int warmUp = 0;
  int downloads = 0;
  std::size_t heapAfterWarmUp = 0;  // bytes in use (uordblks)
  std::size_t heapAfter = 0;
  // The lowest heap over the first and over the last kWindow downloads: the Lua
  // collector frees garbage in cycles, and the lows are where a cycle finished.
  std::size_t floorFirst = 0;
  std::size_t floorLast = 0;
  int written = 0;  // downloads that wrote the file
  double BytesPerDownload() const {
    return (static_cast<double>(heapAfter) - static_cast<double>(heapAfterWarmUp)) / downloads;
  }
  double FloorBytesPerDownload() const {
    return (static_cast<double>(floorLast) - static_cast<double>(floorFirst)) /
           (downloads - kWindow);
  }
};

inline std::string ReadText(const fs::path& path) {
  std::ifstream in(path.string(), std::ios::binary);
  if (!in) throw std::runtime_error("cannot read " + path.string());
  std::ostringstream content;
  content << in.rdbuf();
  return content.str();
}

// malloc's count, with the interpreters' pool chunks counted by the blocks in use
// in them: a chunk is 64 KiB, and a small leak would hide in it for a long time.
inline std::size_t HeapInUse() {
  const ovslua::PoolUsage pool = ovslua::InterpreterPoolUsage();
  return ::mallinfo2().uordblks - pool.chunkBytes + pool.blockBytes;
}

/// The demo dump, and a variant with one folder renamed so that alternating the
/// two makes every download write.
inline lkdh::host::DownloadDump DemoDump(const std::string& path, bool renamed) {
  std::string text = ReadText(path);
  if (renamed) {
    const auto folder = text.find("\"Living room\"");
    if (folder == std::string::npos) throw std::runtime_error("no 'Living room' in " + path);
    text.replace(folder, 13, "\"Living area\"");
  }
  return lkdh::host::ParseDownloadDump(text);
}

/// The script with its ShowIf tables under a key the plug-in does not read, so
/// that no ShowIf function is ever referenced.
inline std::string WithoutShowIf(std::string script) {
  for (auto at = script.find("ShowIf ="); at != std::string::npos;
       at = script.find("ShowIf =", at + 9)) {
    script.replace(at, 8, "Unused =");
  }
  return script;
}

/// Runs warmUp and then downloads (more than GrowthFigures::kWindow) downloads of the two dumps
/// alternately through one handler, writing into directory, and measures the heap around the second
/// part.
inline GrowthFigures MeasureGrowth(const fs::path& script, const fs::path& directory,
                                   const lkdh::host::DownloadDump (&dumps)[2], int warmUp,
                                   int downloads) {
  // The handler logs every write; no appender needed to measure the heap.
  log4cplus::Logger::getInstance("KnxDownloadHandler").setLogLevel(log4cplus::OFF_LOG_LEVEL);
  log4cplus::Logger::getInstance("ovslua").setLogLevel(log4cplus::OFF_LOG_LEVEL);
  Korvex::LuaKnxDownloadHandler handler((directory / "etsproject.xml").string() + ";" +
                                        script.string());
  if (!handler.Loaded()) throw std::runtime_error("the script did not load: " + script.string());
  GrowthFigures figures;
  figures.warmUp = warmUp;
  figures.downloads = downloads;
  auto download = [&](int i) {
    const auto& dump = dumps[i % 2];
    return handler.CreateFileWithKnxData(
        dump.interfaceObjects, dump.memory, [] {}, Korvex::IKnxDownloadHandler::AppData_None,
        dump.coDescriptors);
  };
  for (int i = 0; i < warmUp; ++i) download(i);
  figures.heapAfterWarmUp = HeapInUse();
  figures.floorFirst = figures.heapAfterWarmUp;
  figures.floorLast = SIZE_MAX;
  for (int i = 0; i < downloads; ++i) {
    if (download(warmUp + i)) ++figures.written;
    const std::size_t heap = HeapInUse();
    if (i < GrowthFigures::kWindow) figures.floorFirst = std::min(figures.floorFirst, heap);
    if (i >= downloads - GrowthFigures::kWindow)
      figures.floorLast = std::min(figures.floorLast, heap);
  }
  figures.heapAfter = HeapInUse();
  return figures;
}

/// How many ShowIf functions one demo download reads: the demo's only ShowIf is
/// the heating function's eco setpoint, read once per heating function.
inline int DemoShowIfReads(const std::string& document) {
  int count = 0;
  for (auto at = document.find("urn:korvex:function:heating\""); at != std::string::npos;
       at = document.find("urn:korvex:function:heating\"", at + 1)) {
    ++count;
  }
  return count;
}

}  // namespace lkdh::bench
