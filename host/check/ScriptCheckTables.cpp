// The tables the script returns, read by the plug-in's own readers with a sink
// that turns what they skip into findings; then what only the check judges:
// the settings the plug-in needs, value type names, ShowIf rules and a call of
// their function, and whether the download holds the properties named.
#include "ScriptCheckInternal.h"

#include <LuaKnxDownloadHandler/Rules.h>
#include <LuaKnxDownloadHandler/ScriptFields.h>
#include <LuaKnxDownloadHandler/ShowIfArguments.h>
#include <LuaKnxDownloadHandler/ValueTypes.h>

#include <algorithm>
#include <exception>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

namespace lkdh::host::detail {

namespace {

namespace fields = Korvex::luaknxdownloadhandler::fields;
namespace lkdh = Korvex::luaknxdownloadhandler;

// Keeps what the readers report while they read one table.
class Collector final : public lkdh::Diagnostics {
 public:
  explicit Collector(std::vector<SkipReport>& reports) : m_reports(reports) {}
  void Enter(std::string_view slot) override { m_slot.assign(slot); }
  const std::string& Slot() const noexcept { return m_slot; }
  void Report(const lkdh::Skip& skip) override {
    SkipReport& report = m_reports.emplace_back(
        SkipReport{skip.reason, m_slot, std::string(skip.subject), std::string(skip.key),
                   std::string(skip.detail), std::string(skip.field), std::string()});
    // A parameter without Key has its place in the list before its field: "[4].Type".
    if (report.subject != "parameter" || !report.key.empty() || report.field.rfind('[', 0) != 0) {
      return;
    }
    const std::size_t end =
        report.field.rfind("['", 0) == 0 ? report.field.find("']") + 1 : report.field.find(']');
    if (end == std::string::npos) return;
    report.position = report.field.substr(0, end + 1);
    report.field.erase(0, std::min(report.field.size(), end + 2));
  }

