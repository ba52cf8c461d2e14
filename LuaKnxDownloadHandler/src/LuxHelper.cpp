#include <LuaKnxDownloadHandler/LuxHelper.h>

#include "LuxHelperStack.h"

#include <log4cplus/loggingmacros.h>

#include <lua.hpp>

#include <climits>
#include <cstddef>
#include <cstring>
#include <initializer_list>
#include <mutex>
#include <sstream>
#include <string>
#include <utility>

namespace Korvex::luaknxdownloadhandler {

namespace {

using Args = ovslua::Lua::Args;
using Arg = ovslua::Lua::Args::Arg;

/// The wrapper state a table query works on, lent by the bridge.
struct Interpreter {
  lua_State* const& state;
  std::mutex& mutex;
  int& status;
  std::string& message;
  const char*& query;  // the function whose result the readers read, for their warnings
};

// Names the running query for the readers' warnings, and no longer after it.
class QueryName {
 public:
  QueryName(const char*& slot, const char* name) : m_slot(slot) { m_slot = name; }
  ~QueryName() { m_slot = ""; }
  QueryName(const QueryName&) = delete;
  QueryName& operator=(const QueryName&) = delete;

 private:
  const char*& m_slot;
};

// The status text is streamed as a const char*: when it is null the stream
// stops accepting output and the line ends after "failed (".
std::string FailureLine(const std::string& head, int status, const std::string& message) {
  std::ostringstream line;
  line << head << ovslua::Lua::GetErrorAsText(status) << ":" << message << ").";
  return line.str();
}

/// The call protocol of the table queries: the global function name with at
/// most one integer argument, one result read by read() under the mutex.
template <typename Result, typename Push, typename Run, typename Read, typename SetError>
Result CallTableFunction(Interpreter wrapper, const std::string& name,
                         std::initializer_list<std::uint32_t> arguments, Result failure,
                         Push&& pushGlobalFunction, Run&& protectedCall, Read&& read,
                         SetError&& setErrorMessage) {
  std::lock_guard<std::mutex> lock(wrapper.mutex);
  wrapper.status = LUA_OK;
  wrapper.message.clear();
  lua_State* state = wrapper.state;
  if (state == nullptr) {
    LOG4CPLUS_ERROR(ovslua::Lua::sm_logger, "Initialization missing.");
    return failure;
  }
  // Declared after the lock, so the stack is restored before the mutex is free.
  lux::StackHeightGuard guard(state);
  lux::EnsureStack(state, static_cast<int>(arguments.size()) + 3);
  // A metatable on _G runs script code: such a lookup runs inside the protected call.
  const int extra = pushGlobalFunction(name.c_str());
  for (const std::uint32_t argument : arguments) {
    lua_pushinteger(state, static_cast<lua_Integer>(argument));
  }
  wrapper.status = protectedCall(static_cast<int>(arguments.size()) + extra, 1, name.c_str());
  if (wrapper.status == LUA_OK) {
    QueryName query(wrapper.query, name.c_str());
    Result result = read();
    lua_settop(state, -2);
    return result;
  }
  setErrorMessage();
  LOG4CPLUS_ERROR_STR(ovslua::Lua::sm_logger, FailureLine("Call function '" + name + "' failed (",
                                                          wrapper.status, wrapper.message));
  return failure;
}

Args UnsignedArgs(std::initializer_list<std::uint32_t> values) {
  Args args;
  for (const std::uint32_t value : values) {
    unsigned int argument = value;
    args += argument;
  }
  return args;
}

}  // namespace

LuxHelper::~LuxHelper() { Release(); }

template <typename Result, typename Read>
Result LuxHelper::CallTable(const char* name, std::initializer_list<std::uint32_t> arguments,
                            Result failure, Read&& read) {
  return CallTableFunction(
      Interpreter{m_luaState, m_mutex, m_status, m_errorMessage, m_query}, name, arguments,
      std::move(failure), [this](const char* function) { return PushGlobalFunction(function); },
      [this](int argumentCount, int resultCount, const char* function) {
        return ProtectedCall(argumentCount, resultCount, function);
      },
      std::forward<Read>(read), [this] { SetErrorMessage(); });
}

template <typename Read>
bool LuxHelper::CallOneResult(const char* name, std::initializer_list<std::uint32_t> arguments,
                              Read&& read) {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_status = LUA_OK;
  m_errorMessage.clear();
  if (m_luaState == nullptr) {
    LOG4CPLUS_ERROR(sm_logger, "Initialization missing.");
    return false;
  }
  lux::StackHeightGuard guard(m_luaState);
  // The lookup, the name and the arguments must fit on the stack, as Call() checks.
  const std::size_t argumentCount = arguments.size();
  if (lua_checkstack(m_luaState, static_cast<int>(argumentCount) + 3) == 0) {
    m_status = LUA_ERRRUN;
    m_errorMessage = "stack overflow (" + std::to_string(argumentCount) + " arguments, 1 results)";
  } else {
    const int extra = PushGlobalFunction(name);
    // Unsigned arguments as Call() pushes them; 32 bits never reach its clamp.
    for (const std::uint32_t argument : arguments) {
      lua_pushinteger(m_luaState, static_cast<lua_Integer>(argument));
    }
    m_status = ProtectedCall(static_cast<int>(argumentCount) + extra, 1, name);
    if (m_status == LUA_OK) {
      read();
      return true;
    }
    SetErrorMessage();
  }
  LOG4CPLUS_ERROR_STR(sm_logger, FailureLine(std::string("Call function '") + name + "' failed (",
                                             m_status, m_errorMessage));
  return false;
}

namespace {

// A string result as Call() reads one: a number as its text, a text with a NUL
// byte (warned about) and any other type as the empty text.
std::string StringResult(lua_State* state, const char* name) {
  std::string text;
  const int type = lua_type(state, -1);
  if (type == LUA_TSTRING) {
    std::size_t length = 0;
    const char* data = lua_tolstring(state, -1, &length);
    if (std::memchr(data, '\0', length) == nullptr) {
      text.assign(data, length);
    } else {
      LOG4CPLUS_WARN(ovslua::Lua::sm_logger,
                     "Script function '" << name
                                         << "' returned a text with a NUL byte as result 1; it "
                                            "is read as a value of the wrong type.");
    }
  } else if (type == LUA_TNUMBER && lua_checkstack(state, 1) != 0) {
    // Converted on a copy, so the value on the stack keeps its type.
    lua_pushvalue(state, -1);
    std::size_t length = 0;
    const char* data = lua_tolstring(state, -1, &length);
    text.assign(data, length);
    lua_pop(state, 1);
  }
  return text;
}

}  // namespace

boost::optional<std::string> LuxHelper::StringQuery(
    const char* name, std::initializer_list<std::uint32_t> arguments) {
  std::string text;
  if (!CallOneResult(name, arguments, [&] { text = StringResult(m_luaState, name); })) {
    return boost::none;
  }
  return text;
}

void LuxHelper::SetLimits(std::uint64_t maxInstructions, std::size_t maxMemory) {
  SetInstructionLimit(maxInstructions);
  SetMemoryLimit(maxMemory);
}

bool LuxHelper::Load(const std::string& scriptPath) {
  // A failed Initialize shows as "Initialization missing." from the load.
  Initialize();
  // A failed load keeps the interpreter: what the script defined before it
  // failed still answers, everything else fails as a missing function.
  m_loaded = ovslua::Lua::Load(scriptPath);
  return m_loaded;
}

bool LuxHelper::IsThereUrnsByPropertyIndex(std::uint32_t typeId) {
  bool result = false;
  CallOneResult("IsThereUrnsByPropertyIndex", {typeId},
                [&] { result = lua_toboolean(m_luaState, -1) != 0; });
  return result;
}

PropertyInfo LuxHelper::GetPropertyIndexForUrns(std::uint32_t typeId) {
  return CallTable("GetPropertyIndexForUrns", {typeId}, PropertyInfo{},
                   [this] { return FillProperty(); });
}

boost::optional<std::string> LuxHelper::GetFunctionUrnByTypeId(std::uint32_t typeId) {
  return StringQuery("GetFunctionUrnByTypeId", {typeId});
}

boost::optional<std::string> LuxHelper::GetChannelUrnByTypeId(std::uint32_t typeId) {
  return StringQuery("GetChannelUrnByTypeId", {typeId});
}

boost::optional<std::string> LuxHelper::GetFunctionUrnByTypeIdAndPropertyIndex(
    std::uint32_t typeId, std::uint32_t propertyIndex) {
  return StringQuery("GetFunctionUrnByTypeIdAndPropertyIndex", {typeId, propertyIndex});
}

boost::optional<std::string> LuxHelper::GetChannelUrnByTypeIdAndPropertyIndex(
    std::uint32_t typeId, std::uint32_t propertyIndex) {
  return StringQuery("GetChannelUrnByTypeIdAndPropertyIndex", {typeId, propertyIndex});
}

boost::optional<std::string> LuxHelper::GetLuaTemplateIndexByTypeIdAndPropertyIndex(
    std::uint32_t typeId, std::uint32_t propertyIndex) {
  return StringQuery("GetLuaTemplateIndexByTypeIdAndPropertyIndex", {typeId, propertyIndex});
}

std::vector<LuaParameter> LuxHelper::GetParametersFromChannelTypeId(std::uint32_t channelTypeId) {
  return CallTable("GetParametersFromChannelTypeId", {channelTypeId}, std::vector<LuaParameter>{},
                   [this] { return GetLuaParameters(); });
}

std::map<std::string, PropertyInfo> LuxHelper::GetPropertyIds() {
  return CallTable("GetPropertyIds", {}, std::map<std::string, PropertyInfo>{},
                   [this] { return InGetPropertyIds(); });
}

std::vector<LuxStaticData> LuxHelper::GetStaticData() {
  return CallTable("GetStaticData", {}, std::vector<LuxStaticData>{},
                   [this] { return InGetStaticData(); });
}

bool LuxHelper::CallShowIfFunction(std::int32_t refId, ovslua::Lua::Args& args) {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_status = LUA_OK;
  m_errorMessage.clear();
  if (m_luaState == nullptr) {
    LOG4CPLUS_ERROR(sm_logger, "Initialization missing.");
    return false;
  }
  lux::StackHeightGuard guard(m_luaState);
  // Built only for a failure: a ShowIf function runs once per shown slot.
  const auto head = [refId] {
    return "Call function with ref id'" + std::to_string(refId) + "' failed (";
  };
  const std::size_t count = args.Count();
  // The function and every argument need a stack slot; the script decides how many.
  if (count >= static_cast<std::size_t>(INT_MAX) ||
      lua_checkstack(m_luaState, static_cast<int>(count) + 1) == 0) {
    m_status = LUA_ERRRUN;
    m_errorMessage = "stack overflow (" + std::to_string(count) + " arguments)";
    LOG4CPLUS_ERROR_STR(sm_logger, FailureLine(head(), m_status, m_errorMessage));
    return false;
  }
  lua_rawgeti(m_luaState, LUA_REGISTRYINDEX, refId);
  PushArguments(args);
  m_status = ProtectedCall(static_cast<int>(count), 1, nullptr, refId);
  if (m_status == LUA_OK) {
    // Read as a declared boolean result would be, without a result list per call.
    return lua_toboolean(m_luaState, -1) != 0;
  }
  SetErrorMessage();
  LOG4CPLUS_ERROR_STR(sm_logger, FailureLine(head(), m_status, m_errorMessage));
  return false;
}

bool LuxHelper::HandleDcsType(std::uint32_t dcsType) {
  Args results;
  return Call("HandleDcsType", UnsignedArgs({dcsType}), results);
}

}  // namespace Korvex::luaknxdownloadhandler
