// Description scripts that misbehave, one way each. Every one must give a
// clear outcome, keep the process alive, and leave the interpreter fit for
// the next download.
#include "HandlerDownload.h"

#include <LuaKnxDownloadHandler/luaknxdownloadhandler.h>

#include <CapturingAppender.h>
#include <SchemaValidation.h>
#include <TempDir.h>

#include <gtest/gtest.h>
#include <log4cplus/loglevel.h>
#include <boost/filesystem/operations.hpp>

#include <string>
#include <vector>

namespace fs = boost::filesystem;

namespace {

using lkdh::test::HandlerDownload;
using lkdh::test::LogCapture;
using lkdh::test::ReadWholeFile;
using lkdh::test::TempDir;

enum class First { Written, NotWritten };

struct BadScript {
  const char* name;
  std::string lua;         // appended to the good script
  First first;             // what the first download does to the file
  std::string errorStart;  // the first ERROR line starts so ("" = no ERROR line)
  std::string errorHas;    // ... and contains this
};

// The misbehaviour happens on the first call only, so the second download
// shows whether the interpreter recovered.
const char* const kOnce = R"(
local fired = false
local function firstTime()
  if fired then return false end
  fired = true
  return true
end
)";

std::string Failing(const std::string& function, const std::string& badBody) {
  return "local good" + function + " = " + function + "\nfunction " + function +
         "(...) if firstTime() then " + badBody + " end return good" + function + "(...) end\n";
}

// Missing at the first lookup only: lua_getglobal consults _G's __index.
std::string MissingOnce(const std::string& function) {
  return "local saved = " + function + "\n" + function +
         " = nil\nsetmetatable(_G, { __index = function(_, k) if k == '" + function +
         "' and not firstTime() then return saved end return nil end })\n";
}

const char* const kUrnsByProperty = "function IsThereUrnsByPropertyIndex() return true end\n";

std::string Call(const std::string& function) {
  return "Call function '" + function + "' failed (";
}

