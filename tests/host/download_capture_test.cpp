// Recording downloads: the dump writer reads back as the same download, and the
// capture plug-in, loaded in place of the real one, keeps what it receives and
// hands it on; the host replays a kept dump to the same document byte for byte.

#include "DownloadDump.h"
#include "DownloadDumpWriter.h"
#include "HostProcess.h"
#include "generator/DownloadGenerator.h"

#include <TempDir.h>

#include <gtest/gtest.h>
#include <boost/filesystem/operations.hpp>

#include <dlfcn.h>

#include <cstdint>
#include <cstdlib>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

namespace fs = boost::filesystem;
using lkdh::host::ParseDownloadDump;
using lkdh::host::WriteDownloadDump;
using lkdh::test::Outcome;
using lkdh::test::ReadWholeFile;
using lkdh::test::TempDir;

const std::string kHost = LKDH_INSTALLED_HOST;
const std::string kPlugin = LKDH_INSTALLED_PLUGIN;
const std::string kCapture = LKDH_INSTALLED_CAPTURE;
const std::string kScript = LKDH_TEST_DATA_DIR "/host_device.lua";
const std::string kDump = LKDH_TEST_DATA_DIR "/host_download.json";
const std::string kDemoScript = LKDH_SOURCE_DIR "/examples/demo/demo.lua";
const std::string kDemoDump = LKDH_SOURCE_DIR "/examples/demo/demo-download.json";
const std::string kDemoExpected = LKDH_SOURCE_DIR "/examples/demo/expected-etsproject.xml";

std::string Hex(const KnxStack::BinaryData& data) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  for (const std::uint8_t byte : data.ToVector()) {
    text += kDigits[byte >> 4];
    text += kDigits[byte & 0x0F];
  }
  return text;
}

// Everything the plug-in can learn from a download, one line per fact.
std::string Observe(const Korvex::InterfaceObjectMap& objects, const KnxStack::BinaryData& memory,
                    const Korvex::CoDescriptorDataMap& descriptors) {
  std::ostringstream out;
  for (const auto& [index, list] : objects) {
    for (std::size_t position = 0; position < list.size(); ++position) {
      for (std::uint32_t id = 0; id <= 255; ++id) {
        const KnxStack::IProperty* property = list[position]->GetProperty(id);
        if (property == nullptr) continue;
        out << index << '/' << position << '/' << id << ": size " << property->GetElementSize();
        std::uint32_t count = 0;
        if (property->GetElementCount(count)) {
          out << ", count " << count;
        } else {
          out << ", no count";
        }
        KnxStack::BinaryData value;
        out << (property->Read(value) ? ", read " + Hex(value) : std::string(", unreadable"));
        for (std::uint32_t element = 0; element <= count; ++element) {
          KnxStack::BinaryData one;
          out << (property->ReadElements(element, 1, one) ? " [" + Hex(one) + "]"
                                                          : std::string(" [-]"));
        }
        out << '\n';
      }
    }
  }
  out << "memory " << memory.GetSize() << ' ' << Hex(memory) << '\n';
  for (const auto& [number, descriptor] : descriptors) {
    out << "co " << number << ' ' << descriptor.communicationEnabled << '\n';
  }
  return out.str();
}

std::string Observe(const lkdh::host::DownloadDump& dump) {
  return Observe(dump.interfaceObjects, dump.memory, dump.coDescriptors);
}

std::string DumpOf(const lkdh::host::DownloadDump& dump) {
  return WriteDownloadDump(dump.interfaceObjects, dump.memory, dump.coDescriptors);
}

bool StartsWith(const std::string& text, const std::string& prefix) {
  return text.rfind(prefix, 0) == 0;
}

std::vector<std::string> FileNames(const fs::path& directory) {
  std::set<std::string> names;
  if (fs::is_directory(directory)) {
    for (const fs::directory_entry& entry : fs::directory_iterator(directory)) {
      names.insert(entry.path().filename().string());
    }
  }
  return {names.begin(), names.end()};
}

