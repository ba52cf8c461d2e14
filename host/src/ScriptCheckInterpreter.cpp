// The interpreter under the check's limits (instructions, memory, no exit), and the
// helpers that call into it and read values and tables off its stack.
#include "ScriptCheckInternal.h"

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <iostream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace lkdh::host::detail {

namespace {

Budget* BudgetOf(lua_State* state) { return *static_cast<Budget**>(lua_getextraspace(state)); }

void* LimitedAllocate(void* data, void* block, std::size_t oldSize, std::size_t newSize) {
  auto* budget = static_cast<Budget*>(data);
  // Without a block, oldSize tells the kind of object, not a size.
  const std::size_t held = block != nullptr ? oldSize : 0;
  const std::size_t room = kScriptMemoryLimit - std::min(budget->used, kScriptMemoryLimit);
  if (newSize > held && newSize - held > room) {
    budget->memoryExceeded = true;
    return nullptr;
  }
  void* result = budget->allocate(budget->allocateData, block, oldSize, newSize);
  if (result != nullptr || newSize == 0) {
    // Blocks from before the budget was installed are not counted; never below 0.
    budget->used = budget->used - std::min(held, budget->used) + newSize;
  }
  return result;
}

// Stops a call that has run too long. Every instruction after this fails too,
// so a script that catches the error cannot run on.
void StopLongCall(lua_State* state, lua_Debug* debug) {
  if (Budget* budget = BudgetOf(state)) budget->callExpired = true;
  lua_sethook(state, &StopLongCall, LUA_MASKCOUNT, 1);
  if (lua_getinfo(state, "Sl", debug) != 0 && debug->currentline > 0 && debug->source[0] == '@') {
    lua_pushfstring(state, "%s:%d: stopped after %d instructions", debug->source + 1,
                    debug->currentline, kInstructionLimit);
  } else {
    lua_pushfstring(state, "stopped after %d instructions", kInstructionLimit);
  }
  lua_error(state);
}

// The script's print output would mix with the findings; it goes to stderr.
int PrintToStandardError(lua_State* state) {
  const int count = lua_gettop(state);
  for (int i = 1; i <= count; ++i) {
    std::size_t length = 0;
    const char* text = luaL_tolstring(state, i, &length);
    if (i > 1) std::cerr << '\t';
    std::cerr.write(text, static_cast<std::streamsize>(length));
    lua_pop(state, 1);
  }
  std::cerr << '\n';
  return 0;
}

int RefuseExit(lua_State* state) {
  return luaL_error(state, "os.exit would end the device's host process");
}

// Numbers (integers first) in ascending order, then strings byte-wise: lua_next's
// order of a hash part changes from run to run, the findings must not.
bool KeyBefore(const Key& a, const Key& b) {
  const auto rank = [](const Key& key) {
    if (key.type == LUA_TNUMBER) return key.isInteger ? 0 : 1;
    return key.type == LUA_TSTRING ? 2 : 3;
  };
  if (rank(a) != rank(b)) return rank(a) < rank(b);
  if (a.type == LUA_TNUMBER) return a.isInteger ? a.integer < b.integer : a.number < b.number;
  return a.text < b.text;
}

}  // namespace

// --- Set-up ----------------------------------------------------------------------

bool Checker::Start() {
  if (!m_lua.Initialize() || m_lua.State() == nullptr) {
    throw std::runtime_error("cannot create the Lua interpreter");
  }
  m_state = m_lua.State();
  *static_cast<Budget**>(lua_getextraspace(m_state)) = &m_budget;
  m_budget.allocate = lua_getallocf(m_state, &m_budget.allocateData);
  lua_setallocf(m_state, &LimitedAllocate, &m_budget);

  lua_pushcfunction(m_state, &PrintToStandardError);
  lua_setglobal(m_state, "print");
  if (lua_getglobal(m_state, "os") == LUA_TTABLE) {
    lua_pushcfunction(m_state, &RefuseExit);
    lua_setfield(m_state, -2, "exit");
  }
  lua_pop(m_state, 1);

  // The top level runs under the same limits as every later call.
  m_budget.callExpired = false;
  lua_sethook(m_state, &StopLongCall, LUA_MASKCOUNT, kInstructionLimit);
  const bool loaded = m_lua.Load(m_input.scriptPath);
  lua_sethook(m_state, nullptr, 0, 0);
  if (loaded) return true;

  CallResult failure;
  failure.status = m_budget.callExpired      ? CallResult::Status::TooLong
                   : m_budget.memoryExceeded ? CallResult::Status::NoMemory
                                             : CallResult::Status::Error;
  SplitPlace(m_lua.ErrorMessage(), failure);
  Context context;
  context.place = failure.place.file.empty() ? Place{m_input.scriptPath, 0} : failure.place;
  if (failure.status == CallResult::Status::TooLong) {
    Report(Severity::Error, context,
           "the script's top level runs for more than " + std::to_string(kInstructionLimit) +
               " Lua instructions and was stopped (an endless loop?)");
  } else {
    Report(Severity::Error, context, "the script does not load: " + failure.message);
  }
  return false;
}

// "file:12: text": the place, and the text without it. Lua shortens long
// file names to "...tail"; such a name is taken as the script when it fits.
void Checker::SplitPlace(const std::string& message, CallResult& result) const {
  result.message = message;
  for (std::size_t colon = message.find(':'); colon != std::string::npos;
       colon = message.find(':', colon + 1)) {
    if (colon == 0) continue;
    std::size_t end = colon + 1;
    while (end < message.size() && std::isdigit(static_cast<unsigned char>(message[end]))) {
      ++end;
    }
    const std::size_t digits = end - colon - 1;
    if (digits == 0 || digits > 9 || end + 1 >= message.size() || message[end] != ':' ||
        message[end + 1] != ' ') {
      continue;
    }
    std::string file = message.substr(0, colon);
    const std::string& script = m_input.scriptPath;
    if (file.rfind("...", 0) == 0 && file.size() > 3 && script.size() >= file.size() - 3 &&
        script.compare(script.size() - (file.size() - 3), file.size() - 3, file, 3) == 0) {
      file = script;
    }
    result.place.file = file;
    result.place.line = std::stoi(message.substr(colon + 1, digits));
    result.message = message.substr(end + 2);
    return;
  }
}

// --- Interpreter helpers ---------------------------------------------------------

void Checker::EnsureStack(int slots) const {
  if (lua_checkstack(m_state, slots) == 0) {
    throw std::runtime_error("the Lua stack cannot grow by " + std::to_string(slots) + " slots");
  }
}

// The value as Lua writes it, converted on a copy so that the value keeps its type.
std::string Checker::TextOf(int index) const {
  EnsureStack(1);
  lua_pushvalue(m_state, index);
  std::size_t length = 0;
  const char* text = lua_tolstring(m_state, -1, &length);
  std::string result = text != nullptr ? std::string(text, length) : std::string();
  lua_pop(m_state, 1);
  return result;
}

std::string Checker::Describe(int index) const {
  const int type = lua_type(m_state, index);
  switch (type) {
    case LUA_TNIL:
      return "nil";
    case LUA_TBOOLEAN:
      return lua_toboolean(m_state, index) != 0 ? "a boolean (true)" : "a boolean (false)";
    case LUA_TNUMBER:
      return (lua_isinteger(m_state, index) != 0 ? "an integer (" : "a float (") + TextOf(index) +
             ")";
    case LUA_TSTRING: {
      std::string text = TextOf(index);
      if (text.size() > 40) text = text.substr(0, 37) + "...";
      return "a string ('" + text + "')";
    }
    default:
      return std::string("a ") + lua_typename(m_state, type);
  }
}

// "PropertyId 5.0 is a float" or "PropertyId is a string ('5')".
std::string Checker::NotInteger(const std::string& field, int index) const {
  if (lua_type(m_state, index) == LUA_TNUMBER) {
    return field + " " + TextOf(index) + " is a float";
  }
  return field + " is " + Describe(index);
}

bool Checker::IsText(int index) const {
  const int type = lua_type(m_state, index);
  return type == LUA_TSTRING || type == LUA_TNUMBER;
}

Place Checker::DefinitionOf(int index) const {
  EnsureStack(1);
  lua_pushvalue(m_state, index);
  lua_Debug debug{};
  Place place;
  if (lua_getinfo(m_state, ">S", &debug) != 0 && debug.source != nullptr &&
      debug.source[0] == '@' && debug.linedefined > 0) {
    place.file = debug.source + 1;
    place.line = debug.linedefined;
  }
  return place;
}

// Raw, so that a metatable on the globals runs no script code here.
int Checker::PushGlobal(const char* name) const {
  EnsureStack(2);
  lua_rawgeti(m_state, LUA_REGISTRYINDEX, LUA_RIDX_GLOBALS);
  lua_pushstring(m_state, name);
  lua_rawget(m_state, -2);
  lua_remove(m_state, -2);
  return lua_type(m_state, -1);
}

// Calls the function below its arguments, protected and under the limits.
// Leaves the results on the stack on success, nothing otherwise.
CallResult Checker::ProtectedCall(int arguments, int results) {
  m_budget.callExpired = false;
  m_budget.memoryExceeded = false;
  lua_sethook(m_state, &StopLongCall, LUA_MASKCOUNT, kInstructionLimit);
  const int status = lua_pcall(m_state, arguments, results, 0);
  lua_sethook(m_state, nullptr, 0, 0);
  CallResult result;
  if (status == LUA_OK) return result;
  std::string message;
  const int type = lua_type(m_state, -1);
  if (type == LUA_TSTRING || type == LUA_TNUMBER) {
    message = TextOf(-1);
  } else {
    message = std::string("(error object is a ") + lua_typename(m_state, type) + " value)";
  }
  lua_pop(m_state, 1);
  if (m_budget.callExpired) {
    result.status = CallResult::Status::TooLong;
  } else if (status == LUA_ERRMEM || m_budget.memoryExceeded) {
    result.status = CallResult::Status::NoMemory;
  } else {
    result.status = CallResult::Status::Error;
  }
  SplitPlace(message, result);
  return result;
}

CallResult Checker::CallGlobal(const char* name, const std::vector<std::int64_t>& arguments,
                               int results) {
  EnsureStack(static_cast<int>(arguments.size()) + 2);
  PushGlobal(name);
  for (const std::int64_t argument : arguments) {
    lua_pushinteger(m_state, static_cast<lua_Integer>(argument));
  }
  return ProtectedCall(static_cast<int>(arguments.size()), results);
}

std::vector<Key> Checker::Keys(int table) const {
  table = lua_absindex(m_state, table);
  EnsureStack(3);
  std::vector<Key> keys;
  lua_pushnil(m_state);
  while (lua_next(m_state, table) != 0) {
    Key key;
    key.type = lua_type(m_state, -2);
    if (key.type == LUA_TSTRING) {
      std::size_t length = 0;
      const char* text = lua_tolstring(m_state, -2, &length);
      key.text.assign(text, length);
    } else if (key.type == LUA_TNUMBER) {
      key.isInteger = lua_isinteger(m_state, -2) != 0;
      key.integer = key.isInteger ? lua_tointeger(m_state, -2) : 0;
      key.number = lua_tonumber(m_state, -2);
      key.text = TextOf(-2);
    } else {
      key.text = lua_typename(m_state, key.type);
    }
    keys.push_back(std::move(key));
    lua_pop(m_state, 1);
  }
  std::sort(keys.begin(), keys.end(), KeyBefore);
  return keys;
}

// Pushes table[key] (raw) for a string or number key.
void Checker::PushField(int table, const Key& key) const {
  table = lua_absindex(m_state, table);
  EnsureStack(2);
  if (key.type == LUA_TSTRING) {
    lua_pushlstring(m_state, key.text.data(), key.text.size());
    lua_rawget(m_state, table);
  } else if (key.isInteger) {
    lua_rawgeti(m_state, table, key.integer);
  } else {
    lua_pushnumber(m_state, key.number);
    lua_rawget(m_state, table);
  }
}

}  // namespace lkdh::host::detail
