// What the readers and the builder tell a diagnostics sink about what they
// skip, and the TRACE lines a download writes from it.

#include "HandlerDownload.h"
#include "ets_xml_test_support.h"

#include <LuaKnxDownloadHandler/Diagnostics.h>
#include <LuaKnxDownloadHandler/LuxHelper.h>
#include <LuaKnxDownloadHandler/luaknxdownloadhandler.h>

#include <TempDir.h>

#include <algorithm>

namespace lkdh::test {
namespace {

using Korvex::luaknxdownloadhandler::LogDiagnostics;
using Korvex::luaknxdownloadhandler::LuxHelper;

constexpr int kTrace = log4cplus::TRACE_LOG_LEVEL;

// The messages of the TRACE lines only.
std::vector<std::string> TraceLines(const LogCapture& capture) {
  std::vector<std::string> messages;
  for (const LogLine& line : capture.Lines(kTrace)) messages.push_back(line.message);
  return messages;
}

LuaParameter WithShowIf(LuaParameter parameter, std::int32_t functionRef,
                        std::vector<LuaParameterShowIfPropertyIds> propertyIds) {
  parameter.showIf.functionRef = functionRef;
  parameter.showIf.propertyIds = std::move(propertyIds);
  return parameter;
}

// Slots 0 to 2 with channel type 3 in folders of 2; the builder reports to a log sink.
class BuilderDiagnostics : public EtsXmlTest {
 protected:
  void SetUp() override {
    UseLimits(2, 12, 8);
    lux.propertyIds["ChannelType"] = download.UInt8s(1, 1, {3, 3, 3});
    Builder().SetDiagnostics(&sink);
  }
  std::string Function(unsigned int index) {
    Builder().CreateFunction(document, index);
    return Print(document.last_child().child("parameters"));
  }

