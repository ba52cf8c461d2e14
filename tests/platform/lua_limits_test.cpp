// What a description script may use of Lua, and the execution budget that
// stops a call which runs too long, however the script tries to go on.
#include <ovslua/Lua.h>

#include <CapturingAppender.h>
#include <TempDir.h>

#include <gtest/gtest.h>

#include <lua.hpp>

#include <pthread.h>

#include <csignal>
#include <cstdint>
#include <string>
#include <vector>

namespace {

using Args = ovslua::Lua::Args;
using Arg = ovslua::Lua::Args::Arg;
using lkdh::test::LogCapture;
using lkdh::test::TempDir;

class TestLua : public ovslua::Lua {
 public:
  lua_State* State() const { return m_luaState; }
  int Status() const { return m_status; }
  const std::string& Message() const { return m_errorMessage; }
  int Top() const { return lua_gettop(m_luaState); }
};

constexpr std::uint64_t kBudget = 50000;

const char* const kScript = R"lua(
function Spin() while true do end end
function SpinCaught() while true do pcall(Spin) end end
function SpinInCoroutine() coroutine.wrap(Spin)() end
function SpinInCoroutinesIgnoringFailures()
  while true do coroutine.resume(coroutine.create(Spin)) end
end
function Park() parked = coroutine.create(function() coroutine.yield() Spin() end) coroutine.resume(parked) end
function ResumeParked() return coroutine.resume(parked) end
function Sum(n) local s = 0 for i = 1, n do s = s + i end return s end
function Garbage(n) local t = {} for i = 1, n do t[i] = { i } end Spin() end
function Try(code) local ok, message = pcall(load(code)) return ok and "ok" or message end
)lua";

class LuaLimits : public ::testing::Test {
 protected:
  void SetUp() override {
    m_lua.SetInstructionLimit(kBudget);
    ASSERT_TRUE(m_lua.Initialize());
    ASSERT_TRUE(m_lua.Load(m_dir.WriteFile("script.lua", kScript).string()));
  }

  bool Call(const std::string& name, Args in = Args(), int resultKind = Arg::None) {
    m_out = Args();
    if (resultKind != Arg::None) m_out += Arg::OfKind(resultKind);
    return m_lua.Call(name, in, m_out);
  }

  std::string Budget(const std::string& name) {
    return "Script function '" + name + "' exceeded the execution budget of " +
           std::to_string(kBudget) + " instructions.";
  }

  // The call throws the budget's exception naming it; the interpreter answers after it.
  void ExpectStopped(const std::string& name) {
    try {
      Call(name);
      FAIL() << name << " returned";
    } catch (const ovslua::ExecutionBudgetExceeded& error) {
      EXPECT_EQ(std::string(error.what()), Budget(name));
    }
    EXPECT_EQ(m_lua.Status(), LUA_ERRRUN);
    EXPECT_EQ(m_lua.Top(), 0);
    Args in;
    in += Arg::FromInt(100);
    ASSERT_TRUE(Call("Sum", in, Arg::Integer));
    EXPECT_EQ(m_out[0].GetInt(), 5050);
  }

  std::string Try(const std::string& code) {
    Args in;
    in += Arg::FromString(code);
    EXPECT_TRUE(Call("Try", in, Arg::String));
    return m_out[0].GetText();
  }

  TempDir m_dir;
  TestLua m_lua;
  Args m_out;
};

// Every way of running on is stopped both when each instruction is counted and
// when the calls are watched by the CPU-time tick (counted from its first tick).
class LuaStops : public LuaLimits, public ::testing::WithParamInterface<bool> {
 protected:
  void SetUp() override {
    LuaLimits::SetUp();
    if (GetParam()) {
      ASSERT_TRUE(m_lua.BeginWatchedCalls());
    }
  }
  void TearDown() override { m_lua.EndWatchedCalls(); }
};

INSTANTIATE_TEST_SUITE_P(Calls, LuaStops, ::testing::Values(false, true),
                         [](const ::testing::TestParamInfo<bool>& watched) {
                           return watched.param ? "Watched" : "EveryInstructionCounted";
                         });

TEST_P(LuaStops, EndlessLoopIsStoppedWithTheBudgetsException) { ExpectStopped("Spin"); }

TEST_P(LuaStops, CatchingTheBudgetsErrorInALoopDoesNotEscapeIt) { ExpectStopped("SpinCaught"); }

TEST_P(LuaStops, CoroutinesInheritTheBudget) { ExpectStopped("SpinInCoroutine"); }

TEST_P(LuaStops, CoroutinesThatFailOneAfterAnotherDoNotEscapeIt) {
  ExpectStopped("SpinInCoroutinesIgnoringFailures");
}

