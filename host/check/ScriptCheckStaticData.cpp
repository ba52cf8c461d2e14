// Checks of the static data (GetStaticData): its entries, their fields and
// parameters, and SubData nested to any depth.
#include "ScriptCheckInternal.h"

#include <LuaKnxDownloadHandler/ScriptFields.h>

#include <LuaKnxDownloadHandler/Rules.h>

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace lkdh::host::detail {

namespace fields = Korvex::luaknxdownloadhandler::fields;

namespace {

const std::vector<std::string> kStaticEntryFields = fields::Names(fields::kStaticDataTable);

using Korvex::luaknxdownloadhandler::kMaxStaticDataDepth;

// A static-data path as findings show it: deep ones keep their two ends.
std::string ShownPath(const std::string& path) {
  std::vector<std::string> parts;
  for (std::size_t start = 0;;) {
    const std::size_t slash = path.find('/', start);
    parts.push_back(path.substr(start, slash == std::string::npos ? slash : slash - start));
    if (slash == std::string::npos) break;
    start = slash + 1;
  }
  if (parts.size() <= 6) return path;
  return parts[0] + "/" + parts[1] + "/.../" + parts[parts.size() - 2] + "/" + parts.back();
}

}  // namespace

void Checker::CheckStaticData() {
  if (!Present(kGetStaticData)) return;
  const Context context = ContextFor(kGetStaticData, {});
  const CallResult result = CallGlobal(kGetStaticData, {});
  if (!result.Ok()) {
    ReportFailure(context, result, "", WhenItFails(kGetStaticData));
    return;
  }
  if (lua_type(m_state, -1) != LUA_TTABLE) {
    Report(Severity::Warning, context,
           "returns " + Describe(-1) + ", not a table: read as no static data");
  } else {
    WalkStaticTable(lua_gettop(m_state), context, "", 1);
  }
  lua_pop(m_state, 1);
}

void Checker::WalkStaticTable(int table, const Context& context, const std::string& parent,
                              int depth) {
  table = lua_absindex(m_state, table);
  const Context parentContext =
      parent.empty() ? context : context.With(", entry '" + ShownPath(parent) + "'");
  // The plug-in counts static-data tables, empty ones too, and gives up past its limit.
  if (depth > kMaxStaticDataDepth) {
    Report(Severity::Error, parentContext,
           "SubData is nested deeper than " + std::to_string(kMaxStaticDataDepth) +
               " levels: the download would abort");
    return;
  }
  bool numericReported = false;
  for (const Key& key : Keys(table)) {
    if (key.type == LUA_TNUMBER) {
      if (!numericReported) {
        Report(Severity::Error, parentContext,
               parent.empty() ? "numeric key [" + key.text +
                                    "] in the static-data table: the download would abort"
                              : "list-shaped SubData (numeric key [" + key.text +
                                    "]): the download would abort");
        numericReported = true;
      }
      continue;
    }
    if (key.type != LUA_TSTRING) {
      Report(Severity::Warning, parentContext,
             "a key of type " + key.text + " in a static-data table is ignored");
      continue;
    }
    const std::string path = parent.empty() ? key.text : parent + "/" + key.text;
    PushField(table, key);
    if (lua_type(m_state, -1) == LUA_TTABLE) {
      WalkStaticEntry(lua_gettop(m_state), context, path, depth);
    } else {
      Report(Severity::Warning, context,
             "entry '" + ShownPath(path) + "' is " + Describe(-1) + ", not a table: skipped");
    }
    lua_pop(m_state, 1);
  }
}

void Checker::WalkStaticEntry(int table, const Context& context, const std::string& path,
                              int depth) {
  const Context entryContext = context.With(", entry '" + ShownPath(path) + "'");
  const void* identity = lua_topointer(m_state, table);
  if (m_staticPath.count(identity) != 0) {
    Report(Severity::Error, entryContext,
           "contains itself through SubData: the nesting never ends and the download would "
           "abort");
    return;
  }
  m_staticPath.insert(identity);
  bool hasType = false;
  WalkFields(
      table, entryContext, "a static-data entry table", [&](const std::string& field, int value) {
        if (field == fields::kEnabledProperty) {
          if (lua_type(m_state, value) == LUA_TTABLE) {
            const PropertyAddress address =
                CheckPropertyTable(value, entryContext, "EnabledProperty: ");
            CheckAddress(address, entryContext, "EnabledProperty",
                         ": the entry and everything in it are left out");
          } else {
            Report(Severity::Warning, entryContext,
                   "EnabledProperty is " + Describe(value) +
                       ", not a property table: ignored, so the entry is always written");
          }
        } else if (field == fields::kType) {
          hasType = true;
          if (!IsText(value)) {
            Report(Severity::Warning, entryContext,
                   "Type is " + Describe(value) + ", not a string: the entry's type is empty");
          }
        } else if (field == fields::kParameters) {
          if (lua_type(m_state, value) == LUA_TTABLE) {
            CheckStaticParameters(value, entryContext, path);
          } else {
            Report(Severity::Warning, entryContext,
                   "Parameters is " + Describe(value) + ", not a list: read as no parameters");
          }
        } else if (field == fields::kSubData) {
          if (lua_type(m_state, value) != LUA_TTABLE) {
            Report(Severity::Warning, entryContext,
                   "SubData is " + Describe(value) + ", not a table: read as no nested entries");
          } else if (m_staticPath.count(lua_topointer(m_state, value)) != 0) {
            Report(Severity::Error, entryContext,
                   "SubData contains itself: the nesting never ends and the download would abort");
          } else {
            const void* subData = lua_topointer(m_state, value);
            m_staticPath.insert(subData);
            WalkStaticTable(value, context, path, depth + 1);
            m_staticPath.erase(subData);
          }
        } else {
          ReportUnknownField(entryContext, "", field, kStaticEntryFields);
        }
      });
  if (!hasType) Report(Severity::Warning, entryContext, "has no Type: the entry's type is empty");
  m_staticPath.erase(identity);
}

void Checker::CheckStaticParameters(int list, const Context& context, const std::string& path) {
  std::vector<ParameterRecord> records = WalkParameterList(list, context);
  auto& types = m_knowledge.staticParameterTypes[path];
  for (ParameterRecord& record : records) {
    types.emplace(record.key, record.type);
    if (!record.showIf) continue;
    CallShowIf(*record.showIf, {m_dump.has_value(), std::nullopt});
    luaL_unref(m_state, LUA_REGISTRYINDEX, record.showIf->function);
  }
}

}  // namespace lkdh::host::detail
