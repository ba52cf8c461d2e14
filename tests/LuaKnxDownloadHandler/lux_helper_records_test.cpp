// Parameters, ShowIf rules and static data as the bridge reads them.

#include <LuaKnxDownloadHandler/LuxHelper.h>

#include <CapturingAppender.h>
#include <TempDir.h>

#include <gtest/gtest.h>

#include <boost/optional/optional_io.hpp>

#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using Korvex::luaknxdownloadhandler::LuaParameter;
using Korvex::luaknxdownloadhandler::LuaParameterShowIfPropertyIds;
using Korvex::luaknxdownloadhandler::LuxHelper;
using Korvex::luaknxdownloadhandler::LuxStaticData;
using Korvex::luaknxdownloadhandler::PropertyInfo;
using lkdh::test::LogCapture;
using lkdh::test::TempDir;
using Args = ovslua::Lua::Args;

class BridgeRecords : public ::testing::Test {
 protected:
  void Load(const std::string& script) {
    ASSERT_TRUE(m_bridge.Load(m_dir.WriteFile("script.lua", script).string()));
  }

  TempDir m_dir;
  LuxHelper m_bridge;
};

std::string DataFile(const std::string& name) {
  return std::string(LKDH_TEST_DATA_DIR) + "/" + name;
}

void ExpectInfo(const PropertyInfo& info, std::uint32_t propertyId,
                std::uint32_t interfaceObjectId) {
  EXPECT_EQ(info.PropertyId, propertyId);
  EXPECT_EQ(info.InterfaceObjectId, interfaceObjectId);
}

std::vector<std::string> Keys(const std::vector<LuaParameter>& parameters) {
  std::vector<std::string> keys;
  for (const auto& parameter : parameters) keys.push_back(parameter.key);
  return keys;
}

std::vector<std::string> Names(const std::vector<LuxStaticData>& entries) {
  std::vector<std::string> names;
  for (const auto& entry : entries) names.push_back(entry.name);
  return names;
}

// ---- Parameters ---------------------------------------------------------------

class BridgeParameters : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(m_bridge.Load(DataFile("lux_records.lua"))); }
  LuxHelper m_bridge;
};

TEST_F(BridgeParameters, SortedByKeyBytewise) {
  EXPECT_EQ(Keys(m_bridge.GetParametersFromChannelTypeId(1)),
            (std::vector<std::string>{"a", "ab", "b"}));
  EXPECT_EQ(Keys(m_bridge.GetParametersFromChannelTypeId(2)),
            (std::vector<std::string>{"", "B", "a", "a\x7f", "a\xc3\xa4", "b"}));
}

TEST_F(BridgeParameters, EmptyParameterTableGivesDefaultsAndIsKept) {
  const auto parameters = m_bridge.GetParametersFromChannelTypeId(3);
  ASSERT_EQ(parameters.size(), 1U);
  const LuaParameter& parameter = parameters[0];
  EXPECT_EQ(parameter.key, "");
  EXPECT_EQ(parameter.type, "");
  EXPECT_EQ(parameter.digits, 0);
  ExpectInfo(parameter.property, 0, 0);
  EXPECT_EQ(parameter.showIf.functionRef, 0);
  EXPECT_TRUE(parameter.showIf.propertyIds.empty());
}

TEST_F(BridgeParameters, FieldsAreReadByTheirTypes) {
  const auto parameters = m_bridge.GetParametersFromChannelTypeId(4);
  ASSERT_EQ(parameters.size(), 5U);
  // "full"
  EXPECT_EQ(parameters[0].key, "full");
  EXPECT_EQ(parameters[0].type, "UInt8");
  EXPECT_EQ(parameters[0].digits, 3);
  ExpectInfo(parameters[0].property, 44, 7);
  // "k1": numbers as text, a float Digits ignored, Property of the wrong type ignored
  EXPECT_EQ(parameters[1].key, "k1");
  EXPECT_EQ(parameters[1].type, "12");
  EXPECT_EQ(parameters[1].digits, 0);
  ExpectInfo(parameters[1].property, 0, 0);
  // "k2": Digits as text is ignored; the low 32 bits of a wide integer
  EXPECT_EQ(parameters[2].key, "k2");
  EXPECT_EQ(parameters[2].type, "1.5");
  EXPECT_EQ(parameters[2].digits, 0);
  EXPECT_EQ(parameters[3].key, "k3");
  EXPECT_EQ(parameters[3].digits, 3);
  EXPECT_EQ(parameters[4].key, "k4");
  EXPECT_EQ(parameters[4].digits, -1);
  EXPECT_EQ(parameters[4].type, "");
}

