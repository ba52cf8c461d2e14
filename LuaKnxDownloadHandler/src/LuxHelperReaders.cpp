// The table readers of the script bridge: each reads the table at the top of
// the interpreter's stack, leaves it there and never takes the mutex.

#include <LuaKnxDownloadHandler/LuxHelper.h>

#include "LuxHelperStack.h"

#include <log4cplus/loggingmacros.h>

#include <lua.hpp>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

namespace Korvex::luaknxdownloadhandler {

namespace {

// Static data nests through SubData by recursion; this bounds the C stack it
// may use (about 4 Lua slots and two C++ frames per level).
constexpr int kMaxStaticDataDepth = 1000;

// Counted by the bridge, whose mutex the reader holds.
class StaticDataDepth {
 public:
  explicit StaticDataDepth(int& depth) : m_depth(depth) {
    if (m_depth >= kMaxStaticDataDepth) {
      throw std::runtime_error("Static data of the script is nested deeper than " +
                               std::to_string(kMaxStaticDataDepth) + " levels.");
    }
    ++m_depth;
  }
  ~StaticDataDepth() { --m_depth; }
  StaticDataDepth(const StaticDataDepth&) = delete;
  StaticDataDepth& operator=(const StaticDataDepth&) = delete;

 private:
  int& m_depth;
};

// The text with its NUL bytes shown as \0, for a log line.
std::string Printable(std::string_view text) {
  std::string shown;
  for (const char c : text) {
    if (c == '\0') {
      shown += "\\0";
    } else {
      shown += c;
    }
  }
  return shown;
}

bool HasNul(std::string_view text) { return text.find('\0') != std::string_view::npos; }

void WarnNul(const char* query, const std::string& what, std::string_view text) {
  LOG4CPLUS_WARN(ovslua::Lua::sm_logger, "Script function '"
                                             << query << "' gave a text with a NUL byte for "
                                             << what << ": '" << Printable(text)
                                             << "'; it is read as a value of the wrong type.");
}

// The low 32 bits of a Lua integer, as the unsigned value.
std::uint32_t Low32(lua_Integer value) {
  return static_cast<std::uint32_t>(static_cast<lua_Unsigned>(value));
}

// The value at the top as text when it is one (lua_isstring); false for a text
// with a NUL byte, which is read as a value of the wrong type and warned about.
bool TextValue(lua_State* state, std::string& text, const char* query, const char* what) {
  if (lua_isstring(state, -1) == 0) return false;
  std::size_t length = 0;
  const char* data = lua_tolstring(state, -1, &length);
  // XML cannot carry a NUL byte; cutting the text there would change its meaning unseen.
  if (std::memchr(data, '\0', length) != nullptr) {
    WarnNul(query, std::string("'") + what + "'", std::string_view(data, length));
    return false;
  }
  text = std::string(data, length);
  return true;
}

}  // namespace

PropertyInfo LuxHelper::FillProperty() const {
  PropertyInfo info;
  lua_State* state = m_luaState;
  if (!lux::TableOnTop(state)) return info;
  lux::EnsureStack(state, 2);
  lua_pushnil(state);
  while (lua_next(state, -2) != 0) {
    std::string_view key;
    if (lux::KeyAsText(state, key) && lua_isinteger(state, -1) != 0) {
      if (key == "PropertyId") {
        // Property ids are one octet: 300 is deliberately read as 44.
        info.PropertyId = Low32(lua_tointeger(state, -1)) & 0xFFU;
      } else if (key == "InterfaceObjectId") {
        info.InterfaceObjectId = Low32(lua_tointeger(state, -1));
      }
    }
    lua_pop(state, 1);
  }
  return info;
}

std::map<std::string, PropertyInfo> LuxHelper::InGetPropertyIds() const {
  std::map<std::string, PropertyInfo> propertyIds;
  lua_State* state = m_luaState;
  if (!lux::TableOnTop(state)) return propertyIds;
  lux::EnsureStack(state, 2);
  lua_pushnil(state);
  while (lua_next(state, -2) != 0) {
    std::string_view key;
    if (lux::KeyAsText(state, key) && lua_type(state, -1) == LUA_TTABLE) {
      if (HasNul(key)) {
        WarnNul(m_query, "a setting name", key);
      } else {
        std::string name(key);
        // emplace keeps the first entry under a name.
        propertyIds.emplace(std::move(name), FillProperty());
      }
    }
    lua_pop(state, 1);
  }
  return propertyIds;
}

std::vector<LuaParameter> LuxHelper::GetLuaParameters() {
  std::vector<LuaParameter> parameters;
  lua_State* state = m_luaState;
  if (!lux::TableOnTop(state)) return parameters;
  lux::EnsureStack(state, 2);
  lua_pushnil(state);
  // The list's keys are never read, so a Lua sequence serves.
  while (lua_next(state, -2) != 0) {
    if (lua_type(state, -1) == LUA_TTABLE) FillLuaParameter(parameters);
    lua_pop(state, 1);
  }
  std::sort(
      parameters.begin(), parameters.end(),
      [](const LuaParameter& left, const LuaParameter& right) { return left.key < right.key; });
  return parameters;
}

void LuxHelper::FillLuaParameter(std::vector<LuaParameter>& parameters) {
  LuaParameter parameter;
  lua_State* state = m_luaState;
  if (lux::TableOnTop(state)) {
    lux::EnsureStack(state, 2);
    lua_pushnil(state);
    while (lua_next(state, -2) != 0) {
      std::string_view key;
      if (lux::KeyAsText(state, key)) {
        const int type = lua_type(state, -1);
        if (key == "Key") {
          TextValue(state, parameter.key, m_query, "Key");
        } else if (key == "Type") {
          TextValue(state, parameter.type, m_query, "Type");
        } else if (key == "Property") {
          if (type == LUA_TTABLE) parameter.property = FillProperty();
        } else if (key == "Digits") {
          if (lua_isinteger(state, -1) != 0) {
            parameter.digits = static_cast<std::int32_t>(Low32(lua_tointeger(state, -1)));
          }
        } else if (key == "ShowIf") {
          if (type == LUA_TTABLE) parameter.showIf = FillLuaParameterShowIf();
        }
      }
      lua_pop(state, 1);
    }
  }
  parameters.push_back(std::move(parameter));
}

LuaParameterShowIf LuxHelper::FillLuaParameterShowIf() const {
  LuaParameterShowIf showIf;
  lua_State* state = m_luaState;
  if (!lux::TableOnTop(state)) return showIf;
  // Key, value and the copy of a function that luaL_ref consumes.
  lux::EnsureStack(state, 3);
  lua_pushnil(state);
  while (lua_next(state, -2) != 0) {
    std::string_view key;
    if (lux::KeyAsText(state, key)) {
      const int type = lua_type(state, -1);
      if (key == "PropertyIds") {
        if (type == LUA_TTABLE) FillLuaParameterShowIfPropertyIds(showIf.propertyIds);
      } else if (key == "Function") {
        if (type == LUA_TFUNCTION) {
          // Never released: the builder calls it after this query returned.
          lua_pushvalue(state, -1);
          showIf.functionRef = luaL_ref(state, LUA_REGISTRYINDEX);
        }
      }
    }
    lua_pop(state, 1);
  }
  return showIf;
}

void LuxHelper::FillLuaParameterShowIfPropertyIds(
    std::vector<LuaParameterShowIfPropertyIds>& propertyIds) const {
  lua_State* state = m_luaState;
  if (!lux::TableOnTop(state)) return;
  lux::EnsureStack(state, 4);
  lua_pushnil(state);
  // The list's keys are never read; each element is a table with "Id" and "Type".
  while (lua_next(state, -2) != 0) {
    if (lua_type(state, -1) == LUA_TTABLE) {
      LuaParameterShowIfPropertyIds entry;
      lua_pushnil(state);
      while (lua_next(state, -2) != 0) {
        std::string_view key;
        if (lux::KeyAsText(state, key)) {
          if (key == "Id") {
            if (lua_type(state, -1) == LUA_TTABLE) entry.id = FillProperty();
          } else if (key == "Type") {
            TextValue(state, entry.type, m_query, "Type");
          }
        }
        lua_pop(state, 1);
      }
      propertyIds.push_back(std::move(entry));
    }
    lua_pop(state, 1);
  }
}

std::vector<LuxStaticData> LuxHelper::InGetStaticData() {
  std::vector<LuxStaticData> staticData;
  lua_State* state = m_luaState;
  if (!lux::TableOnTop(state)) return staticData;
  const StaticDataDepth depth(m_staticDataDepth);
  lux::EnsureStack(state, 2);
  lua_pushnil(state);
  while (lua_next(state, -2) != 0) {
    std::string_view key;
    if (lux::KeyAsText(state, key) && lua_type(state, -1) == LUA_TTABLE) {
      if (HasNul(key)) {
        WarnNul(m_query, "the name of a static-data entry", key);
      } else {
        FillLuxStaticData(staticData, std::string(key));
      }
    }
    lua_pop(state, 1);
  }
  std::sort(
      staticData.begin(), staticData.end(),
      [](const LuxStaticData& left, const LuxStaticData& right) { return left.name < right.name; });
  return staticData;
}

void LuxHelper::FillLuxStaticData(std::vector<LuxStaticData>& staticData, std::string&& name) {
  LuxStaticData entry;
  entry.name = std::move(name);
  lua_State* state = m_luaState;
  if (lux::TableOnTop(state)) {
    lux::EnsureStack(state, 2);
    lua_pushnil(state);
    while (lua_next(state, -2) != 0) {
      std::string_view key;
      if (lux::KeyAsText(state, key)) {
        const int type = lua_type(state, -1);
        if (key == "EnabledProperty") {
          // Engaged for any table, an empty one included.
          if (type == LUA_TTABLE) entry.enabledProperty = FillProperty();
        } else if (key == "Type") {
          TextValue(state, entry.type, m_query, "Type");
        } else if (key == "Parameters") {
          if (type == LUA_TTABLE) entry.parameters = GetLuaParameters();
        } else if (key == "SubData") {
          if (type == LUA_TTABLE) entry.subData = InGetStaticData();
        }
      }
      lua_pop(state, 1);
    }
  }
  staticData.push_back(std::move(entry));
}

}  // namespace Korvex::luaknxdownloadhandler
