#include <ovslua/Lua.h>

#include "CpuTick.h"
#include "SmallBlockPool.h"

#include <log4cplus/loggingmacros.h>

#include <lua.hpp>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <new>
#include <sstream>
#include <string>

namespace ovslua {

log4cplus::Logger Lua::sm_logger = log4cplus::Logger::getInstance("ovslua");

namespace {

// Lua calls this for an error outside any protected call, where it would
// otherwise abort(); the C++ build of Lua lets the exception unwind through it.
int ThrowPanic(lua_State* state) {
  const char* message = nullptr;
  if (lua_gettop(state) > 0 && lua_type(state, -1) == LUA_TSTRING) {
    message = lua_tostring(state, -1);
  }
  throw LuaPanicError(message != nullptr ? message : "unprotected error in Lua");
}

// Puts the stack back to its height at construction, also when an exception
// (a panic) leaves a call half done.
class StackRestorer {
 public:
  explicit StackRestorer(lua_State* state) : m_state(state), m_top(lua_gettop(state)) {}
  ~StackRestorer() { lua_settop(m_state, m_top); }
  StackRestorer(const StackRestorer&) = delete;
  StackRestorer& operator=(const StackRestorer&) = delete;

 private:
  lua_State* m_state;
  int m_top;
};

// Streamed as a const char*: a null status text ends the line there, as a
// stream that met a null text stops accepting output.
std::string FailureLine(const std::string& head, int status, const std::string& message) {
  std::ostringstream line;
  line << head << Lua::GetErrorAsText(status) << ":" << message << ").";
  return line.str();
}

// Lua's standard warning functions, as luaL_newstate installs them (they are
// private to the auxiliary library): warnings are off until the script calls
// warn("@on"), then go to stderr as "Lua warning: ..." lines.
void WarnOff(void* ud, const char* message, int toContinue);
void WarnOn(void* ud, const char* message, int toContinue);

bool WarningControl(lua_State* state, const char* message, int toContinue) {
  if (toContinue != 0 || *message != '@') return false;
  if (std::strcmp(message + 1, "off") == 0) {
    lua_setwarnf(state, &WarnOff, state);
  } else if (std::strcmp(message + 1, "on") == 0) {
    lua_setwarnf(state, &WarnOn, state);
  }
  return true;
}

void WarnOff(void* ud, const char* message, int toContinue) {
  WarningControl(static_cast<lua_State*>(ud), message, toContinue);
}

void WarnContinue(void* ud, const char* message, int toContinue) {
  auto* state = static_cast<lua_State*>(ud);
  std::fprintf(stderr, "%s", message);
  std::fflush(stderr);
  if (toContinue != 0) {
    lua_setwarnf(state, &WarnContinue, state);
  } else {
    std::fprintf(stderr, "%s", "\n");
    std::fflush(stderr);
    lua_setwarnf(state, &WarnOn, state);
  }
}

void WarnOn(void* ud, const char* message, int toContinue) {
  if (WarningControl(static_cast<lua_State*>(ud), message, toContinue)) return;
  std::fprintf(stderr, "%s", "Lua warning: ");
  std::fflush(stderr);
  WarnContinue(ud, message, toContinue);
}

}  // namespace

namespace detail {

// The execution budget of the running call, shared by the count hook of every
// thread of the interpreter (coroutines inherit the hook of their creator).
struct ExecutionBudget {
  std::uint64_t limit = 0;
  std::uint64_t used = 0;
  std::uint64_t largest = 0;
  int step = 1000;
  bool active = false;
  bool exceeded = false;
};

// The tick that watches this interpreter's calls, and what its handler arms.
struct CallWatch {
  TickTarget target;
  CpuTick tick;
};

}  // namespace detail

namespace {

// The registry key under which the interpreter keeps its budget's address.
const char kBudgetKey = 0;

// Counts a step of instructions; past the budget it raises an error, and from
// then on raises at every instruction of every thread until the call returns,
// so a script that catches the error (pcall in a loop, a coroutine) gets no
// further. Outside a call (a collection between calls) it counts nothing.
void CountInstructions(lua_State* state, lua_Debug* /*debug*/) {
  lua_rawgetp(state, LUA_REGISTRYINDEX, &kBudgetKey);
  auto* budget = static_cast<detail::ExecutionBudget*>(lua_touserdata(state, -1));
  lua_pop(state, 1);
  if (budget == nullptr || !budget->active) return;
  // This thread's own step: a thread stopped in an earlier call still counts every instruction.
  budget->used += static_cast<std::uint64_t>(lua_gethookcount(state));
  if (budget->limit != 0 && budget->used > budget->limit) budget->exceeded = true;
  if (budget->exceeded) {
    if (lua_gethookcount(state) != 1) lua_sethook(state, &CountInstructions, LUA_MASKCOUNT, 1);
    luaL_error(state, "exceeded the execution budget of %I instructions",
               static_cast<LUAI_UACINT>(budget->limit));
  }
}

// Looks up the global named by the light userdata below the arguments and calls
// it with them, so that a metatable on _G runs inside the protected call.
int CallGlobal(lua_State* state) {
  const auto* name = static_cast<const char*>(lua_touserdata(state, 1));
  lua_getglobal(state, name);
  lua_replace(state, 1);
  lua_callk(state, lua_gettop(state) - 1, LUA_MULTRET, 0, nullptr);
  return lua_gettop(state);
}

// setmetatable, except that a metatable with a __gc field is refused: Lua runs
// finalizers with hooks off, so the execution budget could not stop one.
int SetMetatableWithoutFinalizer(lua_State* state) {
  const int type = lua_type(state, 2);
  luaL_checktype(state, 1, LUA_TTABLE);
  luaL_argexpected(state, type == LUA_TNIL || type == LUA_TTABLE, 2, "nil or table");
  if (type == LUA_TTABLE) {
    lua_pushliteral(state, "__gc");
    const bool finalizer = lua_rawget(state, 2) != LUA_TNIL;
    lua_pop(state, 1);
    if (finalizer) {
      return luaL_error(state, "__gc metamethods are not available to description scripts");
    }
  }
  if (luaL_getmetafield(state, 1, "__metatable") != LUA_TNIL) {
    return luaL_error(state, "cannot change a protected metatable");
  }
  lua_settop(state, 2);
  lua_setmetatable(state, 1);
  return 1;
}

// Gives a new coroutine the count hook of the budget. Threads copy the hook of
// the thread that creates them, and a watched main thread runs without one, so
// a coroutine made there would otherwise never be counted.
void CountNewThread(lua_State* state, lua_State* thread) {
  if (thread == nullptr || lua_gethook(thread) != nullptr) return;
  lua_rawgetp(state, LUA_REGISTRYINDEX, &kBudgetKey);
  const auto* budget = static_cast<const detail::ExecutionBudget*>(lua_touserdata(state, -1));
  lua_pop(state, 1);
  if (budget != nullptr && budget->limit != 0) {
    lua_sethook(thread, &CountInstructions, LUA_MASKCOUNT, budget->step);
  }
}

// coroutine.create, as the library has it, with the budget's hook on the thread.
int CreateCountedCoroutine(lua_State* state) {
  luaL_checktype(state, 1, LUA_TFUNCTION);
  lua_State* thread = lua_newthread(state);
  lua_pushvalue(state, 1);
  lua_xmove(state, thread, 1);
  CountNewThread(state, thread);
  return 1;
}

// coroutine.wrap through the library's own (upvalue 1), whose function keeps
// its thread as its one upvalue; that thread gets the budget's hook.
int WrapCountedCoroutine(lua_State* state) {
  luaL_checktype(state, 1, LUA_TFUNCTION);
  lua_settop(state, 1);
  lua_pushvalue(state, lua_upvalueindex(1));
  lua_insert(state, 1);
  lua_call(state, 1, 1);
  if (lua_getupvalue(state, -1, 1) != nullptr) {
    CountNewThread(state, lua_tothread(state, -1));
    lua_pop(state, 1);
  }
  return 1;
}

// Puts the two functions above in place of the coroutine library's, in the
// table that both the global and require("coroutine") give.
void CountCoroutines(lua_State* state) {
  lua_getglobal(state, "coroutine");
  lua_pushcfunction(state, &CreateCountedCoroutine);
  lua_setfield(state, -2, "create");
  lua_getfield(state, -1, "wrap");
  lua_pushcclosure(state, &WrapCountedCoroutine, 1);
  lua_setfield(state, -2, "wrap");
  lua_pop(state, 1);
}

}  // namespace

Lua::Lua() : m_budget(new detail::ExecutionBudget) {}

Lua::~Lua() { Release(); }

namespace {

const char* const kTextOnlyLoaders = R"lua(
local rawload, rawloadfile = load, loadfile
local select = select
-- The environment only when one is given: an explicit nil would leave the chunk without globals.
load = function(chunk, name, mode, ...)
  if select("#", ...) > 0 then return rawload(chunk, name, "t", ...) end
  return rawload(chunk, name, "t")
end
loadfile = function(file, mode, ...)
  if select("#", ...) > 0 then return rawloadfile(file, "t", ...) end
  return rawloadfile(file, "t")
end
dofile = function(file)
  local chunk = assert(rawloadfile(file, "t"))
  return chunk()
end
package.loadlib = nil
package.cpath = ""
local searchers = package.searchers
searchers[3], searchers[4] = nil, nil
searchers[2] = function(name)
  local path, err = package.searchpath(name, package.path)
  if not path then return "\n\t" .. err end
  local chunk, loadErr = rawloadfile(path, "t")
  if not chunk then error(loadErr, 0) end
  return chunk, path
end
)lua";

// What a description script may use: the base library, string, table, math,
// utf8, coroutine, of os only the clock and calendar, and of debug only
// traceback. Everything else that could end the process, run programs or touch
// files raises an error naming itself, so the author sees at once what is
// missing. The stand-ins are also what require("io") and its kin return.
const char* const kScriptEnvironment = R"lua(
local error, pairs, rawset, setmetatable, tostring = error, pairs, rawset, setmetatable, tostring
local function restricted(name, kept)
  local library = {}
  for key, value in pairs(kept) do rawset(library, key, value) end
  return setmetatable(library, {
    __index = function(_, key)
      error(name .. "." .. tostring(key) .. " is not available to description scripts", 2)
    end,
    __metatable = false,
  })
end
local os, debug = os, debug
local loaded = package.loaded
local safeOs = restricted("os", {
  time = os.time, date = os.date, clock = os.clock, difftime = os.difftime })
local safeIo = restricted("io", {})
local safeDebug = restricted("debug", { traceback = debug.traceback })
_G.os, _G.io, _G.debug = safeOs, safeIo, safeDebug
loaded.os, loaded.io, loaded.debug = safeOs, safeIo, safeDebug
-- A stopped collector would let garbage pile up from one download to the next.
local collect = collectgarbage
collectgarbage = function(option, ...)
  if option == "stop" then
    error("collectgarbage(\"stop\") is not available to description scripts", 2)
  end
  return collect(option, ...)
end
)lua";

}  // namespace

