// The bridge's two call protocols, its error lines, its ShowIf calls and its
// behaviour when a script breaks a table traversal.

#include <LuaKnxDownloadHandler/LuxHelper.h>

#include <CapturingAppender.h>
#include <TempDir.h>

#include <gtest/gtest.h>

#include <boost/optional/optional_io.hpp>

#include <chrono>
#include <cstdlib>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

using Korvex::luaknxdownloadhandler::LuaParameter;
using Korvex::luaknxdownloadhandler::LuxHelper;
using Korvex::luaknxdownloadhandler::LuxStaticData;
using Korvex::luaknxdownloadhandler::PropertyInfo;
using lkdh::test::LogCapture;
using lkdh::test::LogLine;
using lkdh::test::TempDir;
using Args = ovslua::Lua::Args;
using Arg = ovslua::Lua::Args::Arg;

constexpr int kError = 40000;

LogLine Error(const std::string& message) { return {kError, "ovslua", message}; }

std::string MissingLine(const std::string& name) {
  return "Call function '" + name + "' failed (LUA_ERRRUN:attempt to call a nil value).";
}

class BridgeProtocol : public ::testing::Test {
 protected:
  // Writes the script and loads it into the bridge under test.
  void Load(const std::string& script) {
    m_path = m_dir.WriteFile("script.lua", script).string();
    ASSERT_TRUE(m_bridge.Load(m_path));
  }

  // The ShowIf function reference of the first parameter of channel type id.
  std::int32_t ShowIfRef(std::uint32_t id) {
    const auto parameters = m_bridge.GetParametersFromChannelTypeId(id);
    EXPECT_FALSE(parameters.empty());
    return parameters.empty() ? 0 : parameters.front().showIf.functionRef;
  }

  TempDir m_dir;
  std::string m_path;
  LuxHelper m_bridge;
};

TEST(BridgeBeforeLoad, TableQueriesAndShowIfLogInitializationMissingAndFail) {
  LogCapture capture({"ovslua"});
  LuxHelper bridge;
  EXPECT_TRUE(bridge.GetPropertyIds().empty());
  const PropertyInfo info = bridge.GetPropertyIndexForUrns(3);
  EXPECT_EQ(info.PropertyId, 0U);
  EXPECT_EQ(info.InterfaceObjectId, 0U);
  EXPECT_TRUE(bridge.GetParametersFromChannelTypeId(3).empty());
  EXPECT_TRUE(bridge.GetStaticData().empty());
  Args args;
  EXPECT_FALSE(bridge.CallShowIfFunction(1, args));
  EXPECT_EQ(capture.Lines(), std::vector<LogLine>(5, Error("Initialization missing.")));
}

TEST(BridgeBeforeLoad, WrapperQueriesFailWithTheirFailureValues) {
  LogCapture capture({"ovslua"});
  LuxHelper bridge;
  EXPECT_FALSE(bridge.IsThereUrnsByPropertyIndex(1));
  EXPECT_EQ(bridge.GetFunctionUrnByTypeId(1), boost::none);
  EXPECT_EQ(bridge.GetChannelUrnByTypeId(1), boost::none);
  EXPECT_EQ(bridge.GetFunctionUrnByTypeIdAndPropertyIndex(1, 2), boost::none);
  EXPECT_EQ(bridge.GetChannelUrnByTypeIdAndPropertyIndex(1, 2), boost::none);
  EXPECT_EQ(bridge.GetLuaTemplateIndexByTypeIdAndPropertyIndex(1, 2), boost::none);
  EXPECT_FALSE(bridge.HandleDcsType(1));
  // The wrapper reports its own missing interpreter once per call.
  EXPECT_EQ(capture.Lines(), std::vector<LogLine>(7, Error("Initialization missing.")));
}