TEST_P(LuaStops, CoroutineMadeInOneCallIsCountedWhenALaterCallResumesIt) {
  ASSERT_TRUE(Call("Park"));
  ExpectStopped("ResumeParked");
}

TEST_P(LuaStops, EndlessLoopInsideAWrappedCoroutineIsStopped) {
  ExpectStopped("SpinInCoroutine");
  // The stopped call's coroutine is not left counting every instruction of the next one.
  Args in;
  in += Arg::FromInt(1000);
  ASSERT_TRUE(Call("Sum", in, Arg::Integer));
  EXPECT_EQ(m_out[0].GetInt(), 500500);
}

TEST_P(LuaStops, LookupThroughAMetatableOnGlobalsIsUnderTheBudget) {
  ASSERT_EQ(luaL_dostring(m_lua.State(),
                          "setmetatable(_G, { __index = function() while true do end end })"),
            LUA_OK);
  ExpectStopped("Missing");
}

TEST_F(LuaLimits, CallsWithinTheBudgetRunAndTheLargestIsCounted) {
  Args in;
  in += Arg::FromInt(1000);
  ASSERT_TRUE(Call("Sum", in, Arg::Integer));
  EXPECT_EQ(m_out[0].GetInt(), 500500);
  // Two instructions per round (add, loop), counted in whole steps of 1,000.
  EXPECT_EQ(m_lua.LargestCallInstructions(), 2000U);
}

TEST_P(LuaStops, AFailedCallLeavesItsGarbageCollected) {
  const std::size_t before = m_lua.MemoryInUse();
  Args in;
  in += Arg::FromInt(5000);
  EXPECT_THROW(m_lua.Call("Garbage", in, m_out), ovslua::ExecutionBudgetExceeded);
  // Five thousand tables would hold far more than this.
  EXPECT_LT(m_lua.MemoryInUse(), before + 16U * 1024U);
}

TEST_F(LuaLimits, StoppingTheCollectorIsRefusedAndTheRestOfCollectgarbageWorks) {
  EXPECT_EQ(Try("collectgarbage('stop')"),
            "[string \"collectgarbage('stop')\"]:1: "
            "collectgarbage(\"stop\") is not available to "
            "description scripts");
  EXPECT_EQ(Try("collectgarbage() collectgarbage('step') assert(collectgarbage('count') > 0 and "
                "collectgarbage('isrunning'))"),
            "ok");
}

TEST_F(LuaLimits, TopLevelOverBudgetFailsTheLoadWithItsLine) {
  const auto path = m_dir.WriteFile("slow.lua", "Before = 1\nwhile true do end\n");
  LogCapture capture({"ovslua"});
  EXPECT_FALSE(m_lua.Load(path.string()));
  EXPECT_EQ(capture.Messages(),
            std::vector<std::string>{"Load script '" + path.string() +
                                     "' failed (LUA_ERRRUN:exceeded the execution budget of " +
                                     std::to_string(kBudget) + " instructions)."});
  EXPECT_EQ(m_lua.Top(), 0);
  // What ran before the loop stays, and calls run again.
  ASSERT_EQ(lua_getglobal(m_lua.State(), "Before"), LUA_TNUMBER);
  lua_pop(m_lua.State(), 1);
  Args in;
  in += Arg::FromInt(3);
  ASSERT_TRUE(Call("Sum", in, Arg::Integer));
  EXPECT_EQ(m_out[0].GetInt(), 6);
}

// --- Calls watched by the CPU-time tick ----------------------------------------

TEST_F(LuaLimits, AWatchedCallShorterThanATickIsNotCounted) {
  // 2,000 rounds of two instructions: far over the budget, far under a tick.
  Args in;
  in += Arg::FromInt(kBudget);
  EXPECT_THROW(Call("Sum", in, Arg::Integer), ovslua::ExecutionBudgetExceeded);
  ASSERT_TRUE(m_lua.BeginWatchedCalls());
  EXPECT_TRUE(m_lua.WatchingCalls());
  ASSERT_TRUE(Call("Sum", in, Arg::Integer));
  EXPECT_EQ(m_out[0].GetInt(), static_cast<std::int64_t>(kBudget * (kBudget + 1) / 2));
  m_lua.EndWatchedCalls();
  EXPECT_FALSE(m_lua.WatchingCalls());
  // Counted at every step again once the watch is over.
  EXPECT_THROW(Call("Sum", in, Arg::Integer), ovslua::ExecutionBudgetExceeded);
}