  LogCapture capture;
  LogDiagnostics sink{logger};
};

TEST_F(BuilderDiagnostics, Float16OnAOneByteArrayIsNamedWithItsSlotAndBothWidths) {
  // The support case: the value takes in the next slot's byte.
  lux.parameters[3] = {Param("Setpoint", "Float16", download.UInt8s(1, 5, {0, 0x0C, 0x80}), 1)};
  EXPECT_EQ(Function(1),
            "<parameters>\n"
            "  <parameter key=\"Setpoint\" value=\"23.0\" />\n"
            "</parameters>\n");
  EXPECT_EQ(TraceLines(capture),
            (std::vector<std::string>{
                "folder 0/function 1 (functionId 2), parameter 'Setpoint': property narrower than "
                "the value type: Float16 reads 2 bytes but each element of interface object 1, "
                "property 5 holds 1 byte: the value takes in the bytes after it"}));
}

TEST_F(BuilderDiagnostics, WiderPropertyIsNamedToo) {
  lux.parameters[3] = {Param("Level", "UInt8", download.UInt32s(1, 6, {1, 2, 3}))};
  Function(2);
  EXPECT_EQ(TraceLines(capture),
            (std::vector<std::string>{
                "folder 1/function 0 (functionId 3), parameter 'Level': property wider than the "
                "value type: UInt8 reads 1 byte but each element of interface object 1, property 6 "
                "holds 4 bytes: the value is read from its first bytes only"}));
}

TEST_F(BuilderDiagnostics, UnknownValueTypeIsNamedAndNothingIsWritten) {
  lux.parameters[3] = {Param("Mode", "Uint8", download.UInt8s(1, 5, {1, 2, 3}))};
  EXPECT_EQ(Function(0), "<parameters />\n");
  EXPECT_EQ(TraceLines(capture),
            (std::vector<std::string>{"folder 0/function 0 (functionId 1), parameter 'Mode': "
                                      "unknown value type: 'Uint8' is no value type: the "
                                      "parameter is not written"}));
}

TEST_F(BuilderDiagnostics, UnreadablePropertySaysWhatIsMissingAndWhatIsWritten) {
  download.UInt8s(1, 5, {7});  // one element only
  lux.parameters[3] = {Param("NoObject", "Bool", {1, 9}), Param("NoProperty", "UInt16", {99, 1}),
                       Param("PastTheEnd", "UInt8", {5, 1}), Param("NoText", "Text", {98, 1}),
                       Param("TextPastTheEnd", "Text", {5, 1})};
  EXPECT_EQ(Function(1),
            "<parameters>\n"
            "  <parameter key=\"NoObject\" value=\"False\" />\n"
            "  <parameter key=\"NoProperty\" value=\"0\" />\n"
            "  <parameter key=\"PastTheEnd\" value=\"0\" />\n"
            "  <parameter key=\"NoText\" value=\"ERROR: maybe wrong property id (98), no User "
            "should see this!\" />\n"
            "  <parameter key=\"TextPastTheEnd\" value=\"\" />\n"
            "</parameters>\n");
  const std::string slot = "folder 0/function 1 (functionId 2), parameter ";
  EXPECT_EQ(TraceLines(capture),
            (std::vector<std::string>{
                slot + "'NoObject': unreadable property: there is no interface object 9: Bool "
                       "read as false",
                slot + "'NoProperty': unreadable property: interface object 1 has no property "
                       "99: UInt16 read as 0",
                slot + "'PastTheEnd': no element for the slot: interface object 1, property 5 "
                       "has 1 elements, none at index 1: UInt8 read as 0",
                slot + "'NoText': unreadable property: interface object 1 has no property 98: "
                       "Text read as the wrong-property-id text",
                slot + "'TextPastTheEnd': no element for the slot: interface object 1, property 5 "
                       "has 1 elements, none at index 1: Text read from memory address 0"}));
}

TEST_F(BuilderDiagnostics, TextLongerThanItsLimitIsNamed) {
  // MaxTextCharCount is 8; the memory image holds 16 bytes before the texts.
  lux.parameters[3] = {Param("Note", "Text", download.Names(1, 7, {"", "Short", "Much too long"}))};
  Function(1);
  Function(2);
  EXPECT_EQ(TraceLines(capture),
            (std::vector<std::string>{
                "folder 1/function 0 (functionId 3), parameter 'Note': text cut at its limit: the "
                "Text at memory address 23 is longer than its limit of 8 characters: cut to 8"}));
}

TEST_F(BuilderDiagnostics, ShowIfThatAnswersFalseNamesItsArguments) {
  const PropertyInfo kind = download.UInt8s(1, 5, {4, 5, 6});
  lux.parameters[3] = {WithShowIf(Param("Colour", "UInt8", kind), 7,
                                  {{"UInt8", kind}, {"Bool", download.Bools(1, 6, {1, 1, 1})}})};
  lux.showIfAnswers[7] = false;
  EXPECT_EQ(Function(1), "<parameters />\n");
  EXPECT_EQ(TraceLines(capture),
            (std::vector<std::string>{"folder 0/function 1 (functionId 2), parameter 'Colour': "
                                      "hidden by ShowIf: its ShowIf function answered false to "
                                      "(5, true): the parameter is not written"}));
}

TEST_F(BuilderDiagnostics, ShowIfEntryThatGivesNoArgumentIsNamed) {
  const PropertyInfo kind = download.UInt8s(1, 5, {4, 5, 6});
  lux.parameters[3] = {
      WithShowIf(Param("Colour", "UInt8", kind), 7, {{"Url", kind}, {"UInt8", kind}})};
  lux.showIfAnswers[7] = true;
  EXPECT_EQ(Function(0),
            "<parameters>\n"
            "  <parameter key=\"Colour\" value=\"4\" />\n"
            "</parameters>\n");
  EXPECT_EQ(TraceLines(capture),
            (std::vector<std::string>{
                "folder 0/function 0 (functionId 1), parameter 'Colour': unknown value type: "
                "ShowIf entry 1: 'Url' gives the ShowIf function no argument, a later entry takes "
                "its place"}));
}

TEST_F(BuilderDiagnostics, NarrowShowIfPropertyIsNamedWithItsEntry) {
  const PropertyInfo kind = download.UInt8s(1, 5, {4, 5, 6});
  lux.parameters[3] = {WithShowIf(Param("Colour", "UInt8", kind), 7, {{"UInt16", kind}})};
  lux.showIfAnswers[7] = true;
  Function(0);
  EXPECT_EQ(TraceLines(capture),
            (std::vector<std::string>{
                "folder 0/function 0 (functionId 1), parameter 'Colour': property narrower than "
                "the value type: ShowIf entry 1: UInt16 reads 2 bytes but each element of "
                "interface object 1, property 5 holds 1 byte: the value takes in the bytes after "
                "it"}));
}

TEST_F(BuilderDiagnostics, DisabledAndUnreadablyEnabledRecordsAreNamedWithTheirPath) {
  LuxStaticData inner;
  inner.name = "Morning";
  inner.enabledProperty = download.Bools(2, 2, {0});
  LuxStaticData outer;
  outer.name = "Timers";
  outer.subData = {inner};
  LuxStaticData weather;
  weather.name = "Weather";
  weather.enabledProperty = PropertyInfo{77, 2};
  lux.staticData = {outer, weather};
  Builder().CreateRootStaticData(document);
  EXPECT_EQ(TraceLines(capture),
            (std::vector<std::string>{
                "static data 'Timers', record 'Morning': record disabled: its EnabledProperty "
                "(interface object 2, property 2) reads false: the record and its nested records "
                "are not written",
                "static data, record 'Weather': record disabled: its EnabledProperty (interface "
                "object 2, property 77) cannot be read: the record and its nested records are not "
                "written"}));
}

TEST_F(BuilderDiagnostics, WithoutASinkNothingIsReported) {
  Builder().SetDiagnostics(nullptr);
  lux.parameters[3] = {Param("Setpoint", "Float16", download.UInt8s(1, 5, {0, 0x0C, 0x80}), 1),
                       Param("Mode", "Uint8", {5, 1})};
  Function(1);
  EXPECT_EQ(TraceLines(capture), std::vector<std::string>{});
}

// The bridge's readers, on a real script.
class ReaderDiagnostics : public ::testing::Test {
 protected:
  void Load(const std::string& script) {
    ASSERT_TRUE(bridge.Load(dir.WriteFile("script.lua", script).string()));
    bridge.SetDiagnostics(&sink);
  }
  // The TRACE lines in order, since the readers walk tables in no defined order.
  std::vector<std::string> SortedLines() {
    auto lines = TraceLines(capture);
    std::sort(lines.begin(), lines.end());
    return lines;
  }