TEST(BridgeLoad, MissingScriptFailsAndLaterQueriesFailOnTheMissingFunctions) {
  TempDir dir;
  LuxHelper bridge;
  LogCapture capture({"ovslua"});
  const std::string path = dir.Path().string() + "/absent.lua";
  EXPECT_FALSE(bridge.Load(path));
  ASSERT_EQ(capture.Lines().size(), 1U);
  EXPECT_EQ(capture.Lines()[0].message.rfind("Load script '" + path + "' failed (LUA_ERRFILE:", 0),
            0U);
  capture.Clear();
  // The interpreter stays: queries run and fail on the missing globals.
  EXPECT_TRUE(bridge.GetPropertyIds().empty());
  EXPECT_EQ(bridge.GetFunctionUrnByTypeId(1), boost::none);
  EXPECT_EQ(capture.Lines(), (std::vector<LogLine>{Error(MissingLine("GetPropertyIds")),
                                                   Error(MissingLine("GetFunctionUrnByTypeId"))}));
}

TEST(BridgeLoad, ScriptThatFailsHalfWayKeepsWhatItDefinedBefore) {
  TempDir dir;
  LuxHelper bridge;
  LogCapture capture({"ovslua"});
  const std::string path = dir.WriteFile("bad.lua",
                                         "function GetFunctionUrnByTypeId() return 'urn' end\n"
                                         "error('broken at load', 0)\n"
                                         "function GetPropertyIds() return {} end\n")
                               .string();
  EXPECT_FALSE(bridge.Load(path));
  EXPECT_EQ(capture.Messages(), std::vector<std::string>{"Load script '" + path +
                                                         "' failed (LUA_ERRRUN:broken at load)."});
  capture.Clear();
  // The interpreter stays: the function defined before the error answers,
  // the one after it was never defined.
  EXPECT_EQ(bridge.GetFunctionUrnByTypeId(1), boost::optional<std::string>("urn"));
  EXPECT_TRUE(bridge.GetPropertyIds().empty());
  EXPECT_EQ(capture.Lines(), (std::vector<LogLine>{Error(MissingLine("GetPropertyIds"))}));
}

TEST(BridgeLoad, ASecondLoadReplacesTheInterpreter) {
  TempDir dir;
  LuxHelper bridge;
  ASSERT_TRUE(bridge.Load(
      dir.WriteFile("one.lua", "function GetFunctionUrnByTypeId() return 'one' end").string()));
  ASSERT_TRUE(bridge.Load(
      dir.WriteFile("two.lua", "function GetChannelUrnByTypeId() return 'two' end").string()));
  LogCapture capture({"ovslua"});
  EXPECT_EQ(bridge.GetFunctionUrnByTypeId(1), boost::none);
  EXPECT_EQ(bridge.GetChannelUrnByTypeId(1), boost::optional<std::string>("two"));
}

TEST_F(BridgeProtocol, AMissingGlobalFailsOnlyThatQuery) {
  Load(R"lua(
    function GetPropertyIds() return { A = { PropertyId = 1, InterfaceObjectId = 2 } } end
    function GetFunctionUrnByTypeId(id) return "urn:f" end
    function IsThereUrnsByPropertyIndex(id) return true end
    function HandleDcsType(t) end
  )lua");
  LogCapture capture({"ovslua"});
  EXPECT_EQ(m_bridge.GetStaticData().size(), 0U);
  EXPECT_EQ(m_bridge.GetChannelUrnByTypeId(1), boost::none);
  EXPECT_EQ(m_bridge.GetParametersFromChannelTypeId(1).size(), 0U);
  const PropertyInfo info = m_bridge.GetPropertyIndexForUrns(1);
  EXPECT_EQ(info.PropertyId, 0U);
  EXPECT_EQ(m_bridge.GetLuaTemplateIndexByTypeIdAndPropertyIndex(1, 2), boost::none);
  EXPECT_EQ(capture.Lines(),
            (std::vector<LogLine>{
                Error(MissingLine("GetStaticData")), Error(MissingLine("GetChannelUrnByTypeId")),
                Error(MissingLine("GetParametersFromChannelTypeId")),
                Error(MissingLine("GetPropertyIndexForUrns")),
                Error(MissingLine("GetLuaTemplateIndexByTypeIdAndPropertyIndex"))}));
  capture.Clear();
  // The functions that exist still answer, without a line.
  EXPECT_EQ(m_bridge.GetPropertyIds().size(), 1U);
  EXPECT_EQ(m_bridge.GetFunctionUrnByTypeId(1), boost::optional<std::string>("urn:f"));
  EXPECT_TRUE(m_bridge.IsThereUrnsByPropertyIndex(1));
  EXPECT_TRUE(m_bridge.HandleDcsType(1));
  EXPECT_TRUE(capture.Lines().empty());
}

