// What the script bridge's table readers note for the diagnostics sink, and
// how the notes reach it. Runs only with a sink.

#include <LuaKnxDownloadHandler/LuxHelper.h>
#include <LuaKnxDownloadHandler/ScriptFields.h>

#include "LuxHelperStack.h"

#include <lua.hpp>

#include <algorithm>
#include <cstdio>
#include <string>
#include <string_view>
#include <utility>

namespace Korvex::luaknxdownloadhandler {

namespace {

std::string IntegerText(long long value) {
  char text[24];
  std::snprintf(text, sizeof text, "%lld", value);
  return text;
}

// The key at index during a walk, bracketed ("[4]", "['Dimmer']", "[true]"),
// read without converting it in place, which would break the walk.
std::string ListKeyText(lua_State* state, int index) {
  const int type = lua_type(state, index);
  if (lua_isinteger(state, index) != 0) return "[" + IntegerText(lua_tointeger(state, index)) + "]";
  if (type == LUA_TSTRING) return "['" + std::string(lua_tostring(state, index)) + "']";
  if (type == LUA_TBOOLEAN) return lua_toboolean(state, index) != 0 ? "[true]" : "[false]";
  if (type != LUA_TNUMBER || lua_checkstack(state, 1) == 0) {
    return std::string("[") + lua_typename(state, type) + "]";
  }
  lua_pushvalue(state, index);
  std::string text = std::string("[") + lua_tostring(state, -1) + "]";
  lua_pop(state, 1);
  return text;
}

namespace fields = Korvex::luaknxdownloadhandler::fields;

// The table at the top's field name pushed when it is a table; else nothing.
bool PushTableField(lua_State* state, std::string_view name) {
  lua_pushlstring(state, name.data(), name.size());
  if (lua_rawget(state, -2) == LUA_TTABLE) return true;
  lua_pop(state, 1);
  return false;
}

}  // namespace

void LuxHelper::Note(SkipReason reason, std::string detail) const {
  m_notes.push_back({reason, std::move(detail), std::string()});
}

void LuxHelper::NoteWrongType(const char* field, const char* expected,
                              const char* consequence) const {
  m_notes.push_back({SkipReason::WrongValueType,
                     std::string("'") + field + "' is " + DescribeLuaValue(m_luaState, -1) +
                         ", not " + expected + ": " + consequence,
                     field});
}

void LuxHelper::NoteUnknownField(std::string_view field) const {
  m_notes.push_back(
      {SkipReason::UnknownField, "'" + std::string(field) + "' is not read", std::string(field)});
}

void LuxHelper::NoteOtherKey(const char* table) const {
  if (m_diagnostics == nullptr) return;
  m_notes.push_back({SkipReason::WrongKeyType,
                     std::string("a key of type ") + luaL_typename(m_luaState, -2) + " in " +
                         table + " is ignored",
                     std::string()});
}

void LuxHelper::NoteMissing(const char* field, const char* consequence) const {
  // A value that is no table is read as an empty one, and noted as what it is.
  if (!lux::TableOnTop(m_luaState) || lua_checkstack(m_luaState, 1) == 0) return;
  lua_pushstring(m_luaState, field);
  if (lua_rawget(m_luaState, -2) == LUA_TNIL) {
    m_notes.push_back(
        {SkipReason::MissingField, std::string("no '") + field + "': " + consequence, field});
  }
  lua_pop(m_luaState, 1);
}

void LuxHelper::NoteLowBits(const char* field, std::int64_t value, std::int64_t read,
                            const char* bits) const {
  m_notes.push_back({SkipReason::OutOfRange,
                     std::string("'") + field + "' " + IntegerText(value) + " is read as " +
                         IntegerText(read) + " (only its low " + bits + " bits count)",
                     field});
}

void LuxHelper::NoteWithin(std::size_t mark, std::string field) const {
  if (field.empty()) field = ListKeyText(m_luaState, -2);
  for (std::size_t index = mark; index < m_notes.size(); ++index) {
    std::string& inner = m_notes[index].field;
    inner.insert(0, inner.empty() || inner[0] == '[' ? field : field + ".");
  }
}

void LuxHelper::NoteDuplicateKeys(const std::vector<LuaParameter>& parameters) const {
  for (std::size_t first = 0, next = 1; first < parameters.size(); first = next++) {
    while (next < parameters.size() && parameters[next].key == parameters[first].key) ++next;
    if (next - first < 2 || parameters[first].key.empty()) continue;
    Note(SkipReason::DuplicateKey,
         IntegerText(static_cast<long long>(next - first)) +
             " parameters have this key: the document lists them in no defined order");
    ReportNotes(NoteMark() - 1, "parameter", parameters[first].key);
  }
}

void LuxHelper::TellNumericKey(const char* table, const char* subject, std::string_view key) const {
  TellNumericKey(table, subject, key, std::string_view());
}

void LuxHelper::TellNumericKey(const char* table, const char* subject, std::string_view key,
                               std::string_view field) const {
  lua_State* state = m_luaState;
  if (!lux::TableOnTop(state) || lua_checkstack(state, 3) == 0) return;
  lua_pushnil(state);
  while (lua_next(state, -2) != 0) {
    lua_pop(state, 1);
    if (lua_type(state, -1) != LUA_TNUMBER) continue;
    lua_pushvalue(state, -1);
    const std::string detail =
        std::string("[") + lua_tostring(state, -1) + "] in " + table + ": the download aborts";
    lua_pop(state, 2);
    m_diagnostics->Report({SkipReason::NumericKey, subject, key, detail, field});
    return;
  }
}

void LuxHelper::TellNumericKeyIn(std::string_view name, const char* table, const char* subject,
                                 std::string_view key, const std::string& field) const {
  if (!PushTableField(m_luaState, name)) return;
  TellNumericKey(table, subject, key, field);
  lua_pop(m_luaState, 1);
}

void LuxHelper::TellParameterNumericKeys() const {
  lua_State* state = m_luaState;
  // Its Key, Property or ShowIf, PropertyIds, an entry's key and value, the
  // entry's Id, and TellNumericKey's own three.
  if (!lux::TableOnTop(state) || lua_checkstack(state, 9) == 0) return;
  // Named by its Key, which the walk may never get to read, else by its place in the list.
  std::string name;
  lua_pushlstring(state, fields::kKey.data(), fields::kKey.size());
  if (lua_rawget(state, -2) == LUA_TSTRING) name = lua_tostring(state, -1);
  lua_pop(state, 1);
  const std::string place = name.empty() ? ListKeyText(state, -2) : std::string();
  const auto within = [&place](std::string_view field) {
    return place.empty() ? std::string(field) : place + "." + std::string(field);
  };
  TellNumericKey("a parameter table", "parameter", name, place);
  TellNumericKeyIn(fields::kProperty, "a property table", "parameter", name,
                   within(fields::kProperty));
  if (!PushTableField(state, fields::kShowIf)) return;
  TellNumericKey("a ShowIf table", "parameter", name, within(fields::kShowIf));
  if (PushTableField(state, fields::kPropertyIds)) {
    // The list's own keys are never read: any may be numeric.
    lua_pushnil(state);
    while (lua_next(state, -2) != 0) {
      if (lua_type(state, -1) == LUA_TTABLE) {
        const std::string entry = within("ShowIf.PropertyIds") + ListKeyText(state, -2);
        TellNumericKey("a ShowIf PropertyIds entry", "parameter", name, entry);
        TellNumericKeyIn(fields::kId, "a property table", "parameter", name, entry + ".Id");
      }
      lua_pop(state, 1);
    }
    lua_pop(state, 1);
  }
  lua_pop(state, 1);
}

void LuxHelper::TellNotes(std::size_t mark, std::string_view subject, std::string_view key) const {
  for (std::size_t index = mark; index < m_notes.size(); ++index) {
    const PendingSkip& note = m_notes[index];
    m_diagnostics->Report({note.reason, subject, key, note.detail, note.field});
  }
  m_notes.resize(mark);
}

void LuxHelper::EnterRecord() const {
  m_diagnostics->Enter(m_recordPath.empty() ? std::string("static data")
                                            : "static data '" + m_recordPath + "'");
}

}  // namespace Korvex::luaknxdownloadhandler
