// The builder's construction, its property table and limits, the boolean
// lookup by setting name, and the reuse of the shared formatters.

#include "ets_xml_test_support.h"

#include <algorithm>

namespace lkdh::test {
namespace {

using Korvex::luaknxdownloadhandler::s_folderFormat;
using Korvex::luaknxdownloadhandler::s_functionFormat;
using Korvex::luaknxdownloadhandler::s_nameNumberFormat;

class BuilderTest : public EtsXmlTest {};

TEST_F(BuilderTest, DebugLineCountsEveryDescriptor) {
  LogCapture capture({"KnxDownloadHandler"});
  UseLimits();
  download.descriptors[1].communicationEnabled = true;
  download.descriptors[2].communicationEnabled = false;
  download.descriptors[7].communicationEnabled = true;
  Builder();
  EXPECT_EQ(capture.Lines(),
            (std::vector<LogLine>{
                {10000, "KnxDownloadHandler", "CO count with enabled communication flag: 3"}}));
}

TEST_F(BuilderTest, DebugLineWithNoDescriptors) {
  LogCapture capture({"KnxDownloadHandler"});
  Builder();
  EXPECT_EQ(capture.Messages(),
            std::vector<std::string>{"CO count with enabled communication flag: 0"});
}

TEST_F(BuilderTest, NoDebugLineAboveDebugLevel) {
  LogCapture capture({"KnxDownloadHandler"});
  logger.setLogLevel(log4cplus::INFO_LOG_LEVEL);
  download.descriptors[1].communicationEnabled = true;
  Builder();
  EXPECT_TRUE(capture.Lines().empty());
  EXPECT_EQ(lux.propertyIdsCalls, 1);
}

TEST_F(BuilderTest, ConstructionAsksForTheTableOnceThenReadsEachLimitOnce) {
  UseLimits();
  Builder();
  // Which limit is read first is the builder's own affair; that the script is
  // asked once, before any read, and each limit read once is what counts.
  ASSERT_FALSE(journal.empty());
  EXPECT_EQ(journal.front(), "GetPropertyIds()");
  Journal reads(journal.begin() + 1, journal.end());
  std::sort(reads.begin(), reads.end());
  EXPECT_EQ(reads, (Journal{"read 0.11", "read 0.12", "read 0.13", "read 0.14"}));
  EXPECT_EQ(lux.propertyIdsCalls, 1);
}

TEST_F(BuilderTest, MissingLimitNamesReadTheZeroAddress) {
  download.Object(0);
  Builder();
  EXPECT_EQ(journal, (Journal{"GetPropertyIds()", "read 0.0", "read 0.0", "read 0.0", "read 0.0"}));
}

TEST_F(BuilderTest, TableWithoutNameLimitUsesWhatTheZeroAddressHolds) {
  UseLimits();
  lux.propertyIds.erase("MaxNameCharCount");
  download.UInt8s(0, 0, {4});
  lux.propertyIds["NumberOfFolders"] = download.UInt8s(0, 50, {1});
  lux.propertyIds["FolderNameOffset"] = download.Names(0, 51, {"Kitchen"});
  // The zero address holds 4, so the name limit is 4 and the document is built.
  const auto text = Builder().Create();
  ASSERT_TRUE(text);
  EXPECT_NE(text->find("<element name=\"Kitc\" type=\"location\">"), std::string::npos) << *text;
}

TEST_F(BuilderTest, ProperyValueByNameReadsTheNamedBoolean) {
  UseLimits();
  lux.propertyIds["ResetUserData"] = download.Bools(0, 40, {1});
  lux.propertyIds["ShowRootFolder"] = download.Bools(0, 41, {0});
  EXPECT_EQ(Builder().ProperyValueByName("ResetUserData"), boost::optional<bool>(true));
  EXPECT_EQ(Builder().ProperyValueByName("ShowRootFolder"), boost::optional<bool>(false));
}

TEST_F(BuilderTest, ProperyValueByNameOfAnUnreadablePropertyIsFalse) {
  UseLimits();
  download.Add(0, 40, PropertyDataType::PDT_BINARY_INFORMATION, {1}).SetReadable(false);
  lux.propertyIds["ResetUserData"] = {40, 0};
  EXPECT_EQ(Builder().ProperyValueByName("ResetUserData"), boost::optional<bool>(false));
}

TEST_F(BuilderTest, ProperyValueByNameOfAnUnknownNameReadsTheZeroAddress) {
  UseLimits();
  EXPECT_EQ(Builder().ProperyValueByName("ResetUserData"), boost::optional<bool>(false));
  EXPECT_EQ(journal.back(), "read 0.0");
  // Once the zero address holds a true byte, the unknown name reads true.
  download.Bools(0, 0, {1});
  EXPECT_EQ(Builder().ProperyValueByName("NoSuchSetting"), boost::optional<bool>(true));
}

TEST_F(BuilderTest, UnknownNamesJoinTheTableAsZeroAddresses) {
  // The table grows by the name: a later limit check reports its zero id.
  LogCapture capture({"KnxDownloadHandler"});
  UseLimits(10, 20, 0);
  lux.propertyIds.erase("MaxTextCharCount");
  EXPECT_EQ(Builder().Create(), boost::none);
  EXPECT_EQ(capture.Lines(40000),
            (std::vector<LogLine>{
                {40000, "KnxDownloadHandler", "Max text char count not set. PropertyId: 0"}}));
}

TEST_F(BuilderTest, DescriptorsAreCopiedAtConstruction) {
  UseLimits();
  download.descriptors[4].communicationEnabled = true;
  Builder();
  download.descriptors[4].communicationEnabled = false;
  download.descriptors[9].communicationEnabled = true;
  const auto text = Builder().Create();
  ASSERT_TRUE(text);
  EXPECT_NE(text->find("  <enabledCOs>\n    <co nr=\"4\" />\n  </enabledCOs>\n"),
            std::string::npos);
}

TEST_F(BuilderTest, NullLoggerIsTolerated) {
  UseLimits(10, 0);
  EtsXml builder(download.objects, download.memory, download.descriptors, nullptr, &lux);
  EXPECT_EQ(builder.Create(), boost::none);
}

// --- the shared formatters ------------------------------------------------------

TEST_F(BuilderTest, FolderFormatterIsReusedNotConcatenated) {
  UseLimits();
  lux.propertyIds["FolderNameOffset"] = download.Names(0, 20, {"", ""});
  EXPECT_EQ((s_folderFormat % 0U).str(), "Folder 0");
  Builder().CreateFolder(document, 1);
  EXPECT_EQ(document.child("element").attribute("name").as_string(), std::string("Folder 1"));
  EXPECT_EQ((s_folderFormat % 7U).str(), "Folder 7");
}

TEST_F(BuilderTest, FunctionAndNameFormattersAreReused) {
  UseLimits();
  lux.propertyIds["ChannelType"] = download.UInt8s(0, 20, {1, 1});
  lux.propertyIds["FunctionNameOffset"] = download.Names(0, 21, {"", ""});
  lux.parameters[1] = {Param("Scene", "Name", download.Names(0, 22, {"", ""}))};
  Builder().CreateFunction(document, 0);
  Builder().CreateFunction(document, 1);
  EXPECT_EQ(PrintChildren(document),
            "<element name=\"Function 0\" type=\"function\" functionId=\"1\" "
            "functionUrn=\"Unsupported\" channelTypeUrn=\"Unsupported\">\n"
            "  <parameters>\n"
            "    <parameter key=\"Scene\" value=\"Scene 0\" />\n"
            "  </parameters>\n"
            "</element>\n"
            "<element name=\"Function 1\" type=\"function\" functionId=\"2\" "
            "functionUrn=\"Unsupported\" channelTypeUrn=\"Unsupported\">\n"
            "  <parameters>\n"
            "    <parameter key=\"Scene\" value=\"Scene 1\" />\n"
            "  </parameters>\n"
            "</element>\n");
  EXPECT_EQ((s_functionFormat % 5U).str(), "Function 5");
  EXPECT_EQ((s_nameNumberFormat % "Key" % 6U).str(), "Key 6");
}

TEST_F(BuilderTest, TwoBuildsGiveTheSameText) {
  UseLimits();
  lux.propertyIds["NumberOfFolders"] = download.UInt8s(0, 50, {2});
  lux.propertyIds["NumberFuncPerFolder"] = download.UInt8s(0, 51, {1, 1});
  lux.propertyIds["ChannelType"] = download.UInt8s(0, 52, std::vector<std::uint8_t>(20, 3));
  lux.propertyIds["FolderNameOffset"] = download.Names(0, 53, {"", ""});
  const std::vector<std::string> blanks(20, " ");
  lux.propertyIds["FunctionNameOffset"] = download.Names(0, 54, blanks);
  lux.parameters[3] = {Param("Scene", "Name", download.Names(0, 55, blanks))};
  const auto first = Builder().Create();
  EtsXml second(download.objects, download.memory, download.descriptors, &logger, &lux);
  const auto again = second.Create();
  ASSERT_TRUE(first);
  EXPECT_EQ(first, again);
  EXPECT_NE(first->find("<element name=\"Folder 1\" type=\"location\">"), std::string::npos);
  EXPECT_NE(first->find("<element name=\"Function 10\" type=\"function\" functionId=\"11\""),
            std::string::npos);
  EXPECT_NE(first->find("<parameter key=\"Scene\" value=\"Scene 10\" />"), std::string::npos);
}

}  // namespace
}  // namespace lkdh::test
