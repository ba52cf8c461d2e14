// Checks of the settings table (GetPropertyIds) and of HandleDcsType, which is
// called with the door communication type the settings give.
#include "ScriptCheckInternal.h"

#include <LuaKnxDownloadHandler/Rules.h>

#include <algorithm>
#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace lkdh::host::detail {

namespace {

using Korvex::luaknxdownloadhandler::kRequiredSettings;
using Korvex::luaknxdownloadhandler::kSettingNames;

bool IsSetting(const std::string& name) {
  return std::find(kSettingNames.begin(), kSettingNames.end(), name) != kSettingNames.end();
}

bool IsRequired(const std::string& name) {
  return std::find(kRequiredSettings.begin(), kRequiredSettings.end(), name) !=
         kRequiredSettings.end();
}

// The setting names, as candidates of a misspelt one.
std::vector<std::string> SettingNames() { return {kSettingNames.begin(), kSettingNames.end()}; }

}  // namespace

PropertyAddress Checker::Setting(const std::string& name) const {
  const auto found = m_settings.find(name);
  return found != m_settings.end() ? found->second : PropertyAddress{};
}

// --- Settings --------------------------------------------------------------------

void Checker::CheckPropertyIds() {
  if (!Present(kGetPropertyIds)) return;
  const Context context = ContextFor(kGetPropertyIds, {});
  const CallResult result = CallGlobal(kGetPropertyIds, {});
  if (!result.Ok()) {
    ReportFailure(context, result, "", WhenItFails(kGetPropertyIds));
    return;
  }
  if (lua_type(m_state, -1) != LUA_TTABLE) {
    Report(Severity::Error, context,
           "returns " + Describe(-1) + ", not a table: " + WhenItFails(kGetPropertyIds));
    lua_pop(m_state, 1);
    return;
  }
  const int table = lua_gettop(m_state);
  std::set<std::string> named;
  WalkFields(table, context, "the settings table", [&](const std::string& name, int value) {
    named.insert(name);
    const Context setting = context.With(", setting '" + name + "'");
    if (lua_type(m_state, value) == LUA_TTABLE) {
      const PropertyAddress address = CheckPropertyTable(value, setting, "");
      m_settings[name] = address;
      CheckAddress(address, setting, "its property", "");
    } else {
      const bool required = IsRequired(name);
      Report(required ? Severity::Error : Severity::Warning, context,
             "setting '" + name + "' is " + Describe(value) +
                 ", not a property table: the plug-in leaves it out and reads it at the zero "
                 "address" +
                 (required ? std::string(", so no document is written") : std::string()));
    }
  });
  lua_pop(m_state, 1);

  for (const std::string& name : named) {
    if (IsSetting(name)) continue;
    const std::string suggestion = ClosestName(name, SettingNames());
    if (!suggestion.empty() && named.count(suggestion) == 0) {
      Report(
          Severity::Warning, context,
          "setting '" + name + "' is not read by the plug-in (did you mean '" + suggestion + "'?)");
    } else {
      Report(Severity::Info, context, "setting '" + name + "' is not read by the plug-in");
    }
  }
  for (const std::string& name : SettingNames()) {
    if (named.count(name) != 0) continue;
    if (IsRequired(name)) {
      const char* when = name == "MaxFunctionPerFolder" ? " when there are folders" : "";
      Report(Severity::Error, context,
             "setting '" + name +
                 "' is missing: the limit is read at the zero address (interface object 0, "
                 "property 0), and without a value there no document is written" +
                 when);
    } else {
      Report(Severity::Warning, context,
             "setting '" + name +
                 "' is missing: read at the zero address (interface object 0, property 0)");
    }
  }
}

// The text limits of the download, for the ShowIf arguments that read texts.
void Checker::ReadLimits() {
  if (!m_dump) return;
  m_nameLimit = m_dump->UInt8(Setting("MaxNameCharCount"), std::nullopt).value_or(0);
  m_textLimit = m_dump->UInt8(Setting("MaxTextCharCount"), std::nullopt).value_or(0);
}

// --- Door communication ----------------------------------------------------------

void Checker::CheckDcsType() {
  if (!Present(kHandleDcsType)) return;
  std::vector<std::int64_t> values;
  if (m_dump) {
    values.push_back(Korvex::luaknxdownloadhandler::ScriptDcsType(
        m_dump->UInt8(Setting("DcsType"), std::nullopt).value_or(0),
        m_dump->Bool(Setting("UseDcsFloorcall"), std::nullopt).value_or(false)));
  } else {
    for (std::int64_t type = 0; type <= 255; ++type) values.push_back(type);
  }
  for (const std::int64_t type : values) {
    const CallResult result = CallGlobal(kHandleDcsType, {type}, 0);
    // Without a dump the values are guesses; a type the device never sends is no error.
    ReportFailure(ContextFor(kHandleDcsType, {type}), result, "", WhenItFails(kHandleDcsType),
                  m_dump ? Severity::Error : Severity::Warning);
  }
  if (!m_dump) CallGlobal(kHandleDcsType, {0}, 0);
}

}  // namespace lkdh::host::detail
