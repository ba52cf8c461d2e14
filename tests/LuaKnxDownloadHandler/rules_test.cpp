// The rules the plug-in shares with check-script hold for the plug-in itself.

#include "ets_xml_test_support.h"

#include <LuaKnxDownloadHandler/KnxValues.h>
#include <LuaKnxDownloadHandler/Rules.h>

#include <set>

namespace lkdh::test {
namespace {

using Korvex::luaknxdownloadhandler::kSettingNames;

TEST_F(EtsXmlTest, SettingNamesAreExactlyTheNamesTheBuilderLooksUp) {
  // Each listed setting at its own property of object 7; an unlisted name would
  // read the zero address, which exists here.
  download.UInt8s(0, 0, {0});
  std::map<std::string, std::string> names;  // "read 7.N" to the setting
  std::uint8_t pid = 0;
  for (const std::string_view name : kSettingNames) {
    ++pid;
    lux.propertyIds[std::string(name)] = PropertyInfo{pid, 7};
    names[fmt::format("read 7.{}", pid)] = std::string(name);
  }
  const auto set = [this](const char* name, std::vector<std::uint8_t> values) {
    download.UInt8s(7, static_cast<std::uint8_t>(lux.propertyIds[name].PropertyId),
                    std::move(values));
  };
  // Everything is read: limits, one folder with one function, and a floor call.
  set("MaxFunctionPerFolder", {1});
  set("MaxNameCharCount", {20});
  set("MaxTextCharCount", {20});
  set("NumberOfFolders", {1});
  set("NumberFuncPerFolder", {1});
  set("ChannelType", {3});
  set("UseDcsFloorcall", {1});
  ASSERT_TRUE(Builder().Create());

  std::set<std::string> read;
  for (const std::string& entry : journal) {
    EXPECT_NE(entry, "read 0.0") << "a setting the list lacks";
    const auto found = names.find(entry);
    if (found != names.end()) read.insert(found->second);
  }
  EXPECT_EQ(read, std::set<std::string>(kSettingNames.begin(), kSettingNames.end()));
}

TEST(MemoryText, ReadsAtMostTheLimitUpToAZeroByteWithoutSurroundingBlanks) {
  const KnxStack::BinaryData memory(std::string(" \t Living room \n\0Next", 22));
  EXPECT_EQ(Korvex::luaknxdownloadhandler::MemoryText(memory, 0, 9), "Living");
  EXPECT_EQ(Korvex::luaknxdownloadhandler::MemoryText(memory, 0, 40), "Living room");
  EXPECT_EQ(Korvex::luaknxdownloadhandler::MemoryText(memory, 17, 40), "Next");
  EXPECT_EQ(Korvex::luaknxdownloadhandler::MemoryText(memory, 99, 40), "");
}

TEST(ScriptDcsType, AFloorCallWithoutATypeGivesTheScriptTen) {
  using Korvex::luaknxdownloadhandler::ScriptDcsType;
  EXPECT_EQ(ScriptDcsType(0, true), 10U);
  EXPECT_EQ(ScriptDcsType(0, false), 0U);
  EXPECT_EQ(ScriptDcsType(3, true), 3U);
  EXPECT_EQ(ScriptDcsType(255, false), 255U);
}

}  // namespace
}  // namespace lkdh::test
