#include <ovslua/Lua.h>

#include <CapturingAppender.h>
#include <TempDir.h>

#include <gtest/gtest.h>

#include <lua.hpp>

#include <cstdint>
#include <memory>
#include <new>
#include <string>
#include <utility>
#include <vector>

namespace {

using Args = ovslua::Lua::Args;
using Arg = ovslua::Lua::Args::Arg;
using lkdh::test::LogCapture;
using lkdh::test::LogLine;
using lkdh::test::TempDir;

constexpr int kError = 40000;

// Opens the wrapper's protected state to the tests.
class TestLua : public ovslua::Lua {
 public:
  lua_State* State() const { return m_luaState; }
  int Status() const { return m_status; }
  const std::string& Message() const { return m_errorMessage; }
  int Top() const { return lua_gettop(m_luaState); }
};

const char* const kScript = R"lua(
function Concat(...)
  local parts = {}
  for i = 1, select('#', ...) do parts[#parts + 1] = tostring((select(i, ...))) end
  return table.concat(parts, ",")
end

function Describe(...)
  local parts = {}
  for i = 1, select('#', ...) do
    local v = select(i, ...)
    local kind = type(v)
    if kind == "number" then kind = math.type(v) end
    local text = tostring(v)
    if type(v) == "string" then text = text:gsub("%z", "\\0") .. "#" .. #v end
    parts[#parts + 1] = kind .. ":" .. text
  end
  return table.concat(parts, "|")
end

function Count(...) return select('#', ...) end

function Return(...) return ... end

function Values()
  return nil, {}, 42, 2.5, "text", false, true, 0, ""
end

function Fail() error("boom") end
function FailWithTable() error({}) end
function FailWithNumber() error(17) end
function Nothing() end

function Huge(n) return string.rep("x", n) end
function HugeCaught(n)
  local ok = pcall(string.rep, "x", n)
  return ok and "made" or "caught"
end
)lua";

// Past the memory limit the tests set, far below what the machine has.
constexpr std::size_t kTestMemoryLimit = 4U * 1024U * 1024U;
unsigned int HugeLength() { return 16U * 1024U * 1024U; }

class LuaWrapper : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(m_lua.Initialize());
    const auto path = m_dir.WriteFile("script.lua", kScript);
    ASSERT_TRUE(m_lua.Load(path.string()));
  }

  // Calls Return with the given values and reads them back as declared.
  Args Roundtrip(Args in, std::vector<int> kinds) {
    Args out;
    for (int kind : kinds) out += Arg::OfKind(kind);
    EXPECT_TRUE(m_lua.Call("Return", in, out));
    EXPECT_EQ(m_lua.Top(), 0);
    return out;
  }

  TempDir m_dir;
  TestLua m_lua;
};

TEST_F(LuaWrapper, PositionsPastTenArePushedInNumericOrder) {
  Args in;
  for (unsigned int i = 0; i < 12; ++i) {
    unsigned int value = i;
    in += value;
  }
  Args out;
  out += Arg::OfKind(Arg::String);
  ASSERT_TRUE(m_lua.Call("Concat", in, out));
  EXPECT_EQ(static_cast<std::string>(out[0]), "0,1,2,3,4,5,6,7,8,9,10,11");
  EXPECT_EQ(m_lua.Top(), 0);
}

TEST_F(LuaWrapper, EachKindIsPushedAsItsLuaType) {
  Args in;
  in += Arg::FromBool(true);
  in += Arg::FromInt(-5);
  in += Arg::FromUnsigned(4294967296ULL);
  in += Arg::FromDouble(2.5);
  in += Arg::FromString(std::string("a\0b", 3));
  in += Arg();
  in += Arg::FromBool(false);
  Args out;
  out += Arg::OfKind(Arg::String);
  ASSERT_TRUE(m_lua.Call("Describe", in, out));
  EXPECT_EQ(static_cast<std::string>(out[0]),
            "boolean:true|integer:-5|integer:4294967296|float:2.5|string:a\\0b#3|nil:nil|"
            "boolean:false");
}