TEST_F(BridgeProtocol, ScriptErrorsInTableQueriesLogTheStatusAndTheMessage) {
  Load(R"lua(
    function GetPropertyIds() error("no ids") end
    function GetStaticData() error({}) end
    function GetParametersFromChannelTypeId(id) error(id) end
    function GetPropertyIndexForUrns(id) error("bad type " .. id, 0) end
  )lua");
  LogCapture capture({"ovslua"});
  EXPECT_TRUE(m_bridge.GetPropertyIds().empty());
  EXPECT_TRUE(m_bridge.GetStaticData().empty());
  EXPECT_TRUE(m_bridge.GetParametersFromChannelTypeId(77).empty());
  const PropertyInfo info = m_bridge.GetPropertyIndexForUrns(5);
  EXPECT_EQ(info.PropertyId, 0U);
  EXPECT_EQ(info.InterfaceObjectId, 0U);
  EXPECT_EQ(
      capture.Lines(),
      (std::vector<LogLine>{
          Error("Call function 'GetPropertyIds' failed (LUA_ERRRUN:" + m_path + ":2: no ids)."),
          Error("Call function 'GetStaticData' failed (LUA_ERRRUN:(error object is a table "
                "value))."),
          Error("Call function 'GetParametersFromChannelTypeId' failed (LUA_ERRRUN:77)."),
          Error("Call function 'GetPropertyIndexForUrns' failed (LUA_ERRRUN:bad type 5).")}));
}

TEST_F(BridgeProtocol, AfterAFailedCallTheNextStartsAfresh) {
  Load(R"lua(
    local fail = true
    function GetPropertyIds()
      if fail then fail = false; error("first", 0) end
      return { A = { PropertyId = 4 } }
    end
    function GetStaticData() error("second", 0) end
  )lua");
  LogCapture capture({"ovslua"});
  EXPECT_TRUE(m_bridge.GetPropertyIds().empty());
  const auto ids = m_bridge.GetPropertyIds();
  ASSERT_EQ(ids.size(), 1U);
  EXPECT_EQ(ids.at("A").PropertyId, 4U);
  EXPECT_TRUE(m_bridge.GetStaticData().empty());
  // Each failure line carries only its own message: nothing is left from before.
  EXPECT_EQ(
      capture.Lines(),
      (std::vector<LogLine>{Error("Call function 'GetPropertyIds' failed (LUA_ERRRUN:first)."),
                            Error("Call function 'GetStaticData' failed (LUA_ERRRUN:second).")}));
}

TEST_F(BridgeProtocol, ShowIfWithReferenceZeroFails) {
  Load("");
  LogCapture capture({"ovslua"});
  Args args;
  unsigned int value = 1;
  args += value;
  EXPECT_FALSE(m_bridge.CallShowIfFunction(0, args));
  EXPECT_EQ(capture.Lines(),
            (std::vector<LogLine>{Error(
                "Call function with ref id'0' failed (LUA_ERRRUN:attempt to call a nil value).")}));
}

