#include "HandlerDownload.h"

#include <LuaKnxDownloadHandler/luaknxdownloadhandler.h>

#include <Helper/File.h>

#include <CapturingAppender.h>
#include <SchemaValidation.h>
#include <TempDir.h>

#include <gtest/gtest.h>
#include <log4cplus/loglevel.h>
#include <boost/filesystem/operations.hpp>

#include <cerrno>
#include <functional>
#include <string>

namespace fs = boost::filesystem;

namespace {

using Korvex::IKnxDownloadHandler;
using Korvex::LuaKnxDownloadHandler;
using lkdh::test::HandlerDownload;
using lkdh::test::LogCapture;
using lkdh::test::LogLine;
using lkdh::test::ReadWholeFile;
using lkdh::test::TempDir;

constexpr int kDebug = log4cplus::DEBUG_LOG_LEVEL;
constexpr int kInfo = log4cplus::INFO_LOG_LEVEL;
constexpr int kError = log4cplus::ERROR_LOG_LEVEL;
const char* const kLogger = "KnxDownloadHandler";

class HandlerDownloadTest : public ::testing::Test {
 protected:
  TempDir dir;
  fs::path file = dir.Path() / "etsproject.xml";
  int callbacks = 0;
  std::function<void()> callback = [this] { ++callbacks; };

  std::unique_ptr<LuaKnxDownloadHandler> MakeHandler(const fs::path& path) {
    auto handler = std::make_unique<LuaKnxDownloadHandler>(path.string() + ";" +
                                                           lkdh::test::HandlerScriptPath());
    EXPECT_TRUE(handler->Loaded());
    return handler;
  }

  bool Download(LuaKnxDownloadHandler& handler, const HandlerDownload& download,
                IKnxDownloadHandler::AppData appData = IKnxDownloadHandler::AppData_None) {
    return handler.CreateFileWithKnxData(download.objects, download.memory, callback, appData,
                                         download.descriptors);
  }