TEST_F(LuaLimits, TheSignalIsGivenBackWhenTheWatchEnds) {
  const int signal = ovslua::Lua::WatchedCallsSignal();
  EXPECT_GE(signal, SIGRTMIN);
  EXPECT_LE(signal, SIGRTMAX);
  ASSERT_TRUE(m_lua.BeginWatchedCalls());
  struct sigaction during {};
  ASSERT_EQ(sigaction(signal, nullptr, &during), 0);
  EXPECT_NE(during.sa_flags & SA_SIGINFO, 0);
  ExpectStopped("Spin");
  m_lua.EndWatchedCalls();
  struct sigaction after {};
  ASSERT_EQ(sigaction(signal, nullptr, &after), 0);
  EXPECT_EQ(after.sa_flags & SA_SIGINFO, 0);
  EXPECT_EQ(after.sa_handler, SIG_DFL);
}

void HostsOwnHandler(int /*signal*/) {}

TEST_F(LuaLimits, ASignalTheHostHandlesKeepsEveryInstructionCountedAndTheHostsHandler) {
  const int signal = ovslua::Lua::WatchedCallsSignal();
  struct sigaction host {};
  host.sa_handler = &HostsOwnHandler;
  sigemptyset(&host.sa_mask);
  struct sigaction before {};
  ASSERT_EQ(sigaction(signal, &host, &before), 0);
  EXPECT_FALSE(m_lua.BeginWatchedCalls());
  EXPECT_FALSE(m_lua.WatchingCalls());
  ExpectStopped("Spin");
  m_lua.EndWatchedCalls();
  struct sigaction after {};
  ASSERT_EQ(sigaction(signal, &before, &after), 0);
  EXPECT_EQ(after.sa_handler, &HostsOwnHandler);
}

TEST_F(LuaLimits, ASignalBlockedOnTheThreadKeepsEveryInstructionCounted) {
  sigset_t only;
  sigemptyset(&only);
  sigaddset(&only, ovslua::Lua::WatchedCallsSignal());
  sigset_t before;
  ASSERT_EQ(pthread_sigmask(SIG_BLOCK, &only, &before), 0);
  EXPECT_FALSE(m_lua.BeginWatchedCalls());
  ExpectStopped("Spin");
  m_lua.EndWatchedCalls();
  ASSERT_EQ(pthread_sigmask(SIG_SETMASK, &before, nullptr), 0);
}

TEST_F(LuaLimits, LoadingAgainWhileWatchedCountsTheTopLevelAtEveryStep) {
  ASSERT_TRUE(m_lua.BeginWatchedCalls());
  const auto path =
      m_dir.WriteFile("quick.lua", "local s = 0 for i = 1, 100000 do s = s + i end\n");
  EXPECT_FALSE(m_lua.Load(path.string()));
  EXPECT_FALSE(m_lua.WatchingCalls());
}

TEST(LuaLimitsOff, WithoutABudgetThereIsNothingToWatch) {
  TestLua lua;
  ASSERT_TRUE(lua.Initialize());
  EXPECT_FALSE(lua.BeginWatchedCalls());
  EXPECT_FALSE(lua.WatchingCalls());
}

TEST(LuaLimitsOff, WithoutABudgetNothingIsCountedOrStopped) {
  TestLua lua;
  TempDir dir;
  ASSERT_TRUE(lua.Initialize());
  ASSERT_TRUE(lua.Load(dir.WriteFile("script.lua", kScript).string()));
  Args in;
  in += Arg::FromInt(100000);
  Args out;
  out += Arg::OfKind(Arg::Integer);
  ASSERT_TRUE(lua.Call("Sum", in, out));
  EXPECT_EQ(out[0].GetInt(), 5000050000);
  EXPECT_EQ(lua.LargestCallInstructions(), 0U);
  EXPECT_EQ(lua.GetInstructionLimit(), 0U);
}

TEST(LuaLimitsOff, StepOfOneCountsEveryInstruction) {
  TestLua lua;
  TempDir dir;
  lua.SetInstructionLimit(1000000);
  lua.SetInstructionStep(1);
  ASSERT_TRUE(lua.Initialize());
  ASSERT_TRUE(lua.Load(dir.WriteFile("script.lua", kScript).string()));
  Args in;
  in += Arg::FromInt(10);
  Args out;
  out += Arg::OfKind(Arg::Integer);
  ASSERT_TRUE(lua.Call("Sum", in, out));
  const std::uint64_t ten = lua.LargestCallInstructions();
  in = Args();
  in += Arg::FromInt(20);
  ASSERT_TRUE(lua.Call("Sum", in, out));
  // Ten more rounds of the loop body (add, loop) than before.
  EXPECT_EQ(lua.LargestCallInstructions() - ten, 20U);
}

// --- The script's environment --------------------------------------------------