TEST_F(BridgeProtocol, ShowIfWithNegativeOrUnknownReferencesFailsCleanly) {
  Load("");
  LogCapture capture({"ovslua"});
  Args args;
  EXPECT_FALSE(m_bridge.CallShowIfFunction(-5, args));
  EXPECT_FALSE(m_bridge.CallShowIfFunction(123456, args));
  EXPECT_FALSE(m_bridge.CallShowIfFunction(2, args));  // the globals table, not a function
  const auto lines = capture.Lines();
  ASSERT_EQ(lines.size(), 3U);
  EXPECT_EQ(lines[0].message,
            "Call function with ref id'-5' failed (LUA_ERRRUN:attempt to call a nil value).");
  EXPECT_EQ(lines[1].message,
            "Call function with ref id'123456' failed (LUA_ERRRUN:attempt to call a nil value).");
  EXPECT_EQ(lines[2].message,
            "Call function with ref id'2' failed (LUA_ERRRUN:attempt to call a table value).");
}

const char* const kShowIfScript = R"lua(
  local function rule(f) return { { Key = "k", ShowIf = { PropertyIds = { {} }, Function = f } } } end
  local rules = {
    [1] = function(...) return table.concat({...}, ",") == "0,1,2,3,4,5,6,7,8,9,10,11" end,
    [2] = function(a) error("rule failed", 0) end,
    [3] = function() end,
    [4] = function() return 0 end,
    [5] = function() return nil end,
    [6] = function() return false end,
    [7] = function(a, b, c) return a == true and b == "x" and c == 2.5 end,
    [8] = function(...) return select("#", ...) == 3000 end,
  }
  function GetParametersFromChannelTypeId(id) return rule(rules[id]) end
)lua";

TEST_F(BridgeProtocol, ShowIfGetsItsArgumentsInNumericPositionOrder) {
  Load(kShowIfScript);
  const std::int32_t ref = ShowIfRef(1);
  ASSERT_GT(ref, 0);
  Args args;
  for (unsigned int i = 0; i < 12; ++i) {
    unsigned int value = i;
    args += value;
  }
  EXPECT_TRUE(m_bridge.CallShowIfFunction(ref, args));
  // The caller's list is left as it was.
  EXPECT_EQ(args.Count(), 12U);
  EXPECT_EQ(args[11].GetUnsigned(), 11U);
  Args fewer;
  unsigned int one = 1;
  fewer += one;
  EXPECT_FALSE(m_bridge.CallShowIfFunction(ref, fewer));
}

TEST_F(BridgeProtocol, ShowIfGetsEachKindOfArgument) {
  Load(kShowIfScript);
  const std::int32_t ref = ShowIfRef(7);
  Args args;
  args += Arg::FromBool(true);
  args += Arg::FromString("x");
  args += Arg::FromDouble(2.5);
  EXPECT_TRUE(m_bridge.CallShowIfFunction(ref, args));
}

TEST_F(BridgeProtocol, ShowIfWithManyArgumentsGetsStackRoom) {
  Load(kShowIfScript);
  const std::int32_t ref = ShowIfRef(8);
  Args args;
  for (unsigned int i = 0; i < 3000; ++i) {
    unsigned int value = i;
    args += value;
  }
  EXPECT_TRUE(m_bridge.CallShowIfFunction(ref, args));
}

TEST_F(BridgeProtocol, ShowIfThatErrorsLogsTheRefLineAndYieldsFalse) {
  Load(kShowIfScript);
  const std::int32_t ref = ShowIfRef(2);
  LogCapture capture({"ovslua"});
  Args args;
  EXPECT_FALSE(m_bridge.CallShowIfFunction(ref, args));
  EXPECT_EQ(capture.Lines(),
            (std::vector<LogLine>{Error("Call function with ref id'" + std::to_string(ref) +
                                        "' failed (LUA_ERRRUN:rule failed).")}));
}