TEST(DownloadDumpWriter, DemoDownloadReadsBackAsTheSameDownload) {
  const auto original = lkdh::host::LoadDownloadDump(kDemoDump);
  const std::string text = DumpOf(original);
  const auto again = ParseDownloadDump(text);
  EXPECT_EQ(Observe(again), Observe(original));
  EXPECT_EQ(DumpOf(again), text);
}

TEST(DownloadDumpWriter, GeneratedDownloadReadsBackAsTheSameDownload) {
  lkdh::bench::DownloadShape shape;
  shape.folders = 4;
  shape.functionsPerFolder = 8;
  shape.parametersPerFunction = 6;
  const auto download = lkdh::bench::GenerateDownload(shape);
  const auto again = ParseDownloadDump(
      WriteDownloadDump(download->objects, download->memory, download->descriptors));
  EXPECT_EQ(Observe(again), Observe(download->objects, download->memory, download->descriptors));
}

TEST(DownloadDumpWriter, WritesOneLinePerPropertyMemoryBlockAndDescriptor) {
  const auto dump = ParseDownloadDump(R"({
    "interfaceObjects": [
      {"index": 3, "properties": [
        {"id": 7, "pdt": "PDT_KNX_FLOAT", "values": [20.9]},
        {"id": 2, "pdt": "PDT_DATE", "hex": "010203"},
        {"id": 9, "pdt": "PDT_UNSIGNED_LONG", "values": [1, 2], "readable": false},
        {"id": 10, "pdt": "PDT_UNSIGNED_CHAR", "values": [5], "countAvailable": false},
        {"id": 11, "pdt": "PDT_VARIABLE_LENGTH", "hex": "000102030405060708090a0b0c0d0e0f101112131415"}]},
      {"index": 3, "properties": []}],
    "memory": {"size": 100, "blocks": [{"address": 4, "text": "ab"}, {"address": 9, "hex": "01"},
                                       {"address": 40, "hex": "ff"}]},
    "coDescriptors": [{"number": 5, "enabled": false}, {"number": 1, "enabled": true}]})");
  EXPECT_EQ(DumpOf(dump),
            "{\n"
            "  \"interfaceObjects\": [\n"
            "    { \"index\": 3, \"properties\": [\n"
            "        { \"id\": 2, \"pdt\": \"PDT_GENERIC_03\", \"hex\": \"010203\" },\n"
            "        { \"id\": 7, \"pdt\": \"PDT_UNSIGNED_INT\", \"hex\": \"0c15\" },\n"
            "        { \"id\": 9, \"pdt\": \"PDT_UNSIGNED_LONG\", \"hex\": \"0000000000000000\", "
            "\"readable\": false },\n"
            "        { \"id\": 10, \"pdt\": \"PDT_UNSIGNED_CHAR\", \"hex\": \"05\", "
            "\"countAvailable\": false },\n"
            "        { \"id\": 11, \"pdt\": \"PDT_VARIABLE_LENGTH\", \"hex\": "
            "\"000102030405060708090a0b0c0d0e0f101112131415\" }\n"
            "      ] },\n"
            "    { \"index\": 3, \"properties\": [] }\n"
            "  ],\n"
            "  \"memory\": { \"size\": 100, \"blocks\": [\n"
            "      { \"address\": 4, \"hex\": \"616200000001\" },\n"
            "      { \"address\": 40, \"hex\": \"ff\" }\n"
            "    ] },\n"
            "  \"coDescriptors\": [\n"
            "    { \"number\": 1, \"enabled\": true },\n"
            "    { \"number\": 5, \"enabled\": false }\n"
            "  ]\n"
            "}\n");
  EXPECT_EQ(Observe(ParseDownloadDump(DumpOf(dump))), Observe(dump));
}