std::vector<BadScript> Cases() {
  const std::vector<std::string> functions = {"GetPropertyIds",
                                              "GetPropertyIndexForUrns",
                                              "IsThereUrnsByPropertyIndex",
                                              "GetFunctionUrnByTypeId",
                                              "GetChannelUrnByTypeId",
                                              "GetFunctionUrnByTypeIdAndPropertyIndex",
                                              "GetChannelUrnByTypeIdAndPropertyIndex",
                                              "GetLuaTemplateIndexByTypeIdAndPropertyIndex",
                                              "GetParametersFromChannelTypeId",
                                              "GetStaticData",
                                              "HandleDcsType"};
  // Whether a failing answer of that function changes the document.
  auto firstOf = [](const std::string& f) {
    if (f == "GetPropertyIds" || f == "IsThereUrnsByPropertyIndex" || f == "GetStaticData" ||
        f == "HandleDcsType") {
      return First::NotWritten;
    }
    return First::Written;
  };
  auto needsUrnsByProperty = [](const std::string& f) {
    return f == "GetPropertyIndexForUrns" || f.find("AndPropertyIndex") != std::string::npos;
  };

  std::vector<BadScript> cases;
  cases.push_back({"SyntaxError", "function (", First::NotWritten,
                   Call("GetPropertyIds") + "LUA_ERRRUN:", "attempt to call a nil value"});
  cases.push_back(
      {"RuntimeErrorWhileLoading", "error('broken at load')", First::NotWritten, "", ""});
  // The functions defined before the error still answer: the document is
  // the one already saved.
  for (const auto& f : functions) {
    const std::string prefix = needsUrnsByProperty(f) ? kUrnsByProperty : "";
    cases.push_back({"", prefix + Failing(f, "error('boom in " + f + "')"), firstOf(f),
                     Call(f) + "LUA_ERRRUN:", "boom in " + f + ")."});
    cases.back().name = nullptr;
    cases.push_back({"", prefix + MissingOnce(f), firstOf(f),
                     Call(f) + "LUA_ERRRUN:", "attempt to call a nil value"});
    cases.back().name = nullptr;
  }
  const std::string noLimits = "Max name char count not set. PropertyId: 0";
  cases.push_back(
      {"PropertyIdsNil", Failing("GetPropertyIds", "return nil"), First::NotWritten, noLimits, ""});
  cases.push_back({"PropertyIdsNumber", Failing("GetPropertyIds", "return 42"), First::NotWritten,
                   noLimits, ""});
  cases.push_back({"PropertyIdsString", Failing("GetPropertyIds", "return 'ids'"),
                   First::NotWritten, noLimits, ""});
  cases.push_back({"PropertyIdsBoolean", Failing("GetPropertyIds", "return true"),
                   First::NotWritten, noLimits, ""});
  cases.push_back(
      {"PropertyIdsEntriesNotTables",
       Failing("GetPropertyIds", "return { MaxNameCharCount = 52, MaxTextCharCount = 'x' }"),
       First::NotWritten, noLimits, ""});
  cases.push_back({"ParametersNil", Failing("GetParametersFromChannelTypeId", "return nil"),
                   First::Written, "", ""});
  cases.push_back({"ParametersString", Failing("GetParametersFromChannelTypeId", "return 'p'"),
                   First::Written, "", ""});
  cases.push_back({"ParameterListWithNonTables",
                   Failing("GetParametersFromChannelTypeId",
                           "return { 5, 'x', true, { Key = 'State', Type = 'Bool', Property = "
                           "{ InterfaceObjectId = 0, PropertyId = 60 } } }"),
                   First::NotWritten, "", ""});
  cases.push_back({"ParameterPropertyNotATable",
                   Failing("GetParametersFromChannelTypeId",
                           "return { { Key = 'State', Type = 'Bool', Property = 'p' } }"),
                   First::Written, "", ""});
  cases.push_back({"ShowIfNotATable",
                   Failing("GetParametersFromChannelTypeId",
                           "return { { Key = 'State', Type = 'Bool', ShowIf = 'x', Property = "
                           "{ InterfaceObjectId = 0, PropertyId = 60 } } }"),
                   First::NotWritten, "", ""});
  cases.push_back({"ShowIfPropertyIdsNotATable",
                   Failing("GetParametersFromChannelTypeId",
                           "return { { Key = 'State', Type = 'Bool', ShowIf = { PropertyIds = 7, "
                           "Function = function() return false end }, Property = "
                           "{ InterfaceObjectId = 0, PropertyId = 60 } } }"),
                   First::NotWritten, "", ""});
  cases.push_back({"DigitsAsString",
                   Failing("GetParametersFromChannelTypeId",
                           "return { { Key = 'State', Type = 'Bool', Digits = '2', Property = "
                           "{ InterfaceObjectId = 0, PropertyId = 60 } } }"),
                   First::NotWritten, "", ""});
  cases.push_back(
      {"StaticDataNumber", Failing("GetStaticData", "return 5"), First::NotWritten, "", ""});
  cases.push_back({"StaticDataFieldsOfWrongTypes",
                   Failing("GetStaticData",
                           "return { Weather = { Type = {}, EnabledProperty = 1, Parameters = 'x', "
                           "SubData = true } }"),
                   First::Written, "", ""});
  cases.push_back({"PropertyIndexForUrnsNil",
                   std::string(kUrnsByProperty) + Failing("GetPropertyIndexForUrns", "return nil"),
                   First::Written, "", ""});
  // Where a text is read, anything but a string or a number reads as an empty text;
  // where a table is read, anything but a table reads as an empty table.
  cases.push_back(
      {"UrnNil", Failing("GetFunctionUrnByTypeId", "return nil"), First::Written, "", ""});
  cases.push_back(
      {"UrnBoolean", Failing("GetChannelUrnByTypeId", "return true"), First::Written, "", ""});
  cases.push_back(
      {"UrnNumber", Failing("GetChannelUrnByTypeId", "return 7"), First::Written, "", ""});
  cases.push_back({"ParametersNumber", Failing("GetParametersFromChannelTypeId", "return 3"),
                   First::Written, "", ""});
  cases.push_back({"ParametersBoolean", Failing("GetParametersFromChannelTypeId", "return false"),
                   First::Written, "", ""});
  cases.push_back(
      {"StaticDataNil", Failing("GetStaticData", "return nil"), First::NotWritten, "", ""});
  cases.push_back({"StaticDataString", Failing("GetStaticData", "return 'weather'"),
                   First::NotWritten, "", ""});
  cases.push_back({"PropertyIndexForUrnsNumber",
                   std::string(kUrnsByProperty) + Failing("GetPropertyIndexForUrns", "return 4"),
                   First::Written, "", ""});
  cases.push_back(
      {"UrnAsTable", Failing("GetFunctionUrnByTypeId", "return {}"), First::Written, "", ""});
  cases.push_back({"UrnsByPropertyAsString", Failing("IsThereUrnsByPropertyIndex", "return 'yes'"),
                   First::Written, "", ""});
  const std::string broken = "LuaKnxDownloadHandler::CreateFileWithKnxData exception: ";
  cases.push_back({"NumericKeyInParameterTable",
                   Failing("GetParametersFromChannelTypeId",
                           "return { { 'oops', Key = 'State', Type = 'Bool' } }"),
                   First::NotWritten, broken, "invalid key to 'next'"});
  cases.push_back({"ListShapedPropertyTable",
                   Failing("GetParametersFromChannelTypeId",
                           "return { { Key = 'State', Type = 'Bool', Property = { 0, 60 } } }"),
                   First::NotWritten, broken, "invalid key to 'next'"});
  cases.push_back(
      {"NumericKeyInPropertyIds",
       Failing("GetPropertyIds", "local t = goodGetPropertyIds() t[1] = t.ChannelType return t"),
       First::NotWritten, broken, "invalid key to 'next'"});
  cases.push_back(
      {"ListShapedSubData",
       Failing("GetStaticData",
               "return { Timers = { Type = 't', SubData = { { Type = 'a' }, { Type = 'b' } } } }"),
       First::NotWritten, broken, "invalid key to 'next'"});
  const std::string showIf =
      "return { { Key = 'State', Type = 'Bool', Property = { InterfaceObjectId = 0, PropertyId = "
      "60 },"
      " ShowIf = { PropertyIds = { { Id = { InterfaceObjectId = 0, PropertyId = 60 }, Type = "
      "'Bool' } },"
      " Function = function(on) ";
  cases.push_back({"ShowIfFunctionErrors",
                   Failing("GetParametersFromChannelTypeId", showIf + "error('no show') end } } }"),
                   First::Written, "Call function with ref id'", "no show"});
  cases.push_back({"ShowIfFunctionReturnsNothing",
                   Failing("GetParametersFromChannelTypeId", showIf + "end } } }"), First::Written,
                   "", ""});
  cases.push_back({"ShowIfFunctionReturnsNumber",
                   Failing("GetParametersFromChannelTypeId", showIf + "return 0 end } } }"),
                   First::NotWritten, "", ""});
  cases.push_back(
      {"ShowIfWithoutFunction",
       Failing("GetParametersFromChannelTypeId",
               "return { { Key = 'State', Type = 'Bool', Property = { InterfaceObjectId = 0, "
               "PropertyId = 60 }, ShowIf = { PropertyIds = { { Id = { InterfaceObjectId = 0, "
               "PropertyId = 60 }, Type = 'Bool' } } } } }"),
       First::Written, "Call function with ref id'0' failed (", ""});
  cases.push_back({"ErrorObjectIsATable", Failing("GetStaticData", "error({ code = 1 })"),
                   First::NotWritten, Call("GetStaticData") + "LUA_ERRRUN:", ""});
  cases.push_back({"EndlessRecursion",
                   "local depth = 0\nlocal goodStatic = GetStaticData\nfunction GetStaticData() "
                   "if firstTime() then local function f() return f() + 1 end return f() end "
                   "return goodStatic() end\n",
                   First::NotWritten, Call("GetStaticData") + "LUA_ERRRUN:", "stack overflow"});
  cases.push_back({"StaticDataTooDeep",
                   Failing("GetStaticData",
                           "local t = { Type = 'leaf' } for i = 1, 1500 do t = { Type = 'level', "
                           "SubData = { L = t } } end return { Root = t }"),
                   First::NotWritten, broken, "nested deeper than"});

  int index = 0;
  for (auto& c : cases) {
    if (c.name == nullptr) c.name = "";
    ++index;
  }
  return cases;
}

