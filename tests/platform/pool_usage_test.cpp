// The interpreters' pool accounting, which heap measurements rely on to see
// small blocks rather than whole chunks.

#include <ovslua/Lua.h>
#include <ovslua/PoolUsage.h>

#include <TempDir.h>

#include <gtest/gtest.h>

#include <lua.hpp>

#include <string>

namespace {

using lkdh::test::TempDir;

// Under AddressSanitizer the pool hands every block to malloc, so it counts nothing.
#if defined(__SANITIZE_ADDRESS__)
constexpr bool kPooled = false;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr bool kPooled = false;
#else
constexpr bool kPooled = true;
#endif
#else
constexpr bool kPooled = true;
#endif

// Scripts cannot stop the collector; the test does it from outside.
class StoppableLua : public ovslua::Lua {
 public:
  void StopCollector() { lua_gc(m_luaState, LUA_GCSTOP); }
  void RestartCollector() { lua_gc(m_luaState, LUA_GCRESTART); }
};

TEST(PoolUsage, BlocksHeldByAScriptAreCountedAndGivenBackWithTheInterpreter) {
  if (!kPooled) GTEST_SKIP() << "the pool is off under AddressSanitizer";
  TempDir dir;
  const ovslua::PoolUsage before = ovslua::InterpreterPoolUsage();
  {
    StoppableLua lua;
    ASSERT_TRUE(lua.Initialize());
    const ovslua::PoolUsage started = ovslua::InterpreterPoolUsage();
    EXPECT_GT(started.blockBytes, before.blockBytes);
    EXPECT_GT(started.chunkBytes, before.chunkBytes);
    EXPECT_LE(started.blockBytes - before.blockBytes, started.chunkBytes - before.chunkBytes);

    // 20,000 small tables kept alive in a global: 20,000 blocks of 32 bytes at
    // the least (a table is 56 bytes on 64-bit machines and exactly 32 on the
    // device). The collector is stopped meanwhile: garbage left from start-up
    // and freed during the loop would otherwise be subtracted, and on the
    // device, with no slack above 32 bytes a table, the count would fall short.
    lua.StopCollector();
    ASSERT_TRUE(lua.Load(dir.WriteFile("keep.lua",
                                       "kept = {}\n"
                                       "for i = 1, 20000 do kept[i] = {} end\n")
                             .string()));
    const ovslua::PoolUsage holding = ovslua::InterpreterPoolUsage();
    EXPECT_GE(holding.blockBytes - started.blockBytes, 20000U * 32U);
    EXPECT_LE(holding.blockBytes - before.blockBytes, holding.chunkBytes - before.chunkBytes);

    // Dropped and collected, the blocks go back to the pool; its chunks stay.
    lua.RestartCollector();
    ASSERT_TRUE(lua.Load(
        dir.WriteFile("drop.lua", "kept = nil\ncollectgarbage()\ncollectgarbage()\n").string()));
    const ovslua::PoolUsage dropped = ovslua::InterpreterPoolUsage();
    EXPECT_LT(dropped.blockBytes, started.blockBytes + 20000U * 8U);
    EXPECT_EQ(dropped.chunkBytes, holding.chunkBytes);
  }
  const ovslua::PoolUsage after = ovslua::InterpreterPoolUsage();
  EXPECT_EQ(after.blockBytes, before.blockBytes);
  EXPECT_EQ(after.chunkBytes, before.chunkBytes);
}

}  // namespace
