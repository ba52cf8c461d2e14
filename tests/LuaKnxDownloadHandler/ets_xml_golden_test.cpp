// A whole etsproject document from an in-memory download and a scripted bridge,
// compared byte for byte with the checked-in expected file.

#include "SchemaValidation.h"
#include "ets_xml_test_support.h"

#include <fstream>
#include <iterator>

namespace lkdh::test {
namespace {

LuaParameter WithShowIf(LuaParameter parameter, std::int32_t functionRef,
                        std::vector<LuaParameterShowIfPropertyIds> propertyIds) {
  parameter.showIf.functionRef = functionRef;
  parameter.showIf.propertyIds = std::move(propertyIds);
  return parameter;
}

LuxStaticData Record(std::string name, std::string type, std::vector<LuaParameter> parameters,
                     std::vector<LuxStaticData> subData = {},
                     boost::optional<PropertyInfo> enabledProperty = boost::none) {
  LuxStaticData data;
  data.enabledProperty = enabledProperty;
  data.name = std::move(name);
  data.type = std::move(type);
  data.parameters = std::move(parameters);
  data.subData = std::move(subData);
  return data;
}

std::string ReadFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

// Object 0: limits and device settings. Object 1: folders. Object 2: function
// slots (four per folder). Object 3: static data.
class GoldenTest : public EtsXmlTest {
 protected:
  void SetUp() override {
    UseLimits(4, 16, 24, 32);
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

  void DeviceSettings() {
    auto flag = [this](const char* name, std::uint8_t pid, std::uint8_t value) {
      lux.propertyIds[name] = download.Bools(0, pid, {value});
    };
    flag("ShowRootFolder", 30, 1);
    flag("ShowOutdoorTemp", 31, 0);
    flag("ShowIndoorTemp", 32, 1);
    flag("ShowDateTime", 33, 1);
    flag("UseTVK", 34, 0);
    lux.propertyIds["DcsType"] = download.UInt8s(0, 35, {0});
    flag("UseDcsFloorcall", 36, 1);
    lux.propertyIds["DcsFloorCallNameOffset"] =
        download.UInt32s(0, 37, {download.Put("  Front door  ")});
    lux.propertyIds["DcsFloorCallMelody"] = download.UInt8s(0, 38, {3});
    flag("UseWeather", 39, 1);
    flag("UseTimers", 40, 0);
    flag("UseHeatingTimers", 41, 1);
    flag("ResetUserData", 42, 1);
  }

  void Folders() {
    lux.propertyIds["NumberOfFolders"] = download.UInt8s(1, 1, {3});
    lux.propertyIds["FolderNameOffset"] =
        download.Names(1, 2, {"Living room", "   ", "Kitchen & dining area"});
    lux.propertyIds["FolderIcon"] = download.UInt16s(1, 3, {12, 0, 65535});
    lux.propertyIds["FolderShowOnHome"] = download.Bools(1, 4, {1, 0, 1});
    lux.propertyIds["NumberFuncPerFolder"] = download.UInt8s(1, 5, {3, 0, 2});
  }

  void Functions() {
    // Slots 0-2 belong to folder 0, 8-9 to folder 2; slot 2 has no channel type.
    lux.propertyIds["ChannelType"] = download.UInt8s(2, 1, {1, 2, 0, 0, 0, 0, 0, 0, 3, 4, 0, 0});
    lux.propertyIds["FunctionNameOffset"] = download.Names(
        2, 2, {"Ceiling light", "", "", "", "", "", "", "", "Blinds", "Thermostat", "", ""});

    const PropertyInfo state = download.Bools(2, 10, {1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0});
    const PropertyInfo scenes = download.Names(2, 11, std::vector<std::string>(12, " "));
    const PropertyInfo brightness = download.UInt8s(2, 12, {200, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0});
    const PropertyInfo bytes = download.UInt8s(2, 13, {0, 0xC8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0});
    const PropertyInfo words = download.UInt16s(2, 14, {0, 0xFF38, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0});
    const PropertyInfo dwords =
        download.UInt32s(2, 15, {0, 0xFFFFFFFF, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0});
    const PropertyInfo texts = download.Names(
        2, 16, {"", "  Free text for the second slot  ", "", "", "", "", "", "", "", "", "", ""});
    const PropertyInfo urls = download.Names(2, 17,
                                             {"", "http://example.com/cameras/front-door/stream",
                                              "", "", "", "", "", "", "", "", "", ""});
    const PropertyInfo codes =
        download.Generic20s(2, 18, {"", "GEN-20 value", "", "", "", "", "", "", "", "", "", ""});
    const PropertyInfo knxFloats = download.UInt16s(
        2, 19, {0, 0, 0, 0, 0, 0, 0, 0, 0x0C33, 0x0C33, 0, 0}, PropertyDataType::PDT_KNX_FLOAT);
    const PropertyInfo ieeeFloats = download.UInt32s(
        2, 20, {0, 0, 0, 0, 0, 0, 0, 0, 0xC1AC0000, 0, 0, 0}, PropertyDataType::PDT_FLOAT);
    const PropertyInfo selector = download.UInt8s(2, 21, {0, 0, 0, 0, 0, 0, 0, 0, 2, 0, 0, 0});

    // Type 1: URNs by type id, a ShowIf that holds.
    lux.functionUrns[1] = "urn:knx:fb:light";
    lux.channelUrns[1] = "urn:knx:ch:switch";
    lux.parameters[1] = {
        Param("State", "Bool", state),
        Param("Scene", "Name", scenes),
        WithShowIf(Param("Brightness", "UInt8", brightness), 1,
                   {{"Bool", state}, {"Url", urls}, {"Float16", knxFloats}}),
    };
    lux.showIfAnswers[1] = true;

    // Type 2: no URNs at all, a ShowIf that fails, every integer and text type.
    lux.parameters[2] = {
        Param("Byte", "UInt8", bytes),
        Param("SignedByte", "Int8", bytes),
        Param("Word", "UInt16", words),
        Param("SignedWord", "Int16", words),
        WithShowIf(Param("Hidden", "UInt32", dwords), 2, {{"UInt32", dwords}, {"Text", texts}}),
        Param("DoubleWord", "UInt32", dwords),
        Param("SignedDoubleWord", "Int32", dwords),
        Param("Note", "Text", texts),
        Param("Camera", "Url", urls),
        Param("Code", "GENERIC_20", codes),
        Param("Ignored", "Percent", bytes),
    };
    lux.showIfAnswers[2] = false;

    // Type 3: URNs selected by a property of the slot, with a template index.
    lux.urnSelectors[3] = selector;
    lux.functionUrnsByIndex[{3, 2}] = "urn:knx:fb:blind";
    lux.channelUrnsByIndex[{3, 2}] = "urn:knx:ch:blind";
    lux.templateIndices[{3, 2}] = "1";
    lux.parameters[3] = {
        Param("Position", "Float16", knxFloats, 1),
        Param("Angle", "Float32", ieeeFloats, 3),
        Param("Missing", "Float32", {99, 2}, 2),
    };

    // Type 4: selector 0, only a function URN, no template index.
    lux.urnSelectors[4] = selector;
    lux.functionUrnsByIndex[{4, 0}] = "urn:knx:fb:heating";
    lux.parameters[4] = {
        Param("Setpoint", "Float16", knxFloats, 0),
        Param("Wide", "Float16", knxFloats, 258),
        Param("Eco", "Bool", {98, 2}),
    };
  }

  void StaticData() {
    const PropertyInfo on = download.Bools(3, 1, {1});
    const PropertyInfo off = download.Bools(3, 2, {0});
    const PropertyInfo interval = download.UInt16s(3, 3, {600});
    const PropertyInfo location = download.UInt32s(3, 4, {download.Put("Berlin")});
    const PropertyInfo offset = download.UInt16s(3, 5, {0x87FF}, PropertyDataType::PDT_KNX_FLOAT);
    const PropertyInfo blankName = download.UInt32s(3, 6, {download.Put("   ")});
    lux.staticData = {
        Record("Alarm", "alarm", {Param("Interval", "UInt16", interval)}, {}, off),
        Record("Clock", "clock",
               {Param("Caption", "Name", blankName), Param("Interval", "UInt16", interval),
                Param("Title", "Name", {12, 3})},
               {Record("Display", "display", {Param("Visible", "Bool", on)}, {}, on),
                Record("Zone", "zone", {}, {}, PropertyInfo{77, 3})}),
        Record("Weather", "weather",
               {Param("Location", "Text", location),
                WithShowIf(Param("Offset", "Float16", offset, 2), 3, {{"Float16", offset}})},
               {}, on),
    };
    lux.showIfAnswers[3] = true;
  }
};

TEST_F(GoldenTest, DocumentMatchesTheExpectedFile) {
  const auto text = Builder().Create();
  ASSERT_TRUE(text);
  const std::string expected = ReadFile(LKDH_TEST_DATA_DIR "/golden_etsproject.xml");
  if (*text != expected) {
    // Kept for a diff against the expected file.
    std::ofstream(::testing::TempDir() + "golden_etsproject.actual.xml", std::ios::binary) << *text;
  }
  ASSERT_FALSE(expected.empty());
  EXPECT_EQ(*text, expected);
  EXPECT_TRUE(MatchesEtsprojectSchema(*text));
  EXPECT_EQ(Builder().ProperyValueByName("ResetUserData"), boost::optional<bool>(true));
}

TEST_F(GoldenTest, BridgeSawTheEffectiveDcsTypeAndTheShowIfArguments) {
  ASSERT_TRUE(Builder().Create());
  EXPECT_EQ(lux.dcsTypes, std::vector<std::uint32_t>{10});
  ASSERT_EQ(lux.showIfCalls.size(), 3U);
  EXPECT_EQ(lux.showIfCalls[0].refId, 1);
  EXPECT_EQ(lux.showIfCalls[0].args, (std::vector<std::string>{"0=1:true", "1=4:0"}));
  EXPECT_EQ(lux.showIfCalls[1].refId, 2);
  EXPECT_EQ(lux.showIfCalls[1].args,
            (std::vector<std::string>{"0=3:4294967295", "1=5:\"Free text for the seco\""}));
  EXPECT_EQ(lux.showIfCalls[2].refId, 3);
  EXPECT_EQ(lux.showIfCalls[2].args,
            std::vector<std::string>{
                fmt::format("0=4:{}", static_cast<double>(static_cast<float>(-1) * 0.01F))});
}

}  // namespace
}  // namespace lkdh::test