  LogCapture capture;
  log4cplus::Logger logger = log4cplus::Logger::getInstance("KnxDownloadHandler");
  LogDiagnostics sink{logger, "folder 0/function 0 (functionId 1)"};
  TempDir dir;
  LuxHelper bridge;
};

TEST_F(ReaderDiagnostics, UnknownFieldsAreNamedUnderTheParameterKeyWhereverTheyStand) {
  Load(R"(function GetParametersFromChannelTypeId(t)
    return { { Digit = 2, Key = "Setpoint", Type = "Float16",
               Property = { InterfaceObjectId = 1, PropertyID = 5 } } }
  end)");
  const auto parameters = bridge.GetParametersFromChannelTypeId(3);
  ASSERT_EQ(parameters.size(), 1U);
  const auto lines = SortedLines();
  EXPECT_EQ(lines, (std::vector<std::string>{
                       "folder 0/function 0 (functionId 1), parameter 'Setpoint': missing field: "
                       "no 'PropertyId': property 0 is read",
                       "folder 0/function 0 (functionId 1), parameter 'Setpoint': unknown field: "
                       "'Digit' is not read",
                       "folder 0/function 0 (functionId 1), parameter 'Setpoint': unknown field: "
                       "'PropertyID' is not read"}));
}

TEST_F(ReaderDiagnostics, ValuesOfTheWrongTypeAreNamedWithWhatIsReadInstead) {
  Load(R"(function GetParametersFromChannelTypeId(t)
    return { { Key = "A", Type = "Bool", Property = 5 },
             { Key = "B", Type = "Float16", Digits = "2", Property = { InterfaceObjectId = 1 } },
             { Key = "C", Type = {}, ShowIf = true },
             "not a table" }
  end)");
  bridge.GetParametersFromChannelTypeId(3);
  const auto lines = SortedLines();
  const std::string slot = "folder 0/function 0 (functionId 1), parameter ";
  EXPECT_EQ(lines, (std::vector<std::string>{
                       slot + "'': value of the wrong type: a list entry is a string, not a "
                              "parameter table: skipped",
                       slot + "'A': value of the wrong type: 'Property' is an integer (5), not a "
                              "table: read at interface object 0, property 0",
                       slot + "'B': missing field: no 'PropertyId': property 0 is read",
                       slot + "'B': value of the wrong type: 'Digits' is a string ('2'), not an "
                              "integer: no decimals",
                       slot + "'C': value of the wrong type: 'ShowIf' is a boolean (true), not a "
                              "table: the parameter is always shown",
                       slot + "'C': value of the wrong type: 'Type' is a table, not a string: the "
                              "parameter is not written"}));
}

TEST_F(ReaderDiagnostics, LongTextsKeepTheirStartAndNulBytesBecomeSpaces) {
  Load(R"(function GetParametersFromChannelTypeId(t)
    return { { Key = "A", Type = "Bool", Property = { InterfaceObjectId = 1, PropertyId = 5 },
               Digits = "0123456789012345678901234567890123456789X" },
             { Key = "B", Type = "Bool", Property = { InterfaceObjectId = 1, PropertyId = 5 },
               Digits = "2\0" } }
  end)");
  bridge.GetParametersFromChannelTypeId(3);
  const std::string slot = "folder 0/function 0 (functionId 1), parameter ";
  EXPECT_EQ(SortedLines(),
            (std::vector<std::string>{
                slot + "'A': value of the wrong type: 'Digits' is a string "
                       "('0123456789012345678901234567890123456...'), not an integer: no decimals",
                slot + "'B': value of the wrong type: 'Digits' is a string ('2 '), not an "
                       "integer: no decimals"}));
}

TEST_F(ReaderDiagnostics, StaticDataReportsUnderTheRecordsPath) {
  Load(R"(function GetStaticData()
    return { Timers = { Type = "timers", SubData = {
               Morning = { Type = "timer", Enabled = true,
                           Parameters = { { Key = "Start", Type = "UInt16", Propery = {} } } } } },
             Broken = 7 }
  end)");
  bridge.GetStaticData();
  const auto lines = SortedLines();
  EXPECT_EQ(lines,
            (std::vector<std::string>{
                "static data 'Timers/Morning', parameter 'Start': missing field: no 'Property': "
                "read at interface object 0, property 0",
                "static data 'Timers/Morning', parameter 'Start': unknown field: 'Propery' is not "
                "read",
                "static data 'Timers/Morning', record 'Morning': unknown field: 'Enabled' is not "
                "read",
                "static data, record 'Broken': value of the wrong type: a number, not a table: "
                "skipped"}));
}

TEST_F(ReaderDiagnostics, SettingsReportUnderTheSettingName) {
  Load(R"(function GetPropertyIds()
    return { MaxNameCharCount = { InterfaceObjectId = 0, PropertyId = "12" },
             UseTVK = true }
  end)");
  bridge.GetPropertyIds();
  const auto lines = SortedLines();
  EXPECT_EQ(lines, (std::vector<std::string>{
                       "folder 0/function 0 (functionId 1), setting 'MaxNameCharCount': value of "
                       "the wrong type: 'PropertyId' is a string ('12'), not an integer: "
                       "property 0 is read",
                       "folder 0/function 0 (functionId 1), setting 'UseTVK': value of the wrong "
                       "type: a boolean, not a property table: the setting is not read"}));
}

TEST_F(ReaderDiagnostics, MissingFieldsAreNamedWithWhatIsReadInstead) {
  Load(R"(function GetParametersFromChannelTypeId(t)
    return { { Type = "UInt8", Property = { InterfaceObjectId = 1 } },
             { Key = "NoType" },
             { Key = "Shown", Type = "Bool", Property = { PropertyId = 5 },
               ShowIf = { Function = function() return true end,
                          PropertyIds = { { Id = { PropertyId = 5 } }, { Type = "Bool" } } } } }
  end)");
  bridge.GetParametersFromChannelTypeId(3);
  const auto lines = SortedLines();
  const std::string slot = "folder 0/function 0 (functionId 1), parameter ";
  EXPECT_EQ(lines, (std::vector<std::string>{
                       slot + "'': missing field: no 'Key': its key is empty",
                       slot + "'': missing field: no 'PropertyId': property 0 is read",
                       slot + "'NoType': missing field: no 'Type': the parameter is not written",
                       slot + "'Shown': missing field: no 'Id': read at interface object 0, "
                              "property 0",
                       slot + "'Shown': missing field: no 'Type': the entry gives no argument"}));
}

TEST_F(ReaderDiagnostics, NumericKeyIsToldBeforeTheReadFails) {
  Load(R"(function GetParametersFromChannelTypeId(t)
    return { { Key = "State", Type = "Bool", "on" } }
  end
  function GetStaticData() return { { Type = "weather" } } end)");
  // The walk fails as in any download; the note is told before it does.
  EXPECT_THROW(bridge.GetParametersFromChannelTypeId(3), ovslua::LuaPanicError);
  EXPECT_THROW(bridge.GetStaticData(), ovslua::LuaPanicError);
  EXPECT_EQ(TraceLines(capture),
            (std::vector<std::string>{
                "folder 0/function 0 (functionId 1), parameter 'State': numeric key: [1] in a "
                "parameter table: the download aborts",
                "static data, record '': numeric key: [1] in the static-data table: the download "
                "aborts"}));
}

TEST_F(ReaderDiagnostics, NumbersReadFromTheirLowBitsAreNamed) {
  Load(R"(function GetParametersFromChannelTypeId(t)
    return { { Key = "Wide", Type = "Float16", Digits = 258,
               Property = { InterfaceObjectId = 4294967297, PropertyId = 300 } } }
  end)");
  bridge.GetParametersFromChannelTypeId(3);
  const auto lines = SortedLines();
  const std::string slot = "folder 0/function 0 (functionId 1), parameter 'Wide': ";
  EXPECT_EQ(lines, (std::vector<std::string>{
                       slot + "number out of range: 'Digits' 258 is read as 2 (only its low 8 "
                              "bits count)",
                       slot + "number out of range: 'InterfaceObjectId' 4294967297 is read as 1 "
                              "(only its low 32 bits count)",
                       slot + "number out of range: 'PropertyId' 300 is read as 44 (only its low "
                              "8 bits count)"}));
}

TEST_F(ReaderDiagnostics, ParametersUnderOneKeyAreNamedOnce) {
  Load(R"(function GetParametersFromChannelTypeId(t)
    local p = { InterfaceObjectId = 1, PropertyId = 5 }
    return { { Key = "State", Type = "Bool", Property = p },
             { Key = "State", Type = "UInt8", Property = p },
             { Key = "Other", Type = "UInt8", Property = p } }
  end)");
  EXPECT_EQ(bridge.GetParametersFromChannelTypeId(3).size(), 3U);
  EXPECT_EQ(TraceLines(capture),
            (std::vector<std::string>{
                "folder 0/function 0 (functionId 1), parameter 'State': key given twice: 2 "
                "parameters have this key: the document lists them in no defined order"}));
}

TEST_F(ReaderDiagnostics, ShowIfThatFailsIsToldFromOneThatAnswersFalse) {
  Load(R"(local function prop(o, p) return { InterfaceObjectId = o, PropertyId = p } end
  function GetPropertyIds()
    return { MaxFunctionPerFolder = prop(0, 11), MaxNameCharCount = prop(0, 12),
             MaxTextCharCount = prop(0, 13), ChannelType = prop(1, 1) }
  end
  function GetParametersFromChannelTypeId(t)
    local id = prop(1, 5)
    return {
      { Key = "Fails", Type = "UInt8", Property = id,
        ShowIf = { PropertyIds = { { Id = id, Type = "UInt8" } },
                   Function = function(v) error("no colour") end } },
      { Key = "Hidden", Type = "UInt8", Property = id,
        ShowIf = { PropertyIds = { { Id = id, Type = "UInt8" } },
                   Function = function(v) return false end } } }
  end)");
  Download download;
  download.UInt8s(0, 11, {2});
  download.UInt8s(0, 12, {20});
  download.UInt8s(0, 13, {40});
  download.UInt8s(1, 1, {3});
  download.UInt8s(1, 5, {9});
  EtsXml builder(download.objects, download.memory, download.descriptors, &logger, &bridge);
  builder.SetDiagnostics(&sink);
  pugi::xml_document document;
  builder.CreateFunction(document, 0);
  EXPECT_EQ(Print(document.first_child().child("parameters")), "<parameters />\n");
  const std::string slot = "folder 0/function 0 (functionId 1), parameter ";
  EXPECT_EQ(TraceLines(capture),
            (std::vector<std::string>{
                slot + "'Fails': ShowIf failed: its ShowIf function could not be called or raised "
                       "an error (the ERROR line before says which): the parameter is not written",
                slot + "'Hidden': hidden by ShowIf: its ShowIf function answered false to (9): "
                       "the parameter is not written"}));
}

// Each report with the field the readers name, which the TRACE lines leave out.
class FieldSink final : public Korvex::luaknxdownloadhandler::Diagnostics {
 public:
  void Enter(std::string_view) override {}
  void Report(const Korvex::luaknxdownloadhandler::Skip& skip) override {
    lines.push_back(std::string(skip.subject) + " '" + std::string(skip.key) + "' at '" +
                    std::string(skip.field) + "': " + SkipReasonText(skip.reason) + ": " +
                    std::string(skip.detail));
  }
  std::vector<std::string> Sorted() const {
    auto sorted = lines;
    std::sort(sorted.begin(), sorted.end());
    return sorted;
  }

