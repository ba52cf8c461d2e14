#include <LuaKnxDownloadHandler/Diagnostics.h>

#include <log4cplus/loggingmacros.h>

#include <lua.hpp>

#include <algorithm>
#include <utility>

namespace Korvex::luaknxdownloadhandler {

std::string DescribeLuaValue(lua_State* state, int index) {
  const int type = lua_type(state, index);
  if (type == LUA_TNIL) return "nil";
  if (type == LUA_TBOOLEAN) {
    return lua_toboolean(state, index) != 0 ? "a boolean (true)" : "a boolean (false)";
  }
  if (type == LUA_TSTRING) {
    std::size_t length = 0;
    const char* data = lua_tolstring(state, index, &length);
    // Long texts keep their start; a NUL byte would end the line that shows it.
    std::string text = length > 40 ? std::string(data, 37) + "..." : std::string(data, length);
    std::replace(text.begin(), text.end(), '\0', ' ');
    return "a string ('" + text + "')";
  }
  if (type != LUA_TNUMBER || lua_checkstack(state, 1) == 0) {
    return std::string("a ") + lua_typename(state, type);
  }
  lua_pushvalue(state, index);
  std::string text = lua_isinteger(state, -1) != 0 ? "an integer (" : "a float (";
  text.append(lua_tostring(state, -1)).append(")");
  lua_pop(state, 1);
  return text;
}

LogDiagnostics::LogDiagnostics(const log4cplus::Logger& logger, std::string slot)
    : m_logger(logger), m_slot(std::move(slot)) {}

void LogDiagnostics::Enter(std::string_view slot) { m_slot.assign(slot.data(), slot.size()); }

void LogDiagnostics::Report(const Skip& skip) {
  std::string line = m_slot;
  line += ", ";
  line.append(skip.subject.data(), skip.subject.size());
  line += " '";
  line.append(skip.key.data(), skip.key.size());
  line += "': ";
  line += SkipReasonText(skip.reason);
  line += ": ";
  line.append(skip.detail.data(), skip.detail.size());
  LOG4CPLUS_TRACE_STR(m_logger, line);
}

}  // namespace Korvex::luaknxdownloadhandler
