// The property table, the URN and template queries and the DCS notification.

#include <LuaKnxDownloadHandler/LuxHelper.h>

#include <CapturingAppender.h>
#include <TempDir.h>

#include <gtest/gtest.h>

#include <boost/optional/optional_io.hpp>

#include <map>
#include <string>
#include <vector>

namespace {

using Korvex::luaknxdownloadhandler::LuxHelper;
using Korvex::luaknxdownloadhandler::PropertyInfo;
using lkdh::test::LogCapture;
using lkdh::test::LogLine;
using lkdh::test::TempDir;

constexpr int kError = 40000;

class BridgeQueries : public ::testing::Test {
 protected:
  void Load(const std::string& script) {
    m_path = m_dir.WriteFile("script.lua", script).string();
    ASSERT_TRUE(m_bridge.Load(m_path));
  }

  TempDir m_dir;
  std::string m_path;
  LuxHelper m_bridge;
};

void ExpectInfo(const PropertyInfo& info, std::uint32_t propertyId,
                std::uint32_t interfaceObjectId) {
  EXPECT_EQ(info.PropertyId, propertyId);
  EXPECT_EQ(info.InterfaceObjectId, interfaceObjectId);
}

TEST_F(BridgeQueries, PropertyIdsAreReadWithTheLowEightAndLowThirtyTwoBits) {
  Load(R"lua(
    function GetPropertyIds()
      return {
        Wide = { PropertyId = 300, InterfaceObjectId = 7 },
        Negative = { PropertyId = -1, InterfaceObjectId = -1 },
        Huge = { PropertyId = 0x1FF, InterfaceObjectId = 0x100000005 },
        Plain = { InterfaceObjectId = 12, PropertyId = 51 },
      }
    end
  )lua");
  LogCapture capture({"ovslua"});
  const auto ids = m_bridge.GetPropertyIds();
  ASSERT_EQ(ids.size(), 4U);
  ExpectInfo(ids.at("Wide"), 44, 7);
  ExpectInfo(ids.at("Negative"), 255, 4294967295U);
  ExpectInfo(ids.at("Huge"), 255, 5);
  ExpectInfo(ids.at("Plain"), 51, 12);
  EXPECT_TRUE(capture.Lines().empty());
}

TEST_F(BridgeQueries, MissingOrNonIntegerFieldsLeaveZero) {
  Load(R"lua(
    function GetPropertyIds()
      return {
        OnlyProperty = { PropertyId = 9 },
        OnlyObject = { InterfaceObjectId = 3 },
        Empty = {},
        Floats = { PropertyId = 5.0, InterfaceObjectId = 6.5 },
        Texts = { PropertyId = "5", InterfaceObjectId = "6" },
        Others = { PropertyId = true, InterfaceObjectId = {}, Extra = 4, [true] = 1 },
      }
    end
  )lua");
  const auto ids = m_bridge.GetPropertyIds();
  ASSERT_EQ(ids.size(), 6U);
  ExpectInfo(ids.at("OnlyProperty"), 9, 0);
  ExpectInfo(ids.at("OnlyObject"), 0, 3);
  ExpectInfo(ids.at("Empty"), 0, 0);
  ExpectInfo(ids.at("Floats"), 0, 0);
  ExpectInfo(ids.at("Texts"), 0, 0);
  ExpectInfo(ids.at("Others"), 0, 0);
}

TEST_F(BridgeQueries, EntriesThatAreNotTablesAndNamesWithANulByteAreLeftOut) {
  Load(R"lua(
    function GetPropertyIds()
      return {
        Number = 5, Text = "x", Flag = true, Func = print,
        ["b"] = { PropertyId = 2 }, ["B"] = { PropertyId = 1 }, ["a\0z"] = { PropertyId = 3 },
        [false] = { PropertyId = 4 },
      }
    end
  )lua");
  LogCapture capture({"ovslua"});
  const auto ids = m_bridge.GetPropertyIds();
  std::vector<std::string> names;
  for (const auto& entry : ids) names.push_back(entry.first);
  EXPECT_EQ(names, (std::vector<std::string>{"B", "b"}));
  EXPECT_EQ(capture.Lines(),
            (std::vector<LogLine>{{30000, "ovslua",
                                   "Script function 'GetPropertyIds' gave a text with a NUL byte "
                                   "for a setting name: 'a\\0z'; it is read as a value of the "
                                   "wrong type."}}));
}

TEST_F(BridgeQueries, EmptyTableGivesAnEmptyMapWithoutALine) {
  Load("function GetPropertyIds() return {} end");
  LogCapture capture({"ovslua"});
  EXPECT_TRUE(m_bridge.GetPropertyIds().empty());
  EXPECT_TRUE(capture.Lines().empty());
}

TEST_F(BridgeQueries, FailingScriptGivesAnEmptyMapAndOneErrorLine) {
  Load("function GetPropertyIds() local t = nil; return t.x end");
  LogCapture capture({"ovslua"});
  EXPECT_TRUE(m_bridge.GetPropertyIds().empty());
  EXPECT_EQ(capture.Lines(),
            (std::vector<LogLine>{{kError, "ovslua",
                                   "Call function 'GetPropertyIds' failed (LUA_ERRRUN:" + m_path +
                                       ":1: attempt to index a nil value (local 't'))."}}));
}

TEST_F(BridgeQueries, ResultsThatAreNotTablesReadAsEmpty) {
  Load(R"lua(
    local answers = { [2] = 5, [3] = "text", [4] = true, [5] = false, [6] = print }
    local which = 1
    function GetPropertyIndexForUrns(n) which = n; return answers[n] end
    function GetPropertyIds() return answers[which] end
  )lua");
  LogCapture capture({"ovslua"});
  for (std::uint32_t which = 1; which <= 6; ++which) {
    ExpectInfo(m_bridge.GetPropertyIndexForUrns(which), 0, 0);
    EXPECT_TRUE(m_bridge.GetPropertyIds().empty()) << which;
  }
  EXPECT_TRUE(capture.Lines().empty());
}

TEST_F(BridgeQueries, PropertyIndexForUrnsGetsTheTypeIdAsANonNegativeInteger) {
  Load(R"lua(
    function GetPropertyIndexForUrns(id)
      if math.type(id) ~= "integer" then return {} end
      return { PropertyId = id % 200, InterfaceObjectId = id }
    end
  )lua");
  ExpectInfo(m_bridge.GetPropertyIndexForUrns(4294967295U), 95, 4294967295U);
  ExpectInfo(m_bridge.GetPropertyIndexForUrns(17), 17, 17);
}

TEST_F(BridgeQueries, PropertyIndexForUrnsFailureGivesZeroAndTheLine) {
  Load("function GetPropertyIndexForUrns(id) error('no urns', 0) end");
  LogCapture capture({"ovslua"});
  ExpectInfo(m_bridge.GetPropertyIndexForUrns(1), 0, 0);
  EXPECT_EQ(capture.Messages(),
            std::vector<std::string>{
                "Call function 'GetPropertyIndexForUrns' failed (LUA_ERRRUN:no urns)."});
}

const char* const kUrnScript = R"lua(
  Dcs = 0
  function GetFunctionUrnByTypeId(id)
    if id == 0 then return "" end
    if id == 1 then return nil end
    if id == 2 then return 42 end
    if id == 3 then return {} end
    if id == 4 then error("no urn", 0) end
    return "urn:function:" .. id .. ":" .. math.type(id) .. ":dcs" .. Dcs
  end
  function GetChannelUrnByTypeId(id) return "urn:channel:" .. id end
  function GetFunctionUrnByTypeIdAndPropertyIndex(id, index)
    return "f:" .. id .. "/" .. index
  end
  function GetChannelUrnByTypeIdAndPropertyIndex(id, index)
    return "c:" .. id .. "/" .. index
  end
  function GetLuaTemplateIndexByTypeIdAndPropertyIndex(id, index)
    if id == 0 then return 7 end
    return "t:" .. id .. "/" .. index
  end
  function IsThereUrnsByPropertyIndex(id)
    local answers = { true, false, nil, 0, "", {} }
    return answers[id]
  end
  function HandleDcsType(t)
    Dcs = t
    if t == 1 then return false end
    if t == 2 then return nil, "x" end
    if t == 3 then error("bad dcs", 0) end
  end
)lua";

