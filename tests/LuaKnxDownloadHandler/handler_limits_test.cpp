// The document size limit an integrator sets through LKDH_MAX_DOCUMENT_BYTES:
// a document beyond it fails the download whole, with its ERROR line.

#include "HandlerDownload.h"

#include <LuaKnxDownloadHandler/luaknxdownloadhandler.h>

#include <CapturingAppender.h>
#include <TempDir.h>

#include <gtest/gtest.h>
#include <log4cplus/loglevel.h>
#include <boost/filesystem/operations.hpp>

#include <cstdlib>
#include <fstream>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace {

namespace fs = boost::filesystem;
using Korvex::IKnxDownloadHandler;
using Korvex::LuaKnxDownloadHandler;
using lkdh::test::HandlerDownload;
using lkdh::test::LogCapture;
using lkdh::test::LogLine;
using lkdh::test::ReadWholeFile;
using lkdh::test::TempDir;

constexpr int kTrace = log4cplus::TRACE_LOG_LEVEL;
constexpr int kError = log4cplus::ERROR_LOG_LEVEL;
const char* const kLogger = "KnxDownloadHandler";
const char* const kVariable = "LKDH_MAX_DOCUMENT_BYTES";
const std::string kPrevious = "<etsproject version=\"0.9\" />\n";

class HandlerLimitsTest : public ::testing::Test {
 protected:
  void TearDown() override { unsetenv(kVariable); }

  // The handler test device, its function URN as long as urnLength.
  fs::path Script(std::size_t urnLength) {
    std::ifstream in(lkdh::test::HandlerScriptPath());
    std::stringstream script;
    script << in.rdbuf() << "\nfunction GetFunctionUrnByTypeId(typeId) return string.rep(\"u\", "
           << urnLength << ") end\n";
    return dir.WriteFile("device.lua", script.str());
  }

  std::unique_ptr<LuaKnxDownloadHandler> MakeHandler(const fs::path& script) {
    auto handler = std::make_unique<LuaKnxDownloadHandler>(file.string() + ";" + script.string());
    EXPECT_TRUE(handler->Loaded());
    return handler;
  }

  bool Download(LuaKnxDownloadHandler& handler) {
    return handler.CreateFileWithKnxData(download.objects, download.memory, callback,
                                         IKnxDownloadHandler::AppData_None, download.descriptors);
  }

  std::vector<std::string> Entries() const {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(file.parent_path())) {
      names.push_back(entry.path().filename().string());
    }
    return names;
  }

  TempDir dir;
  TempDir projectDir;
  fs::path file = projectDir.Path() / "etsproject.xml";
  HandlerDownload download;
  int callbacks = 0;
  std::function<void()> callback = [this] { ++callbacks; };
};

TEST_F(HandlerLimitsTest, DocumentBeyondTheLimitFailsWholeWithItsErrorLine) {
  setenv(kVariable, "4096", 1);
  auto handler = MakeHandler(Script(100000));
  projectDir.WriteFile("etsproject.xml", kPrevious);
  LogCapture capture;
  EXPECT_FALSE(Download(*handler));
  EXPECT_EQ(capture.Lines(kError),
            (std::vector<LogLine>{{kError, kLogger,
                                   "LuaKnxDownloadHandler::CreateFileWithKnxData exception: "
                                   "etsproject exceeds the document size limit of 4096 bytes."}}));
  EXPECT_EQ(ReadWholeFile(file), kPrevious);
  EXPECT_EQ(callbacks, 0);
  EXPECT_EQ(Entries(), std::vector<std::string>{"etsproject.xml"});
}

TEST_F(HandlerLimitsTest, DocumentWithinTheLimitIsWritten) {
  setenv(kVariable, "4096", 1);
  auto handler = MakeHandler(Script(100));
  EXPECT_TRUE(Download(*handler));
  EXPECT_EQ(callbacks, 1);
  EXPECT_NE(ReadWholeFile(file).find("functionUrn=\"" + std::string(100, 'u') + "\""),
            std::string::npos);
}

TEST_F(HandlerLimitsTest, TheLimitIsReadWhenTheHandlerIsCreated) {
  setenv(kVariable, "4096", 1);
  auto handler = MakeHandler(Script(100000));
  unsetenv(kVariable);
  EXPECT_FALSE(Download(*handler));
  EXPECT_TRUE(Download(*MakeHandler(Script(100000))));
}

TEST_F(HandlerLimitsTest, AValidLimitIsReportedAtTrace) {
  setenv(kVariable, "4096", 1);
  LogCapture capture;
  MakeHandler(Script(1));
  EXPECT_EQ(
      capture.Lines(kTrace),
      (std::vector<LogLine>{
          {kTrace, kLogger, "LKDH_MAX_DOCUMENT_BYTES: documents are limited to 4096 bytes."}}));
}

TEST_F(HandlerLimitsTest, InvalidValuesKeepTheDefaultOf256MiBAndSaySoAtTrace) {
  const auto script = Script(100000);
  for (const char* value :
       {"", "abc", "0", "-1", "12kB", " 4096", "0x1000", "99999999999999999999999999"}) {
    setenv(kVariable, value, 1);
    LogCapture capture;
    auto handler = MakeHandler(script);
    EXPECT_EQ(capture.Lines(kTrace),
              (std::vector<LogLine>{{kTrace, kLogger,
                                     std::string("LKDH_MAX_DOCUMENT_BYTES '") + value +
                                         "' is not a byte count from 1 up; documents are "
                                         "limited to 268435456 bytes."}}))
        << value;
    fs::remove(file);
    EXPECT_TRUE(Download(*handler)) << value;
  }
}

TEST_F(HandlerLimitsTest, WithoutTheVariableNothingIsLoggedAtCreation) {
  unsetenv(kVariable);
  LogCapture capture;
  MakeHandler(Script(1));
  EXPECT_TRUE(capture.Lines(kTrace).empty());
}

}  // namespace