bool Lua::Initialize() {
  std::lock_guard<std::mutex> lock(m_mutex);
  StopWatch();
  if (m_luaState != nullptr) {
    lua_close(m_luaState);
    m_luaState = nullptr;
  }
  m_pool.reset();  // only after the interpreter it served is closed
  m_status = LUA_OK;
  m_errorMessage.clear();
  // The state luaL_newstate would make, with the pool as its allocator.
  std::unique_ptr<detail::SmallBlockPool> pool(new (std::nothrow) detail::SmallBlockPool);
  if (pool) pool->SetLimit(m_memoryLimit);
  lua_State* state = pool ? lua_newstate(&detail::SmallBlockPool::Allocate, pool.get()) : nullptr;
  if (state == nullptr) {
    LOG4CPLUS_ERROR(sm_logger, "Initialize failed: not enough memory for the interpreter.");
    return false;
  }
  // Installed before anything can fail, so that no error can reach abort().
  lua_atpanic(state, &ThrowPanic);
  lua_setwarnf(state, &WarnOff, state);
  try {
    luaL_openlibs(state);
    // Scripts may load further source, never bytecode (crafted bytecode can
    // crash the interpreter) and never native code.
    if (luaL_dostring(state, kTextOnlyLoaders) != LUA_OK ||
        luaL_dostring(state, kScriptEnvironment) != LUA_OK) {
      throw LuaPanicError(lua_tostring(state, -1) != nullptr ? lua_tostring(state, -1)
                                                             : "environment set-up failed");
    }
    lua_pushcfunction(state, &SetMetatableWithoutFinalizer);
    lua_setglobal(state, "setmetatable");
    CountCoroutines(state);
    lua_pushlightuserdata(state, m_budget.get());
    lua_rawsetp(state, LUA_REGISTRYINDEX, &kBudgetKey);
  } catch (const LuaPanicError& error) {
    lua_close(state);
    LOG4CPLUS_ERROR(sm_logger, "Initialize failed (" << error.what() << ").");
    return false;
  }
  lua_settop(state, 0);
  m_luaState = state;
  m_pool = std::move(pool);
  m_budget->step = m_instructionStep;
  m_budget->largest = 0;
  InstallBudgetHook();
  return true;
}

