// A whole etsproject document from a real description script (data/golden_device.lua)
// run by the plug-in on the download of the fake-bridge golden test, compared
// byte for byte with data/golden_script_etsproject.xml.
//
// The two expected files differ only in the order of each function's
// parameters: the plug-in sorts a script's parameter list by key, while the
// fake bridge hands its list to the builder as it is.

#include "golden_download.h"

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

class ScriptGoldenTest : public ::testing::Test {
 protected:
  ScriptGoldenTest() { BuildGoldenDownload(download); }

  std::unique_ptr<LuaKnxDownloadHandler> MakeHandler() {
    auto handler = std::make_unique<LuaKnxDownloadHandler>(file.string() + ";" +
                                                           LKDH_TEST_DATA_DIR "/golden_device.lua");
    EXPECT_TRUE(handler->Loaded());
    return handler;
  }

  bool RunDownload(LuaKnxDownloadHandler& handler) {
    return handler.CreateFileWithKnxData(download.objects, download.memory, callback,
                                         IKnxDownloadHandler::AppData_None, download.descriptors);
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

  Download download;
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