std::string CaseName(const ::testing::TestParamInfo<BadScript>& info) {
  if (info.param.name[0] != '\0') return info.param.name;
  // Generated cases: named by what they break.
  const std::string& lua = info.param.lua;
  const auto at = lua.find("local good") != std::string::npos ? lua.find("local good") + 10
                                                              : lua.find("local saved = ") + 14;
  const auto end = lua.find_first_of(" \n", at);
  const std::string function = lua.substr(at, end - at);
  return (lua.find("saved") != std::string::npos ? "Missing" : "RuntimeErrorIn") + function;
}

class BadScriptTest : public ::testing::TestWithParam<BadScript> {
 protected:
  TempDir dir;

  fs::path WriteScript() const {
    const std::string base = ReadWholeFile(lkdh::test::HandlerScriptPath());
    return dir.WriteFile("device.lua", base + kOnce + GetParam().lua);
  }

  static bool Download(Korvex::LuaKnxDownloadHandler& handler, const HandlerDownload& download,
                       int& callbacks) {
    return handler.CreateFileWithKnxData(
        download.objects, download.memory, [&] { ++callbacks; },
        Korvex::IKnxDownloadHandler::AppData_None, download.descriptors);
  }
};

TEST_P(BadScriptTest, GivesItsOutcomeKeepsTheFileAndRecovers) {
  const BadScript& c = GetParam();
  const fs::path script = WriteScript();
  HandlerDownload download;
  int callbacks = 0;

  // The document the same script gives once its misbehaviour is spent.
  const fs::path reference = dir.Path() / "reference.xml";
  {
    Korvex::LuaKnxDownloadHandler handler(reference.string() + ";" + script.string());
    Download(handler, download, callbacks);
    Download(handler, download, callbacks);
  }

  // The saved file holds what the good script wrote.
  const fs::path file = dir.Path() / "etsproject.xml";
  {
    Korvex::LuaKnxDownloadHandler good(file.string() + ";" + lkdh::test::HandlerScriptPath());
    ASSERT_TRUE(Download(good, download, callbacks));
  }
  const std::string saved = ReadWholeFile(file);

  Korvex::LuaKnxDownloadHandler handler(file.string() + ";" + script.string());
  callbacks = 0;
  std::vector<lkdh::test::LogLine> errors;
  bool first = false;
  {
    LogCapture capture;
    first = Download(handler, download, callbacks);
    errors = capture.Lines(log4cplus::ERROR_LOG_LEVEL);
  }
  EXPECT_EQ(first, c.first == First::Written);
  EXPECT_EQ(callbacks, first ? 1 : 0);
  if (c.first == First::NotWritten) {
    EXPECT_EQ(ReadWholeFile(file), saved);
  } else {
    EXPECT_NE(ReadWholeFile(file), saved);
    EXPECT_TRUE(lkdh::test::MatchesEtsprojectSchema(ReadWholeFile(file)));
  }
  if (c.errorStart.empty()) {
    EXPECT_TRUE(errors.empty()) << errors.front().message;
  } else {
    ASSERT_FALSE(errors.empty());
    EXPECT_EQ(errors.front().message.rfind(c.errorStart, 0), 0U) << errors.front().message;
    EXPECT_NE(errors.front().message.find(c.errorHas), std::string::npos) << errors.front().message;
  }

  // The next download answers as the script does when it behaves.
  Download(handler, download, callbacks);
  if (fs::exists(reference)) {
    EXPECT_EQ(ReadWholeFile(file), ReadWholeFile(reference));
  } else {
    EXPECT_EQ(ReadWholeFile(file), saved);
  }
}

