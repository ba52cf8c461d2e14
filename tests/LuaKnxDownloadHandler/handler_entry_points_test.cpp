#include "HandlerDownload.h"

#include <LuaKnxDownloadHandler/luaknxdownloadhandler.h>

#include <CapturingAppender.h>
#include <TempDir.h>

#include <gtest/gtest.h>

#include <string>

namespace {

using Korvex::IKnxDownloadHandler;
using Korvex::LuaKnxDownloadHandler;

std::string Script() { return lkdh::test::HandlerScriptPath(); }

// Load attempts show on the wrapper's logger; none means no script was loaded.
std::size_t LoadFailures(const lkdh::test::LogCapture& capture) {
  std::size_t count = 0;
  for (const auto& line : capture.Lines()) {
    if (line.logger == "ovslua" && line.message.rfind("Load script '", 0) == 0) ++count;
  }
  return count;
}

TEST(HandlerConfiguration, TwoFieldsKeepThePathAndLoadTheScript) {
  LuaKnxDownloadHandler handler("/data/etsproject.xml;" + Script());
  EXPECT_TRUE(handler.Loaded());
  EXPECT_EQ(handler.GetEtsProjectPath(), "/data/etsproject.xml");
}

TEST(HandlerConfiguration, LoadedReportsAFailedScriptLoadAndThePathIsStillKept) {
  lkdh::test::LogCapture capture;
  LuaKnxDownloadHandler handler("/data/etsproject.xml;/no/such/script.lua");
  EXPECT_FALSE(handler.Loaded());
  EXPECT_EQ(handler.GetEtsProjectPath(), "/data/etsproject.xml");
  EXPECT_EQ(LoadFailures(capture), 1U);
}

TEST(HandlerConfiguration, AThirdFieldChangesNothing) {
  LuaKnxDownloadHandler handler("/data/etsproject.xml;" + Script() + ";/no/such/script.lua;x");
  EXPECT_TRUE(handler.Loaded());
  EXPECT_EQ(handler.GetEtsProjectPath(), "/data/etsproject.xml");
}

TEST(HandlerConfiguration, NoSemicolonLoadsNothingAndKeepsNoPath) {
  lkdh::test::LogCapture capture;
  // Even a valid script path alone is not loaded: two fields are required.
  LuaKnxDownloadHandler handler(Script());
  EXPECT_FALSE(handler.Loaded());
  EXPECT_EQ(handler.GetEtsProjectPath(), "");
  EXPECT_TRUE(capture.Lines().empty());
}

TEST(HandlerConfiguration, EmptyStringLoadsNothingAndKeepsNoPath) {
  lkdh::test::LogCapture capture;
  LuaKnxDownloadHandler handler("");
  EXPECT_FALSE(handler.Loaded());
  EXPECT_EQ(handler.GetEtsProjectPath(), "");
  EXPECT_TRUE(capture.Lines().empty());
}

TEST(HandlerConfiguration, LeadingSemicolonLoadsTheScriptWithAnEmptyPath) {
  LuaKnxDownloadHandler handler(";" + Script());
  EXPECT_TRUE(handler.Loaded());
  EXPECT_EQ(handler.GetEtsProjectPath(), "");
}

TEST(HandlerConfiguration, TrailingOnlySemicolonPassesAnEmptyScriptNameToLoad) {
  lkdh::test::LogCapture capture;
  LuaKnxDownloadHandler handler("/data/etsproject.xml;");
  EXPECT_FALSE(handler.Loaded());
  EXPECT_EQ(handler.GetEtsProjectPath(), "/data/etsproject.xml");
  ASSERT_EQ(LoadFailures(capture), 1U);
  bool namedEmpty = false;
  for (const auto& line : capture.Lines()) {
    namedEmpty = namedEmpty || line.message.rfind("Load script '' failed (", 0) == 0;
  }
  EXPECT_TRUE(namedEmpty) << "no failure line names the empty script";
}

TEST(HandlerConfiguration, FieldsAreNotTrimmed) {
  LuaKnxDownloadHandler handler(" /data/etsproject.xml ;" + Script());
  EXPECT_TRUE(handler.Loaded());
  EXPECT_EQ(handler.GetEtsProjectPath(), " /data/etsproject.xml ");
}

TEST(HandlerConfiguration, ConstructorLogsNothingOnTheLibraryLogger) {
  lkdh::test::LogCapture capture({"KnxDownloadHandler"});
  LuaKnxDownloadHandler good("/x.xml;" + Script());
  LuaKnxDownloadHandler bad("/x.xml;/no/such.lua");
  EXPECT_TRUE(capture.Lines().empty());
}

TEST(EntryPoints, CreateHandlerNeverReturnsNullAndDeleteHandlerNullsTheCallersPointer) {
  IKnxDownloadHandler* handler = CreateHandler("no semicolon");
  ASSERT_NE(handler, nullptr);
  EXPECT_FALSE(handler->Loaded());
  DeleteHandler(handler);
  EXPECT_EQ(handler, nullptr);
  DeleteHandler(handler);  // a second call with the same variable does nothing
  EXPECT_EQ(handler, nullptr);
}

TEST(EntryPoints, CreateHandlerWithAGoodConfigurationIsLoaded) {
  IKnxDownloadHandler* handler = CreateHandler("/tmp/x.xml;" + Script());
  ASSERT_NE(handler, nullptr);
  EXPECT_TRUE(handler->Loaded());
  DeleteHandler(handler);
  EXPECT_EQ(handler, nullptr);
}

}  // namespace
