#include <LuaKnxDownloadHandler/LuxHelper.h>
#include <LuaKnxDownloadHandler/ScriptFunctions.h>

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

template <typename Result, typename Run, typename Take, typename Head>
Result LuxHelper::CallProtected(Result failure, Run&& run, Take&& take, Head&& head) {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_status = LUA_OK;
  m_errorMessage.clear();
  if (m_luaState == nullptr) {
    LOG4CPLUS_ERROR(sm_logger, "Initialization missing.");
    return failure;
  }
  // Declared after the lock, so the stack is restored before the mutex is free.
  lux::StackHeightGuard guard(m_luaState);
  m_status = run();
  if (m_status == LUA_OK) return take();
  // A call that could not start has said why; otherwise the error object says.
  if (m_errorMessage.empty()) SetErrorMessage();
  LOG4CPLUS_ERROR_STR(sm_logger, FailureLine(head(), m_status, m_errorMessage));
  return failure;
}

int LuxHelper::RunGlobal(const char* name, std::initializer_list<std::uint32_t> arguments) {
  // A metatable on _G runs script code: such a lookup runs inside the protected call.
  const int extra = PushGlobalFunction(name);
  // Unsigned arguments as Call() pushes them; 32 bits never reach its clamp.
  for (const std::uint32_t argument : arguments) {
    lua_pushinteger(m_luaState, static_cast<lua_Integer>(argument));
  }
  return ProtectedCall(static_cast<int>(arguments.size()) + extra, 1, name);
}

template <typename Result, typename Read>
Result LuxHelper::CallTable(const char* name, std::initializer_list<std::uint32_t> arguments,
                            Result failure, Read&& read) {
  const auto argumentCount = static_cast<int>(arguments.size());
  return CallProtected(
      std::move(failure),
      [this, name, arguments, argumentCount] {
        lux::EnsureStack(m_luaState, argumentCount + 3);
        return RunGlobal(name, arguments);
      },
      [this, name, &read] {
        QueryName query(m_query, name);
        Result result = read();
        lua_settop(m_luaState, -2);
        return result;
      },
      [name] { return std::string("Call function '") + name + "' failed ("; });
}

template <typename Read>
bool LuxHelper::CallOneResult(const char* name, std::initializer_list<std::uint32_t> arguments,
                              Read&& read) {
  const std::size_t argumentCount = arguments.size();
  return CallProtected(
      false,
      [this, name, arguments, argumentCount] {
        // The lookup, the name and the arguments must fit on the stack, as Call() checks.
        if (lua_checkstack(m_luaState, static_cast<int>(argumentCount) + 3) == 0) {
          m_errorMessage =
              "stack overflow (" + std::to_string(argumentCount) + " arguments, 1 results)";
          return LUA_ERRRUN;
        }
        return RunGlobal(name, arguments);
      },
      [&read] {
        read();
        return true;
      },
      [name] { return std::string("Call function '") + name + "' failed ("; });
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
  CallOneResult(script::kIsThereUrns, {typeId},
                [&] { result = lua_toboolean(m_luaState, -1) != 0; });
  return result;
}

PropertyInfo LuxHelper::GetPropertyIndexForUrns(std::uint32_t typeId) {
  return CallTable(script::kGetPropertyIndexForUrns, {typeId}, PropertyInfo{}, [this, typeId] {
    if (m_diagnostics != nullptr) {
      TellNumericKey("a property table", kUrnSelectorSubject, std::to_string(typeId));
    }
    const std::size_t mark = NoteMark();
    const PropertyInfo info = FillProperty();
    if (m_diagnostics != nullptr) {
      ReportNotes(mark, kUrnSelectorSubject, std::to_string(typeId));
    }
    return info;
  });
}

boost::optional<std::string> LuxHelper::GetFunctionUrnByTypeId(std::uint32_t typeId) {
  return StringQuery(script::kFunctionUrn, {typeId});
}

boost::optional<std::string> LuxHelper::GetChannelUrnByTypeId(std::uint32_t typeId) {
  return StringQuery(script::kChannelUrn, {typeId});
}

boost::optional<std::string> LuxHelper::GetFunctionUrnByTypeIdAndPropertyIndex(
    std::uint32_t typeId, std::uint32_t propertyIndex) {
  return StringQuery(script::kFunctionUrnBySelector, {typeId, propertyIndex});
}

boost::optional<std::string> LuxHelper::GetChannelUrnByTypeIdAndPropertyIndex(
    std::uint32_t typeId, std::uint32_t propertyIndex) {
  return StringQuery(script::kChannelUrnBySelector, {typeId, propertyIndex});
}

boost::optional<std::string> LuxHelper::GetLuaTemplateIndexByTypeIdAndPropertyIndex(
    std::uint32_t typeId, std::uint32_t propertyIndex) {
  return StringQuery(script::kTemplateIndex, {typeId, propertyIndex});
}

std::vector<LuaParameter> LuxHelper::GetParametersFromChannelTypeId(std::uint32_t channelTypeId) {
  return CallTable(script::kGetParameters, {channelTypeId}, std::vector<LuaParameter>{},
                   [this] { return GetLuaParameters(); });
}

std::map<std::string, PropertyInfo> LuxHelper::GetPropertyIds() {
  return CallTable(script::kGetPropertyIds, {}, std::map<std::string, PropertyInfo>{},
                   [this] { return InGetPropertyIds(); });
}

std::vector<LuxStaticData> LuxHelper::GetStaticData() {
  return CallTable(script::kGetStaticData, {}, std::vector<LuxStaticData>{},
                   [this] { return InGetStaticData(); });
}

bool LuxHelper::CallShowIfFunction(std::int32_t refId, ovslua::Lua::Args& args) {
  const std::size_t count = args.Count();
  return CallProtected(
      false,
      [this, refId, &args, count] {
        // The function and every argument need a stack slot; the script decides how many.
        if (count >= static_cast<std::size_t>(INT_MAX) ||
            lua_checkstack(m_luaState, static_cast<int>(count) + 1) == 0) {
          m_errorMessage = "stack overflow (" + std::to_string(count) + " arguments)";
          return LUA_ERRRUN;
        }
        lua_rawgeti(m_luaState, LUA_REGISTRYINDEX, refId);
        PushArguments(args);
        return ProtectedCall(static_cast<int>(count), 1, nullptr, refId);
      },
      // Read as a declared boolean result would be, without a result list per call.
      [this] { return lua_toboolean(m_luaState, -1) != 0; },
      // Built only for a failure: a ShowIf function runs once per shown slot.
      [refId] { return "Call function with ref id'" + std::to_string(refId) + "' failed ("; });
}

// Set by the download between its queries, never while one runs.
void LuxHelper::SetDiagnostics(Diagnostics* diagnostics) {
  m_diagnostics = diagnostics;
  // What a reader left behind when it threw belongs to no record.
  m_notes.clear();
  m_recordPath.clear();
}

bool LuxHelper::LastCallFailed() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_luaState == nullptr || m_status != LUA_OK;
}

bool LuxHelper::HandleDcsType(std::uint32_t dcsType) {
  Args results;
  return Call(script::kHandleDcsType, UnsignedArgs({dcsType}), results);
}

}  // namespace Korvex::luaknxdownloadhandler