INSTANTIATE_TEST_SUITE_P(Scripts, BadScriptTest, ::testing::ValuesIn(Cases()), CaseName);

TEST(BadScripts, AtLeastThirtyAreTried) { EXPECT_GE(Cases().size(), 30U); }

std::string NestedStaticData(int levels) {
  return "function GetStaticData() local t = { Type = 'leaf' } for i = 1, " +
         std::to_string(levels) +
         " - 1 do t = { Type = 'level', SubData = { L = t } } end return { L = t } end\n";
}

TEST(BadScripts, StaticDataNested200LevelsIsWrittenWhole) {
  TempDir dir;
  const std::string base = ReadWholeFile(lkdh::test::HandlerScriptPath());
  const fs::path script = dir.WriteFile("device.lua", base + NestedStaticData(200));
  const fs::path file = dir.Path() / "etsproject.xml";
  Korvex::LuaKnxDownloadHandler handler(file.string() + ";" + script.string());
  HandlerDownload download;
  ASSERT_TRUE(handler.CreateFileWithKnxData(
      download.objects, download.memory, [] {}, Korvex::IKnxDownloadHandler::AppData_None,
      download.descriptors));
  const std::string text = ReadWholeFile(file);
  std::size_t count = 0;
  for (auto at = text.find("<element name=\"L\""); at != std::string::npos;
       at = text.find("<element name=\"L\"", at + 1)) {
    ++count;
  }
  EXPECT_EQ(count, 200U);
  EXPECT_TRUE(lkdh::test::MatchesEtsprojectSchema(text));
  // The innermost record sits 200 levels below the top "elements".
  EXPECT_NE(text.find(std::string(2 * (2 + 2 * 199), ' ') + "<element name=\"L\" type=\"leaf\">"),
            std::string::npos);
}