  std::vector<std::string> lines;
};

TEST_F(ReaderDiagnostics, KeysNeitherStringNorNumberAreNamedWithTheirTable) {
  Load(R"(function GetParametersFromChannelTypeId(t)
    return { { Key = "A", Type = "Bool", [true] = 1,
               Property = { InterfaceObjectId = 1, PropertyId = 5, [false] = 0 },
               ShowIf = { [true] = 1, Function = function() return true end,
                          PropertyIds = { { Type = "Bool", [true] = 2,
                                            Id = { InterfaceObjectId = 1, PropertyId = 5,
                                                   [print] = 3 } } } } } }
  end
  function GetPropertyIds() return { [true] = {} } end
  function GetStaticData() return { [false] = {}, Clock = { Type = "clock", [true] = 1 } } end)");
  EXPECT_EQ(bridge.GetParametersFromChannelTypeId(3).size(), 1U);
  bridge.GetPropertyIds();
  bridge.GetStaticData();
  EXPECT_EQ(SortedLines(),
            (std::vector<std::string>{
                "folder 0/function 0 (functionId 1), parameter 'A': key of the wrong type: a key "
                "of type boolean in a ShowIf PropertyIds entry is ignored",
                "folder 0/function 0 (functionId 1), parameter 'A': key of the wrong type: a key "
                "of type boolean in a ShowIf table is ignored",
                "folder 0/function 0 (functionId 1), parameter 'A': key of the wrong type: a key "
                "of type boolean in a parameter table is ignored",
                "folder 0/function 0 (functionId 1), parameter 'A': key of the wrong type: a key "
                "of type boolean in a property table is ignored",
                "folder 0/function 0 (functionId 1), parameter 'A': key of the wrong type: a key "
                "of type function in a property table is ignored",
                "folder 0/function 0 (functionId 1), setting '': key of the wrong type: a key of "
                "type boolean in the settings table is ignored",
                "static data 'Clock', record 'Clock': key of the wrong type: a key of type "
                "boolean in a static-data entry is ignored",
                "static data, record '': key of the wrong type: a key of type boolean in the "
                "static-data table is ignored"}));
  FieldSink fields;
  bridge.SetDiagnostics(&fields);
  bridge.GetParametersFromChannelTypeId(3);
  EXPECT_EQ(fields.Sorted(),
            (std::vector<std::string>{
                "parameter 'A' at '': key of the wrong type: a key of type boolean in a "
                "parameter table is ignored",
                "parameter 'A' at 'Property': key of the wrong type: a key of type boolean in a "
                "property table is ignored",
                "parameter 'A' at 'ShowIf': key of the wrong type: a key of type boolean in a "
                "ShowIf table is ignored",
                "parameter 'A' at 'ShowIf.PropertyIds[1]': key of the wrong type: a key of type "
                "boolean in a ShowIf PropertyIds entry is ignored",
                "parameter 'A' at 'ShowIf.PropertyIds[1].Id': key of the wrong type: a key of "
                "type function in a property table is ignored"}));
}

TEST_F(ReaderDiagnostics, ParametersWithoutKeyCarryTheirPlaceInTheListAsTheirField) {
  Load(R"(function GetParametersFromChannelTypeId(t)
    local p = { InterfaceObjectId = 1, PropertyId = 5 }
    return { { Key = "A", Type = "Bool", Property = p, Digits = "1" },
             { Type = "UInt8", Property = p },
             "text",
             { Type = "UInt8", Propery = p } }
  end)");
  FieldSink fields;
  bridge.SetDiagnostics(&fields);
  EXPECT_EQ(bridge.GetParametersFromChannelTypeId(3).size(), 3U);
  EXPECT_EQ(fields.Sorted(),
            (std::vector<std::string>{
                "parameter '' at '[2].Key': missing field: no 'Key': its key is empty",
                "parameter '' at '[3]': value of the wrong type: a list entry is a string, not a "
                "parameter table: skipped",
                "parameter '' at '[4].Key': missing field: no 'Key': its key is empty",
                "parameter '' at '[4].Property': missing field: no 'Property': read at interface "
                "object 0, property 0",
                "parameter '' at '[4].Propery': unknown field: 'Propery' is not read",
                "parameter 'A' at 'Digits': value of the wrong type: 'Digits' is a string ('1'), "
                "not an integer: no decimals"}));
  // The TRACE lines stay as they were: the field is not in them.
  bridge.SetDiagnostics(&sink);
  bridge.GetParametersFromChannelTypeId(3);
  const std::string slot = "folder 0/function 0 (functionId 1), parameter ";
  EXPECT_EQ(SortedLines(), (std::vector<std::string>{
                               slot + "'': missing field: no 'Key': its key is empty",
                               slot + "'': missing field: no 'Key': its key is empty",
                               slot + "'': missing field: no 'Property': read at interface "
                                      "object 0, property 0",
                               slot + "'': unknown field: 'Propery' is not read",
                               slot + "'': value of the wrong type: a list entry is a string, "
                                      "not a parameter table: skipped",
                               slot + "'A': value of the wrong type: 'Digits' is a string ('1'), "
                                      "not an integer: no decimals"}));
}

TEST_F(ReaderDiagnostics, NumericKeyInANestedTableIsToldWithItsFieldBeforeTheReadFails) {
  Load(R"(local function prop(o, p) return { InterfaceObjectId = o, PropertyId = p } end
  local function showIf(ids) return { Function = function() return true end, PropertyIds = ids } end
  local lists = {
    { { Key = "Property", Type = "Bool", Property = { 1, 5 } } },
    { { Key = "ShowIf", Type = "Bool", Property = prop(1, 5), ShowIf = { 7 } } },
    { { Key = "Entry", Type = "Bool", Property = prop(1, 5),
        ShowIf = showIf({ { Id = prop(1, 5), Type = "Bool" }, { Id = prop(1, 6), "Bool" } }) } },
    { { Key = "Id", Type = "Bool", Property = prop(1, 5),
        ShowIf = showIf({ { Id = { 1, 5 }, Type = "Bool" } }) } },
    { { Key = "A", Type = "Bool", Property = prop(1, 5) }, { Type = "Bool", Property = { 1 } } },
  }
  function GetParametersFromChannelTypeId(t) return lists[t] end
  function GetPropertyIds() return { ChannelType = { 1, 1 } } end
  function GetStaticData() return { Clock = { Type = "clock", EnabledProperty = { 2, 1 } } } end
  function GetPropertyIndexForUrns(t) return { 1, 52 } end)");
  FieldSink fields;
  bridge.SetDiagnostics(&fields);
  for (std::uint32_t type = 1; type <= 5; ++type) {
    EXPECT_THROW(bridge.GetParametersFromChannelTypeId(type), ovslua::LuaPanicError) << type;
  }
  EXPECT_THROW(bridge.GetPropertyIds(), ovslua::LuaPanicError);
  EXPECT_THROW(bridge.GetStaticData(), ovslua::LuaPanicError);
  EXPECT_THROW(bridge.GetPropertyIndexForUrns(2), ovslua::LuaPanicError);
  EXPECT_EQ(fields.lines,
            (std::vector<std::string>{
                "parameter 'Property' at 'Property': numeric key: [1] in a property table: the "
                "download aborts",
                "parameter 'ShowIf' at 'ShowIf': numeric key: [1] in a ShowIf table: the "
                "download aborts",
                "parameter 'Entry' at 'ShowIf.PropertyIds[2]': numeric key: [1] in a ShowIf "
                "PropertyIds entry: the download aborts",
                "parameter 'Id' at 'ShowIf.PropertyIds[1].Id': numeric key: [1] in a property "
                "table: the download aborts",
                "parameter '' at '[2].Property': numeric key: [1] in a property table: the "
                "download aborts",
                "setting 'ChannelType' at '': numeric key: [1] in a property table: the download "
                "aborts",
                "record 'Clock' at 'EnabledProperty': numeric key: [1] in a property table: the "
                "download aborts",
                "URN selector of channel type '2' at '': numeric key: [1] in a property table: "
                "the download aborts"}));
}

// A whole download: the sink is there only when the plug-in's logger is at TRACE.
class DownloadDiagnostics : public ::testing::Test {
 protected:
  std::vector<LogLine> Download(int level) {
    const std::string script =
        R"(local function prop(p) return { InterfaceObjectId = 0, PropertyId = p } end
      dofile(")" +
        HandlerScriptPath() + R"(")
      function GetParametersFromChannelTypeId(t)
        return { { Key = "Setpoint", Type = "Float16", Digits = 1, Property = prop(51) } }
      end)";
    Korvex::LuaKnxDownloadHandler handler(dir.Path().string() + "/etsproject.xml;" +
                                          dir.WriteFile("device.lua", script).string());
    EXPECT_TRUE(handler.Loaded());
    LogCapture capture;
    log4cplus::Logger::getInstance("KnxDownloadHandler").setLogLevel(level);
    HandlerDownload download;
    handler.CreateFileWithKnxData(
        download.objects, download.memory, [] {}, Korvex::IKnxDownloadHandler::AppData_ForceWrite,
        download.descriptors);
    return capture.Lines();
  }