TEST_F(BridgeParameters, ElementsThatAreNotTablesAreSkippedAndListKeysAreNotRead) {
  EXPECT_EQ(Keys(m_bridge.GetParametersFromChannelTypeId(5)),
            (std::vector<std::string>{"x", "y", "z"}));
}

TEST_F(BridgeParameters, ChannelTypeIdIsPassedAsAnInteger) {
  const auto parameters = m_bridge.GetParametersFromChannelTypeId(4294967295U);
  ASSERT_EQ(parameters.size(), 1U);
  EXPECT_EQ(parameters[0].key, "4294967295:integer");
}

TEST_F(BridgeParameters, ResultsThatAreNotTablesGiveAnEmptyList) {
  LogCapture capture({"ovslua"});
  for (std::uint32_t id = 100; id <= 105; ++id) {
    EXPECT_TRUE(m_bridge.GetParametersFromChannelTypeId(id).empty()) << id;
  }
  EXPECT_TRUE(capture.Lines().empty());
}

TEST_F(BridgeParameters, FailureGivesAnEmptyListAndOneLine) {
  LogCapture capture({"ovslua"});
  EXPECT_TRUE(m_bridge.GetParametersFromChannelTypeId(666).empty());
  EXPECT_EQ(capture.Messages(),
            std::vector<std::string>{
                "Call function 'GetParametersFromChannelTypeId' failed (LUA_ERRRUN:no type 666)."});
}

TEST_F(BridgeParameters, TenThousandParametersAreReadAndSorted) {
  const auto parameters = m_bridge.GetParametersFromChannelTypeId(10000);
  ASSERT_EQ(parameters.size(), 10000U);
  for (std::size_t i = 0; i < parameters.size(); ++i) {
    char key[32];
    std::snprintf(key, sizeof key, "p%05zu", i);
    ASSERT_EQ(parameters[i].key, key);
    ASSERT_EQ(parameters[i].digits, static_cast<std::int32_t>(i % 7));
    ASSERT_EQ(parameters[i].property.PropertyId, static_cast<std::uint32_t>(i % 256));
  }
}

// ---- ShowIf -------------------------------------------------------------------

TEST_F(BridgeParameters, ShowIfWithPropertyIdsButNoFunctionKeepsZeroAndCannotBeCalled) {
  const auto parameters = m_bridge.GetParametersFromChannelTypeId(20);
  ASSERT_EQ(parameters.size(), 1U);
  const auto& showIf = parameters[0].showIf;
  EXPECT_EQ(showIf.functionRef, 0);
  ASSERT_EQ(showIf.propertyIds.size(), 1U);
  EXPECT_EQ(showIf.propertyIds[0].type, "Bool");
  ExpectInfo(showIf.propertyIds[0].id, 1, 2);
  LogCapture capture({"ovslua"});
  Args args;
  args += ovslua::Lua::Args::Arg::FromBool(true);
  EXPECT_FALSE(m_bridge.CallShowIfFunction(showIf.functionRef, args));
  ASSERT_EQ(capture.Messages().size(), 1U);
  EXPECT_EQ(capture.Messages()[0].rfind("Call function with ref id'0' failed (", 0), 0U);
}