TEST_F(BridgeProtocol, ShowIfResultsAreReadByTruthiness) {
  Load(kShowIfScript);
  LogCapture capture({"ovslua"});
  Args args;
  EXPECT_FALSE(m_bridge.CallShowIfFunction(ShowIfRef(3), args));  // nothing
  EXPECT_TRUE(m_bridge.CallShowIfFunction(ShowIfRef(4), args));   // 0 is true in Lua
  EXPECT_FALSE(m_bridge.CallShowIfFunction(ShowIfRef(5), args));  // nil
  EXPECT_FALSE(m_bridge.CallShowIfFunction(ShowIfRef(6), args));  // false
  EXPECT_TRUE(capture.Lines().empty());
}

TEST_F(BridgeProtocol, ShowIfReferencesStayValidAndEachReadMakesANewOne) {
  Load(kShowIfScript);
  const std::int32_t first = ShowIfRef(4);
  const std::int32_t second = ShowIfRef(4);
  EXPECT_GT(first, 0);
  EXPECT_NE(first, second);
  // Other queries in between do not disturb a reference.
  EXPECT_TRUE(m_bridge.GetStaticData().empty());
  Args args;
  EXPECT_TRUE(m_bridge.CallShowIfFunction(first, args));
  EXPECT_TRUE(m_bridge.CallShowIfFunction(second, args));
}

// A strict-mode script makes a lookup of a missing global raise an error
// before any protected call: the panic leaves the query, the bridge stays usable.
TEST_F(BridgeProtocol, StrictGlobalsMakeAMissingFunctionAnOrdinaryFailedCall) {
  Load(R"lua(
    function GetPropertyIndexForUrns(id) return { PropertyId = id } end
    function GetFunctionUrnByTypeId(id) return "urn" end
    setmetatable(_G, { __index = function(_, name) error("undefined global " .. name, 0) end })
  )lua");
  LogCapture capture({"ovslua"});
  EXPECT_TRUE(m_bridge.GetStaticData().empty());
  EXPECT_EQ(m_bridge.GetChannelUrnByTypeId(1), boost::none);
  EXPECT_EQ(capture.Messages(),
            (std::vector<std::string>{
                "Call function 'GetStaticData' failed (LUA_ERRRUN:undefined global GetStaticData).",
                "Call function 'GetChannelUrnByTypeId' failed (LUA_ERRRUN:undefined global "
                "GetChannelUrnByTypeId)."}));
  EXPECT_EQ(m_bridge.GetPropertyIndexForUrns(9).PropertyId, 9U);
  EXPECT_EQ(m_bridge.GetFunctionUrnByTypeId(1), boost::optional<std::string>("urn"));
}

// What the tests below use to see the bridge's interpreter from outside: the
// number of free stack slots, found by asking table.unpack for ever more
// values. Anything the bridge leaves on its stack lowers it. A guess is checked
// first, as each probe fills up to a million slots.
const char* const kRoomProbe = R"lua(
  local function fits(n) return pcall(table.unpack, {}, 1, n) end
  local function Room(guess)
    if guess > 0 and fits(guess) and not fits(guess + 1) then return guess end
    local lo, hi = 0, 2000000
    while hi - lo > 1 do
      local mid = (lo + hi) // 2
      if fits(mid) then lo = mid else hi = mid end
    end
    return lo
  end
  function GetLuaTemplateIndexByTypeIdAndPropertyIndex(guess) return tostring(Room(guess)) end
)lua";

class BridgeBrokenTraversal : public BridgeProtocol {
 protected:
  void SetUp() override {
    Load(std::string(kRoomProbe) + R"lua(
      local broken = { [1] = { PropertyId = 1 }, Named = { PropertyId = 2 } }
      function GetPropertyIds() return broken end
      function GetPropertyIndexForUrns(id) return { 5, PropertyId = 3 } end
      function GetParametersFromChannelTypeId(id)
        if id == 1 then return { { Key = "a", [1] = "x" } } end
        if id == 2 then return { { Key = "a", ShowIf = { Function = print, [2] = 0 } } } end
        return { { Key = "fine", Digits = 2 } }
      end
      function GetStaticData() return { Good = {}, [7] = {} } end
      function GetFunctionUrnByTypeId(id) return "urn:" .. id end
    )lua");
    m_room = Room(0);
    // The tests below compare against this reading: it must be a real one and repeatable.
    ASSERT_NE(m_room, "none");
    ASSERT_EQ(Room(), m_room);
  }