  static std::vector<LogLine> HandlerLines(const LogCapture& capture) {
    std::vector<LogLine> lines;
    for (const auto& line : capture.Lines()) {
      if (line.logger == kLogger) lines.push_back(line);
    }
    return lines;
  }
};

TEST_F(HandlerDownloadTest, EmptyInterfaceObjectMapReturnsFalseAfterLoggingOnlyTheCoCount) {
  auto handler = MakeHandler(file);
  HandlerDownload download;
  Korvex::InterfaceObjectMap none;
  LogCapture capture;
  EXPECT_FALSE(handler->CreateFileWithKnxData(
      none, download.memory, callback, IKnxDownloadHandler::AppData_None, download.descriptors));
  EXPECT_EQ(capture.Lines(),
            (std::vector<LogLine>{
                {kDebug, kLogger,
                 "CreateFileWithKnxData: CO count with enabled communication flag: 2"}}));
  EXPECT_FALSE(fs::exists(file));
  EXPECT_EQ(callbacks, 0);
}

TEST_F(HandlerDownloadTest, EmptyInterfaceObjectMapAndNoDescriptorsLogsNothing) {
  auto handler = MakeHandler(file);
  HandlerDownload download;
  LogCapture capture;
  EXPECT_FALSE(handler->CreateFileWithKnxData({}, download.memory, callback,
                                              IKnxDownloadHandler::AppData_None, {}));
  EXPECT_TRUE(capture.Lines().empty());
  EXPECT_EQ(callbacks, 0);
}

TEST_F(HandlerDownloadTest, FirstDownloadWritesTheFileLogsItAndCallsBackOnce) {
  auto handler = MakeHandler(file);
  HandlerDownload download;
  LogCapture capture;
  EXPECT_TRUE(Download(*handler, download));
  EXPECT_EQ(callbacks, 1);
  const std::string text = ReadWholeFile(file);
  EXPECT_EQ(
      text.rfind("<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<etsproject version=\"1.0\">", 0), 0U)
      << text;
  EXPECT_NE(text.find("<element name=\"Living\" type=\"location\">"), std::string::npos);
  EXPECT_TRUE(lkdh::test::MatchesEtsprojectSchema(text));
  const auto info = capture.Lines(kInfo);
  ASSERT_EQ(info.size(), 1U);
  EXPECT_EQ(info[0].message, "save new etsproject. Path: " + file.string());
  EXPECT_TRUE(capture.Lines(kError).empty());
}

TEST_F(HandlerDownloadTest, SameDownloadTwiceIsNotWrittenAgainAndDoesNotCallBack) {
  auto handler = MakeHandler(file);
  HandlerDownload download;
  ASSERT_TRUE(Download(*handler, download));
  const auto before = fs::last_write_time(file);
  const std::string content = ReadWholeFile(file);
  LogCapture capture;
  EXPECT_FALSE(Download(*handler, download));
  EXPECT_EQ(callbacks, 1);
  EXPECT_EQ(ReadWholeFile(file), content);
  EXPECT_EQ(fs::last_write_time(file), before);
  const auto debug = capture.Lines(kDebug);
  ASSERT_FALSE(debug.empty());
  EXPECT_EQ(debug.back().message, "etsproject is same with saved etsproject.");
  EXPECT_TRUE(capture.Lines(kInfo).empty());
}

TEST_F(HandlerDownloadTest, SameContentFromAnotherHandlerIsNotReplaced) {
  HandlerDownload download;
  ASSERT_TRUE(Download(*MakeHandler(file), download));
  EXPECT_FALSE(Download(*MakeHandler(file), download));
  EXPECT_EQ(callbacks, 1);
}

TEST_F(HandlerDownloadTest, AppDataOneRewritesIdenticalContentAndCallsBack) {
  auto handler = MakeHandler(file);
  HandlerDownload download;
  ASSERT_TRUE(Download(*handler, download));
  const std::string content = ReadWholeFile(file);
  LogCapture capture;
  EXPECT_TRUE(Download(*handler, download, IKnxDownloadHandler::AppData_ForceWrite));
  EXPECT_EQ(callbacks, 2);
  EXPECT_EQ(ReadWholeFile(file), content);
  ASSERT_EQ(capture.Lines(kInfo).size(), 1U);
}

TEST_F(HandlerDownloadTest, ResetUserDataSettingRewritesAndCallsBack) {
  auto handler = MakeHandler(file);
  HandlerDownload download("Living", /*resetUserData=*/true);
  ASSERT_TRUE(Download(*handler, download));
  EXPECT_TRUE(Download(*handler, download));
  EXPECT_EQ(callbacks, 2);
  EXPECT_NE(ReadWholeFile(file).find("<parameter key=\"ResetUserData\" value=\"True\" />"),
            std::string::npos);
}

TEST_F(HandlerDownloadTest, AFileDifferingInOneByteIsReplaced) {
  auto handler = MakeHandler(file);
  HandlerDownload download;
  ASSERT_TRUE(Download(*handler, download));
  std::string content = ReadWholeFile(file);
  std::string altered = content;
  altered[altered.size() / 2] ^= 0x01;
  dir.WriteFile("etsproject.xml", altered);
  EXPECT_TRUE(Download(*handler, download));
  EXPECT_EQ(ReadWholeFile(file), content);
  EXPECT_EQ(callbacks, 2);
}

TEST_F(HandlerDownloadTest, AChangedDownloadReplacesTheFile) {
  auto handler = MakeHandler(file);
  ASSERT_TRUE(Download(*handler, HandlerDownload("Living")));
  EXPECT_TRUE(Download(*handler, HandlerDownload("Kitchen")));
  EXPECT_NE(ReadWholeFile(file).find("name=\"Kitchen\""), std::string::npos);
  EXPECT_EQ(callbacks, 2);
}

TEST_F(HandlerDownloadTest, ExistingFileThatCannotBeReadIsLeftAloneWithAnError) {
  // A directory exists but cannot be read as a file.
  fs::create_directory(file);
  auto handler = MakeHandler(file);
  LogCapture capture;
  EXPECT_FALSE(Download(*handler, HandlerDownload()));
  EXPECT_EQ(callbacks, 0);
  EXPECT_TRUE(fs::is_directory(file));
  EXPECT_EQ(capture.Lines(kError),
            (std::vector<LogLine>{{kError, kLogger, "Failed to read file '" + file.string() + "'."},
                                  {kError, kLogger, "stat: a directory, not a regular file"}}));
}

namespace {
ssize_t FailingRead(int, void*, std::size_t) {
  errno = EIO;
  return -1;
}
}  // namespace

TEST_F(HandlerDownloadTest, ReadErrorOfTheSavedFileKeepsItAndDoesNotCallBack) {
  auto handler = MakeHandler(file);
  HandlerDownload download("Living");
  ASSERT_TRUE(Download(*handler, download));
  const std::string content = ReadWholeFile(file);
  auto ops = Helper::File::detail::DefaultFileSystemOps();
  ops.read = &FailingRead;
  const auto previous = Helper::File::detail::SetFileSystemOps(ops);
  LogCapture capture;
  const bool result = Download(*handler, HandlerDownload("Kitchen"));
  Helper::File::detail::SetFileSystemOps(previous);
  EXPECT_FALSE(result);
  EXPECT_EQ(callbacks, 1);
  EXPECT_EQ(ReadWholeFile(file), content);
  EXPECT_EQ(capture.Lines(kError),
            (std::vector<LogLine>{{kError, kLogger, "Failed to read file '" + file.string() + "'."},
                                  {kError, kLogger, "read: Input/output error"}}));
}

TEST_F(HandlerDownloadTest, ResetUserDataSettingWritesWithoutReadingTheSavedFile) {
  auto handler = MakeHandler(file);
  HandlerDownload download("Living", /*resetUserData=*/true);
  ASSERT_TRUE(Download(*handler, download));
  // A saved file that cannot be read does not matter when the setting orders a write.
  auto ops = Helper::File::detail::DefaultFileSystemOps();
  ops.read = &FailingRead;
  const auto previous = Helper::File::detail::SetFileSystemOps(ops);
  LogCapture capture;
  const bool result = Download(*handler, HandlerDownload("Kitchen", /*resetUserData=*/true));
  Helper::File::detail::SetFileSystemOps(previous);
  EXPECT_TRUE(result);
  EXPECT_EQ(callbacks, 2);
  EXPECT_NE(ReadWholeFile(file).find("name=\"Kitchen\""), std::string::npos);
  EXPECT_TRUE(capture.Lines(kError).empty());
}

TEST_F(HandlerDownloadTest, CallbackThrowingANonStandardExceptionLandsInTheLastHandler) {
  auto handler = MakeHandler(file);
  const HandlerDownload download;
  LogCapture capture;
  const bool result = handler->CreateFileWithKnxData(
      download.objects, download.memory, [] { throw 42; }, IKnxDownloadHandler::AppData_None,
      download.descriptors);
  EXPECT_FALSE(result);
  EXPECT_TRUE(fs::exists(file));
  EXPECT_EQ(
      capture.Lines(kError),
      (std::vector<LogLine>{
          {kError, kLogger, "LuaKnxDownloadHandler::CreateFileWithKnxData unknown exception: "}}));
}

TEST_F(HandlerDownloadTest, UnwritableTargetLogsTheWriteErrorAndDoesNotCallBack) {
  const fs::path target = dir.Path() / "missing-directory" / "etsproject.xml";
  auto handler = MakeHandler(target);
  LogCapture capture;
  EXPECT_FALSE(Download(*handler, HandlerDownload()));
  EXPECT_EQ(callbacks, 0);
  EXPECT_EQ(
      capture.Lines(kError),
      (std::vector<LogLine>{{kError, kLogger, "Failed to write file '" + target.string() + "'."},
                            {kError, kLogger, "open: No such file or directory"}}));
  ASSERT_EQ(capture.Lines(kInfo).size(), 1U);
  EXPECT_EQ(capture.Lines(kInfo)[0].message, "save new etsproject. Path: " + target.string());
}

namespace {
ssize_t DiskFullWrite(int, const void*, std::size_t) {
  errno = ENOSPC;
  return -1;
}
}  // namespace

TEST_F(HandlerDownloadTest, FullDiskKeepsTheOldFileAndDoesNotCallBack) {
  auto handler = MakeHandler(file);
  ASSERT_TRUE(Download(*handler, HandlerDownload("Living")));
  const std::string content = ReadWholeFile(file);
  auto ops = Helper::File::detail::DefaultFileSystemOps();
  ops.write = &DiskFullWrite;
  const auto previous = Helper::File::detail::SetFileSystemOps(ops);
  LogCapture capture;
  const bool result = Download(*handler, HandlerDownload("Kitchen"));
  Helper::File::detail::SetFileSystemOps(previous);
  EXPECT_FALSE(result);
  EXPECT_EQ(callbacks, 1);
  EXPECT_EQ(ReadWholeFile(file), content);
  EXPECT_EQ(
      capture.Lines(kError),
      (std::vector<LogLine>{{kError, kLogger, "Failed to write file '" + file.string() + "'."},
                            {kError, kLogger, "write: No space left on device"}}));
  // Nothing but the project file is left in the directory.
  EXPECT_EQ(std::distance(fs::directory_iterator(dir.Path()), fs::directory_iterator()), 1);
}

TEST_F(HandlerDownloadTest, EmptyCallbackWritesTheFileButReturnsFalseWithTheExceptionLine) {
  auto handler = MakeHandler(file);
  HandlerDownload download;
  LogCapture capture;
  EXPECT_FALSE(
      handler->CreateFileWithKnxData(download.objects, download.memory, std::function<void()>(),
                                     IKnxDownloadHandler::AppData_None, download.descriptors));
  EXPECT_TRUE(fs::exists(file));
  EXPECT_EQ(capture.Lines(kError),
            (std::vector<LogLine>{{kError, kLogger,
                                   std::string("LuaKnxDownloadHandler::CreateFileWithKnxData "
                                               "exception: ") +
                                       std::bad_function_call().what()}}));
}

TEST_F(HandlerDownloadTest, StatusErrorOtherThanMissingFileLandsInTheFilesystemHandler) {
  // A name longer than any file system allows: stat fails with ENAMETOOLONG.
  const fs::path target = dir.Path() / std::string(300, 'x');
  auto handler = MakeHandler(target);
  LogCapture capture;
  EXPECT_FALSE(Download(*handler, HandlerDownload()));
  EXPECT_EQ(callbacks, 0);
  const auto errors = capture.Lines(kError);
  ASSERT_EQ(errors.size(), 1U);
  const std::string prefix =
      "LuaKnxDownloadHandler::CreateFileWithKnxData filesystem_error exception: ";
  EXPECT_EQ(errors[0].message.rfind(prefix, 0), 0U) << errors[0].message;
  EXPECT_NE(errors[0].message.find(target.string()), std::string::npos);
}

TEST_F(HandlerDownloadTest, MissingLimitLogsNoEtsprojectCreatedAndWritesNothing) {
  auto handler = MakeHandler(file);
  HandlerDownload download;
  download.properties.at(52)->SetReadable(false);  // the name limit
  LogCapture capture;
  EXPECT_FALSE(Download(*handler, download));
  EXPECT_FALSE(fs::exists(file));
  EXPECT_EQ(callbacks, 0);
  const auto lines = HandlerLines(capture);
  ASSERT_GE(lines.size(), 2U);
  EXPECT_EQ(lines[lines.size() - 2],
            (LogLine{kError, kLogger, "Max name char count not set. PropertyId: 52"}));
  EXPECT_EQ(lines.back(), (LogLine{kDebug, kLogger, "No etsproject created."}));
}

}  // namespace
