// The document frame: limit checks, declaration, device settings, the
// door-communication type handed to the script, and the enabled COs.

#include "SchemaValidation.h"
#include "ets_xml_test_support.h"

#include <algorithm>

namespace lkdh::test {
namespace {

const char* const kMinimalDocument =
    "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
    "<etsproject version=\"1.0\">\n"
    "  <device name=\"Korvex T5\">\n"
    "    <parameters>\n"
    "      <parameter key=\"ShowRootFolder\" value=\"False\" />\n"
    "      <parameter key=\"ShowOutdoorTemp\" value=\"False\" />\n"
    "      <parameter key=\"ShowIndoorTemp\" value=\"False\" />\n"
    "      <parameter key=\"ShowDateTime\" value=\"False\" />\n"
    "      <parameter key=\"UseTVK\" value=\"False\" />\n"
    "      <parameter key=\"DcsType\" value=\"0\" />\n"
    "      <parameter key=\"UseDcsFloorcall\" value=\"False\" />\n"
    "      <parameter key=\"UseWeather\" value=\"False\" />\n"
    "      <parameter key=\"UseTimers\" value=\"False\" />\n"
    "      <parameter key=\"UseHeatingTimers\" value=\"False\" />\n"
    "      <parameter key=\"ResetUserData\" value=\"False\" />\n"
    "    </parameters>\n"
    "  </device>\n"
    "  <elements />\n"
    "  <enabledCOs />\n"
    "</etsproject>\n";

// The device settings live in object 0 from property 30 on, in table order.
const std::vector<std::string> kSettingNames = {"ShowRootFolder",
                                                "ShowOutdoorTemp",
                                                "ShowIndoorTemp",
                                                "ShowDateTime",
                                                "UseTVK",
                                                "DcsType",
                                                "UseDcsFloorcall",
                                                "DcsFloorCallNameOffset",
                                                "DcsFloorCallMelody",
                                                "UseWeather",
                                                "UseTimers",
                                                "UseHeatingTimers",
                                                "ResetUserData"};

std::uint8_t SettingPid(const std::string& name) {
  const auto it = std::find(kSettingNames.begin(), kSettingNames.end(), name);
  return static_cast<std::uint8_t>(30 + (it - kSettingNames.begin()));
}

class DocumentTest : public EtsXmlTest {
 protected:
  void Setting(const std::string& name, std::uint8_t value) {
    lux.propertyIds[name] = download.UInt8s(0, SettingPid(name), {value});
  }
  /// Every boolean setting true.
  void SetAllFlags() {
    for (const auto& name : kSettingNames) {
      if (name != "DcsType" && name != "DcsFloorCallNameOffset" && name != "DcsFloorCallMelody") {
        Setting(name, 1);
      }
    }
  }
  void FloorCallName(const std::string& text) {
    lux.propertyIds["DcsFloorCallNameOffset"] =
        download.UInt32s(0, SettingPid("DcsFloorCallNameOffset"), {download.Put(text)});
  }
  /// The "parameters" element of "device" in the serialised text.
  static std::string DeviceParameters(const std::string& text) {
    const auto begin = text.find("    <parameters>\n");
    const auto end = text.find("    </parameters>\n");
    if (begin == std::string::npos || end == std::string::npos) {
      return "(no device parameters)";
    }
    return text.substr(begin, end + 18 - begin);
  }
  /// The journal entries that are in filter, in order.
  std::vector<std::string> JournalOf(const std::vector<std::string>& filter) const {
    std::vector<std::string> entries;
    for (const auto& entry : journal) {
      if (std::find(filter.begin(), filter.end(), entry) != filter.end()) {
        entries.push_back(entry);
      }
    }
    return entries;
  }
  static std::string Read(const std::string& name) {
    return "read 0." + std::to_string(SettingPid(name));
  }
};

TEST_F(DocumentTest, MinimalDocumentIsExact) {
  UseLimits();
  const auto text = Builder().Create();
  ASSERT_TRUE(text);
  EXPECT_EQ(*text, kMinimalDocument);
  EXPECT_TRUE(MatchesEtsprojectSchema(*text));
  EXPECT_EQ(lux.dcsTypes, std::vector<std::uint32_t>{0});
}

TEST_F(DocumentTest, AllSettingsWithFloorCallNumberThirteenInTableOrder) {
  UseLimits();
  SetAllFlags();
  Setting("DcsType", 4);
  Setting("DcsFloorCallMelody", 200);
  FloorCallName("  Front door  ");
  const auto text = Builder().Create();
  ASSERT_TRUE(text);
  EXPECT_EQ(DeviceParameters(*text),
            "    <parameters>\n"
            "      <parameter key=\"ShowRootFolder\" value=\"True\" />\n"
            "      <parameter key=\"ShowOutdoorTemp\" value=\"True\" />\n"
            "      <parameter key=\"ShowIndoorTemp\" value=\"True\" />\n"
            "      <parameter key=\"ShowDateTime\" value=\"True\" />\n"
            "      <parameter key=\"UseTVK\" value=\"True\" />\n"
            "      <parameter key=\"DcsType\" value=\"4\" />\n"
            "      <parameter key=\"UseDcsFloorcall\" value=\"True\" />\n"
            "      <parameter key=\"DcsFloorCallName\" value=\"Front door\" />\n"
            "      <parameter key=\"DcsFloorCallMelody\" value=\"200\" />\n"
            "      <parameter key=\"UseWeather\" value=\"True\" />\n"
            "      <parameter key=\"UseTimers\" value=\"True\" />\n"
            "      <parameter key=\"UseHeatingTimers\" value=\"True\" />\n"
            "      <parameter key=\"ResetUserData\" value=\"True\" />\n"
            "    </parameters>\n");
  EXPECT_TRUE(MatchesEtsprojectSchema(*text));
  EXPECT_EQ(lux.dcsTypes, std::vector<std::uint32_t>{4});
}

TEST_F(DocumentTest, FloorCallWithTypeZeroHandsTenToTheScript) {
  UseLimits();
  Setting("UseDcsFloorcall", 1);
  Setting("DcsType", 0);
  Setting("DcsFloorCallMelody", 3);
  FloorCallName("Door");
  const auto text = Builder().Create();
  ASSERT_TRUE(text);
  EXPECT_NE(text->find("      <parameter key=\"DcsType\" value=\"0\" />\n"
                       "      <parameter key=\"UseDcsFloorcall\" value=\"True\" />\n"
                       "      <parameter key=\"DcsFloorCallName\" value=\"Door\" />\n"
                       "      <parameter key=\"DcsFloorCallMelody\" value=\"3\" />\n"
                       "      <parameter key=\"UseWeather\" value=\"False\" />\n"),
            std::string::npos)
      << *text;
  EXPECT_EQ(lux.dcsTypes, std::vector<std::uint32_t>{10});
}

TEST_F(DocumentTest, FloorCallWithUnreadableTypeAlsoHandsTen) {
  UseLimits();
  Setting("UseDcsFloorcall", 1);
  const auto text = Builder().Create();
  ASSERT_TRUE(text);
  EXPECT_NE(text->find("<parameter key=\"DcsType\" value=\"0\" />"), std::string::npos);
  EXPECT_EQ(lux.dcsTypes, std::vector<std::uint32_t>{10});
}

TEST_F(DocumentTest, FloorCallWithTypeFourHandsFour) {
  UseLimits();
  Setting("UseDcsFloorcall", 1);
  Setting("DcsType", 4);
  const auto text = Builder().Create();
  ASSERT_TRUE(text);
  EXPECT_NE(text->find("<parameter key=\"DcsType\" value=\"4\" />"), std::string::npos);
  EXPECT_EQ(lux.dcsTypes, std::vector<std::uint32_t>{4});
}

TEST_F(DocumentTest, FloorCallDisabledWritesNoNameOrMelodyAndReadsNeither) {
  UseLimits();
  Setting("UseDcsFloorcall", 0);
  Setting("DcsType", 0);
  Setting("DcsFloorCallMelody", 3);
  FloorCallName("Door");
  const auto text = Builder().Create();
  ASSERT_TRUE(text);
  EXPECT_NE(text->find("      <parameter key=\"DcsType\" value=\"0\" />\n"
                       "      <parameter key=\"UseDcsFloorcall\" value=\"False\" />\n"
                       "      <parameter key=\"UseWeather\" value=\"False\" />\n"),
            std::string::npos);
  EXPECT_EQ(text->find("DcsFloorCall"), std::string::npos);
  EXPECT_EQ(lux.dcsTypes, std::vector<std::uint32_t>{0});
  EXPECT_EQ(JournalOf({Read("DcsFloorCallNameOffset"), Read("DcsFloorCallMelody")}),
            std::vector<std::string>{});
}

TEST_F(DocumentTest, FloorCallDisabledHandsTheTypeAsRead) {
  UseLimits();
  Setting("DcsType", 7);
  ASSERT_TRUE(Builder().Create());
  EXPECT_EQ(lux.dcsTypes, std::vector<std::uint32_t>{7});
}

TEST_F(DocumentTest, TypeIsHandedAfterTheFloorCallRowsAndBeforeWeather) {
  UseLimits();
  SetAllFlags();
  Setting("DcsType", 1);
  Setting("DcsFloorCallMelody", 1);
  FloorCallName("Door");
  ASSERT_TRUE(Builder().Create());
  EXPECT_EQ(JournalOf({Read("DcsType"), Read("UseDcsFloorcall"), Read("DcsFloorCallNameOffset"),
                       Read("DcsFloorCallMelody"), "HandleDcsType(1)", Read("UseWeather")}),
            (std::vector<std::string>{Read("DcsType"), Read("UseDcsFloorcall"),
                                      Read("DcsFloorCallNameOffset"), Read("DcsFloorCallMelody"),
                                      "HandleDcsType(1)", Read("UseWeather")}));
}

TEST_F(DocumentTest, BlankFloorCallNameIsFloorCallButton) {
  UseLimits();
  Setting("UseDcsFloorcall", 1);
  FloorCallName(" \t  ");
  const auto text = Builder().Create();
  ASSERT_TRUE(text);
  EXPECT_NE(text->find("<parameter key=\"DcsFloorCallName\" value=\"Floor call button\" />"),
            std::string::npos);
  EXPECT_NE(text->find("<parameter key=\"DcsFloorCallMelody\" value=\"0\" />"), std::string::npos);
}

TEST_F(DocumentTest, FloorCallNameIsLimitedByTheNameLimit) {
  UseLimits(10, 6);
  Setting("UseDcsFloorcall", 1);
  FloorCallName("Entrance door");
  const auto text = Builder().Create();
  ASSERT_TRUE(text);
  EXPECT_NE(text->find("<parameter key=\"DcsFloorCallName\" value=\"Entran\" />"),
            std::string::npos);
}

TEST_F(DocumentTest, UnreadableFloorCallNameIsTheWrongPropertyIdText) {
  UseLimits();
  Setting("UseDcsFloorcall", 1);
  lux.propertyIds["DcsFloorCallNameOffset"] = PropertyInfo{77, 0};
  const auto text = Builder().Create();
  ASSERT_TRUE(text);
  EXPECT_NE(text->find("<parameter key=\"DcsFloorCallName\" value=\"ERROR: maybe wrong property "
                       "id (77), no User should see this!\" />"),
            std::string::npos);
}

TEST_F(DocumentTest, DeviceBooleansAreCapitalisedButTheFolderFlagIsNot) {
  UseLimits();
  Setting("ShowRootFolder", 1);
  lux.propertyIds["NumberOfFolders"] = download.UInt8s(0, 50, {1});
  lux.propertyIds["FolderShowOnHome"] = download.Bools(0, 51, {1});
  const auto text = Builder().Create();
  ASSERT_TRUE(text);
  EXPECT_NE(text->find("<parameter key=\"ShowRootFolder\" value=\"True\" />"), std::string::npos);
  EXPECT_NE(text->find("<parameter key=\"ShowOnHomeScreen\" value=\"true\" />"), std::string::npos);
}

TEST_F(DocumentTest, CreateXmlRootUsesTheGivenVersionAndName) {
  UseLimits();
  std::string version = "2.5";
  std::string deviceName = "Panel";
  Builder().CreateXmlRoot(document, version, deviceName);
  const std::string text = Print(document);
  const std::string head =
      "<etsproject version=\"2.5\">\n"
      "  <device name=\"Panel\">\n"
      "    <parameters>\n";
  EXPECT_EQ(text.substr(0, head.size()), head);
  EXPECT_EQ(version, "2.5");
  EXPECT_EQ(deviceName, "Panel");
}

// --- limits ---------------------------------------------------------------------

TEST_F(DocumentTest, NoFunctionLimitWithoutFoldersIsNoError) {
  LogCapture capture({"KnxDownloadHandler"});
  UseLimits(0);
  EXPECT_EQ(Builder().Create(), boost::optional<std::string>(kMinimalDocument));
  lux.propertyIds["NumberOfFolders"] = download.UInt8s(0, 50, {0});
  EtsXml second(download.objects, download.memory, download.descriptors, &logger, &lux);
  EXPECT_EQ(second.Create(), boost::optional<std::string>(kMinimalDocument));
  EXPECT_TRUE(capture.Lines(40000).empty());
}

TEST_F(DocumentTest, UnreadableFunctionLimitWithoutFoldersIsNoError) {
  LogCapture capture({"KnxDownloadHandler"});
  UseLimits();
  lux.propertyIds.erase("MaxFunctionPerFolder");
  EXPECT_EQ(Builder().Create(), boost::optional<std::string>(kMinimalDocument));
  EXPECT_TRUE(capture.Lines(40000).empty());
}

TEST_F(DocumentTest, NoFunctionLimitWithFoldersStopsBeforeTheOtherChecks) {
  LogCapture capture({"KnxDownloadHandler"});
  UseLimits(0, 0, 0, 0);
  lux.propertyIds["NumberOfFolders"] = download.UInt8s(0, 50, {3});
  EXPECT_EQ(Builder().Create(), boost::none);
  EXPECT_EQ(capture.Lines(40000),
            (std::vector<LogLine>{
                {40000, "KnxDownloadHandler", "Max function per folder not set. PropertyId: 11"}}));
  EXPECT_TRUE(lux.dcsTypes.empty());
}

TEST_F(DocumentTest, NoNameLimit) {
  LogCapture capture({"KnxDownloadHandler"});
  UseLimits(10, 0, 0, 60);
  lux.propertyIds["NumberOfFolders"] = download.UInt8s(0, 50, {3});
  EXPECT_EQ(Builder().Create(), boost::none);
  EXPECT_EQ(capture.Lines(40000),
            (std::vector<LogLine>{
                {40000, "KnxDownloadHandler", "Max name char count not set. PropertyId: 12"}}));
}

TEST_F(DocumentTest, NoTextLimit) {
  LogCapture capture({"KnxDownloadHandler"});
  UseLimits(10, 20, 0, 60);
  EXPECT_EQ(Builder().Create(), boost::none);
  EXPECT_EQ(capture.Lines(40000),
            (std::vector<LogLine>{
                {40000, "KnxDownloadHandler", "Max text char count not set. PropertyId: 13"}}));
}

TEST_F(DocumentTest, NoUrlLimitAloneBuilds) {
  LogCapture capture({"KnxDownloadHandler"});
  UseLimits(10, 20, 40, 0);
  EXPECT_EQ(Builder().Create(), boost::optional<std::string>(kMinimalDocument));
  EXPECT_TRUE(capture.Lines(40000).empty());
}

TEST_F(DocumentTest, TableWithoutNameLimitReportsPropertyIdZero) {
  LogCapture capture({"KnxDownloadHandler"});
  UseLimits();
  lux.propertyIds.erase("MaxNameCharCount");
  EXPECT_EQ(Builder().Create(), boost::none);
  EXPECT_EQ(capture.Lines(40000),
            (std::vector<LogLine>{
                {40000, "KnxDownloadHandler", "Max name char count not set. PropertyId: 0"}}));
}

TEST_F(DocumentTest, TableWithoutFunctionLimitReportsPropertyIdZero) {
  LogCapture capture({"KnxDownloadHandler"});
  UseLimits();
  lux.propertyIds.erase("MaxFunctionPerFolder");
  lux.propertyIds["NumberOfFolders"] = download.UInt8s(0, 50, {1});
  EXPECT_EQ(Builder().Create(), boost::none);
  EXPECT_EQ(capture.Lines(40000),
            (std::vector<LogLine>{
                {40000, "KnxDownloadHandler", "Max function per folder not set. PropertyId: 0"}}));
}

// --- enabled communication objects -------------------------------------------------

TEST_F(DocumentTest, EnabledCosAscendingAndOnlyFlagged) {
  UseLimits();
  download.descriptors[5].communicationEnabled = true;
  download.descriptors[1].communicationEnabled = true;
  download.descriptors[3].communicationEnabled = false;
  download.descriptors[3].readEnabled = true;
  download.descriptors[65535].communicationEnabled = true;
  const auto text = Builder().Create();
  ASSERT_TRUE(text);
  const std::string tail =
      "  <elements />\n"
      "  <enabledCOs>\n"
      "    <co nr=\"1\" />\n"
      "    <co nr=\"5\" />\n"
      "    <co nr=\"65535\" />\n"
      "  </enabledCOs>\n"
      "</etsproject>\n";
  ASSERT_GE(text->size(), tail.size());
  EXPECT_EQ(text->substr(text->size() - tail.size()), tail);
}

TEST_F(DocumentTest, NoFlaggedCoGivesAnEmptyEnabledCos) {
  UseLimits();
  download.descriptors[2].communicationEnabled = false;
  const auto text = Builder().Create();
  ASSERT_TRUE(text);
  EXPECT_NE(text->find("  <enabledCOs />\n</etsproject>\n"), std::string::npos);
}

TEST_F(DocumentTest, ExceptionsFromTheBridgeAreNotCaught) {
  UseLimits();
  lux.propertyIds["NumberOfFolders"] = download.UInt8s(0, 50, {1});
  lux.propertyIds["NumberFuncPerFolder"] = download.UInt8s(0, 51, {1});
  lux.propertyIds["ChannelType"] = download.UInt8s(0, 52, {3});
  lux.throwOnParameters = true;
  EXPECT_THROW(Builder().Create(), std::runtime_error);
}

}  // namespace
}  // namespace lkdh::test