TEST_F(LuaWrapper, UnsignedValuesUpToTwoToThe32AreExactAndLargerOnesClampToMaxInteger) {
  Args in;
  unsigned int largest32 = 4294967295U;
  in += largest32;
  in += Arg::FromUnsigned(9223372036854775807ULL);
  in += Arg::FromUnsigned(9223372036854775808ULL);
  in += Arg::FromUnsigned(UINT64_MAX);
  Args out;
  out += Arg::OfKind(Arg::String);
  ASSERT_TRUE(m_lua.Call("Concat", in, out));
  EXPECT_EQ(static_cast<std::string>(out[0]),
            "4294967295,9223372036854775807,9223372036854775807,9223372036854775807");
}

TEST_F(LuaWrapper, ManyArgumentsGetStackRoom) {
  Args in;
  for (unsigned int i = 0; i < 5000; ++i) {
    unsigned int value = i;
    in += value;
  }
  Args out;
  out += Arg::OfKind(Arg::Integer);
  ASSERT_TRUE(m_lua.Call("Count", in, out));
  EXPECT_EQ(out[0].GetInt(), 5000);
  EXPECT_EQ(m_lua.Top(), 0);
}

TEST_F(LuaWrapper, ManyResultsGetStackRoomAndMissingOnesReadAsNil) {
  Args out;
  for (int i = 0; i < 500; ++i) out += Arg::OfKind(Arg::String);
  out += Arg::OfKind(Arg::Boolean);
  ASSERT_TRUE(m_lua.Call("Nothing", Args(), out));
  EXPECT_EQ(static_cast<std::string>(out[0]), "");
  EXPECT_EQ(out[499].GetKind(), Arg::String);
  EXPECT_EQ(static_cast<std::string>(out[499]), "");
  EXPECT_FALSE(static_cast<bool>(out[500]));
  EXPECT_EQ(m_lua.Top(), 0);
}

TEST_F(LuaWrapper, ResultsAreAssignedByPositionFirstResultFirst) {
  Args out;
  out += Arg::OfKind(Arg::Integer);
  out += Arg::OfKind(Arg::Integer);
  out += Arg::OfKind(Arg::Integer);
  Args in;
  in += Arg::FromInt(1);
  in += Arg::FromInt(2);
  in += Arg::FromInt(3);
  ASSERT_TRUE(m_lua.Call("Return", in, out));
  EXPECT_EQ(out[0].GetInt(), 1);
  EXPECT_EQ(out[1].GetInt(), 2);
  EXPECT_EQ(out[2].GetInt(), 3);
}

TEST_F(LuaWrapper, StringResultsReadStringsAndNumbersAsTextAndAnythingElseAsEmpty) {
  Args out;
  for (int i = 0; i < 9; ++i) out += Arg::OfKind(Arg::String);
  ASSERT_TRUE(m_lua.Call("Values", Args(), out));
  EXPECT_EQ(static_cast<std::string>(out[0]), "");      // nil
  EXPECT_EQ(static_cast<std::string>(out[1]), "");      // table
  EXPECT_EQ(static_cast<std::string>(out[2]), "42");    // integer
  EXPECT_EQ(static_cast<std::string>(out[3]), "2.5");   // float
  EXPECT_EQ(static_cast<std::string>(out[4]), "text");  // string
  EXPECT_EQ(static_cast<std::string>(out[5]), "");      // false
  for (int i = 0; i < 9; ++i) EXPECT_EQ(out[static_cast<unsigned>(i)].GetKind(), Arg::String);
  EXPECT_EQ(m_lua.Top(), 0);
}

TEST_F(LuaWrapper, StringResultWithANulByteReadsAsEmptyAndIsWarnedAbout) {
  Args in;
  in += Arg::FromString("clean");
  in += Arg::FromString(std::string("x\0y\0", 4));
  LogCapture capture({"ovslua"});
  const Args out = Roundtrip(std::move(in), {Arg::String, Arg::String});
  EXPECT_EQ(out[0].GetText(), "clean");
  EXPECT_EQ(out[1].GetKind(), Arg::String);
  EXPECT_EQ(out[1].GetText(), "");
  const std::vector<LogLine> expected = {
      {30000, "ovslua",
       "Script function 'Return' returned a text with a NUL byte as result 2; it is read as a "
       "value of the wrong type."}};
  EXPECT_EQ(capture.Lines(), expected);
}