TEST(DownloadDumpWriter, EmptyDownloadIsAnEmptyDump) {
  EXPECT_EQ(WriteDownloadDump({}, KnxStack::BinaryData(), {}),
            "{\n  \"interfaceObjects\": [],\n  \"memory\": { \"size\": 0, \"blocks\": [] },\n"
            "  \"coDescriptors\": []\n}\n");
}

TEST(DownloadDumpWriter, LongMemoryTextIsSplitIntoBlocksThatReadBackWhole) {
  const std::string text(100, 'x');
  const KnxStack::BinaryData memory(text);
  const std::string dump = WriteDownloadDump({}, memory, {});
  EXPECT_NE(dump.find("{ \"address\": 96, \"hex\": \"78787878\" }"), std::string::npos) << dump;
  EXPECT_EQ(ParseDownloadDump(dump).memory, memory);
}

TEST(DownloadDumpWriter, MemoryLargerThanADumpHoldsIsRefused) {
  const KnxStack::BinaryData largest(std::vector<std::uint8_t>(lkdh::host::kMaxMemorySize, 0));
  EXPECT_EQ(ParseDownloadDump(WriteDownloadDump({}, largest, {})).memory.GetSize(),
            lkdh::host::kMaxMemorySize);
  const KnxStack::BinaryData tooLarge(std::vector<std::uint8_t>(lkdh::host::kMaxMemorySize + 1, 0));
  try {
    WriteDownloadDump({}, tooLarge, {});
    ADD_FAILURE() << "no exception";
  } catch (const std::length_error& error) {
    EXPECT_STREQ(error.what(),
                 "the memory image of 16777217 bytes is larger than a dump may hold (16777216)");
  }
}

class CaptureTest : public ::testing::Test {
 protected:
  TempDir dir;
  fs::path project = dir.Path() / "etsproject.xml";
  fs::path captures = dir.Path() / "download-captures";

  void SetUp() override { Clear(); }
  void TearDown() override { Clear(); }

  static void Clear() {
    for (const char* name : {"LKDH_CAPTURE_PLUGIN", "LKDH_CAPTURE_DIR", "LKDH_CAPTURE_MAX_FILES",
                             "LKDH_CAPTURE_MAX_BYTES"}) {
      unsetenv(name);
    }
  }

  Outcome Run(const std::vector<std::string>& args) const {
    return lkdh::test::RunHost(kHost, dir.Path(), args);
  }

  // Through the capture plug-in, as the device's host would load it.
  Outcome Capture(const std::string& script, const std::string& dump,
                  const std::vector<std::string>& more = {}) const {
    std::vector<std::string> args{"--plugin", kCapture, "--config",
                                  project.string() + ";" + script};
    args.insert(args.end(), more.begin(), more.end());
    args.push_back(dump);
    return Run(args);
  }

  std::string Banner(const fs::path& directory, const std::string& files = "5",
                     const std::string& bytes = "8388608") const {
    return "INFO KnxDownloadCapture - downloads are kept in " + directory.string() + " (at most " +
           files + " files of at most " + bytes + " bytes) and handed to " +
           (fs::path(kCapture).parent_path() / "libLuaKnxDownloadHandler.so").string() + "\n";
  }

  std::string SaveLine(const fs::path& target) const {
    return "INFO KnxDownloadHandler - save new etsproject. Path: " + target.string() + "\n";
  }
};

TEST_F(CaptureTest, DemoDownloadIsKeptHandedOnAndReplayedToTheSameDocument) {
  const Outcome captured = Capture(kDemoScript, kDemoDump);
  EXPECT_EQ(captured.exitCode, 0) << captured.err;
  EXPECT_EQ(captured.out, "reset-user-data\nresult: true\n");
  const fs::path kept = captures / "download-00000001.json";
  EXPECT_EQ(captured.err, Banner(captures) + "INFO KnxDownloadCapture - download kept in " +
                              kept.string() + "\n" + SaveLine(project));
  EXPECT_EQ(FileNames(captures), std::vector<std::string>{"download-00000001.json"});
  EXPECT_EQ(ReadWholeFile(project), ReadWholeFile(kDemoExpected));

  const fs::path replayed = dir.Path() / "replayed.xml";
  const Outcome replay = Run({"--plugin", kPlugin, "--fail-on-no-write", "--config",
                              replayed.string() + ";" + kDemoScript, kept.string()});
  EXPECT_EQ(replay.exitCode, 0) << replay.err;
  EXPECT_EQ(replay.out, "reset-user-data\nresult: true\n");
  EXPECT_EQ(ReadWholeFile(replayed), ReadWholeFile(kDemoExpected));
}

