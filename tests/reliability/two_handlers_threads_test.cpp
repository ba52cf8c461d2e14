// Two handlers in one process, each downloading on a thread of its own, with
// different scripts and data: each must write exactly its own document every
// time, as it does alone. The builders share the library's formatter objects.

#include <DownloadDump.h>
#include <DownloadGenerator.h>
#include <LuaKnxDownloadHandler/luaknxdownloadhandler.h>

#include <TempDir.h>

#include <gtest/gtest.h>
#include <boost/filesystem/operations.hpp>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

namespace fs = boost::filesystem;
using Korvex::IKnxDownloadHandler;
using Korvex::LuaKnxDownloadHandler;
using lkdh::test::ReadWholeFile;
using lkdh::test::TempDir;

const std::string kDemoScript = LKDH_SOURCE_DIR "/examples/demo/demo.lua";
const std::string kDemoDump = LKDH_SOURCE_DIR "/examples/demo/demo-download.json";
constexpr int kDownloads = 60;

struct Side {
  const Korvex::InterfaceObjectMap* objects = nullptr;
  const KnxStack::BinaryData* memory = nullptr;
  const Korvex::CoDescriptorDataMap* descriptors = nullptr;
  fs::path file;
  std::unique_ptr<LuaKnxDownloadHandler> handler;
  std::string expected;
  int written = 0;
  int wrong = 0;
  int callbacks = 0;

  bool Download() {
    const std::function<void()> callback = [this] { ++callbacks; };
    // Forced, so that every download writes and can be compared.
    return handler->CreateFileWithKnxData(*objects, *memory, callback,
                                          IKnxDownloadHandler::AppData_ForceWrite, *descriptors);
  }

  void Run(std::atomic<int>& ready) {
    // Both threads start together, so their builds overlap.
    ready.fetch_add(1);
    while (ready.load() < 2) std::this_thread::yield();
    for (int download = 0; download < kDownloads; ++download) {
      if (Download() && ReadWholeFile(file) == expected) {
        ++written;
      } else {
        ++wrong;
      }
    }
  }
};

TEST(TwoHandlersTest, DownloadsOnTwoThreadsEachWriteTheirOwnDocument) {
  TempDir dir;
  const lkdh::host::DownloadDump dump = lkdh::host::LoadDownloadDump(kDemoDump);
  lkdh::bench::DownloadShape shape;
  shape.folders = 12;
  shape.functionsPerFolder = 10;
  shape.parametersPerFunction = 6;
  const auto generated = lkdh::bench::GenerateDownload(shape);
  // Without a memory image every name is the builder's default, made by the
  // shared formatters: "Folder 3", "Function 17", "P005 17".
  const KnxStack::BinaryData noMemory;
  const fs::path generatedScript = dir.WriteFile("generated.lua", generated->script);

  Side demo;
  demo.objects = &dump.interfaceObjects;
  demo.memory = &noMemory;
  demo.descriptors = &dump.coDescriptors;
  demo.file = dir.Path() / "demo.xml";
  demo.handler = std::make_unique<LuaKnxDownloadHandler>(demo.file.string() + ";" + kDemoScript);

  Side other;
  other.objects = &generated->objects;
  other.memory = &noMemory;
  other.descriptors = &generated->descriptors;
  other.file = dir.Path() / "generated.xml";
  other.handler =
      std::make_unique<LuaKnxDownloadHandler>(other.file.string() + ";" + generatedScript.string());
  ASSERT_TRUE(demo.handler->Loaded());
  ASSERT_TRUE(other.handler->Loaded());
  // Alone, each download gives the document its thread must repeat.
  for (Side* side : {&demo, &other}) {
    ASSERT_TRUE(side->Download());
    side->expected = ReadWholeFile(side->file);
    side->callbacks = 0;
  }
  ASSERT_NE(demo.expected.find("name=\"Folder 2\""), std::string::npos);
  ASSERT_NE(other.expected.find("name=\"Folder 11\""), std::string::npos);
  ASSERT_NE(other.expected.find("name=\"Function 119\""), std::string::npos);
  ASSERT_NE(other.expected.find("value=\"P005 119\""), std::string::npos);

  std::atomic<int> ready{0};
  std::thread first([&] { demo.Run(ready); });
  std::thread second([&] { other.Run(ready); });
  first.join();
  second.join();

  EXPECT_EQ(demo.written, kDownloads);
  EXPECT_EQ(demo.wrong, 0);
  EXPECT_EQ(demo.callbacks, kDownloads);
  EXPECT_EQ(other.written, kDownloads);
  EXPECT_EQ(other.wrong, 0);
  EXPECT_EQ(other.callbacks, kDownloads);
}

}  // namespace