TEST_F(LuaWrapper, BooleanResultsReadByLuaTruthiness) {
  Args out;
  for (int i = 0; i < 9; ++i) out += Arg::OfKind(Arg::Boolean);
  ASSERT_TRUE(m_lua.Call("Values", Args(), out));
  const std::vector<bool> expected{false, true, true, true, true, false, true, true, true};
  for (unsigned int i = 0; i < expected.size(); ++i) {
    EXPECT_EQ(out[i].GetKind(), Arg::Boolean) << i;
    EXPECT_EQ(static_cast<bool>(out[i]), expected[i]) << i;
  }
}

TEST_F(LuaWrapper, IntegerResultsTakeIntegersAndIntegralFloatsElseZero) {
  Args in;
  in += Arg::FromInt(-7);
  in += Arg::FromDouble(3.0);
  in += Arg::FromDouble(3.5);
  in += Arg::FromString("x");
  in += Arg();
  in += Arg::FromInt(-7);
  in += Arg::FromDouble(4.0);
  in += Arg::FromDouble(4.5);
  in += Arg::FromUnsigned(4294967296ULL);
  const Args out = Roundtrip(std::move(in),
                             {Arg::Integer, Arg::Integer, Arg::Integer, Arg::Integer, Arg::Integer,
                              Arg::Unsigned, Arg::Unsigned, Arg::Unsigned, Arg::Unsigned});
  EXPECT_EQ(out[0].GetInt(), -7);
  EXPECT_EQ(out[1].GetInt(), 3);
  EXPECT_EQ(out[2].GetInt(), 0);
  EXPECT_EQ(out[3].GetInt(), 0);
  EXPECT_EQ(out[4].GetInt(), 0);
  EXPECT_EQ(out[5].GetUnsigned(), 0U);  // negative: no unsigned value
  EXPECT_EQ(out[6].GetUnsigned(), 4U);
  EXPECT_EQ(out[7].GetUnsigned(), 0U);
  EXPECT_EQ(out[8].GetUnsigned(), 4294967296ULL);
  EXPECT_EQ(out[5].GetKind(), Arg::Unsigned);
}

TEST_F(LuaWrapper, FloatResultsTakeNumbersElseZero) {
  Args in;
  in += Arg::FromDouble(-1.25);
  in += Arg::FromInt(8);
  in += Arg::FromBool(true);
  const Args out = Roundtrip(std::move(in), {Arg::Number, Arg::Number, Arg::Number});
  EXPECT_DOUBLE_EQ(out[0].GetDouble(), -1.25);
  EXPECT_DOUBLE_EQ(out[1].GetDouble(), 8.0);
  EXPECT_DOUBLE_EQ(out[2].GetDouble(), 0.0);
  EXPECT_EQ(out[2].GetKind(), Arg::Number);
}

TEST_F(LuaWrapper, NumberReadAsTextStaysANumberOnTheStack) {
  // The same value read twice: as text first, then as integer.
  Args in;
  in += Arg::FromInt(12);
  in += Arg::FromInt(12);
  const Args out = Roundtrip(std::move(in), {Arg::String, Arg::Integer});
  EXPECT_EQ(static_cast<std::string>(out[0]), "12");
  EXPECT_EQ(out[1].GetInt(), 12);
}

TEST_F(LuaWrapper, CallOfAMissingFunctionLogsTheLineAndFails) {
  LogCapture capture({"ovslua"});
  Args out;
  out += Arg::OfKind(Arg::String);
  EXPECT_FALSE(m_lua.Call("Missing", Args(), out));
  EXPECT_EQ(capture.Lines(),
            (std::vector<LogLine>{
                {kError, "ovslua",
                 "Call function 'Missing' failed (LUA_ERRRUN:attempt to call a nil value)."}}));
  EXPECT_EQ(m_lua.Status(), LUA_ERRRUN);
  EXPECT_EQ(m_lua.Message(), "attempt to call a nil value");
  EXPECT_EQ(m_lua.Top(), 0);
}