TEST_F(BridgeParameters, ShowIfPropertyIdsKeepTheirOrderAndSkipNonTables) {
  const auto parameters = m_bridge.GetParametersFromChannelTypeId(21);
  ASSERT_EQ(parameters.size(), 1U);
  const auto& showIf = parameters[0].showIf;
  EXPECT_GT(showIf.functionRef, 0);
  const auto& ids = showIf.propertyIds;
  ASSERT_EQ(ids.size(), 5U);
  EXPECT_EQ(ids[0].type, "UInt8");
  ExpectInfo(ids[0].id, 10, 1);
  EXPECT_EQ(ids[1].type, "Int16");
  ExpectInfo(ids[1].id, 11, 1);
  EXPECT_EQ(ids[2].type, "");  // an empty element still counts
  ExpectInfo(ids[2].id, 0, 0);
  EXPECT_EQ(ids[3].type, "7");  // a number as text; an Id that is no table
  ExpectInfo(ids[3].id, 0, 0);
  EXPECT_EQ(ids[4].type, "Bool");
  ExpectInfo(ids[4].id, 12, 3);
  // The function decides from the values it is given.
  Args yes;
  yes += ovslua::Lua::Args::Arg::FromInt(5);
  EXPECT_TRUE(m_bridge.CallShowIfFunction(showIf.functionRef, yes));
  Args no;
  no += ovslua::Lua::Args::Arg::FromInt(4);
  EXPECT_FALSE(m_bridge.CallShowIfFunction(showIf.functionRef, no));
}

TEST_F(BridgeParameters, ShowIfOfTheWrongShapeLeavesNoRule) {
  const auto parameters = m_bridge.GetParametersFromChannelTypeId(22);
  ASSERT_EQ(parameters.size(), 3U);
  for (const auto& parameter : parameters) {
    EXPECT_EQ(parameter.showIf.functionRef, 0) << parameter.key;
    EXPECT_TRUE(parameter.showIf.propertyIds.empty()) << parameter.key;
  }
}

// ---- Static data --------------------------------------------------------------

TEST_F(BridgeRecords, StaticDataIsSortedByNameAtEveryLevel) {
  Load(R"lua(
    function GetStaticData()
      return { b = { Type = "B" }, a = { SubData = { y = {}, x = { Type = 5 } } } }
    end
  )lua");
  const auto data = m_bridge.GetStaticData();
  ASSERT_EQ(Names(data), (std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(data[1].type, "B");
  ASSERT_EQ(Names(data[0].subData), (std::vector<std::string>{"x", "y"}));
  EXPECT_EQ(data[0].subData[0].type, "5");
  EXPECT_TRUE(data[0].subData[1].subData.empty());
}

TEST_F(BridgeRecords, EnabledPropertyIsEngagedForAnyTable) {
  Load(R"lua(
    function GetStaticData()
      return {
        empty = { EnabledProperty = {} },
        full = { EnabledProperty = { PropertyId = 300, InterfaceObjectId = 9 } },
        missing = { Type = "T" },
        wrong = { EnabledProperty = 5 },
      }
    end
  )lua");
  const auto data = m_bridge.GetStaticData();
  ASSERT_EQ(Names(data), (std::vector<std::string>{"empty", "full", "missing", "wrong"}));
  ASSERT_TRUE(data[0].enabledProperty.has_value());
  ExpectInfo(*data[0].enabledProperty, 0, 0);
  ASSERT_TRUE(data[1].enabledProperty.has_value());
  ExpectInfo(*data[1].enabledProperty, 44, 9);
  EXPECT_FALSE(data[2].enabledProperty.has_value());
  EXPECT_FALSE(data[3].enabledProperty.has_value());
}

TEST_F(BridgeRecords, StaticDataParametersAreReadAndSorted) {
  Load(R"lua(
    function GetStaticData()
      return {
        Weather = {
          Type = "weather",
          Parameters = { { Key = "z", Digits = 1 }, 5, { Key = "m", Property = { PropertyId = 3 } } },
          SubData = { Inner = { Parameters = { { Key = "q" } } } },
        },
        Odd = { Parameters = "none", SubData = 7 },
      }
    end
  )lua");
  const auto data = m_bridge.GetStaticData();
  ASSERT_EQ(Names(data), (std::vector<std::string>{"Odd", "Weather"}));
  EXPECT_TRUE(data[0].parameters.empty());
  EXPECT_TRUE(data[0].subData.empty());
  EXPECT_EQ(data[1].type, "weather");
  ASSERT_EQ(Keys(data[1].parameters), (std::vector<std::string>{"m", "z"}));
  ExpectInfo(data[1].parameters[0].property, 3, 0);
  EXPECT_EQ(data[1].parameters[1].digits, 1);
  ASSERT_EQ(data[1].subData.size(), 1U);
  EXPECT_EQ(Keys(data[1].subData[0].parameters), std::vector<std::string>{"q"});
}

TEST_F(BridgeRecords, StaticDataEntriesThatAreNotTablesAreSkipped) {
  Load(R"lua(
    function GetStaticData()
      return { a = 1, b = "x", c = true, d = print, e = {}, [false] = {} }
    end
  )lua");
  EXPECT_EQ(Names(m_bridge.GetStaticData()), std::vector<std::string>{"e"});
}

TEST_F(BridgeRecords, StaticDataResultsThatAreNotTablesGiveAnEmptyList) {
  Load(R"lua(
    local answers = { [2] = 5, [3] = "text", [4] = true, [5] = false }
    local which = 1
    function GetFunctionUrnByTypeId(n) which = n; return "" end
    function GetStaticData() return answers[which] end
  )lua");
  LogCapture capture({"ovslua"});
  for (std::uint32_t which = 1; which <= 5; ++which) {
    ASSERT_TRUE(m_bridge.GetFunctionUrnByTypeId(which));
    EXPECT_TRUE(m_bridge.GetStaticData().empty()) << which;
  }
  EXPECT_TRUE(capture.Lines().empty());
}

// A chain of SubData levels built by a loop (a literal that deep exceeds the parser).
std::string NestedStaticData(int levels) {
  return R"lua(
    function GetStaticData()
      local top = {}
      local level = top
      for i = 1, )lua" +
         std::to_string(levels) + R"lua( do
        local entry = { Type = "level" .. i }
        level["n" .. i] = entry
        level["m" .. i] = { Type = "sibling" }
        if i < )lua" +
         std::to_string(levels) + R"lua( then
          entry.SubData = {}
          level = entry.SubData
        end
      end
      return top
    end
    function GetFunctionUrnByTypeId() return "still here" end
  )lua";
}