 private:
  std::vector<SkipReport>& m_reports;
  std::string m_slot;
};

template <std::size_t N>
std::vector<std::string> Names(const std::array<std::string_view, N>& names) {
  return {names.begin(), names.end()};
}

// The names a misspelt field of that table may have meant.
std::vector<std::string> KnownFields(const SkipReport& report, const std::string& parent) {
  const std::string last = parent.substr(std::min(parent.size(), parent.rfind('.') + 1));
  if (report.subject == "setting" || report.subject == lkdh::kUrnSelectorSubject ||
      last == fields::kProperty || last == fields::kId || last == fields::kEnabledProperty) {
    return Names(fields::kPropertyTable);
  }
  if (last == fields::kShowIf) return Names(fields::kShowIfTable);
  if (!parent.empty()) return Names(fields::kShowIfEntryTable);
  if (report.subject == "record") return Names(fields::kStaticDataTable);
  return Names(fields::kParameterTable);
}

bool IsRequiredSetting(const std::string& name) {
  return std::find(lkdh::kRequiredSettings.begin(), lkdh::kRequiredSettings.end(), name) !=
         lkdh::kRequiredSettings.end();
}

// The note's severity: errors lose the parameter or abort the download.
Severity SeverityOf(const SkipReport& report, const std::string& last) {
  switch (report.reason) {
    case SkipReason::NumericKey:
      return Severity::Error;
    case SkipReason::WrongValueType:
      if (report.subject == "setting" && report.field.empty()) {
        return IsRequiredSetting(report.key) ? Severity::Error : Severity::Warning;
      }
      return last == fields::kPropertyId || last == fields::kInterfaceObjectId ||
                     (last == fields::kType && report.subject == "parameter") ||
                     last == fields::kFunction
                 ? Severity::Error
                 : Severity::Warning;
    case SkipReason::MissingField:
      return last == fields::kType && report.subject == "parameter" ? Severity::Error
                                                                    : Severity::Warning;
    default:
      return Severity::Warning;
  }
}

// The record names of a static-data path ("Timers/Morning").
std::vector<std::string> PathParts(const std::string& path) {
  std::vector<std::string> parts;
  for (std::size_t start = 0;;) {
    const std::size_t slash = path.find('/', start);
    parts.push_back(path.substr(start, slash == std::string::npos ? slash : slash - start));
    if (slash == std::string::npos) break;
    start = slash + 1;
  }
  return parts;
}

// A static-data path as findings show it: deep ones keep their two ends.
std::string ShownPath(const std::string& path) {
  const std::vector<std::string> parts = PathParts(path);
  if (parts.size() <= 6) return path;
  return parts[0] + "/" + parts[1] + "/.../" + parts[parts.size() - 2] + "/" + parts.back();
}

// The record of a path nested past the limit that contains itself: the path up
// to the first repeat of the names that then repeat to its end; empty when
// they do not.
std::string CyclicRecord(const std::string& path) {
  const std::vector<std::string> parts = PathParts(path);
  const std::size_t count = parts.size();
  for (std::size_t period = 1; period <= 16 && 3 * period <= count; ++period) {
    std::size_t start = count - period;
    while (start > 0 && parts[start - 1] == parts[start - 1 + period]) --start;
    if (count - start < 3 * period) continue;
    std::string record;
    for (std::size_t index = 0; index < start + period; ++index) {
      record += (index == 0 ? "" : "/") + parts[index];
    }
    return record;
  }
  return std::string();
}

// The record path a slot names: "static data 'Timers/Morning'" gives Timers/Morning.
std::string SlotPath(const std::string& slot) {
  const std::size_t quote = slot.find('\'');
  return quote == std::string::npos ? std::string()
                                    : slot.substr(quote + 1, slot.size() - quote - 2);
}

// ", parameter 'State'", for a parameter without key its place in the list
// (", parameter [4]"), or when that is unknown ", a parameter without Key".
std::string ParameterWhere(const std::string& key, const std::string& position) {
  if (!key.empty()) return ", parameter '" + key + "'";
  return position.empty() ? ", a parameter without Key" : ", parameter " + position;
}

// The note that a list entry is no parameter table at all.
bool IsNoParameterTable(const SkipReport& report) {
  return report.subject == "parameter" && report.key.empty() && report.field.empty() &&
         !report.position.empty() && report.reason == SkipReason::WrongValueType;
}

// The place in the list of the one parameter without Key among the parameters
// of the record at path, when the notes give it; empty when there are more.
std::string KeylessPosition(const std::vector<SkipReport>& reports,
                            const std::vector<LuaParameter>& parameters, const std::string& path) {
  if (std::count_if(parameters.begin(), parameters.end(),
                    [](const LuaParameter& parameter) { return parameter.key.empty(); }) != 1) {
    return std::string();
  }
  std::set<std::string> positions;
  for (const SkipReport& report : reports) {
    if (report.subject == "parameter" && report.key.empty() && !report.position.empty() &&
        !IsNoParameterTable(report) && SlotPath(report.slot) == path) {
      positions.insert(report.position);
    }
  }
  return positions.size() == 1 ? *positions.begin() : std::string();
}

// Whether the readers noted that field of the parameter.
bool Noted(const std::vector<SkipReport>& reports, const std::string& key, std::string_view field) {
  return std::any_of(reports.begin(), reports.end(), [&](const SkipReport& report) {
    return report.subject == "parameter" && report.key == key && report.field == field;
  });
}

// For a missing field, the unknown field of the same table that misspells it;
// for an unknown field, the missing field it misspells: one mistake, told once.
const SkipReport* Misspelling(const SkipReport& report, const std::vector<SkipReport>& reports) {
  const bool missing = report.reason == SkipReason::MissingField;
  if (!missing && report.reason != SkipReason::UnknownField) return nullptr;
  const std::size_t dot = report.field.rfind('.');
  const std::string parent = dot == std::string::npos ? "" : report.field.substr(0, dot + 1);
  for (const SkipReport& other : reports) {
    if (other.reason != (missing ? SkipReason::UnknownField : SkipReason::MissingField) ||
        other.slot != report.slot || other.key != report.key || other.position != report.position ||
        other.field.rfind(parent, 0) != 0 ||
        other.field.find('.', parent.size()) != std::string::npos) {
      continue;
    }
    const std::string name = (missing ? report : other).field.substr(parent.size());
    const std::string unknown = (missing ? other : report).field.substr(parent.size());
    if (ClosestName(unknown, {name}) == name) return &other;
  }
  return nullptr;
}

}  // namespace

// --- The plug-in's readers ---------------------------------------------------------

template <typename Read>
bool Checker::ReadTable(const Context& context, std::vector<SkipReport>& reports, Read&& read) {
  Collector collector(reports);
  m_lua.SetDiagnostics(&collector);
  std::string failure;
  try {
    read();
  } catch (const std::exception& error) {
    // A numeric key stops lua_next with an error outside any call, as in a download.
    failure = error.what();
  }
  m_lua.SetDiagnostics(nullptr);
  if (failure.empty()) return true;
  const bool told = std::any_of(reports.begin(), reports.end(), [](const SkipReport& report) {
    return report.reason == SkipReason::NumericKey;
  });
  const std::string path = SlotPath(collector.Slot());
  const std::string cyclic = CyclicRecord(path);
  if (!told && failure.rfind("Static data of the script is nested deeper", 0) == 0) {
    if (!cyclic.empty()) {
      Report(Severity::Error, context.With(", entry '" + ShownPath(cyclic) + "'"),
             "contains itself through SubData: the nesting never ends and the download would "
             "abort");
    } else {
      Report(Severity::Error, context.With(", entry '" + ShownPath(path) + "'"),
             "SubData is nested deeper than " + std::to_string(lkdh::kMaxStaticDataDepth) +
                 " levels: the download would abort");
    }
  } else if (!told) {
    Report(Severity::Error, context, "the plug-in cannot read the table: " + failure);
  }
  return false;
}

void Checker::ReportSkips(const Context& context, const std::vector<SkipReport>& reports,
                          const std::map<std::string, Place>& showIfPlaces) {
  // The readers report in the order of lua_next, which changes from run to run.
  std::vector<const SkipReport*> ordered;
  for (const SkipReport& report : reports) ordered.push_back(&report);
  std::stable_sort(ordered.begin(), ordered.end(), [](const SkipReport* a, const SkipReport* b) {
    return std::tie(a->slot, a->key, a->position, a->field, a->detail) <
           std::tie(b->slot, b->key, b->position, b->field, b->detail);
  });
  for (const SkipReport* next : ordered) {
    const SkipReport& report = *next;
    const SkipReport* misspelling = Misspelling(report, reports);
    if (misspelling != nullptr && report.reason == SkipReason::MissingField) continue;
    const std::size_t dot = report.field.rfind('.');
    const std::string parent =
        dot == std::string::npos ? std::string() : report.field.substr(0, dot);
    std::string last = report.field.substr(dot == std::string::npos ? 0 : dot + 1);
    if (const std::size_t bracket = last.find('['); bracket != std::string::npos) last.clear();
    Context at = context;
    const std::string path = SlotPath(report.slot);
    const bool noTable = IsNoParameterTable(report);
    if (report.subject == "parameter") {
      if (!path.empty()) at = at.With(", entry '" + ShownPath(path) + "'");
      if (!noTable) at = at.With(ParameterWhere(report.key, report.position));
      if (const int line = KeyLine(at.place.file, report.key); line != 0) at.place.line = line;
      // Findings about a ShowIf rule point at its function, as the check's own do.
      const auto place = showIfPlaces.find(path + "\x1f" + report.key);
      if (report.field.rfind("ShowIf", 0) == 0 && place != showIfPlaces.end()) {
        at = at.At(place->second);
      }
    } else if (report.subject == "record") {
      const std::string record = path.empty() ? report.key : path;
      if (!record.empty()) at = at.With(", entry '" + ShownPath(record) + "'");
    } else if (report.subject == "setting" && !report.key.empty() &&
               !(report.field.empty() && report.reason == SkipReason::WrongValueType)) {
      at = at.With(", setting '" + report.key + "'");
    }
    // A note about a key names the table that holds it.
    const bool aboutKey =
        report.reason == SkipReason::NumericKey || report.reason == SkipReason::WrongKeyType;
    const std::string& table = aboutKey ? report.field : parent;
    std::string message = table.empty() ? std::string() : table + ": ";
    if (report.reason == SkipReason::NumericKey) {
      message += "numeric key " + report.detail;
    } else if (noTable) {
      // "a list entry is a string, ...": which entry, by its place in the list.
      const std::size_t is = report.detail.find(" is ");
      message += is == std::string::npos
                     ? report.detail
                     : "list entry " + report.position + report.detail.substr(is);
    } else if (report.reason == SkipReason::UnknownField) {
      const std::string field = report.field.substr(dot == std::string::npos ? 0 : dot + 1);
      const std::string suggestion = ClosestName(field, KnownFields(report, parent));
      message += "unknown field '" + field + "' is ignored" +
                 (suggestion.empty() ? std::string() : " (did you mean '" + suggestion + "'?)");
      if (misspelling != nullptr) {
        // The consequence of the field it misspells: "no 'Type': the entry gives no argument".
        message += misspelling->detail.substr(misspelling->detail.find("': ") + 1);
      }
    } else if (report.subject == "setting" && report.field.empty() &&
               report.reason == SkipReason::WrongValueType) {
      message += "setting '" + report.key + "': " + report.detail +
                 (IsRequiredSetting(report.key) ? ", so no document is written" : "");
    } else {
      message += report.detail;
    }
    Report(misspelling != nullptr ? SeverityOf(*misspelling, misspelling->field.substr(dot + 1))
                                  : SeverityOf(report, last),
           at, message);
  }
}

void Checker::CheckAddress(PropertyInfo info, const Context& context, const std::string& what,
                           const std::string& consequence) {
  if (!m_dump) return;
  const std::string object = std::to_string(info.InterfaceObjectId);
  const auto found = m_dump->interfaceObjects.find(info.InterfaceObjectId);
  std::string why;
  if (found == m_dump->interfaceObjects.end() || found->second.empty()) {
    why = "there is no interface object " + object;
  } else if (lkdh::detail::FindProperty(info, m_dump->interfaceObjects) == nullptr) {
    why = std::string(found->second.size() > 1 ? "the first interface object "
                                               : "interface object ") +
          object + " has no property " + std::to_string(info.PropertyId);
  } else {
    return;
  }
  Report(Severity::Warning, context,
         what + " (interface object " + object + ", property " + std::to_string(info.PropertyId) +
             ") is not in the download: " + why + consequence);
}

// No dump: an empty download, so 0, false, "" and for Text and Name the wrong-property-id text.
ValueSource Checker::Values(Slot slot) const {
  static const lkdh::InterfaceObjectMap kNoObjects;
  static const KnxStack::BinaryData kNoMemory;
  const auto& objects = m_dump != nullptr ? m_dump->interfaceObjects : kNoObjects;
  const auto& memory = m_dump != nullptr ? m_dump->memory : kNoMemory;
  return slot ? ValueSource::ArrayElement(objects, memory, m_limits, *slot)
              : ValueSource::WholeProperty(objects, memory, m_limits);
}

int Checker::KeyLine(const std::string& file, const std::string& key) {
  if (file.empty() || key.empty()) return 0;
  const auto found = m_keyLines.find({file, key});
  if (found != m_keyLines.end()) return found->second;
  const int line = LineNamingKey(file, key);
  m_keyLines.emplace(std::make_pair(file, key), line);
  return line;
}

// --- Settings ------------------------------------------------------------------------

PropertyInfo Checker::Setting(const std::string& name) const {
  const auto found = m_settings.find(name);
  return found != m_settings.end() ? found->second : PropertyInfo{};
}

bool Checker::CallForTable(const Context& context, Severity severity, const std::string& readAs) {
  const CallResult result = CallGlobal(context.call.c_str(), context.arguments);
  if (!result.Ok()) {
    ReportFailure(context, result, "", WhenItFails(context.call));
    return false;
  }
  if (lua_type(m_state, -1) == LUA_TTABLE) return true;
  Report(severity, context, "returns " + Describe(-1) + ", not a table: " + readAs);
  lua_pop(m_state, 1);
  return false;
}

void Checker::CheckPropertyIds() {
  if (!Present(kGetPropertyIds)) return;
  const Context context = ContextFor(kGetPropertyIds, {});
  if (!CallForTable(context, Severity::Error, WhenItFails(kGetPropertyIds))) return;
  std::vector<SkipReport> reports;
  std::map<std::string, PropertyInfo> settings;
  ReadTable(context, reports, [&] { settings = m_lua.InGetPropertyIds(); });
  lua_settop(m_state, 0);
  ReportSkips(context, reports);
  // Named: what the plug-in read, and what it left out as no property table.
  std::set<std::string> named;
  for (const auto& [name, info] : settings) {
    named.insert(name);
    m_settings[name] = info;
    CheckAddress(info, context.With(", setting '" + name + "'"), "its property", "");
  }
  for (const SkipReport& report : reports) {
    if (report.subject == "setting" && !report.key.empty()) named.insert(report.key);
  }
  const std::vector<std::string> names(lkdh::kSettingNames.begin(), lkdh::kSettingNames.end());
  for (const std::string& name : named) {
    if (std::find(names.begin(), names.end(), name) != names.end()) continue;
    const std::string suggestion = ClosestName(name, names);
    if (!suggestion.empty() && named.count(suggestion) == 0) {
      Report(
          Severity::Warning, context,
          "setting '" + name + "' is not read by the plug-in (did you mean '" + suggestion + "'?)");
    } else {
      Report(Severity::Info, context, "setting '" + name + "' is not read by the plug-in");
    }
  }
  for (const std::string& name : names) {
    if (named.count(name) != 0) continue;
    if (IsRequiredSetting(name)) {
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
  const ValueSource settings = Values(std::nullopt);
  m_limits.name = settings.UInt8(Setting("MaxNameCharCount")).value_or(0);
  m_limits.text = settings.UInt8(Setting("MaxTextCharCount")).value_or(0);
}

void Checker::CheckDcsType() {
  if (!Present(kHandleDcsType)) return;
  std::vector<std::int64_t> values;
  if (m_dump) {
    const ValueSource settings = Values(std::nullopt);
    values.push_back(
        lkdh::ScriptDcsType(settings.UInt8(Setting("DcsType")).value_or(0),
                            settings.Bool(Setting("UseDcsFloorcall")).value_or(false)));
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

// --- Parameters and ShowIf -------------------------------------------------------------

// The list at the top, read as the plug-in reads it; popped. Each ShowIf
// function is called with the values of each slot.
std::vector<LuaParameter> Checker::CheckParameterList(const Context& context,
                                                      const std::vector<Slot>& slots) {
  std::vector<SkipReport> reports;
  std::vector<LuaParameter> parameters;
  const int top = lua_gettop(m_state) - 1;
  ReadTable(context, reports, [&] { parameters = m_lua.GetLuaParameters(); });
  lua_settop(m_state, std::max(top, 0));
  std::map<std::string, Place> showIfPlaces;
  AddShowIfPlaces(parameters, "", showIfPlaces);
  ReportSkips(context, reports, showIfPlaces);
  const std::string keyless = KeylessPosition(reports, parameters, "");
  for (const LuaParameter& parameter : parameters) {
    const Context at = ParameterContext(context, parameter, keyless);
    CheckParameter(parameter, at, reports);
    CheckShowIf(parameter, at, slots, reports);
  }
  return parameters;
}

Context Checker::ParameterContext(const Context& context, const LuaParameter& parameter,
                                  const std::string& position) {
  Context at = context.With(ParameterWhere(parameter.key, position));
  if (const int line = KeyLine(at.place.file, parameter.key); line != 0) at.place.line = line;
  return at;
}

// What the readers cannot tell: whether a writer knows the value type, and
// whether the download holds the property.
void Checker::CheckParameter(const LuaParameter& parameter, const Context& at,
                             const std::vector<SkipReport>& reports) {
  // A missing or wrong-typed Type is a note of the readers already.
  if (!Noted(reports, parameter.key, fields::kType) &&
      lkdh::FindValueType(parameter.type) == nullptr) {
    Report(Severity::Error, at,
           UnknownValueType(parameter.type) + ": the parameter is silently left out");
  }
  CheckAddress(parameter.property, at, "Property", "");
}

std::string Checker::UnknownValueType(const std::string& type) const {
  std::vector<std::string> names;
  for (const auto& known : lkdh::kValueTypes) names.emplace_back(known.name);
  const std::string suggestion = ClosestName(type, names);
  return "unknown value type '" + type + "'" +
         (suggestion.empty() ? std::string() : " (did you mean '" + suggestion + "'?)");
}

// The rule as the plug-in read it, and a call of its function for each slot.
void Checker::CheckShowIf(const LuaParameter& parameter, const Context& parameterContext,
                          const std::vector<Slot>& slots, const std::vector<SkipReport>& reports) {
  const auto& rule = parameter.showIf;
  Context context = parameterContext;
  if (rule.functionRef != 0) {
    lua_rawgeti(m_state, LUA_REGISTRYINDEX, rule.functionRef);
    context = context.At(DefinitionOf(-1));
    lua_pop(m_state, 1);
  }
  // A Function or PropertyIds of the wrong type is a note of the readers already.
  if (rule.functionRef == 0) {
    if (!rule.propertyIds.empty() && !Noted(reports, parameter.key, "ShowIf.Function")) {
      Report(Severity::Error, context,
             "ShowIf has PropertyIds but no Function: the plug-in calls an invalid reference and "
             "always hides the parameter");
    }
    return;
  }
  if (rule.propertyIds.empty()) {
    if (Noted(reports, parameter.key, "ShowIf.PropertyIds")) return;
    Report(Severity::Warning, context,
           "ShowIf has a Function but no PropertyIds: the function is never called and the "
           "parameter is always shown");
    return;
  }
  for (std::size_t index = 0; index < rule.propertyIds.size(); ++index) {
    const auto& entry = rule.propertyIds[index];
    const std::string prefix = "ShowIf PropertyIds entry [" + std::to_string(index + 1) + "]: ";
    const auto* info = lkdh::FindValueType(entry.type);
    if (info != nullptr && !info->showIfArgument) {
      Report(Severity::Warning, context,
             prefix + "a '" + std::string(info->name) +
                 "' entry passes no argument (a later one takes its place)");
    } else if (info == nullptr && !entry.type.empty()) {
      Report(Severity::Error, context,
             prefix + UnknownValueType(entry.type) +
                 ": the entry passes no argument (a later one takes its place)");
    }
    CheckAddress(entry.id, context, prefix + "Id", "");
  }
  for (const Slot& slot : slots) {
    const ovslua::Lua::Args arguments =
        lkdh::detail::MakeShowIfArgs(rule.propertyIds, Values(slot));
    EnsureStack(static_cast<int>(arguments.Count()) + 1);
    lua_rawgeti(m_state, LUA_REGISTRYINDEX, rule.functionRef);
    m_lua.PushArguments(arguments);
    const CallResult result = ProtectedCall(static_cast<int>(arguments.Count()), 1);
    if (!result.Ok()) {
      ReportFailure(context, result, "ShowIf function ", "the parameter is hidden");
      continue;
    }
    const int returned = lua_type(m_state, -1);
    if (returned == LUA_TNIL) {
      Report(Severity::Warning, context,
             "ShowIf function returns nil, not a boolean: read as false, so the parameter is "
             "hidden");
    } else if (returned != LUA_TBOOLEAN) {
      Report(Severity::Warning, context,
             "ShowIf function returns " + Describe(-1) +
                 ", not a boolean: read as true, so the parameter is shown");
    }
    lua_pop(m_state, 1);
  }
  luaL_unref(m_state, LUA_REGISTRYINDEX, rule.functionRef);
}

void Checker::AddShowIfPlaces(const std::vector<LuaParameter>& parameters, const std::string& path,
                              std::map<std::string, Place>& places) const {
  for (const LuaParameter& parameter : parameters) {
    if (parameter.showIf.functionRef == 0) continue;
    lua_rawgeti(m_state, LUA_REGISTRYINDEX, parameter.showIf.functionRef);
    places.emplace(path + "\x1f" + parameter.key, DefinitionOf(-1));
    lua_pop(m_state, 1);
  }
}

void Checker::AddStaticShowIfPlaces(const std::vector<LuxStaticData>& records,
                                    const std::string& parent,
                                    std::map<std::string, Place>& places) const {
  for (const LuxStaticData& record : records) {
    const std::string path = parent.empty() ? record.name : parent + "/" + record.name;
    AddShowIfPlaces(record.parameters, path, places);
    AddStaticShowIfPlaces(record.subData, path, places);
  }
}

// The URN selector of the channel type, as the plug-in's query reads it.
PropertyInfo Checker::CheckSelector(const Context& context, std::uint32_t type) {
  std::vector<SkipReport> reports;
  PropertyInfo selector;
  ReadTable(context, reports, [&] { selector = m_lua.GetPropertyIndexForUrns(type); });
  ReportSkips(context, reports);
  CheckAddress(selector, context, "the URN selector", "");
  return selector;
}

// --- Static data ---------------------------------------------------------------------

void Checker::CheckStaticData() {
  if (!Present(kGetStaticData)) return;
  const Context context = ContextFor(kGetStaticData, {});
  if (!CallForTable(context, Severity::Warning, "read as no static data")) return;
  std::vector<SkipReport> reports;
  std::vector<LuxStaticData> records;
  const bool read = ReadTable(context, reports, [&] { records = m_lua.InGetStaticData(); });
  lua_settop(m_state, 0);
  std::map<std::string, Place> showIfPlaces;
  AddStaticShowIfPlaces(records, "", showIfPlaces);
  ReportSkips(context, reports, showIfPlaces);
  if (read) CheckStaticRecords(records, context, "", reports);
}

void Checker::CheckStaticRecords(const std::vector<LuxStaticData>& records, const Context& context,
                                 const std::string& parent,
                                 const std::vector<SkipReport>& reports) {
  for (const LuxStaticData& record : records) {
    const std::string path = parent.empty() ? record.name : parent + "/" + record.name;
    const Context entry = context.With(", entry '" + ShownPath(path) + "'");
    if (record.enabledProperty) {
      CheckAddress(*record.enabledProperty, entry, "EnabledProperty",
                   ": the entry and everything in it are left out");
    }
    auto& types = m_knowledge.staticParameterTypes[path];
    const std::string keyless = KeylessPosition(reports, record.parameters, path);
    for (const LuaParameter& parameter : record.parameters) {
      types.emplace(parameter.key, parameter.type);
      const Context at = ParameterContext(entry, parameter, keyless);
      CheckParameter(parameter, at, reports);
      CheckShowIf(parameter, at, {std::nullopt}, reports);
    }
    CheckStaticRecords(record.subData, context, path, reports);
  }
}

}  // namespace lkdh::host::detail
