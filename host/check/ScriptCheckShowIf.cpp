// Checks of a parameter's ShowIf rule: its Function and PropertyIds, and a call of
// the function with the arguments the plug-in would pass.
#include "ScriptCheckInternal.h"

#include <LuaKnxDownloadHandler/ScriptFields.h>

#include <LuaKnxDownloadHandler/Rules.h>
#include <LuaKnxDownloadHandler/ShowIfArgument.h>
#include <LuaKnxDownloadHandler/ValueTypes.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace lkdh::host::detail {

namespace fields = Korvex::luaknxdownloadhandler::fields;

namespace {

const std::vector<std::string> kShowIfFields = fields::Names(fields::kShowIfTable);
const std::vector<std::string> kShowIfEntryFields = fields::Names(fields::kShowIfEntryTable);

// The values of a ShowIf function's arguments: from the dump, or zero values without one.
struct DumpShowIfSource {
  const DumpAccess* dump;
  Element element;
  std::uint8_t nameLimit;
  std::uint8_t textLimit;

  template <typename Value>
  using Read = std::optional<Value> (DumpAccess::*)(PropertyAddress, Element) const;
  template <typename Value>
  std::optional<Value> Get(Read<Value> read, PropertyAddress id) const {
    if (dump == nullptr) return std::nullopt;
    return (dump->*read)(id, element);
  }

  std::optional<bool> Bool(PropertyAddress id) const { return Get(&DumpAccess::Bool, id); }
  std::optional<std::uint8_t> UInt8(PropertyAddress id) const {
    return Get(&DumpAccess::UInt8, id);
  }
  std::optional<std::uint16_t> UInt16(PropertyAddress id) const {
    return Get(&DumpAccess::UInt16, id);
  }
  std::optional<std::uint32_t> UInt32(PropertyAddress id) const {
    return Get(&DumpAccess::UInt32, id);
  }
  std::optional<float> Float16(PropertyAddress id) const { return Get(&DumpAccess::Float16, id); }
  std::optional<float> Float32(PropertyAddress id) const { return Get(&DumpAccess::Float32, id); }
  std::string Text(PropertyAddress id) const {
    return dump != nullptr ? dump->MemoryText(id, element, textLimit, "") : std::string();
  }
  std::string Name(PropertyAddress id) const {
    const std::string fallback = Korvex::luaknxdownloadhandler::kShowIfNameDefault;
    return dump != nullptr ? dump->MemoryText(id, element, nameLimit, fallback) : fallback;
  }
  std::string Generic20(PropertyAddress id) const {
    return dump != nullptr ? dump->PropertyText(id, element, "") : std::string();
  }
};

}  // namespace

std::optional<ShowIfRule> Checker::WalkShowIf(int table, const Context& parameterContext) {
  // Findings about a rule point at its function, when it has one of its own.
  PushField(table, Key::Named("Function"));
  const Place place = lua_type(m_state, -1) == LUA_TFUNCTION ? DefinitionOf(-1) : Place{};
  lua_pop(m_state, 1);
  const Context context = parameterContext.At(place);

  ShowIfRule rule;
  rule.context = context;
  bool hasFunction = false;
  std::string notAFunction;
  std::size_t entryTables = 0;
  WalkFields(table, context, "a ShowIf table", [&](const std::string& field, int value) {
    if (field == fields::kFunction) {
      hasFunction = true;
      if (lua_type(m_state, value) == LUA_TFUNCTION) {
        lua_pushvalue(m_state, value);
        rule.function = luaL_ref(m_state, LUA_REGISTRYINDEX);
      } else {
        notAFunction = Describe(value);
      }
    } else if (field == fields::kPropertyIds) {
      if (lua_type(m_state, value) == LUA_TTABLE) {
        entryTables = WalkShowIfEntries(value, context, rule.entries);
      } else {
        Report(Severity::Warning, context,
               "ShowIf PropertyIds is " + Describe(value) +
                   ", not a list: read as empty, so the parameter is always shown");
      }
    } else {
      ReportUnknownField(context, "ShowIf: ", field, kShowIfFields);
    }
  });

  const bool callable = rule.function != LUA_NOREF;
  if (hasFunction && !callable) {
    Report(Severity::Error, context,
           "ShowIf Function is " + notAFunction + ", not a function: " +
               (entryTables > 0
                    ? "the plug-in calls an invalid reference and always hides the parameter"
                    : "ignored"));
  } else if (!hasFunction && entryTables > 0) {
    Report(Severity::Error, context,
           "ShowIf has PropertyIds but no Function: the plug-in calls an invalid reference and "
           "always hides the parameter");
  } else if (callable && entryTables == 0) {
    Report(Severity::Warning, context,
           "ShowIf has a Function but no PropertyIds: the function is never called and the "
           "parameter is always shown");
  }
  if (callable && entryTables > 0) return rule;
  if (callable) luaL_unref(m_state, LUA_REGISTRYINDEX, rule.function);
  return std::nullopt;
}