TEST_F(LuaLimits, WhatControlsTheProcessOrTheFilesRaisesAnErrorNamingItself) {
  for (const std::string name :
       {"os.exit",           "os.execute",         "os.remove",      "os.rename",
        "os.tmpname",        "os.getenv",          "os.setlocale",   "io.open",
        "io.popen",          "io.lines",           "io.write",       "io.read",
        "io.output",         "io.stdout",          "debug.sethook",  "debug.getinfo",
        "debug.getregistry", "debug.setmetatable", "debug.getlocal", "debug.upvalueid"}) {
    EXPECT_EQ(Try("return " + name + "()"), "[string \"return " + name + "()\"]:1: " + name +
                                                " is not available to description scripts")
        << name;
  }
}

TEST_F(LuaLimits, RequireGivesTheSameStandIns) {
  EXPECT_EQ(Try("return require('io').open('x')"),
            "[string \"return require('io').open('x')\"]:1: io.open is not available to "
            "description scripts");
  EXPECT_EQ(Try("return require('os').exit()"),
            "[string \"return require('os').exit()\"]:1: os.exit is not available to "
            "description scripts");
  EXPECT_EQ(Try("assert(require('os') == os and require('debug') == debug)"), "ok");
}

TEST_F(LuaLimits, WhatADescriptionNeedsIsThere) {
  EXPECT_EQ(Try("assert(type(os.time()) == 'number' and type(os.clock()) == 'number')"), "ok");
  EXPECT_EQ(Try("assert(os.date('!%Y', 0) == '1970' and os.difftime(5, 2) == 3)"), "ok");
  EXPECT_EQ(Try("assert(debug.traceback('x'):find('^x\\nstack traceback:'))"), "ok");
  EXPECT_EQ(Try("assert(string.format('%02d', 7) == '07' and table.concat({1, 2}, ',') == '1,2')"),
            "ok");
  EXPECT_EQ(Try("assert(math.floor(2.5) == 2 and utf8.char(72) == 'H')"), "ok");
  EXPECT_EQ(Try("assert(coroutine.wrap(function() coroutine.yield(3) end)() == 3)"), "ok");
  EXPECT_EQ(
      Try("local co = coroutine.create(function(a) return a + 1 end) "
          "assert(select(2, coroutine.resume(co, 1)) == 2 and coroutine.status(co) == 'dead')"),
      "ok");
  // Made through the budget's own create and wrap, with stock Lua's messages.
  EXPECT_EQ(
      Try("coroutine.create(1)"),
      "[string \"coroutine.create(1)\"]:1: bad argument #1 to 'create' (function expected, got "
      "number)");
  EXPECT_EQ(Try("coroutine.wrap(1)"),
            "[string \"coroutine.wrap(1)\"]:1: bad argument #1 to 'wrap' (function expected, got "
            "number)");
  // The library's wrap adds the position to a text error, as stock Lua does.
  EXPECT_EQ(Try("coroutine.wrap(function() error('inside') end)()"),
            "[string \"coroutine.wrap(function() error('inside') end...\"]:1: [string "
            "\"coroutine.wrap(function() error('inside') end...\"]:1: inside");
  EXPECT_EQ(Try("assert(select('#', 1, 2) == 2 and tostring(nil) == 'nil' and print)"), "ok");
  EXPECT_EQ(Try("assert(load('return 1')() == 1)"), "ok");
  EXPECT_EQ(Try("assert(getmetatable(setmetatable({}, { __index = { a = 1 } })).__index.a == 1)"),
            "ok");
}

TEST_F(LuaLimits, FinalizersAreRefused) {
  EXPECT_EQ(Try("setmetatable({}, { __gc = function() end })"),
            "[string \"setmetatable({}, { __gc = function() end })\"]:1: __gc metamethods are not "
            "available to description scripts");
  EXPECT_EQ(Try("setmetatable({}, { __gc = true })"),
            "[string \"setmetatable({}, { __gc = true })\"]:1: __gc metamethods are not "
            "available to description scripts");
  // A __gc added later is no finalizer: Lua marks objects only when the metatable is set.
  EXPECT_EQ(Try("local m = {} setmetatable({}, m) m.__gc = function() Finalized = true end "
                "collectgarbage() collectgarbage() assert(Finalized == nil)"),
            "ok");
}

TEST_F(LuaLimits, SetmetatableKeepsItsOwnChecks) {
  EXPECT_EQ(Try("setmetatable(1, {})"),
            "[string \"setmetatable(1, {})\"]:1: bad argument #1 to 'setmetatable' (table "
            "expected, got number)");
  EXPECT_EQ(Try("setmetatable(setmetatable({}, { __metatable = 1 }), {})"),
            "[string \"setmetatable(setmetatable({}, { __metatable =...\"]:1: cannot change a "
            "protected metatable");
  EXPECT_EQ(Try("local t = {} assert(setmetatable(t, nil) == t)"), "ok");
}

}  // namespace