void Lua::InstallBudgetHook() const {
  if (m_luaState == nullptr) return;
  m_budget->limit = m_instructionLimit;
  // Watched, the main thread runs without a hook until a tick sets one.
  if (WatchingCalls()) return;
  // Without a budget no hook at all: counting costs a little on every instruction.
  if (m_instructionLimit != 0) {
    lua_sethook(m_luaState, &CountInstructions, LUA_MASKCOUNT, m_budget->step);
  } else {
    lua_sethook(m_luaState, nullptr, 0, 0);
  }
}

bool Lua::Load(const std::string& scriptPath) const {
  std::lock_guard<std::mutex> lock(m_mutex);
  StopWatch();  // the top level is counted at every step, watched or not
  m_status = LUA_OK;
  m_errorMessage.clear();
  if (m_luaState == nullptr) {
    LOG4CPLUS_ERROR(sm_logger, "Initialization missing.");
    return false;
  }
  StackRestorer restorer(m_luaState);
  if (!lua_checkstack(m_luaState, 3)) {
    m_status = LUA_ERRMEM;
    m_errorMessage = "no stack space";
  } else {
    // Mode "t": source text only, never precompiled chunks.
    int status = luaL_loadfilex(m_luaState, scriptPath.c_str(), "t");
    bool overBudget = false;
    bool outOfMemory = false;
    if (status == LUA_OK) {
      // The top level gets its own path (local path = ...), to find modules beside it.
      lua_pushlstring(m_luaState, scriptPath.data(), scriptPath.size());
      status = RunProtected(1, 0, overBudget, outOfMemory);
    }
    m_status = status;
    if (status != LUA_OK) {
      SetErrorMessage();
    }
    // A top level stopped by its budget or short of memory has not run whole,
    // also when it caught the error itself.
    if (overBudget) {
      m_status = LUA_ERRRUN;
      m_errorMessage = "exceeded the execution budget of " + std::to_string(m_instructionLimit) +
                       " instructions";
    } else if (outOfMemory) {
      m_status = LUA_ERRMEM;
      m_errorMessage = "not enough memory";
    }
    if (overBudget || outOfMemory) CollectAfterFailure();
  }
  if (m_status != LUA_OK) {
    LOG4CPLUS_ERROR_STR(sm_logger, FailureLine("Load script '" + scriptPath + "' failed (",
                                               m_status, m_errorMessage));
    return false;
  }
  return true;
}