// Returns the number of entry tables, each of which the plug-in keeps.
std::size_t Checker::WalkShowIfEntries(int list, const Context& context,
                                       std::vector<ShowIfEntry>& entries) {
  list = lua_absindex(m_state, list);
  const std::vector<Key> keys = Keys(list);
  std::size_t tables = 0;
  bool sequence = true;
  lua_Integer expected = 1;
  for (const Key& key : keys) {
    if (key.type != LUA_TNUMBER || !key.isInteger || key.integer != expected) sequence = false;
    ++expected;
    if (key.type != LUA_TSTRING && key.type != LUA_TNUMBER) continue;
    const std::string prefix = "ShowIf PropertyIds entry " + key.Bracketed() + ": ";
    PushField(list, key);
    if (lua_type(m_state, -1) == LUA_TTABLE) {
      ++tables;
      WalkShowIfEntry(lua_gettop(m_state), context, prefix, entries);
    } else {
      Report(Severity::Warning, context, prefix + "is " + Describe(-1) + ", not a table: skipped");
    }
    lua_pop(m_state, 1);
  }
  if (!sequence && tables > 1) {
    Report(Severity::Warning, context,
           "ShowIf PropertyIds is not a sequence: its entries, and so the function's arguments, "
           "come in no defined order");
  }
  return tables;
}

void Checker::WalkShowIfEntry(int table, const Context& context, const std::string& prefix,
                              std::vector<ShowIfEntry>& entries) {
  const std::string noArgument = "the entry passes no argument (a later one takes its place)";
  ShowIfEntry entry;
  bool hasId = false;
  bool hasType = false;
  WalkFields(table, context, "a PropertyIds entry table", [&](const std::string& field, int value) {
    if (field == fields::kId) {
      hasId = true;
      if (lua_type(m_state, value) == LUA_TTABLE) {
        entry.id = CheckPropertyTable(value, context, prefix + "Id: ");
        CheckAddress(entry.id, context, prefix + "Id", "");
      } else {
        Report(Severity::Warning, context,
               prefix + "Id is " + Describe(value) +
                   ", not a property table: read at the zero address (interface object 0, "
                   "property 0)");
      }
    } else if (field == fields::kType) {
      hasType = true;
      if (!IsText(value)) {
        Report(Severity::Error, context,
               prefix + "Type is " + Describe(value) + ", not a string: " + noArgument);
        return;
      }
      entry.type = TextOf(value);
      const auto* info = Korvex::luaknxdownloadhandler::FindValueType(entry.type);
      if (info != nullptr && !info->showIfArgument) {
        Report(Severity::Warning, context,
               prefix + "a '" + std::string(info->name) +
                   "' entry passes no argument (a later one takes its place)");
      } else {
        CheckValueType(context, prefix, entry.type, noArgument);
      }
    } else {
      ReportUnknownField(context, prefix, field, kShowIfEntryFields);
    }
  });
  if (!hasType) Report(Severity::Error, context, prefix + "has no Type: " + noArgument);
  if (!hasId) {
    Report(Severity::Warning, context,
           prefix + "has no Id: read at the zero address (interface object 0, property 0)");
  }
  entries.push_back(std::move(entry));
}

// The arguments as the builder passes them: one per entry of a known type,
// "Url" and unknown types none.
ovslua::Lua::Args Checker::ShowIfArguments(const std::vector<ShowIfEntry>& entries,
                                           const ArgumentSource& source) const {
  const DumpShowIfSource values{source.fromDump && m_dump ? &*m_dump : nullptr, source.element,
                                m_nameLimit, m_textLimit};
  ovslua::Lua::Args arguments;
  for (const ShowIfEntry& entry : entries) {
    if (const auto* info = Korvex::luaknxdownloadhandler::FindValueType(entry.type)) {
      Korvex::luaknxdownloadhandler::AppendShowIfArgument(arguments, info->type, values, entry.id);
    }
  }
  return arguments;
}

void Checker::CallShowIf(const ShowIfRule& rule, const ArgumentSource& source) {
  const ovslua::Lua::Args arguments = ShowIfArguments(rule.entries, source);
  EnsureStack(static_cast<int>(arguments.Count()) + 1);
  lua_rawgeti(m_state, LUA_REGISTRYINDEX, rule.function);
  m_lua.PushArguments(arguments);
  const CallResult result = ProtectedCall(static_cast<int>(arguments.Count()), 1);
  if (!result.Ok()) {
    ReportFailure(rule.context, result, "ShowIf function ", "the parameter is hidden");
    return;
  }
  const int returned = lua_type(m_state, -1);
  if (returned == LUA_TNIL) {
    Report(Severity::Warning, rule.context,
           "ShowIf function returns nil, not a boolean: read as false, so the parameter is "
           "hidden");
  } else if (returned != LUA_TBOOLEAN) {
    Report(Severity::Warning, rule.context,
           "ShowIf function returns " + Describe(-1) +
               ", not a boolean: read as true, so the parameter is shown");
  }
  lua_pop(m_state, 1);
}

}  // namespace lkdh::host::detail
