// A whole etsproject document from an in-memory download and a scripted bridge,
// compared byte for byte with the checked-in expected file.

#include "SchemaValidation.h"
#include "golden_download.h"

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

// The download is the shared golden download (golden_download.h); this fixture
// gives the fake bridge the answers a description script would give about it.
class GoldenTest : public EtsXmlTest {
 protected:
  void SetUp() override {
    BuildGoldenDownload(download);
    Limits();
    DeviceSettings();
    Folders();
    Functions();
    StaticData();
  }

  static PropertyInfo At(std::uint32_t object, std::uint8_t pid) {
    return PropertyInfo{pid, object};
  }

  void Limits() {
    lux.propertyIds["MaxFunctionPerFolder"] = At(0, 11);
    lux.propertyIds["MaxNameCharCount"] = At(0, 12);
    lux.propertyIds["MaxTextCharCount"] = At(0, 13);
    lux.propertyIds["MaxUrlCharCount"] = At(0, 14);
  }

  void DeviceSettings() {
    const char* const names[] = {"ShowRootFolder",
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
    std::uint8_t pid = 30;
    for (const char* name : names) lux.propertyIds[name] = At(0, pid++);
  }

  void Folders() {
    lux.propertyIds["NumberOfFolders"] = At(1, 1);
    lux.propertyIds["FolderNameOffset"] = At(1, 2);
    lux.propertyIds["FolderIcon"] = At(1, 3);
    lux.propertyIds["FolderShowOnHome"] = At(1, 4);
    lux.propertyIds["NumberFuncPerFolder"] = At(1, 5);
  }

  void Functions() {
    lux.propertyIds["ChannelType"] = At(2, 1);
    lux.propertyIds["FunctionNameOffset"] = At(2, 2);

    const PropertyInfo state = At(2, 10);
    const PropertyInfo scenes = At(2, 11);
    const PropertyInfo brightness = At(2, 12);
    const PropertyInfo bytes = At(2, 13);
    const PropertyInfo words = At(2, 14);
    const PropertyInfo dwords = At(2, 15);
    const PropertyInfo texts = At(2, 16);
    const PropertyInfo urls = At(2, 17);
    const PropertyInfo codes = At(2, 18);
    const PropertyInfo knxFloats = At(2, 19);
    const PropertyInfo ieeeFloats = At(2, 20);
    const PropertyInfo selector = At(2, 21);

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
    const PropertyInfo on = At(3, 1);
    const PropertyInfo off = At(3, 2);
    const PropertyInfo interval = At(3, 3);
    const PropertyInfo location = At(3, 4);
    const PropertyInfo offset = At(3, 5);
    const PropertyInfo blankName = At(3, 6);
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