bool Lua::Call(const std::string& name, const Args& in, Args& out) const {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_status = LUA_OK;
  m_errorMessage.clear();
  if (m_luaState == nullptr) {
    LOG4CPLUS_ERROR(sm_logger, "Initialization missing.");
    return false;
  }
  StackRestorer restorer(m_luaState);
  const std::size_t argumentCount = in.Count();
  const std::size_t resultCount = out.Count();
  // The lookup, the name and the arguments, and later the results, must fit on the stack.
  const std::size_t needed = std::max(argumentCount + 3, resultCount);
  if (needed > static_cast<std::size_t>(INT_MAX) ||
      !lua_checkstack(m_luaState, static_cast<int>(needed))) {
    m_status = LUA_ERRRUN;
    m_errorMessage = "stack overflow (" + std::to_string(argumentCount) + " arguments, " +
                     std::to_string(resultCount) + " results)";
  } else {
    const int extra = PushGlobalFunction(name.c_str());
    PushArguments(in);
    m_status = ProtectedCall(static_cast<int>(argumentCount) + extra, static_cast<int>(resultCount),
                             name.c_str());
    if (m_status == LUA_OK) {
      PopReturnValues(out);
      if (m_textWithNul >= 0) {
        LOG4CPLUS_WARN(sm_logger, "Script function '"
                                      << name << "' returned a text with a NUL byte as result "
                                      << m_textWithNul + 1
                                      << "; it is read as a value of the wrong type.");
      }
      return true;
    }
    SetErrorMessage();
  }
  LOG4CPLUS_ERROR_STR(
      sm_logger, FailureLine("Call function '" + name + "' failed (", m_status, m_errorMessage));
  return false;
}

