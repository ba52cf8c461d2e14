// The table readers of the script bridge: each reads the table at the top of
// the interpreter's stack, leaves it there and never takes the mutex.

#include <LuaKnxDownloadHandler/LuxHelper.h>
#include <LuaKnxDownloadHandler/Rules.h>
#include <LuaKnxDownloadHandler/ScriptFields.h>

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
#include <vector>

namespace Korvex::luaknxdownloadhandler {

namespace {

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

// Sorts by key unless the keys already rise strictly: the sort would leave such
// a list as it is. A list with equal keys is still sorted, so that the order the
// sort gives them does not change.
template <typename Record, typename Key>
void SortUnlessRising(std::vector<Record>& records, Key key) {
  const auto less = [key](const Record& left, const Record& right) {
    return left.*key < right.*key;
  };
  const auto notRising = [key](const Record& left, const Record& right) {
    return !(left.*key < right.*key);
  };
  if (std::adjacent_find(records.begin(), records.end(), notRising) == records.end()) return;
  std::sort(records.begin(), records.end(), less);
}

// Room for the list's sequence part, bounded: a sparse table's length says
// little about its entries, and most of them may not be tables at all.
constexpr std::size_t kMostReserved = 4096;

std::size_t ListRoom(lua_State* state) {
  if (!lux::TableOnTop(state)) return 0;
  return std::min<std::size_t>(lua_rawlen(state, -1), kMostReserved);
}

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

// The value at the top, of the given lua_type, as text when it is one (a string
// or a number, as lua_isstring has it); false for a text with a NUL byte, which
// is read as a value of the wrong type and warned about.
bool TextValue(lua_State* state, int type, std::string& text, const char* query, const char* what) {
  if (type != LUA_TSTRING && type != LUA_TNUMBER) return false;
  std::size_t length = 0;
  const char* data = lua_tolstring(state, -1, &length);
  // XML cannot carry a NUL byte; cutting the text there would change its meaning unseen.
  if (std::memchr(data, '\0', length) != nullptr) {
    WarnNul(query, std::string("'") + what + "'", std::string_view(data, length));
    return false;
  }
  text.assign(data, length);
  return true;
}

}  // namespace

PropertyInfo LuxHelper::FillProperty() const {
  PropertyInfo info;
  lua_State* state = m_luaState;
  const auto otherKey = [this] { NoteOtherKey("a property table"); };
  lux::ForEachField(state, 2, otherKey, [&](std::string_view key) {
    const bool integer = lua_isinteger(state, -1) != 0;
    if (key == fields::kPropertyId) {
      // Property ids are one octet: 300 is deliberately read as 44.
      if (integer) {
        info.PropertyId = Low32(lua_tointeger(state, -1)) & 0xFFU;
        if (m_diagnostics != nullptr && lua_tointeger(state, -1) != info.PropertyId) {
          NoteLowBits("PropertyId", lua_tointeger(state, -1), info.PropertyId, "8");
        }
      } else if (m_diagnostics != nullptr) {
        NoteWrongType("PropertyId", "an integer", "property 0 is read");
      }
    } else if (key == fields::kInterfaceObjectId) {
      if (integer) {
        info.InterfaceObjectId = Low32(lua_tointeger(state, -1));
        if (m_diagnostics != nullptr && lua_tointeger(state, -1) != info.InterfaceObjectId) {
          NoteLowBits("InterfaceObjectId", lua_tointeger(state, -1), info.InterfaceObjectId, "32");
        }
      } else if (m_diagnostics != nullptr) {
        NoteWrongType("InterfaceObjectId", "an integer", "interface object 0 is read");
      }
    } else if (m_diagnostics != nullptr) {
      NoteUnknownField(key);
    }
  });
  if (m_diagnostics != nullptr) {
    NoteMissing(fields::kPropertyId.data(), "property 0 is read");
  }
  return info;
}

std::map<std::string, PropertyInfo> LuxHelper::InGetPropertyIds() const {
  std::map<std::string, PropertyInfo> propertyIds;
  lua_State* state = m_luaState;
  if (m_diagnostics != nullptr) {
    TellNumericKey("the settings table", "setting", "");
  }
  const auto otherKey = [this] {
    if (m_diagnostics != nullptr) {
      NoteOtherKey("the settings table");
      ReportNotes(NoteMark() - 1, "setting", "");
    }
  };
  lux::ForEachField(state, 2, otherKey, [&](std::string_view key) {
    if (lua_type(state, -1) != LUA_TTABLE) {
      if (m_diagnostics != nullptr && !key.empty()) {
        Note(SkipReason::WrongValueType, std::string("a ") + luaL_typename(state, -1) +
                                             ", not a property table: the setting is not read");
        ReportNotes(NoteMark() - 1, "setting", key);
      }
    } else if (HasNul(key)) {
      WarnNul(m_query, "a setting name", key);
    } else {
      std::string name(key);
      if (m_diagnostics != nullptr) TellNumericKey("a property table", "setting", name);
      const std::size_t mark = NoteMark();
      PropertyInfo info = FillProperty();
      ReportNotes(mark, "setting", name);
      // emplace keeps the first entry under a name.
      propertyIds.emplace(std::move(name), std::move(info));
    }
  });
  return propertyIds;
}

std::vector<LuaParameter> LuxHelper::GetLuaParameters() {
  std::vector<LuaParameter> parameters;
  lua_State* state = m_luaState;
  parameters.reserve(ListRoom(state));
  lux::ForEachValue(state, 2, [&] {
    if (lua_type(state, -1) == LUA_TTABLE) {
      FillLuaParameter(parameters);
    } else if (m_diagnostics != nullptr) {
      Note(SkipReason::WrongValueType, std::string("a list entry is a ") +
                                           luaL_typename(state, -1) +
                                           ", not a parameter table: skipped");
      NoteWithin(NoteMark() - 1, std::string());
      ReportNotes(NoteMark() - 1, "parameter", "");
    }
  });
  SortUnlessRising(parameters, &LuaParameter::key);
  if (m_diagnostics != nullptr) NoteDuplicateKeys(parameters);
  return parameters;
}

void LuxHelper::FillLuaParameter(std::vector<LuaParameter>& parameters) {
  // Made in place: nothing else is added to the list while it is read.
  LuaParameter& parameter = parameters.emplace_back();
  lua_State* state = m_luaState;
  const std::size_t mark = NoteMark();
  const bool noted = m_diagnostics != nullptr;
  if (noted) TellParameterNumericKeys();
  const auto otherKey = [this] { NoteOtherKey("a parameter table"); };
  lux::ForEachField(state, 2, otherKey, [&](std::string_view key) {
    const int type = lua_type(state, -1);
    if (key == fields::kKey) {
      if (!TextValue(state, type, parameter.key, m_query, "Key") && noted && type != LUA_TSTRING) {
        NoteWrongType("Key", "a string", "the key is empty");
      }
    } else if (key == fields::kType) {
      if (!TextValue(state, type, parameter.type, m_query, "Type") && noted &&
          type != LUA_TSTRING) {
        NoteWrongType("Type", "a string", "the parameter is not written");
      }
    } else if (key == fields::kProperty) {
      if (type == LUA_TTABLE) {
        const std::size_t inner = noted ? NoteMark() : 0;
        parameter.property = FillProperty();
        if (noted) NoteWithin(inner, "Property");
      } else if (noted) {
        NoteWrongType("Property", "a table", "read at interface object 0, property 0");
      }
    } else if (key == fields::kDigits) {
      if (lua_isinteger(state, -1) != 0) {
        parameter.digits = static_cast<std::int32_t>(Low32(lua_tointeger(state, -1)));
        // The builder formats with the low 8 bits.
        if (noted && (lua_tointeger(state, -1) & ~lua_Integer{0xFF}) != 0) {
          NoteLowBits("Digits", lua_tointeger(state, -1), parameter.digits & 0xFF, "8");
        }
      } else if (noted) {
        NoteWrongType("Digits", "an integer", "no decimals");
      }
    } else if (key == fields::kShowIf) {
      if (type == LUA_TTABLE) {
        const std::size_t inner = noted ? NoteMark() : 0;
        parameter.showIf = FillLuaParameterShowIf();
        if (noted) NoteWithin(inner, "ShowIf");
      } else if (noted) {
        NoteWrongType("ShowIf", "a table", "the parameter is always shown");
      }
    } else if (noted) {
      NoteUnknownField(key);
    }
  });
  if (noted) {
    NoteMissing(fields::kKey.data(), "its key is empty");
    NoteMissing(fields::kType.data(), "the parameter is not written");
    if (!parameter.type.empty()) {
      NoteMissing(fields::kProperty.data(), "read at interface object 0, property 0");
    }
    // Without a Key, its place in the list tells it from the others.
    if (parameter.key.empty()) NoteWithin(mark, std::string());
  }
  ReportNotes(mark, "parameter", parameter.key);
}

LuaParameterShowIf LuxHelper::FillLuaParameterShowIf() const {
  LuaParameterShowIf showIf;
  lua_State* state = m_luaState;
  const bool noted = m_diagnostics != nullptr;
  const auto otherKey = [this] { NoteOtherKey("a ShowIf table"); };
  // Key, value and the copy of a function that luaL_ref consumes.
  lux::ForEachField(state, 3, otherKey, [&](std::string_view key) {
    const int type = lua_type(state, -1);
    if (key == fields::kPropertyIds) {
      if (type == LUA_TTABLE) {
        FillLuaParameterShowIfPropertyIds(showIf.propertyIds);
      } else if (noted) {
        NoteWrongType("PropertyIds", "a table", "the parameter is always shown");
      }
    } else if (key == fields::kFunction) {
      if (type == LUA_TFUNCTION) {
        // Never released: the builder calls it after this query returned.
        lua_pushvalue(state, -1);
        showIf.functionRef = luaL_ref(state, LUA_REGISTRYINDEX);
      } else if (noted) {
        NoteWrongType("Function", "a function", "with PropertyIds its call fails");
      }
    } else if (noted) {
      NoteUnknownField(key);
    }
  });
  return showIf;
}

void LuxHelper::FillLuaParameterShowIfPropertyIds(
    std::vector<LuaParameterShowIfPropertyIds>& propertyIds) const {
  lua_State* state = m_luaState;
  const bool noted = m_diagnostics != nullptr;
  // The list's keys are never read; each element is a table with "Id" and "Type",
  // walked inside the list's walk.
  const std::size_t listMark = noted ? NoteMark() : 0;
  lux::ForEachValue(state, 4, [&] {
    const std::size_t entryMark = noted ? NoteMark() : 0;
    if (lua_type(state, -1) != LUA_TTABLE) {
      if (noted) {
        Note(SkipReason::WrongValueType, std::string("a ShowIf PropertyIds entry is a ") +
                                             luaL_typename(state, -1) + ", not a table: skipped");
        NoteWithin(entryMark, std::string());
      }
      return;
    }
    // Made in place: nothing else is added to the list while it is read.
    LuaParameterShowIfPropertyIds& entry = propertyIds.emplace_back();
    const auto otherKey = [this] { NoteOtherKey("a ShowIf PropertyIds entry"); };
    lux::ForEachField(state, 2, otherKey, [&](std::string_view key) {
      const int type = lua_type(state, -1);
      if (key == fields::kId) {
        if (type == LUA_TTABLE) {
          const std::size_t inner = noted ? NoteMark() : 0;
          entry.id = FillProperty();
          if (noted) NoteWithin(inner, "Id");
        } else if (noted) {
          NoteWrongType("Id", "a table", "read at interface object 0, property 0");
        }
      } else if (key == fields::kType) {
        if (!TextValue(state, type, entry.type, m_query, "Type") && noted && type != LUA_TSTRING) {
          NoteWrongType("Type", "a string", "the entry gives no argument");
        }
      } else if (noted) {
        NoteUnknownField(key);
      }
    });
    if (noted) {
      NoteMissing(fields::kType.data(), "the entry gives no argument");
      NoteMissing(fields::kId.data(), "read at interface object 0, property 0");
      NoteWithin(entryMark, std::string());
    }
  });
  // The arguments come in the order of the walk, which only a sequence fixes.
  if (noted && propertyIds.size() > 1 && lua_rawlen(state, -1) != propertyIds.size()) {
    Note(SkipReason::WrongValueType,
         "'PropertyIds' is no sequence: its entries, and so the function's arguments, come in no "
         "defined order");
  }
  if (noted) NoteWithin(listMark, "PropertyIds");
}

std::vector<LuxStaticData> LuxHelper::InGetStaticData() { return InGetStaticData(0); }

void LuxHelper::FillLuxStaticData(std::vector<LuxStaticData>& staticData, std::string&& name) {
  FillLuxStaticData(staticData, std::move(name), 0);
}

std::vector<LuxStaticData> LuxHelper::InGetStaticData(int depth) {
  std::vector<LuxStaticData> staticData;
  lua_State* state = m_luaState;
  if (!lux::TableOnTop(state)) return staticData;
  if (m_diagnostics != nullptr) {
    EnterRecord();
    TellNumericKey(depth == 0 ? "the static-data table" : "a SubData table", "record",
                   m_recordPath);
  }
  if (depth >= kMaxStaticDataDepth) {
    throw std::runtime_error("Static data of the script is nested deeper than " +
                             std::to_string(kMaxStaticDataDepth) + " levels.");
  }
  const auto otherKey = [this, depth] {
    if (m_diagnostics != nullptr) {
      EnterRecord();
      NoteOtherKey(depth == 0 ? "the static-data table" : "a SubData table");
      ReportNotes(NoteMark() - 1, "record", m_recordPath);
    }
  };
  lux::ForEachField(state, 2, otherKey, [&](std::string_view key) {
    if (lua_type(state, -1) != LUA_TTABLE) {
      if (m_diagnostics != nullptr && !key.empty()) {
        EnterRecord();
        Note(SkipReason::WrongValueType,
             std::string("a ") + luaL_typename(state, -1) + ", not a table: skipped");
        ReportNotes(NoteMark() - 1, "record", key);
      }
    } else if (HasNul(key)) {
      WarnNul(m_query, "the name of a static-data entry", key);
    } else {
      FillLuxStaticData(staticData, std::string(key), depth + 1);
    }
  });
  SortUnlessRising(staticData, &LuxStaticData::name);
  return staticData;
}

void LuxHelper::FillLuxStaticData(std::vector<LuxStaticData>& staticData, std::string&& name,
                                  int depth) {
  LuxStaticData entry;
  entry.name = std::move(name);
  lua_State* state = m_luaState;
  const std::size_t mark = NoteMark();
  const std::size_t parentPathSize = m_recordPath.size();
  const bool noted = m_diagnostics != nullptr;
  if (noted) {
    if (parentPathSize != 0) m_recordPath += '/';
    m_recordPath += entry.name;
    EnterRecord();
    TellNumericKey("a static-data entry", "record", entry.name);
    if (lua_checkstack(state, 1) != 0) {
      TellNumericKeyIn(fields::kEnabledProperty, "a property table", "record", entry.name,
                       std::string(fields::kEnabledProperty));
    }
  }
  const auto otherKey = [this] { NoteOtherKey("a static-data entry"); };
  lux::ForEachField(state, 2, otherKey, [&](std::string_view key) {
    const int type = lua_type(state, -1);
    if (key == fields::kEnabledProperty) {
      // Engaged for any table, an empty one included.
      if (type == LUA_TTABLE) {
        const std::size_t inner = noted ? NoteMark() : 0;
        entry.enabledProperty = FillProperty();
        if (noted) NoteWithin(inner, "EnabledProperty");
      } else if (noted) {
        NoteWrongType("EnabledProperty", "a table", "the record is always written");
      }
    } else if (key == fields::kType) {
      if (!TextValue(state, type, entry.type, m_query, "Type") && noted && type != LUA_TSTRING) {
        NoteWrongType("Type", "a string", "the record's type is empty");
      }
    } else if (key == fields::kParameters) {
      if (type == LUA_TTABLE) {
        entry.parameters = GetLuaParameters();
      } else if (noted) {
        NoteWrongType("Parameters", "a table", "the record has no parameters");
      }
    } else if (key == fields::kSubData) {
      if (type == LUA_TTABLE) {
        entry.subData = InGetStaticData(depth);
        if (noted) EnterRecord();
      } else if (noted) {
        NoteWrongType("SubData", "a table", "the record has no nested records");
      }
    } else if (noted) {
      NoteUnknownField(key);
    }
  });
  if (noted) {
    NoteMissing(fields::kType.data(), "the record's type is empty");
    ReportNotes(mark, "record", entry.name);
    m_recordPath.resize(parentPathSize);
  }
  staticData.push_back(std::move(entry));
}

}  // namespace Korvex::luaknxdownloadhandler