TEST_F(CaptureTest, GeneratedDownloadCapturedInProcessReplaysToTheSameDocument) {
  lkdh::bench::DownloadShape shape;
  shape.folders = 6;
  shape.functionsPerFolder = 10;
  shape.parametersPerFunction = 5;
  const auto download = lkdh::bench::GenerateDownload(shape);
  const fs::path script = dir.WriteFile("device.lua", download->script);
  const fs::path kept = dir.Path() / "kept";
  setenv("LKDH_CAPTURE_DIR", kept.c_str(), 1);

  void* module = dlopen(kCapture.c_str(), RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(module, nullptr) << dlerror();
  auto create =
      reinterpret_cast<Korvex::CreateHandlerFunction>(dlsym(module, Korvex::kCreateHandlerSymbol));
  auto destroy =
      reinterpret_cast<Korvex::DeleteHandlerFunction>(dlsym(module, Korvex::kDeleteHandlerSymbol));
  ASSERT_NE(create, nullptr);
  ASSERT_NE(destroy, nullptr);
  Korvex::IKnxDownloadHandler* handler = create(project.string() + ";" + script.string());
  ASSERT_NE(handler, nullptr);
  EXPECT_TRUE(handler->Loaded());
  int resets = 0;
  EXPECT_TRUE(handler->CreateFileWithKnxData(
      download->objects, download->memory, [&resets] { ++resets; },
      Korvex::IKnxDownloadHandler::AppData_None, download->descriptors));
  EXPECT_EQ(resets, 1);
  destroy(handler);
  EXPECT_EQ(handler, nullptr);
  EXPECT_EQ(dlclose(module), 0);

  ASSERT_EQ(FileNames(kept), std::vector<std::string>{"download-00000001.json"});
  const fs::path replayed = dir.Path() / "replayed.xml";
  const Outcome replay =
      Run({"--fail-on-no-write", "--config", replayed.string() + ";" + script.string(),
           (kept / "download-00000001.json").string()});
  EXPECT_EQ(replay.exitCode, 0) << replay.err;
  const std::string document = ReadWholeFile(project);
  EXPECT_GT(document.size(), 10000U);
  EXPECT_EQ(ReadWholeFile(replayed), document);
}

TEST_F(CaptureTest, OnlyTheNewestFilesAreKept) {
  setenv("LKDH_CAPTURE_MAX_FILES", "2", 1);
  const Outcome outcome = Capture(kScript, kDump, {"--repeat", "3", "--app-data", "1"});
  EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
  EXPECT_EQ(outcome.out,
            "reset-user-data\nresult: true\nreset-user-data\nresult: true\n"
            "reset-user-data\nresult: true\n");
  EXPECT_EQ(FileNames(captures),
            (std::vector<std::string>{"download-00000002.json", "download-00000003.json"}));
}

TEST_F(CaptureTest, NumberingGoesOnAfterTheNewestFileAndStaleTemporariesGo) {
  fs::create_directories(captures);
  dir.WriteFile("download-captures/download-00000007.json", "{}");
  dir.WriteFile("download-captures/download-00000004.json.tmp", "{\"interf");
  dir.WriteFile("download-captures/notes.txt", "mine");
  const Outcome outcome = Capture(kScript, kDump);
  EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
  EXPECT_EQ(FileNames(captures), (std::vector<std::string>{"download-00000007.json",
                                                           "download-00000008.json", "notes.txt"}));
}

TEST_F(CaptureTest, DumpLargerThanTheLimitIsNotKeptAndTheDownloadRuns) {
  setenv("LKDH_CAPTURE_MAX_BYTES", "100", 1);
  const std::string size = std::to_string(DumpOf(lkdh::host::LoadDownloadDump(kDump)).size());
  const Outcome outcome = Capture(kScript, kDump);
  EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
  EXPECT_EQ(outcome.out, "reset-user-data\nresult: true\n");
  EXPECT_EQ(outcome.err, Banner(captures, "5", "100") +
                             "WARN KnxDownloadCapture - download not kept: its dump of " + size +
                             " bytes is larger than LKDH_CAPTURE_MAX_BYTES (100)\n" +
                             SaveLine(project));
  EXPECT_TRUE(FileNames(captures).empty());
}

TEST_F(CaptureTest, UnwritableFolderDoesNotFailTheDownload) {
  const fs::path blocker = dir.WriteFile("blocker", "a file, not a folder");
  setenv("LKDH_CAPTURE_DIR", (blocker / "captures").c_str(), 1);
  const Outcome outcome = Capture(kDemoScript, kDemoDump, {"--fail-on-no-write"});
  EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
  EXPECT_EQ(outcome.out, "reset-user-data\nresult: true\n");
  EXPECT_NE(outcome.err.find("\nWARN KnxDownloadCapture - download not kept: "), std::string::npos)
      << outcome.err;
  EXPECT_EQ(ReadWholeFile(project), ReadWholeFile(kDemoExpected));
}

TEST_F(CaptureTest, ZeroFilesKeepsNothing) {
  setenv("LKDH_CAPTURE_MAX_FILES", "0", 1);
  const Outcome outcome = Capture(kScript, kDump);
  EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
  EXPECT_EQ(outcome.err, Banner(captures, "0") + SaveLine(project));
  EXPECT_FALSE(fs::exists(captures));
}

TEST_F(CaptureTest, BadLimitFallsBackToTheDefaultWithAWarning) {
  setenv("LKDH_CAPTURE_MAX_FILES", "many", 1);
  const Outcome outcome = Capture(kScript, kDump);
  EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
  EXPECT_TRUE(StartsWith(outcome.err,
                         "WARN KnxDownloadCapture - LKDH_CAPTURE_MAX_FILES 'many' is not a "
                         "decimal number; using 5\n" +
                             Banner(captures)))
      << outcome.err;
  EXPECT_EQ(FileNames(captures), std::vector<std::string>{"download-00000001.json"});
}

TEST_F(CaptureTest, MissingRealPlugInLeavesTheHandlerNotLoaded) {
  setenv("LKDH_CAPTURE_PLUGIN", "/no/such/plugin.so", 1);
  const Outcome outcome = Capture(kScript, kDump);
  EXPECT_EQ(outcome.exitCode, 4);
  EXPECT_EQ(outcome.out, "");
  EXPECT_EQ(outcome.err,
            "ERROR KnxDownloadCapture - cannot load the plug-in /no/such/plugin.so: "
            "/no/such/plugin.so: cannot open shared object file: No such file or directory\n"
            "knx-download-host: the handler is not loaded (configuration '" +
                project.string() + ";" + kScript + "'); see the log for why\n");
}

TEST_F(CaptureTest, RealPlugInFromTheEnvironmentIsUsed) {
  setenv("LKDH_CAPTURE_PLUGIN", kPlugin.c_str(), 1);
  const Outcome outcome = Capture(kScript, kDump);
  EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
  EXPECT_TRUE(StartsWith(outcome.err, "INFO KnxDownloadCapture - downloads are kept in " +
                                          captures.string() +
                                          " (at most 5 files of at most 8388608 bytes) and "
                                          "handed to " +
                                          kPlugin + "\n"))
      << outcome.err;
}

}  // namespace