namespace {

// lua_pcall under the budget, kept out of the exported members so that the
// compiler can inline it into the calls: it runs once per script call.
inline int RunUnderBudget(lua_State* state, detail::SmallBlockPool* pool,
                          detail::ExecutionBudget& budget, detail::TickTarget* watched,
                          bool budgeted, int argumentCount, int resultCount, bool& overBudget,
                          bool& outOfMemory) {
  const std::size_t failuresBefore = pool != nullptr ? pool->FailureCount() : 0;
  // After a call that ran out, the main thread checks every instruction; back to steps.
  if (budget.exceeded && budgeted && watched == nullptr) {
    lua_sethook(state, &CountInstructions, LUA_MASKCOUNT, budget.step);
  }
  budget.used = 0;
  budget.exceeded = false;
  budget.active = true;
  if (watched != nullptr) {
    watched->running = state;
    std::atomic_signal_fence(std::memory_order_seq_cst);
  }
  const int status = lua_pcallk(state, argumentCount, resultCount, 0, 0, nullptr);
  if (watched != nullptr) {
    // No tick arms the hook once the call is over; one that did is taken off again.
    watched->running = nullptr;
    std::atomic_signal_fence(std::memory_order_seq_cst);
    if (watched->armed != 0) {
      lua_sethook(state, nullptr, 0, 0);
      watched->armed = 0;
    }
  }
  budget.active = false;
  if (budget.used > budget.largest) budget.largest = budget.used;
  overBudget = budget.exceeded;
  outOfMemory = status == LUA_ERRMEM || (pool != nullptr && pool->FailureCount() != failuresBefore);
  return status;
}

}  // namespace

int Lua::RunProtected(int argumentCount, int resultCount, bool& overBudget,
                      bool& outOfMemory) const {
  // The top level is always counted exactly: it runs once, and its budget decides the load.
  return RunUnderBudget(m_luaState, m_pool.get(), *m_budget, nullptr, m_instructionLimit != 0,
                        argumentCount, resultCount, overBudget, outOfMemory);
}

void Lua::CollectAfterFailure() const {
  // Bounded: scripts cannot set finalizers, so a collection runs no script code.
  // Lua frees only half of the call records a deep recursion left at each
  // collection, so collect until nothing more comes free (a few dozen at most).
  std::size_t before = m_pool ? m_pool->BytesInUse() : 0;
  for (int round = 0; round < 64; ++round) {
    lua_gc(m_luaState, LUA_GCCOLLECT);
    const std::size_t after = m_pool ? m_pool->BytesInUse() : 0;
    if (after >= before) break;
    before = after;
  }
}

int Lua::ProtectedCall(int argumentCount, int resultCount, const char* function, int refId) const {
  const int base = lua_gettop(m_luaState) - argumentCount - 1;
  bool overBudget = false;
  bool outOfMemory = false;
  detail::TickTarget* watched = WatchingCalls() ? &m_watch->target : nullptr;
  const int status =
      RunUnderBudget(m_luaState, m_pool.get(), *m_budget, watched, m_instructionLimit != 0,
                     argumentCount, resultCount, overBudget, outOfMemory);
  if (!overBudget && !outOfMemory) return status;
  // What the call left is no answer; collected with the rest of its garbage.
  lua_settop(m_luaState, std::max(base, 0));
  CollectAfterFailure();
  if (overBudget) {
    m_status = LUA_ERRRUN;
    std::ostringstream message;
    message << "Script function ";
    if (function != nullptr) {
      message << "'" << function << "'";
    } else {
      message << "with ref id '" << refId << "'";
    }
    message << " exceeded the execution budget of " << m_instructionLimit << " instructions.";
    m_errorMessage = message.str();
    throw ExecutionBudgetExceeded(m_errorMessage);
  }
  m_status = LUA_ERRMEM;
  m_errorMessage = "not enough memory";
  throw std::bad_alloc();
}

int Lua::PushGlobalFunction(const char* name) const {
  // Raw first: when the global is there, or _G has no metatable, this is what
  // lua_getglobal gives, without running any script code.
  lua_rawgeti(m_luaState, LUA_REGISTRYINDEX, LUA_RIDX_GLOBALS);
  lua_pushstring(m_luaState, name);
  if (lua_rawget(m_luaState, -2) != LUA_TNIL || !lua_getmetatable(m_luaState, -2)) {
    lua_remove(m_luaState, -2);
    return 0;
  }
  lua_pop(m_luaState, 3);
  lua_pushcfunction(m_luaState, &CallGlobal);
  lua_pushlightuserdata(m_luaState, const_cast<char*>(name));
  return 1;
}

