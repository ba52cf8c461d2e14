// Folders: the top "elements" list, each folder's name, icon, home-screen flag
// and function list, and the static data after the last folder.

#include "ets_xml_test_support.h"

namespace lkdh::test {
namespace {

class FoldersTest : public EtsXmlTest {
 protected:
  void SetUp() override { UseLimits(); }

  void Folders(std::uint8_t count) {
    lux.propertyIds["NumberOfFolders"] = download.UInt8s(0, 50, {count});
  }
  void FolderNames(const std::vector<std::string>& names) {
    lux.propertyIds["FolderNameOffset"] = download.Names(0, 51, names);
  }
  /// Every function slot has channel type 1 and a blank name.
  void AllSlotsUsed() {
    lux.propertyIds["ChannelType"] = download.UInt8s(1, 1, std::vector<std::uint8_t>(40, 1));
    lux.propertyIds["FunctionNameOffset"] = download.Names(1, 2, std::vector<std::string>(40, ""));
  }
  std::string Elements() {
    Builder().CreateFolders(document);
    return Print(document.child("elements"));
  }
  static LuxStaticData Record(std::string name) {
    LuxStaticData data;
    data.name = std::move(name);
    data.type = "settings";
    return data;
  }
};

TEST_F(FoldersTest, NoFolderCountAndNoStaticDataGiveAnEmptyList) {
  EXPECT_EQ(Elements(), "<elements />\n");
  EXPECT_EQ(lux.staticDataCalls, 1);
}

TEST_F(FoldersTest, ZeroFoldersLeaveOnlyTheStaticData) {
  Folders(0);
  lux.staticData = {Record("Weather")};
  EXPECT_EQ(Elements(),
            "<elements>\n"
            "  <element name=\"Weather\" type=\"settings\">\n"
            "    <parameters />\n"
            "  </element>\n"
            "</elements>\n");
}

TEST_F(FoldersTest, BlankNamesAreNumberedFromZero) {
  Folders(2);
  FolderNames({"", "   "});
  EXPECT_EQ(Elements(),
            "<elements>\n"
            "  <element name=\"Folder 0\" type=\"location\">\n"
            "    <parameters>\n"
            "      <parameter key=\"IconId\" value=\"0\" />\n"
            "      <parameter key=\"ShowOnHomeScreen\" value=\"false\" />\n"
            "    </parameters>\n"
            "    <elements />\n"
            "  </element>\n"
            "  <element name=\"Folder 1\" type=\"location\">\n"
            "    <parameters>\n"
            "      <parameter key=\"IconId\" value=\"0\" />\n"
            "      <parameter key=\"ShowOnHomeScreen\" value=\"false\" />\n"
            "    </parameters>\n"
            "    <elements />\n"
            "  </element>\n"
            "</elements>\n");
}

TEST_F(FoldersTest, NameIsLimitedAndTrimmed) {
  Folders(1);
  // 40 characters; the first 20 are " Kitchen and dining ", trimmed.
  FolderNames({" Kitchen and dining room on the ground "});
  Elements();
  EXPECT_EQ(document.child("elements").child("element").attribute("name").as_string(),
            std::string("Kitchen and dining"));
}

TEST_F(FoldersTest, UnreadableNamePositionIsTheWrongPropertyIdText) {
  Folders(2);
  download.Add(0, 60, PropertyDataType::PDT_UNSIGNED_LONG, {0, 0, 0, 0}).SetReadable(false);
  lux.propertyIds["FolderNameOffset"] = {60, 0};
  Elements();
  std::vector<std::string> names;
  for (const pugi::xml_node& folder : document.child("elements").children("element")) {
    names.push_back(folder.attribute("name").as_string());
  }
  EXPECT_EQ(names, std::vector<std::string>(
                       2, "ERROR: maybe wrong property id (60), no User should see this!"));
}

TEST_F(FoldersTest, MissingNameTableEntryReadsTheZeroAddress) {
  Folders(1);
  Elements();
  EXPECT_EQ(document.child("elements").child("element").attribute("name").as_string(),
            std::string("ERROR: maybe wrong property id (0), no User should see this!"));
}

TEST_F(FoldersTest, IconAndHomeScreenFlagPerFolder) {
  Folders(3);
  FolderNames({"A", "B", "C"});
  lux.propertyIds["FolderIcon"] = download.UInt16s(0, 52, {513, 65535});
  lux.propertyIds["FolderShowOnHome"] = download.Bools(0, 53, {0, 1});
  Elements();
  std::string parameters;
  for (const pugi::xml_node& folder : document.child("elements").children("element")) {
    parameters += PrintChildren(folder.child("parameters"));
  }
  // Folder 2 lies past the end of both arrays and reads 0 and false.
  EXPECT_EQ(parameters,
            "<parameter key=\"IconId\" value=\"513\" />\n"
            "<parameter key=\"ShowOnHomeScreen\" value=\"false\" />\n"
            "<parameter key=\"IconId\" value=\"65535\" />\n"
            "<parameter key=\"ShowOnHomeScreen\" value=\"true\" />\n"
            "<parameter key=\"IconId\" value=\"0\" />\n"
            "<parameter key=\"ShowOnHomeScreen\" value=\"false\" />\n");
}

TEST_F(FoldersTest, UnreadableIconAndFlagStillWriteTheirParameters) {
  Folders(1);
  FolderNames({"A"});
  download.Add(0, 52, PropertyDataType::PDT_UNSIGNED_INT, {0, 7}).SetReadable(false);
  download.Add(0, 53, PropertyDataType::PDT_BINARY_INFORMATION, {1}).SetCountAvailable(false);
  lux.propertyIds["FolderIcon"] = {52, 0};
  lux.propertyIds["FolderShowOnHome"] = {53, 0};
  Elements();
  EXPECT_EQ(PrintChildren(document.child("elements").child("element").child("parameters")),
            "<parameter key=\"IconId\" value=\"0\" />\n"
            "<parameter key=\"ShowOnHomeScreen\" value=\"false\" />\n");
}

TEST_F(FoldersTest, FunctionIndexIsFolderTimesLimitPlusPosition) {
  Folders(2);
  FolderNames({"A", "B"});
  lux.propertyIds["NumberFuncPerFolder"] = download.UInt8s(0, 54, {3, 2});
  AllSlotsUsed();
  Elements();
  std::vector<std::string> functionIds;
  for (const pugi::xml_node& folder : document.child("elements").children("element")) {
    for (const pugi::xml_node& function : folder.child("elements").children("element")) {
      functionIds.push_back(std::string(folder.attribute("name").as_string()) + ":" +
                            function.attribute("name").as_string() + "/" +
                            function.attribute("functionId").as_string());
    }
  }
  EXPECT_EQ(functionIds,
            (std::vector<std::string>{"A:Function 0/1", "A:Function 1/2", "A:Function 2/3",
                                      "B:Function 10/11", "B:Function 11/12"}));
}

TEST_F(FoldersTest, CountBeyondTheLimitReachesIntoTheNextFolder) {
  Folders(1);
  FolderNames({"A"});
  lux.propertyIds["NumberFuncPerFolder"] = download.UInt8s(0, 54, {12});
  AllSlotsUsed();
  Elements();
  const pugi::xml_node functions = document.child("elements").child("element").child("elements");
  std::string ids;
  for (const pugi::xml_node& function : functions.children("element")) {
    ids += std::string(function.attribute("functionId").as_string()) + " ";
  }
  EXPECT_EQ(ids, "1 2 3 4 5 6 7 8 9 10 11 12 ");
}

TEST_F(FoldersTest, FolderWithoutFunctionsHasAnEmptyElementsChildAfterParameters) {
  Folders(2);
  FolderNames({"A", "B"});
  lux.propertyIds["NumberFuncPerFolder"] = download.UInt8s(0, 54, {1, 0});
  AllSlotsUsed();
  Elements();
  const pugi::xml_node second = document.child("elements").last_child();
  EXPECT_EQ(Print(second),
            "<element name=\"B\" type=\"location\">\n"
            "  <parameters>\n"
            "    <parameter key=\"IconId\" value=\"0\" />\n"
            "    <parameter key=\"ShowOnHomeScreen\" value=\"false\" />\n"
            "  </parameters>\n"
            "  <elements />\n"
            "</element>\n");
  EXPECT_EQ(std::string(document.child("elements")
                            .first_child()
                            .child("elements")
                            .first_child()
                            .attribute("name")
                            .as_string()),
            "Function 0");
}

TEST_F(FoldersTest, StaticDataFollowsTheLastFolder) {
  Folders(2);
  FolderNames({"A", "B"});
  lux.staticData = {Record("Alpha"), Record("Beta")};
  Elements();
  std::vector<std::string> order;
  for (const pugi::xml_node& element : document.child("elements").children()) {
    order.push_back(element.attribute("name").as_string());
  }
  EXPECT_EQ(order, (std::vector<std::string>{"A", "B", "Alpha", "Beta"}));
}

TEST_F(FoldersTest, SlotsWithoutChannelTypeAreSkippedInsideTheFolder) {
  Folders(1);
  FolderNames({"A"});
  lux.propertyIds["NumberFuncPerFolder"] = download.UInt8s(0, 54, {3});
  lux.propertyIds["ChannelType"] = download.UInt8s(1, 1, {0, 4, 0});
  lux.propertyIds["FunctionNameOffset"] = download.Names(1, 2, {"", "Dimmer", ""});
  Elements();
  EXPECT_EQ(PrintChildren(document.child("elements").child("element").child("elements")),
            "<element name=\"Dimmer\" type=\"function\" functionId=\"2\" "
            "functionUrn=\"Unsupported\" channelTypeUrn=\"Unsupported\">\n"
            "  <parameters />\n"
            "</element>\n");
}

}  // namespace
}  // namespace lkdh::test