  std::string Room(std::uint32_t guess) {
    return m_bridge.GetLuaTemplateIndexByTypeIdAndPropertyIndex(guess, 0).value_or("none");
  }

  std::string Room() { return Room(static_cast<std::uint32_t>(std::stoul(m_room))); }

  // The next query must not wait for the mutex: run it on another thread.
  void ExpectNextQueryAnswers() {
    auto next = std::async(std::launch::async,
                           [this] { return m_bridge.GetParametersFromChannelTypeId(9); });
    if (next.wait_for(std::chrono::seconds(10)) != std::future_status::ready) {
      ADD_FAILURE() << "the mutex was left locked";
      std::_Exit(1);
    }
    const auto parameters = next.get();
    ASSERT_EQ(parameters.size(), 1U);
    EXPECT_EQ(parameters[0].key, "fine");
    EXPECT_EQ(parameters[0].digits, 2);
    EXPECT_EQ(m_bridge.GetFunctionUrnByTypeId(4), boost::optional<std::string>("urn:4"));
    EXPECT_EQ(Room(), m_room);
  }

  std::string m_room;
};

TEST_F(BridgeBrokenTraversal, SuccessfulAndFailedQueriesLeaveTheStackAsTheyFoundIt) {
  LogCapture capture({"ovslua"});
  EXPECT_EQ(m_bridge.GetParametersFromChannelTypeId(9).size(), 1U);
  EXPECT_EQ(m_bridge.GetChannelUrnByTypeId(1), boost::none);  // missing: fails
  Args args;
  EXPECT_FALSE(m_bridge.CallShowIfFunction(0, args));
  EXPECT_FALSE(m_bridge.HandleDcsType(0));  // missing: fails
  EXPECT_EQ(Room(), m_room);
}

TEST_F(BridgeBrokenTraversal, NumericKeyInThePropertyIdTableThrowsAPanic) {
  try {
    m_bridge.GetPropertyIds();
    FAIL() << "no panic";
  } catch (const ovslua::LuaPanicError& error) {
    EXPECT_STREQ(error.what(), "invalid key to 'next'");
  }
  ExpectNextQueryAnswers();
}

TEST_F(BridgeBrokenTraversal, NumericKeyInAPropertyTableThrowsAPanic) {
  EXPECT_THROW(m_bridge.GetPropertyIndexForUrns(1), ovslua::LuaPanicError);
  ExpectNextQueryAnswers();
}

TEST_F(BridgeBrokenTraversal, NumericKeyInAParameterTableThrowsAPanic) {
  EXPECT_THROW(m_bridge.GetParametersFromChannelTypeId(1), ovslua::LuaPanicError);
  ExpectNextQueryAnswers();
}

TEST_F(BridgeBrokenTraversal, NumericKeyInAShowIfTableThrowsAPanic) {
  EXPECT_THROW(m_bridge.GetParametersFromChannelTypeId(2), ovslua::LuaPanicError);
  ExpectNextQueryAnswers();
}

TEST_F(BridgeBrokenTraversal, NumericKeyInTheStaticDataTableThrowsAPanic) {
  EXPECT_THROW(m_bridge.GetStaticData(), ovslua::LuaPanicError);
  ExpectNextQueryAnswers();
}

TEST_F(BridgeBrokenTraversal, RepeatedPanicsLeaveTheBridgeUsable) {
  for (int i = 0; i < 50; ++i) {
    EXPECT_THROW(m_bridge.GetStaticData(), ovslua::LuaPanicError);
    EXPECT_THROW(m_bridge.GetPropertyIds(), ovslua::LuaPanicError);
  }
  ExpectNextQueryAnswers();
}

}  // namespace