TEST_F(BridgeQueries, UrnQueriesReturnTheTextWithTheirArgumentsInOrder) {
  Load(kUrnScript);
  LogCapture capture({"ovslua"});
  EXPECT_EQ(m_bridge.GetFunctionUrnByTypeId(4294967295U),
            boost::optional<std::string>("urn:function:4294967295:integer:dcs0"));
  EXPECT_EQ(m_bridge.GetChannelUrnByTypeId(12), boost::optional<std::string>("urn:channel:12"));
  EXPECT_EQ(m_bridge.GetFunctionUrnByTypeIdAndPropertyIndex(5, 6),
            boost::optional<std::string>("f:5/6"));
  EXPECT_EQ(m_bridge.GetChannelUrnByTypeIdAndPropertyIndex(7, 8),
            boost::optional<std::string>("c:7/8"));
  EXPECT_EQ(m_bridge.GetLuaTemplateIndexByTypeIdAndPropertyIndex(9, 10),
            boost::optional<std::string>("t:9/10"));
  EXPECT_EQ(m_bridge.GetLuaTemplateIndexByTypeIdAndPropertyIndex(0, 10),
            boost::optional<std::string>("7"));
  EXPECT_TRUE(capture.Lines().empty());
}

TEST_F(BridgeQueries, UrnThatIsEmptyOrOfAnotherTypeIsStillAnAnswer) {
  Load(kUrnScript);
  LogCapture capture({"ovslua"});
  EXPECT_EQ(m_bridge.GetFunctionUrnByTypeId(0), boost::optional<std::string>(""));
  EXPECT_EQ(m_bridge.GetFunctionUrnByTypeId(1), boost::optional<std::string>(""));
  EXPECT_EQ(m_bridge.GetFunctionUrnByTypeId(2), boost::optional<std::string>("42"));
  EXPECT_EQ(m_bridge.GetFunctionUrnByTypeId(3), boost::optional<std::string>(""));
  EXPECT_TRUE(capture.Lines().empty());
}