TEST_F(LuaWrapper, ScriptErrorsAreLoggedWithTheirMessage) {
  LogCapture capture({"ovslua"});
  EXPECT_FALSE(m_lua.Call("Fail", Args(), *std::make_unique<Args>()));
  EXPECT_FALSE(m_lua.Call("FailWithTable", Args(), *std::make_unique<Args>()));
  EXPECT_FALSE(m_lua.Call("FailWithNumber", Args(), *std::make_unique<Args>()));
  const auto messages = capture.Messages();
  ASSERT_EQ(messages.size(), 3U);
  EXPECT_EQ(messages[0], "Call function 'Fail' failed (LUA_ERRRUN:" + m_dir.Path().string() +
                             "/script.lua:29: boom).");
  EXPECT_EQ(messages[1],
            "Call function 'FailWithTable' failed (LUA_ERRRUN:(error object is a table value)).");
  EXPECT_EQ(messages[2], "Call function 'FailWithNumber' failed (LUA_ERRRUN:17).");
  EXPECT_EQ(m_lua.Top(), 0);
}

TEST_F(LuaWrapper, AfterAFailedCallTheNextStartsWithStatusZeroAndNoMessage) {
  ASSERT_FALSE(m_lua.Call("Fail", Args(), *std::make_unique<Args>()));
  ASSERT_EQ(m_lua.Status(), LUA_ERRRUN);
  ASSERT_FALSE(m_lua.Message().empty());
  Args out;
  out += Arg::OfKind(Arg::Integer);
  EXPECT_TRUE(m_lua.Call("Count", Args(), out));
  EXPECT_EQ(m_lua.Status(), LUA_OK);
  EXPECT_EQ(m_lua.Message(), "");
}

TEST_F(LuaWrapper, RunningOutOfMemoryInACallThrowsBadAllocAndLeavesTheInterpreterUsable) {
  m_lua.SetMemoryLimit(kTestMemoryLimit);
  Args in;
  unsigned int length = HugeLength();
  in += length;
  Args out;
  out += Arg::OfKind(Arg::String);
  EXPECT_THROW(m_lua.Call("Huge", in, out), std::bad_alloc);
  EXPECT_EQ(m_lua.Status(), LUA_ERRMEM);
  EXPECT_EQ(m_lua.Top(), 0);
  // The lock was released and the next call answers.
  Args count;
  count += Arg::OfKind(Arg::Integer);
  EXPECT_TRUE(m_lua.Call("Count", Args(), count));
  EXPECT_EQ(count[0].GetInt(), 0);
}

TEST_F(LuaWrapper, RunningOutOfMemoryThrowsEvenWhenTheScriptCatchesTheError) {
  m_lua.SetMemoryLimit(kTestMemoryLimit);
  Args in;
  unsigned int length = HugeLength();
  in += length;
  Args out;
  out += Arg::OfKind(Arg::String);
  EXPECT_THROW(m_lua.Call("HugeCaught", in, out), std::bad_alloc);
  EXPECT_EQ(m_lua.Top(), 0);
}

TEST_F(LuaWrapper, MemoryLimitCountsWhatTheInterpreterHoldsAndLetsCallsBelowItRun) {
  const std::size_t before = m_lua.MemoryInUse();
  EXPECT_GT(before, 0U);
  m_lua.SetMemoryLimit(before + 4U * 1024U * 1024U);
  Args in;
  unsigned int length = 1024U * 1024U;
  in += length;
  Args out;
  out += Arg::OfKind(Arg::String);
  ASSERT_TRUE(m_lua.Call("Huge", in, out));
  EXPECT_EQ(static_cast<std::string>(out[0]).size(), length);
  EXPECT_EQ(m_lua.GetMemoryLimit(), before + 4U * 1024U * 1024U);
}

// A C function that throws something Lua does not know: the protected call
// reports a status outside Lua's own codes.
int ThrowForeign(lua_State*) { throw 42; }

TEST_F(LuaWrapper, StatusWithoutTextEndsTheLogLineAfterTheOpeningParenthesis) {
  lua_register(m_lua.State(), "ThrowForeign", &ThrowForeign);
  LogCapture capture({"ovslua"});
  EXPECT_FALSE(m_lua.Call("ThrowForeign", Args(), *std::make_unique<Args>()));
  EXPECT_EQ(ovslua::Lua::GetErrorAsText(m_lua.Status()), nullptr);
  EXPECT_EQ(capture.Messages(), std::vector<std::string>{"Call function 'ThrowForeign' failed ("});
  EXPECT_EQ(m_lua.Top(), 0);
  // The line after it is whole again.
  capture.Clear();
  EXPECT_FALSE(m_lua.Call("Missing", Args(), *std::make_unique<Args>()));
  EXPECT_EQ(capture.Messages(),
            std::vector<std::string>{
                "Call function 'Missing' failed (LUA_ERRRUN:attempt to call a nil value)."});
}