TEST(BadScripts, TenThousandParametersAreWrittenSortedByKey) {
  TempDir dir;
  const std::string base = ReadWholeFile(lkdh::test::HandlerScriptPath());
  const fs::path script = dir.WriteFile(
      "device.lua",
      base +
          "function GetParametersFromChannelTypeId() local list = {} for i = 1, 10000 do "
          "list[i] = { Key = string.format('K%05d', 10001 - i), Type = 'UInt8', "
          "Property = { InterfaceObjectId = 0, PropertyId = 51 } } end return list end\n");
  const fs::path file = dir.Path() / "etsproject.xml";
  Korvex::LuaKnxDownloadHandler handler(file.string() + ";" + script.string());
  HandlerDownload download;
  ASSERT_TRUE(handler.CreateFileWithKnxData(
      download.objects, download.memory, [] {}, Korvex::IKnxDownloadHandler::AppData_None,
      download.descriptors));
  const std::string text = ReadWholeFile(file);
  const auto first = text.find("<parameter key=\"K00001\" value=\"4\" />");
  const auto last = text.find("<parameter key=\"K10000\" value=\"4\" />");
  ASSERT_NE(first, std::string::npos);
  ASSERT_NE(last, std::string::npos);
  EXPECT_LT(first, last);
  std::size_t count = 0;
  for (auto at = text.find("<parameter key=\"K"); at != std::string::npos;
       at = text.find("<parameter key=\"K", at + 1)) {
    ++count;
  }
  EXPECT_EQ(count, 10000U);
  EXPECT_TRUE(lkdh::test::MatchesEtsprojectSchema(text));
}

}  // namespace