TEST_F(BridgeRecords, SubDataNestedTwoHundredLevelsIsReadAndSortedAtEveryLevel) {
  Load(NestedStaticData(200));
  std::vector<LuxStaticData> level = m_bridge.GetStaticData();
  for (int i = 1; i <= 200; ++i) {
    ASSERT_EQ(Names(level),
              (std::vector<std::string>{"m" + std::to_string(i), "n" + std::to_string(i)}))
        << i;
    EXPECT_EQ(level[0].type, "sibling");
    EXPECT_EQ(level[1].type, "level" + std::to_string(i));
    const std::vector<LuxStaticData> next = level[1].subData;
    level = next;
  }
  EXPECT_TRUE(level.empty());
}

TEST_F(BridgeRecords, SubDataUpToTheDepthLimitIsRead) {
  Load(NestedStaticData(1000));
  const auto data = m_bridge.GetStaticData();
  const std::vector<LuxStaticData>* level = &data;
  int depth = 0;
  while (!level->empty()) {
    ++depth;
    level = &level->back().subData;
  }
  EXPECT_EQ(depth, 1000);
}

TEST_F(BridgeRecords, SubDataDeeperThanTheLimitThrowsAndTheBridgeStaysUsable) {
  Load(NestedStaticData(1001));
  try {
    m_bridge.GetStaticData();
    FAIL() << "no exception";
  } catch (const ovslua::LuaPanicError&) {
    FAIL() << "not a Lua panic";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "Static data of the script is nested deeper than 1000 levels.");
  }
  EXPECT_EQ(m_bridge.GetFunctionUrnByTypeId(1), boost::optional<std::string>("still here"));
  // The depth count starts again from the top.
  Load(NestedStaticData(999));
  EXPECT_EQ(m_bridge.GetStaticData().size(), 2U);
}

TEST_F(BridgeRecords, SubDataThatContainsItselfStopsAtTheDepthLimit) {
  Load(R"lua(
    function GetStaticData()
      local entry = { Type = "loop" }
      entry.SubData = { again = entry }
      return { top = entry }
    end
    function GetFunctionUrnByTypeId() return "still here" end
  )lua");
  EXPECT_THROW(m_bridge.GetStaticData(), std::runtime_error);
  EXPECT_EQ(m_bridge.GetFunctionUrnByTypeId(1), boost::optional<std::string>("still here"));
}

}  // namespace