TEST(LuaWrapperState, CallAndLoadBeforeInitializeLogAndFail) {
  LogCapture capture({"ovslua"});
  TestLua lua;
  Args out;
  out += Arg::OfKind(Arg::String);
  EXPECT_FALSE(lua.Call("Anything", Args(), out));
  EXPECT_FALSE(lua.Load("/no/such/script.lua"));
  EXPECT_EQ(capture.Lines(), (std::vector<LogLine>{{kError, "ovslua", "Initialization missing."},
                                                   {kError, "ovslua", "Initialization missing."}}));
  EXPECT_EQ(lua.State(), nullptr);
}

TEST(LuaWrapperState, ReleaseClosesAndIsSafeTwiceAndInitializeStartsAfresh) {
  TempDir dir;
  TestLua lua;
  lua.Release();
  ASSERT_TRUE(lua.Initialize());
  ASSERT_TRUE(lua.Load(dir.WriteFile("a.lua", "function A() return 1 end").string()));
  ASSERT_TRUE(lua.Call("A", Args(), *std::make_unique<Args>()));
  // A second Initialize replaces the interpreter: the old globals are gone.
  ASSERT_TRUE(lua.Initialize());
  LogCapture capture({"ovslua"});
  EXPECT_FALSE(lua.Call("A", Args(), *std::make_unique<Args>()));
  EXPECT_EQ(capture.Messages().size(), 1U);
  lua.Release();
  EXPECT_EQ(lua.State(), nullptr);
  lua.Release();
  EXPECT_EQ(lua.State(), nullptr);
}

TEST(LuaWrapperState, ErrorTexts) {
  EXPECT_STREQ(ovslua::Lua::GetErrorAsText(LUA_OK), "LUA_OK");
  EXPECT_STREQ(ovslua::Lua::GetErrorAsText(LUA_YIELD), "LUA_YIELD");
  EXPECT_STREQ(ovslua::Lua::GetErrorAsText(LUA_ERRRUN), "LUA_ERRRUN");
  EXPECT_STREQ(ovslua::Lua::GetErrorAsText(LUA_ERRSYNTAX), "LUA_ERRSYNTAX");
  EXPECT_STREQ(ovslua::Lua::GetErrorAsText(LUA_ERRMEM), "LUA_ERRMEM");
  EXPECT_STREQ(ovslua::Lua::GetErrorAsText(LUA_ERRERR), "LUA_ERRERR");
  EXPECT_STREQ(ovslua::Lua::GetErrorAsText(LUA_ERRFILE), "LUA_ERRFILE");
  EXPECT_EQ(ovslua::Lua::GetErrorAsText(-1), nullptr);
  EXPECT_EQ(ovslua::Lua::GetErrorAsText(LUA_ERRFILE + 1), nullptr);
}

TEST(LuaWrapperState, LoggerIsNamedOvslua) {
  EXPECT_EQ(ovslua::Lua::sm_logger.getName(), "ovslua");
}

class LuaLoad : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(m_lua.Initialize()); }

  // The single line logged by a failed Load.
  std::string FailedLoad(const std::string& path) {
    LogCapture capture({"ovslua"});
    EXPECT_FALSE(m_lua.Load(path));
    EXPECT_EQ(m_lua.Top(), 0);
    const auto lines = capture.Lines();
    EXPECT_EQ(lines.size(), 1U);
    if (lines.empty()) return {};
    EXPECT_EQ(lines[0].level, kError);
    return lines[0].message;
  }

  TempDir m_dir;
  TestLua m_lua;
};

TEST_F(LuaLoad, MissingFileFails) {
  const std::string path = m_dir.Path().string() + "/none.lua";
  EXPECT_EQ(FailedLoad(path), "Load script '" + path + "' failed (LUA_ERRFILE:cannot open " + path +
                                  ": No such file or directory).");
  EXPECT_EQ(m_lua.Status(), LUA_ERRFILE);
}

