#include <ovslua/Lua.h>

#include "SmallBlockPool.h"

#include <log4cplus/loggingmacros.h>

#include <lua.hpp>

#include <algorithm>
#include <climits>
#include <cstddef>
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

Lua::Lua() = default;

Lua::~Lua() { Release(); }

namespace {

const char* const kTextOnlyLoaders = R"lua(
local rawload, rawloadfile = load, loadfile
load = function(chunk, name, mode, env) return rawload(chunk, name, "t", env) end
loadfile = function(file, mode, env) return rawloadfile(file, "t", env) end
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

}  // namespace

bool Lua::Initialize() {
  std::lock_guard<std::mutex> lock(m_mutex);
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
    if (luaL_dostring(state, kTextOnlyLoaders) != LUA_OK) {
      throw LuaPanicError(lua_tostring(state, -1) != nullptr ? lua_tostring(state, -1)
                                                             : "loader set-up failed");
    }
  } catch (const LuaPanicError& error) {
    lua_close(state);
    LOG4CPLUS_ERROR(sm_logger, "Initialize failed (" << error.what() << ").");
    return false;
  }
  lua_settop(state, 0);
  m_luaState = state;
  m_pool = std::move(pool);
  return true;
}

bool Lua::Load(const std::string& scriptPath) const {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_status = LUA_OK;
  m_errorMessage.clear();
  if (m_luaState == nullptr) {
    LOG4CPLUS_ERROR(sm_logger, "Initialization missing.");
    return false;
  }
  StackRestorer restorer(m_luaState);
  if (!lua_checkstack(m_luaState, 2)) {
    m_status = LUA_ERRMEM;
    m_errorMessage = "no stack space";
  } else {
    // Mode "t": source text only, never precompiled chunks.
    int status = luaL_loadfilex(m_luaState, scriptPath.c_str(), "t");
    if (status == LUA_OK) {
      status = lua_pcall(m_luaState, 0, 0, 0);
    }
    m_status = status;
    if (status != LUA_OK) {
      SetErrorMessage();
    }
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
  // The function and its arguments, and later its results, must fit on the stack.
  const std::size_t needed = std::max(argumentCount + 1, resultCount);
  if (needed > static_cast<std::size_t>(INT_MAX) ||
      !lua_checkstack(m_luaState, static_cast<int>(needed))) {
    m_status = LUA_ERRRUN;
    m_errorMessage = "stack overflow (" + std::to_string(argumentCount) + " arguments, " +
                     std::to_string(resultCount) + " results)";
  } else {
    lua_getglobal(m_luaState, name.c_str());
    PushArguments(in);
    m_status = ProtectedCall(static_cast<int>(argumentCount), static_cast<int>(resultCount));
    if (m_status == LUA_OK) {
      PopReturnValues(out);
      return true;
    }
    SetErrorMessage();
  }
  LOG4CPLUS_ERROR_STR(
      sm_logger, FailureLine("Call function '" + name + "' failed (", m_status, m_errorMessage));
  return false;
}

int Lua::ProtectedCall(int argumentCount, int resultCount) const {
  const std::size_t failuresBefore = m_pool ? m_pool->FailureCount() : 0;
  const int status = lua_pcallk(m_luaState, argumentCount, resultCount, 0, 0, nullptr);
  if (status == LUA_ERRMEM || (m_pool && m_pool->FailureCount() != failuresBefore)) {
    m_status = LUA_ERRMEM;
    m_errorMessage = "not enough memory";
    throw std::bad_alloc();
  }
  return status;
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
          text.assign(data, length);
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

void Lua::Release() {
  std::lock_guard<std::mutex> lock(m_mutex);
  if (m_luaState != nullptr) {
    lua_close(m_luaState);
    m_luaState = nullptr;
  }
  m_pool.reset();
}

}  // namespace ovslua