TEST_F(BridgeQueries, UrnQueryThatFailsGivesNoAnswerAndTheWrapperLine) {
  Load(kUrnScript);
  LogCapture capture({"ovslua"});
  EXPECT_EQ(m_bridge.GetFunctionUrnByTypeId(4), boost::none);
  EXPECT_EQ(capture.Messages(),
            std::vector<std::string>{
                "Call function 'GetFunctionUrnByTypeId' failed (LUA_ERRRUN:no urn)."});
}

TEST_F(BridgeQueries, IsThereUrnsReadsTheResultByTruthiness) {
  Load(kUrnScript);
  EXPECT_TRUE(m_bridge.IsThereUrnsByPropertyIndex(1));
  EXPECT_FALSE(m_bridge.IsThereUrnsByPropertyIndex(2));
  EXPECT_FALSE(m_bridge.IsThereUrnsByPropertyIndex(3));
  EXPECT_TRUE(m_bridge.IsThereUrnsByPropertyIndex(4));
  EXPECT_TRUE(m_bridge.IsThereUrnsByPropertyIndex(5));
  EXPECT_TRUE(m_bridge.IsThereUrnsByPropertyIndex(6));
}

TEST_F(BridgeQueries, IsThereUrnsIsFalseWhenTheFunctionIsMissing) {
  Load("");
  LogCapture capture({"ovslua"});
  EXPECT_FALSE(m_bridge.IsThereUrnsByPropertyIndex(1));
  EXPECT_EQ(capture.Messages(),
            std::vector<std::string>{"Call function 'IsThereUrnsByPropertyIndex' failed "
                                     "(LUA_ERRRUN:attempt to call a nil value)."});
}

TEST_F(BridgeQueries, HandleDcsTypeIsTrueWhateverTheScriptReturns) {
  Load(kUrnScript);
  EXPECT_TRUE(m_bridge.HandleDcsType(1));
  EXPECT_TRUE(m_bridge.HandleDcsType(2));
  EXPECT_TRUE(m_bridge.HandleDcsType(5));
  // The script saw the type and answers accordingly.
  EXPECT_EQ(m_bridge.GetFunctionUrnByTypeId(9),
            boost::optional<std::string>("urn:function:9:integer:dcs5"));
}

TEST_F(BridgeQueries, HandleDcsTypeIsFalseWhenTheScriptFailsOrLacksIt) {
  Load(kUrnScript);
  LogCapture capture({"ovslua"});
  EXPECT_FALSE(m_bridge.HandleDcsType(3));
  EXPECT_EQ(capture.Messages(),
            std::vector<std::string>{"Call function 'HandleDcsType' failed (LUA_ERRRUN:bad dcs)."});
  LuxHelper empty;
  ASSERT_TRUE(empty.Load(m_dir.WriteFile("empty.lua", "").string()));
  EXPECT_FALSE(empty.HandleDcsType(1));
}

}  // namespace