TEST_F(LuaLoad, SyntaxErrorFails) {
  const std::string path = m_dir.WriteFile("bad.lua", "function (").string();
  const std::string line = FailedLoad(path);
  EXPECT_EQ(line.rfind("Load script '" + path + "' failed (LUA_ERRSYNTAX:", 0), 0U) << line;
  EXPECT_EQ(m_lua.Status(), LUA_ERRSYNTAX);
}

TEST_F(LuaLoad, RuntimeErrorFailsButLeavesWhatRanBefore) {
  const std::string path =
      m_dir.WriteFile("run.lua", "function Before() return 1 end\nerror('stop here')\n").string();
  EXPECT_EQ(FailedLoad(path),
            "Load script '" + path + "' failed (LUA_ERRRUN:" + path + ":2: stop here).");
  EXPECT_EQ(m_lua.Status(), LUA_ERRRUN);
  EXPECT_EQ(m_lua.Message(), path + ":2: stop here");
  EXPECT_TRUE(m_lua.Call("Before", Args(), *std::make_unique<Args>()));
}

TEST_F(LuaLoad, PrecompiledBytecodeIsRefused) {
  // Bytecode made by the interpreter itself, written to a file.
  lua_State* maker = luaL_newstate();
  ASSERT_NE(maker, nullptr);
  luaL_openlibs(maker);
  ASSERT_EQ(luaL_dostring(maker, "return string.dump(function() Ran = true end)"), LUA_OK);
  std::size_t length = 0;
  const char* data = lua_tolstring(maker, -1, &length);
  const std::string bytecode(data, length);
  lua_close(maker);
  ASSERT_EQ(bytecode.substr(0, 4), "\x1bLua");
  const std::string path = m_dir.WriteFile("compiled.luac", bytecode).string();

  EXPECT_EQ(FailedLoad(path),
            "Load script '" + path +
                "' failed (LUA_ERRSYNTAX:attempt to load a binary chunk (mode is 't')).");
  lua_getglobal(m_lua.State(), "Ran");
  EXPECT_TRUE(lua_isnil(m_lua.State(), -1));
  lua_settop(m_lua.State(), 0);
}

TEST_F(LuaLoad, ScriptsCannotLoadBytecodeThemselves) {
  const std::string path = m_dir
                               .WriteFile("self.lua", R"lua(
local code = string.dump(function() return 1 end)
local viaLoad, loadError = load(code)
local viaLoadBinaryMode, modeError = load(code, "x", "b")
function Result()
  return tostring(viaLoad) .. "|" .. loadError .. "|" .. tostring(viaLoadBinaryMode) .. "|" .. modeError
end
)lua")
                               .string();
  ASSERT_TRUE(m_lua.Load(path));
  Args out;
  out += Arg::OfKind(Arg::String);
  ASSERT_TRUE(m_lua.Call("Result", Args(), out));
  EXPECT_EQ(static_cast<std::string>(out[0]),
            "nil|attempt to load a binary chunk (mode is 't')|nil|attempt to load a binary chunk "
            "(mode is 't')");
}

TEST_F(LuaLoad, ScriptsCannotLoadNativeCode) {
  const std::string path = m_dir
                               .WriteFile("native.lua", R"lua(
function Result()
  local ok = pcall(require, "socket.core")
  return tostring(package.loadlib) .. "|" .. tostring(ok) .. "|" .. package.cpath
end
)lua")
                               .string();
  ASSERT_TRUE(m_lua.Load(path));
  Args out;
  out += Arg::OfKind(Arg::String);
  ASSERT_TRUE(m_lua.Call("Result", Args(), out));
  EXPECT_EQ(static_cast<std::string>(out[0]), "nil|false|");
}

TEST_F(LuaLoad, ScriptsStillRequireLuaSourceModules) {
  m_dir.WriteFile("helpers.lua", "return { answer = 42 }\n");
  const std::string path = m_dir
                               .WriteFile("main.lua", "package.path = '" + m_dir.Path().string() +
                                                          "/?.lua'\nlocal h = require('helpers')\n"
                                                          "function Answer() return h.answer end\n")
                               .string();
  ASSERT_TRUE(m_lua.Load(path));
  Args out;
  out += Arg::OfKind(Arg::Integer);
  ASSERT_TRUE(m_lua.Call("Answer", Args(), out));
  EXPECT_EQ(out[0].GetInt(), 42);
}

