// Checks of parameter lists (of channel types and static data): each parameter's
// Key, Type, Property, Digits and ShowIf fields.
#include "ScriptCheckInternal.h"

#include <LuaKnxDownloadHandler/ScriptFields.h>

#include <LuaKnxDownloadHandler/ValueTypes.h>

#include <algorithm>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace lkdh::host::detail {

namespace fields = Korvex::luaknxdownloadhandler::fields;

namespace {

const std::vector<std::string> kParameterFields = fields::Names(fields::kParameterTable);

// The value type names the plug-in writes, as candidates of a misspelt one.
std::vector<std::string> ValueTypeNames() {
  std::vector<std::string> names;
  for (const auto& info : Korvex::luaknxdownloadhandler::kValueTypes) {
    names.emplace_back(info.name);
  }
  return names;
}

}  // namespace

std::vector<ParameterRecord> Checker::WalkParameterList(int list, const Context& context) {
  list = lua_absindex(m_state, list);
  std::vector<ParameterRecord> records;
  for (const Key& key : Keys(list)) {
    if (key.type != LUA_TSTRING && key.type != LUA_TNUMBER) {
      Report(Severity::Warning, context,
             "a list entry under a key of type " + key.text + " is not read");
      continue;
    }
    PushField(list, key);
    if (lua_type(m_state, -1) == LUA_TTABLE) {
      WalkParameter(lua_gettop(m_state), context, key, records);
    } else {
      Report(Severity::Warning, context,
             "list entry " + key.Bracketed() + " is " + Describe(-1) +
                 ", not a parameter table: skipped");
    }
    lua_pop(m_state, 1);
  }
  std::map<std::string, int> keyCount;
  for (const ParameterRecord& record : records) {
    if (!record.key.empty()) ++keyCount[record.key];
  }
  for (const auto& [key, count] : keyCount) {
    if (count < 2) continue;
    Report(Severity::Warning, context,
           std::to_string(count) + " parameters have the Key '" + key +
               "': the document lists them in no defined order");
  }
  return records;
}

void Checker::CheckValueType(const Context& context, const std::string& prefix,
                             const std::string& type, const std::string& consequence) {
  if (Korvex::luaknxdownloadhandler::FindValueType(type) != nullptr) return;
  const std::string suggestion = ClosestName(type, ValueTypeNames());
  Report(Severity::Error, context,
         prefix + "unknown value type '" + type + "'" +
             (suggestion.empty() ? std::string() : " (did you mean '" + suggestion + "'?)") + ": " +
             consequence);
}

int Checker::KeyLine(const std::string& file, const std::string& key) {
  if (file.empty() || key.empty()) return 0;
  const auto found = m_keyLines.find({file, key});
  if (found != m_keyLines.end()) return found->second;
  const int line = LineNamingKey(file, key);
  m_keyLines.emplace(std::make_pair(file, key), line);
  return line;
}

void Checker::WalkParameter(int table, const Context& listContext, const Key& listKey,
                            std::vector<ParameterRecord>& records) {
  // Named by its Key when it has one, else by its place in the list.
  PushField(table, Key::Named("Key"));
  const std::string name = IsText(-1) ? TextOf(-1) : std::string();
  lua_pop(m_state, 1);
  Context context = listContext.With(name.empty() ? ", parameter " + listKey.Bracketed()
                                                  : ", parameter '" + name + "'");
  // Findings about the entry point at the line naming its Key, when one line does.
  if (const int line = KeyLine(context.place.file, name); line != 0) context.place.line = line;

  ParameterRecord record;
  bool hasKey = false;
  bool hasType = false;
  bool hasProperty = false;
  WalkFields(table, context, "a parameter table", [&](const std::string& field, int value) {
    if (field == fields::kKey) {
      hasKey = true;
      if (IsText(value)) {
        record.key = TextOf(value);
      } else {
        Report(Severity::Warning, context,
               "Key is " + Describe(value) + ", not a string: the parameter's key is empty");
      }
    } else if (field == fields::kType) {
      hasType = true;
      if (IsText(value)) {
        record.type = TextOf(value);
        CheckValueType(context, "", record.type, "the parameter is silently left out");
      } else {
        Report(Severity::Error, context,
               "Type is " + Describe(value) + ", not a string: the parameter is silently left out");
      }
    } else if (field == fields::kProperty) {
      hasProperty = true;
      if (lua_type(m_state, value) == LUA_TTABLE) {
        const PropertyAddress address = CheckPropertyTable(value, context, "Property: ");
        CheckAddress(address, context, "Property", "");
      } else {
        Report(Severity::Warning, context,
               "Property is " + Describe(value) +
                   ", not a property table: read at the zero address (interface object 0, "
                   "property 0)");
      }
    } else if (field == fields::kDigits) {
      if (lua_isinteger(m_state, value) == 0) {
        Report(Severity::Warning, context,
               NotInteger(field, value) + ", not an integer: ignored (no decimals)");
        return;
      }
      const lua_Integer digits = lua_tointeger(m_state, value);
      if (digits < 0 || digits > 255) {
        Report(Severity::Warning, context,
               "Digits " + std::to_string(digits) + " acts as " +
                   std::to_string(static_cast<lua_Unsigned>(digits) & 0xFFU) +
                   " (only its low 8 bits count)");
      }
    } else if (field == fields::kShowIf) {
      if (lua_type(m_state, value) == LUA_TTABLE) {
        record.showIf = WalkShowIf(value, context);
      } else {
        Report(Severity::Warning, context,
               "ShowIf is " + Describe(value) +
                   ", not a table: ignored, so the parameter is always shown");
      }
    } else {
      ReportUnknownField(context, "", field, kParameterFields);
    }
  });
  if (!hasKey) Report(Severity::Warning, context, "has no Key: its key is empty");
  if (!hasType) Report(Severity::Error, context, "has no Type: the parameter is silently left out");
  if (hasType && !hasProperty) {
    Report(Severity::Warning, context,
           "has no Property: read at the zero address (interface object 0, property 0)");
  }
  records.push_back(std::move(record));
}

}  // namespace lkdh::host::detail