void Lua::PushArguments(const Args& args) const {
  if (m_luaState == nullptr) return;
  // Numeric order: the text keys would put "10" before "2".
  const std::size_t count = args.Count();
  for (std::size_t position = 0; position < count; ++position) {
    const Args::Arg& arg = args[static_cast<unsigned int>(position)];
    switch (arg.GetKind()) {
      case Args::Arg::Boolean:
        lua_pushboolean(m_luaState, arg.GetBool() ? 1 : 0);
        break;
      case Args::Arg::Integer:
        lua_pushinteger(m_luaState, static_cast<lua_Integer>(arg.GetInt()));
        break;
      case Args::Arg::Unsigned: {
        // Never negative in Lua: values beyond the largest Lua integer are clamped to it.
        const std::uint64_t value = arg.GetUnsigned();
        const auto largest = static_cast<std::uint64_t>(LUA_MAXINTEGER);
        lua_pushinteger(m_luaState, static_cast<lua_Integer>(value > largest ? largest : value));
        break;
      }
      case Args::Arg::Number:
        lua_pushnumber(m_luaState, static_cast<lua_Number>(arg.GetDouble()));
        break;
      case Args::Arg::String:
        lua_pushlstring(m_luaState, arg.GetText().data(), arg.GetText().size());
        break;
      default:
        lua_pushnil(m_luaState);
        break;
    }
  }
}

void Lua::PopReturnValues(Args& results) const {
  m_textWithNul = -1;
  const std::size_t count = results.Count();
  // Only values that are really there: reading below the stack bottom is undefined.
  if (m_luaState == nullptr || count == 0 ||
      count > static_cast<std::size_t>(lua_gettop(m_luaState))) {
    return;
  }
  const int height = static_cast<int>(count);
  for (int position = 0; position < height; ++position) {
    // Absolute index, so that pushing a temporary copy does not move it.
    const int index = lua_absindex(m_luaState, position - height);
    Args::Arg& entry = results[static_cast<unsigned int>(position)];
    switch (entry.GetKind()) {
      case Args::Arg::Boolean:
        entry = Args::Arg::FromBool(lua_toboolean(m_luaState, index) != 0);
        break;
      case Args::Arg::Integer: {
        int isInteger = 0;
        const lua_Integer value = lua_tointegerx(m_luaState, index, &isInteger);
        entry = Args::Arg::FromInt(isInteger != 0 ? static_cast<std::int64_t>(value) : 0);
        break;
      }
      case Args::Arg::Unsigned: {
        // A negative integer is no unsigned value: it reads as 0 like any non-integer.
        int isInteger = 0;
        const lua_Integer value = lua_tointegerx(m_luaState, index, &isInteger);
        entry = Args::Arg::FromUnsigned(
            isInteger != 0 && value > 0 ? static_cast<std::uint64_t>(value) : 0U);
        break;
      }
      case Args::Arg::Number: {
        int isNumber = 0;
        const lua_Number value = lua_tonumberx(m_luaState, index, &isNumber);
        entry = Args::Arg::FromDouble(isNumber != 0 ? static_cast<double>(value) : 0.0);
        break;
      }
      case Args::Arg::String: {
        std::string text;
        const int type = lua_type(m_luaState, index);
        if (type == LUA_TSTRING) {
          std::size_t length = 0;
          const char* data = lua_tolstring(m_luaState, index, &length);
          // No XML text can hold a NUL byte: such a string is no text, as a
          // table would be no text, rather than one cut at its first NUL.
          if (std::memchr(data, '\0', length) == nullptr) {
            text.assign(data, length);
          } else if (m_textWithNul < 0) {
            m_textWithNul = position;
          }
        } else if (type == LUA_TNUMBER && lua_checkstack(m_luaState, 1)) {
          // Converted on a copy, so the value on the stack keeps its type.
          lua_pushvalue(m_luaState, index);
          std::size_t length = 0;
          const char* data = lua_tolstring(m_luaState, -1, &length);
          text.assign(data, length);
          lua_pop(m_luaState, 1);
        }
        entry = Args::Arg::FromString(std::move(text));
        break;
      }
      default:
        // Kind none declares a result that is not wanted.
        break;
    }
  }
  lua_pop(m_luaState, height);
}