TEST_F(LuaLoad, SuccessLeavesTheStackEmpty) {
  const std::string path = m_dir.WriteFile("ok.lua", "X = 1\nreturn 1, 2, 3\n").string();
  LogCapture capture({"ovslua"});
  EXPECT_TRUE(m_lua.Load(path));
  EXPECT_EQ(m_lua.Top(), 0);
  EXPECT_EQ(m_lua.Status(), LUA_OK);
  EXPECT_TRUE(capture.Lines().empty());
}

class LuaPanic : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(m_lua.Initialize()); }

  // After a panic the interpreter answers calls again once its stack is reset.
  void ExpectUsable() {
    lua_settop(m_lua.State(), 0);
    ASSERT_EQ(luaL_dostring(m_lua.State(), "function Twice(x) return 2 * x end"), LUA_OK);
    Args in;
    in += Arg::FromInt(21);
    Args out;
    out += Arg::OfKind(Arg::Integer);
    EXPECT_TRUE(m_lua.Call("Twice", in, out));
    EXPECT_EQ(out[0].GetInt(), 42);
    EXPECT_EQ(m_lua.Top(), 0);
  }

  TestLua m_lua;
};

TEST_F(LuaPanic, ErrorAtBaseLevelThrowsWithTheMessage) {
  lua_State* state = m_lua.State();
  lua_pushstring(state, "raw failure");
  try {
    lua_error(state);
    FAIL() << "lua_error returned";
  } catch (const ovslua::LuaPanicError& error) {
    EXPECT_STREQ(error.what(), "raw failure");
  }
  ExpectUsable();
}

TEST_F(LuaPanic, NonStringErrorObjectThrowsTheGenericText) {
  lua_State* state = m_lua.State();
  lua_newtable(state);
  EXPECT_THROW(
      {
        try {
          lua_error(state);
        } catch (const ovslua::LuaPanicError& error) {
          EXPECT_STREQ(error.what(), "unprotected error in Lua");
          throw;
        }
      },
      ovslua::LuaPanicError);
  ExpectUsable();
}

TEST_F(LuaPanic, TraversalBrokenByAKeyConvertedInPlaceThrows) {
  lua_State* state = m_lua.State();
  ASSERT_EQ(luaL_dostring(state, "return {10, 20, name = 'x'}"), LUA_OK);
  ASSERT_TRUE(lua_istable(state, -1));
  lua_pushnil(state);
  ASSERT_NE(lua_next(state, -2), 0);
  ASSERT_EQ(lua_type(state, -2), LUA_TNUMBER);
  lua_tolstring(state, -2, nullptr);  // the key becomes the string "1"
  lua_pop(state, 1);
  try {
    lua_next(state, -2);
    FAIL() << "lua_next accepted a converted key";
  } catch (const ovslua::LuaPanicError& error) {
    EXPECT_STREQ(error.what(), "invalid key to 'next'");
  }
  ExpectUsable();
}

TEST_F(LuaPanic, ErrorWhileLookingUpTheFunctionIsAnOrdinaryFailedCall) {
  // Strict globals: the lookup runs script code, inside the protected call.
  ASSERT_EQ(luaL_dostring(m_lua.State(), R"lua(
    function Known() return 5 end
    setmetatable(_G, { __index = function(_, name) error("undefined " .. name, 0) end })
  )lua"),
            LUA_OK);
  Args in;
  in += Arg::FromString("argument");
  Args out;
  out += Arg::OfKind(Arg::Integer);
  LogCapture capture({"ovslua"});
  EXPECT_FALSE(m_lua.Call("Unknown", in, out));
  EXPECT_EQ(
      capture.Messages(),
      std::vector<std::string>{"Call function 'Unknown' failed (LUA_ERRRUN:undefined Unknown)."});
  EXPECT_EQ(m_lua.Top(), 0);
  // The mutex is free again: a second call on this thread does not block.
  EXPECT_TRUE(m_lua.Call("Known", Args(), out));
  EXPECT_EQ(out[0].GetInt(), 5);
}

}  // namespace
