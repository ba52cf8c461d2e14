// A whole etsproject document from a real description script (data/golden_device.lua)
// run by the plug-in on the download of the fake-bridge golden test, compared
// byte for byte with data/golden_script_etsproject.xml.
//
// The two expected files differ only in the order of each function's
// parameters: the plug-in sorts a script's parameter list by key, while the
// fake bridge hands its list to the builder as it is.

#include "ets_xml_test_support.h"

#include <LuaKnxDownloadHandler/luaknxdownloadhandler.h>

#include <CapturingAppender.h>
#include <SchemaValidation.h>
#include <TempDir.h>

#include <gtest/gtest.h>
#include <log4cplus/loglevel.h>

#include <boost/filesystem/operations.hpp>

#include <algorithm>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

namespace lkdh::test {
namespace {

namespace fs = boost::filesystem;

using Korvex::IKnxDownloadHandler;
using Korvex::LuaKnxDownloadHandler;

constexpr int kError = log4cplus::ERROR_LOG_LEVEL;

std::string DataFile(const std::string& name) {
  std::ifstream file(std::string(LKDH_TEST_DATA_DIR "/") + name, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

std::vector<std::string> SplitLines(const std::string& text) {
  std::vector<std::string> lines;
  std::string::size_type start = 0;
  for (auto end = text.find('\n'); end != std::string::npos; end = text.find('\n', start)) {
    lines.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  lines.push_back(text.substr(start));
  return lines;
}

std::string JoinLines(const std::vector<std::string>& lines) {
  std::string text;
  for (std::size_t i = 0; i < lines.size(); ++i) {
    text += (i == 0 ? "" : "\n") + lines[i];
  }
  return text;
}

// The interface objects, property values, memory image and descriptors of
// GoldenTest in ets_xml_golden_test.cpp, built in the same order so that the
// memory image is the same byte for byte. Which property means what is the
// script's business (data/golden_device.lua).
class GoldenDownload {
 public:
  GoldenDownload() {
    Limits();
    DeviceSettings();
    Folders();
    Functions();
    StaticData();
    download.descriptors[300].communicationEnabled = true;
    download.descriptors[1].communicationEnabled = true;
    download.descriptors[2].communicationEnabled = false;
    download.descriptors[2].writeEnabled = true;
    download.descriptors[7].communicationEnabled = true;
  }

  Download download;

 private:
  void Limits() {
    download.UInt8s(0, 11, {4});   // functions per folder
    download.UInt8s(0, 12, {16});  // name characters
    download.UInt8s(0, 13, {24});  // text characters
    download.UInt8s(0, 14, {32});  // URL characters
  }

  void DeviceSettings() {
    download.Bools(0, 30, {1});
    download.Bools(0, 31, {0});
    download.Bools(0, 32, {1});
    download.Bools(0, 33, {1});
    download.Bools(0, 34, {0});
    download.UInt8s(0, 35, {0});  // DCS type 0 with the floor call on: the script is told 10
    download.Bools(0, 36, {1});
    download.UInt32s(0, 37, {download.Put("  Front door  ")});
    download.UInt8s(0, 38, {3});
    download.Bools(0, 39, {1});
    download.Bools(0, 40, {0});
    download.Bools(0, 41, {1});
    download.Bools(0, 42, {1});  // ResetUserData
  }

  void Folders() {
    download.UInt8s(1, 1, {3});
    download.Names(1, 2, {"Living room", "   ", "Kitchen & dining area"});
    download.UInt16s(1, 3, {12, 0, 65535});
    download.Bools(1, 4, {1, 0, 1});
    download.UInt8s(1, 5, {3, 0, 2});
  }

  void Functions() {
    // Slots 0-2 belong to folder 0, 8-9 to folder 2; slot 2 has no channel type.
    download.UInt8s(2, 1, {1, 2, 0, 0, 0, 0, 0, 0, 3, 4, 0, 0});
    download.Names(2, 2,
                   {"Ceiling light", "", "", "", "", "", "", "", "Blinds", "Thermostat", "", ""});
    download.Bools(2, 10, {1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0});
    download.Names(2, 11, std::vector<std::string>(12, " "));
    download.UInt8s(2, 12, {200, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0});
    download.UInt8s(2, 13, {0, 0xC8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0});
    download.UInt16s(2, 14, {0, 0xFF38, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0});
    download.UInt32s(2, 15, {0, 0xFFFFFFFF, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0});
    download.Names(
        2, 16, {"", "  Free text for the second slot  ", "", "", "", "", "", "", "", "", "", ""});
    download.Names(2, 17,
                   {"", "http://example.com/cameras/front-door/stream", "", "", "", "", "", "", "",
                    "", "", ""});
    download.Generic20s(2, 18, {"", "GEN-20 value", "", "", "", "", "", "", "", "", "", ""});
    download.UInt16s(2, 19, {0, 0, 0, 0, 0, 0, 0, 0, 0x0C33, 0x0C33, 0, 0},
                     PropertyDataType::PDT_KNX_FLOAT);
    download.UInt32s(2, 20, {0, 0, 0, 0, 0, 0, 0, 0, 0xC1AC0000, 0, 0, 0},
                     PropertyDataType::PDT_FLOAT);
    download.UInt8s(2, 21, {0, 0, 0, 0, 0, 0, 0, 0, 2, 0, 0, 0});  // URN selector
  }

  void StaticData() {
    download.Bools(3, 1, {1});
    download.Bools(3, 2, {0});
    download.UInt16s(3, 3, {600});
    download.UInt32s(3, 4, {download.Put("Berlin")});
    download.UInt16s(3, 5, {0x87FF}, PropertyDataType::PDT_KNX_FLOAT);
    download.UInt32s(3, 6, {download.Put("   ")});
  }
};

class ScriptGoldenTest : public ::testing::Test {
 protected:
  std::unique_ptr<LuaKnxDownloadHandler> MakeHandler() {
    auto handler = std::make_unique<LuaKnxDownloadHandler>(file.string() + ";" +
                                                           LKDH_TEST_DATA_DIR "/golden_device.lua");
    EXPECT_TRUE(handler->Loaded());
    return handler;
  }

  bool RunDownload(LuaKnxDownloadHandler& handler) {
    return handler.CreateFileWithKnxData(golden.download.objects, golden.download.memory, callback,
                                         IKnxDownloadHandler::AppData_None,
                                         golden.download.descriptors);
  }

  /// The written file; when it is not the expected one, a copy is kept in the
  /// test temporary directory for a diff.
  std::string Written() const {
    const std::string text = ReadWholeFile(file);
    if (text != DataFile("golden_script_etsproject.xml")) {
      std::ofstream(::testing::TempDir() + "golden_script_etsproject.actual.xml", std::ios::binary)
          << text;
    }
    return text;
  }

  GoldenDownload golden;
  TempDir dir;
  fs::path file = dir.Path() / "etsproject.xml";
  int resets = 0;
  std::function<void()> callback = [this] { ++resets; };
};

TEST_F(ScriptGoldenTest, DescriptionScriptBuildsTheGoldenDocumentByteForByte) {
  auto handler = MakeHandler();
  EXPECT_TRUE(RunDownload(*handler));
  EXPECT_EQ(resets, 1);
  ASSERT_TRUE(fs::exists(file));
  const std::string text = Written();
  const std::string expected = DataFile("golden_script_etsproject.xml");
  ASSERT_FALSE(expected.empty());
  EXPECT_EQ(text, expected);
  EXPECT_TRUE(MatchesEtsprojectSchema(text));
}

TEST_F(ScriptGoldenTest, OnlyTheChannelTypeWithoutUrnsMakesScriptCallsFail) {
  auto handler = MakeHandler();
  LogCapture capture;
  ASSERT_TRUE(RunDownload(*handler));
  // Every other answer, the ShowIf functions included, came without an error.
  EXPECT_EQ(capture.Lines(kError), (std::vector<LogLine>{
                                       {kError, "ovslua",
                                        "Call function 'GetFunctionUrnByTypeId' failed "
                                        "(LUA_ERRRUN:no function URN for channel type 2)."},
                                       {kError, "ovslua",
                                        "Call function 'GetChannelUrnByTypeId' failed "
                                        "(LUA_ERRRUN:no channel URN for channel type 2)."},
                                   }));
}

TEST_F(ScriptGoldenTest, SecondDownloadThroughTheSameInterpreterWritesTheSameDocumentAgain) {
  // The script keeps its state between downloads, and the ShowIf functions of
  // the first download stay referenced; the second must not depend on either.
  auto handler = MakeHandler();
  ASSERT_TRUE(RunDownload(*handler));
  // ResetUserData is set, so the same document is written and reset again.
  EXPECT_TRUE(RunDownload(*handler));
  EXPECT_EQ(resets, 2);
  EXPECT_EQ(Written(), DataFile("golden_script_etsproject.xml"));
}

TEST_F(ScriptGoldenTest, ExpectedDocumentIsTheFakeBridgeGoldenWithFunctionParametersSortedByKey) {
  // Keeps the two expected files in step: sorting the parameter lines of each
  // function element of the fake-bridge golden by key must give the script
  // golden, and nothing else may differ.
  std::vector<std::string> lines = SplitLines(DataFile("golden_etsproject.xml"));
  ASSERT_GT(lines.size(), 1U);
  const auto keyOf = [](const std::string& line) {
    const auto start = line.find("key=\"") + 5;
    return line.substr(start, line.find('"', start) - start);
  };
  int functions = 0;
  for (auto it = lines.begin(); it != lines.end(); ++it) {
    if (it->find("type=\"function\"") == std::string::npos) {
      continue;
    }
    ++functions;
    auto first = std::next(it, 2);  // past "<parameters>"
    auto last = first;
    while (last != lines.end() && last->find("<parameter ") != std::string::npos) {
      ++last;
    }
    std::sort(first, last,
              [&](const std::string& a, const std::string& b) { return keyOf(a) < keyOf(b); });
  }
  EXPECT_EQ(functions, 4);
  EXPECT_EQ(JoinLines(lines), DataFile("golden_script_etsproject.xml"));
}

}  // namespace
}  // namespace lkdh::test