void Lua::SetErrorMessage() const {
  if (m_luaState == nullptr || lua_gettop(m_luaState) == 0) {
    m_errorMessage.clear();
    return;
  }
  const int type = lua_type(m_luaState, -1);
  if (type == LUA_TSTRING || type == LUA_TNUMBER) {
    // The object is removed right after, so converting a number in place is harmless.
    std::size_t length = 0;
    const char* data = lua_tolstring(m_luaState, -1, &length);
    m_errorMessage.assign(data, length);
  } else {
    // No __tostring: it would run script code outside a protected call.
    m_errorMessage =
        std::string("(error object is a ") + lua_typename(m_luaState, type) + " value)";
  }
  lua_pop(m_luaState, 1);
}

const char* Lua::GetErrorAsText(int status) {
  switch (status) {
    case LUA_OK:
      return "LUA_OK";
    case LUA_YIELD:
      return "LUA_YIELD";
    case LUA_ERRRUN:
      return "LUA_ERRRUN";
    case LUA_ERRSYNTAX:
      return "LUA_ERRSYNTAX";
    case LUA_ERRMEM:
      return "LUA_ERRMEM";
    case LUA_ERRERR:
      return "LUA_ERRERR";
    case LUA_ERRFILE:
      return "LUA_ERRFILE";
    default:
      return nullptr;
  }
}

void Lua::SetMemoryLimit(std::size_t bytes) {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_memoryLimit = bytes;
  if (m_pool) m_pool->SetLimit(bytes);
}

std::size_t Lua::MemoryInUse() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_pool ? m_pool->BytesInUse() : 0;
}

std::size_t Lua::CollectGarbage() {
  std::lock_guard<std::mutex> lock(m_mutex);
  if (m_luaState == nullptr) return 0;
  CollectAfterFailure();
  return m_pool ? m_pool->BytesInUse() : 0;
}

std::size_t Lua::PeakMemoryInUse() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_pool ? m_pool->PeakBytesInUse() : 0;
}

void Lua::TrackPeakMemory(bool track) {
  std::lock_guard<std::mutex> lock(m_mutex);
  if (m_luaState == nullptr || !m_pool) return;
  m_pool->ResetPeak();
  lua_setallocf(
      m_luaState,
      track ? &detail::SmallBlockPool::AllocateTrackingPeak : &detail::SmallBlockPool::Allocate,
      m_pool.get());
}

void Lua::SetInstructionLimit(std::uint64_t instructions) {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_instructionLimit = instructions;
  InstallBudgetHook();
}

void Lua::SetInstructionStep(int instructions) noexcept {
  m_instructionStep = std::max(instructions, 1);
}

std::uint64_t Lua::LargestCallInstructions() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_budget->largest;
}

bool Lua::BeginWatchedCalls() {
  std::lock_guard<std::mutex> lock(m_mutex);
  if (m_luaState == nullptr || m_instructionLimit == 0) return false;
  if (WatchingCalls()) return true;
  if (!m_watch) m_watch.reset(new detail::CallWatch);
  detail::TickTarget& target = m_watch->target;
  target.running = nullptr;
  target.armed = 0;
  target.hook = &CountInstructions;
  target.step = m_budget->step;
  if (!m_watch->tick.Start(target)) return false;
  lua_sethook(m_luaState, nullptr, 0, 0);
  return true;
}

void Lua::EndWatchedCalls() noexcept {
  try {
    std::lock_guard<std::mutex> lock(m_mutex);
    StopWatch();
  } catch (...) {
    // Only a broken mutex fails here; the tick then runs on until the interpreter is released.
  }
}

bool Lua::WatchingCalls() const noexcept { return m_watch && m_watch->tick.Running(); }

int Lua::WatchedCallsSignal() noexcept { return detail::CpuTick::Signal(); }

void Lua::StopWatch() const noexcept {
  if (!WatchingCalls()) return;
  m_watch->tick.Stop();
  m_watch->target.running = nullptr;
  m_watch->target.armed = 0;
  InstallBudgetHook();
}

void Lua::Release() {
  std::lock_guard<std::mutex> lock(m_mutex);
  StopWatch();
  if (m_luaState != nullptr) {
    lua_close(m_luaState);
    m_luaState = nullptr;
  }
  m_pool.reset();
}

}  // namespace ovslua