  TempDir dir;
};

TEST_F(DownloadDiagnostics, TraceNamesTheSlotTheParameterAndTheReason) {
  const std::vector<LogLine> lines = Download(kTrace);
  std::vector<std::string> traces;
  for (const LogLine& line : lines) {
    if (line.level == kTrace && line.logger == "KnxDownloadHandler") traces.push_back(line.message);
  }
  EXPECT_EQ(traces, (std::vector<std::string>{
                        "folder 0/function 0 (functionId 1), parameter 'Setpoint': property "
                        "narrower than the value type: Float16 reads 2 bytes but each element of "
                        "interface object 0, property 51 holds 1 byte: the value takes in the "
                        "bytes after it"}));
}

TEST_F(DownloadDiagnostics, LinesAtDebugAndAboveAreTheSameWithAndWithoutTrace) {
  std::vector<LogLine> withTrace;
  for (const LogLine& line : Download(kTrace)) {
    if (line.level > kTrace) withTrace.push_back(line);
  }
  const std::vector<LogLine> withoutTrace = Download(log4cplus::DEBUG_LOG_LEVEL);
  EXPECT_FALSE(withoutTrace.empty());
  EXPECT_EQ(withTrace, withoutTrace);
}

}  // namespace
}  // namespace lkdh::test
