#pragma once
// Shared by the files of the script check: the checker, which runs every check
// on one interpreter, and the types its checks pass between them.

#include "DumpAccess.h"
#include "Findings.h"
#include "ScriptCheck.h"

#include <LuaKnxDownloadHandler/ScriptFunctions.h>

#include <ovslua/Lua.h>

#include <lua.hpp>

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace lkdh::host::detail {

using Korvex::luaknxdownloadhandler::script::kChannelUrn;
using Korvex::luaknxdownloadhandler::script::kChannelUrnBySelector;
using Korvex::luaknxdownloadhandler::script::kFunctionUrn;
using Korvex::luaknxdownloadhandler::script::kFunctionUrnBySelector;
using Korvex::luaknxdownloadhandler::script::kGetParameters;
using Korvex::luaknxdownloadhandler::script::kGetPropertyIds;
using Korvex::luaknxdownloadhandler::script::kGetPropertyIndexForUrns;
using Korvex::luaknxdownloadhandler::script::kGetStaticData;
using Korvex::luaknxdownloadhandler::script::kHandleDcsType;
using Korvex::luaknxdownloadhandler::script::kIsThereUrns;
using Korvex::luaknxdownloadhandler::script::kTemplateIndex;

// What the plug-in makes of one failed call of the global function.
std::string WhenItFails(const std::string& name);

// The interpreter exactly as the plug-in's bridge sets it up (standard
// libraries, source text only, the panic handler); the subclass reaches its state.
class Interpreter final : public ovslua::Lua {
 public:
  Interpreter() = default;
  // Closed here, while the memory budget that its allocator uses still exists.
  ~Interpreter() override { Release(); }
  Interpreter(const Interpreter&) = delete;
  Interpreter& operator=(const Interpreter&) = delete;

  lua_State* State() const noexcept { return m_luaState; }
  const std::string& ErrorMessage() const noexcept { return m_errorMessage; }
};

// Shared with the allocator and the count hook through the state's extra space.
struct Budget {
  lua_Alloc allocate = nullptr;
  void* allocateData = nullptr;
  std::size_t used = 0;
  bool memoryExceeded = false;
  bool callExpired = false;
};

struct Place {
  std::string file;
  int line = 0;
};

// Which finding a check reports, and where.
struct Context {
  Place place;
  std::string call;
  std::vector<std::int64_t> arguments;
  std::string where;

  Context With(const std::string& more) const {
    Context context = *this;
    context.where += more;
    return context;
  }
  Context At(const Place& other) const {
    Context context = *this;
    if (!other.file.empty()) context.place = other;
    return context;
  }
};

struct CallResult {
  enum class Status { Ok, Error, TooLong, NoMemory };
  Status status = Status::Ok;
  std::string message;  // without the place, when it named one
  Place place;          // where the error was raised, when the message says

  bool Ok() const noexcept { return status == Status::Ok; }
};

// One key of a table, as read during a traversal.
struct Key {
  int type = LUA_TNIL;
  std::string text;  // strings as they are, numbers as Lua writes them, else the type name
  bool isInteger = false;
  lua_Integer integer = 0;
  lua_Number number = 0;

  static Key Named(const char* name) {
    Key key;
    key.type = LUA_TSTRING;
    key.text = name;
    return key;
  }

  std::string Bracketed() const {
    if (type == LUA_TSTRING) return "['" + text + "']";
    return "[" + text + "]";
  }
};

struct ShowIfEntry {
  std::string type;
  PropertyAddress id;
};

struct ShowIfRule {
  int function = LUA_NOREF;  // registry reference
  std::vector<ShowIfEntry> entries;
  Context context;
};

struct ParameterRecord {
  std::string key;
  std::string type;
  std::optional<ShowIfRule> showIf;
};

// Where ShowIf arguments come from: the dump's values of one slot (or of the
// whole property for static data), or zero values without a dump.
struct ArgumentSource {
  bool fromDump = false;
  Element element;
};

class Checker {
 public:
  explicit Checker(const ScriptCheckInput& input) : m_input(input) {
    if (input.dump != nullptr) m_dump.emplace(*input.dump);
  }

  ScriptCheckResult Run();

 private:
  // --- Set-up (ScriptCheckInterpreter.cpp) ------------------------------------

  bool Start();
  void CheckEnvironment();

  // --- Reporting (ScriptCheck.cpp) ----------------------------------------------

  void Report(Severity severity, const Context& context, const std::string& message);
  void ReportFailure(const Context& context, const CallResult& result, const std::string& subject,
                     const std::string& consequence, Severity severity = Severity::Error);
  void ReportUnknownField(const Context& context, const std::string& prefix,
                          const std::string& field, const std::vector<std::string>& known);

  // --- Interpreter helpers (ScriptCheckInterpreter.cpp) -------------------------

  void SplitPlace(const std::string& message, CallResult& result) const;
  void EnsureStack(int slots) const;
  std::string TextOf(int index) const;
  std::string Describe(int index) const;
  std::string NotInteger(const std::string& field, int index) const;
  bool IsText(int index) const;
  Place DefinitionOf(int index) const;
  int PushGlobal(const char* name) const;
  CallResult ProtectedCall(int arguments, int results);
  CallResult CallGlobal(const char* name, const std::vector<std::int64_t>& arguments,
                        int results = 1);
  std::vector<Key> Keys(int table) const;
  void PushField(int table, const Key& key) const;

  // Named-field tables: the plug-in converts each key to text in place, which
  // breaks its traversal at the first numeric key; other key types it skips.
  template <typename OnField>
  void WalkFields(int table, const Context& context, const std::string& tableKind,
                  OnField&& onField) {
    table = lua_absindex(m_state, table);
    bool numericReported = false;
    for (const Key& key : Keys(table)) {
      if (key.type == LUA_TNUMBER) {
        if (!numericReported) {
          Report(Severity::Error, context,
                 "numeric key [" + key.text + "] in " + tableKind + ": the download would abort");
          numericReported = true;
        }
        continue;
      }
      if (key.type != LUA_TSTRING) {
        Report(Severity::Warning, context,
               "a key of type " + key.text + " in " + tableKind + " is ignored");
        continue;
      }
      PushField(table, key);
      onField(key.text, lua_gettop(m_state));
      lua_pop(m_state, 1);
    }
  }

  // --- Property tables (ScriptCheckPropertyTables.cpp) ----------------------------

  PropertyAddress CheckPropertyTable(int table, const Context& context, const std::string& prefix);
  void CheckAddress(PropertyAddress address, const Context& context, const std::string& what,
                    const std::string& consequence);

  // --- Global functions (ScriptCheck.cpp) -----------------------------------------

  bool Present(const char* name) const { return m_definitions.count(name) != 0; }
  Context ContextFor(const char* name, std::vector<std::int64_t> arguments) const;
  void CheckPresence();

  // --- Settings and door communication (ScriptCheckSettings.cpp) ------------------

  PropertyAddress Setting(const std::string& name) const;
  void CheckPropertyIds();
  void ReadLimits();
  void CheckDcsType();

  // --- Channel types (ScriptCheckChannelTypes.cpp) --------------------------------

  struct Probe {
    std::int64_t value = 0;
    FindingList findings;
    bool described = false;
  };

  void CheckChannelTypes();
  std::vector<std::uint32_t> SlotsOf(std::int64_t type) const;
  bool CheckChannelType(std::int64_t type);
  bool CheckParameters(std::int64_t type);

  // --- URN and template functions (ScriptCheckUrns.cpp) ---------------------------

  void CheckSelectors(std::int64_t type);
  bool CheckText(const char* name, const std::vector<std::int64_t>& arguments);

  // --- Parameters (ScriptCheckParameters.cpp) -------------------------------------

  std::vector<ParameterRecord> WalkParameterList(int list, const Context& context);
  void CheckValueType(const Context& context, const std::string& prefix, const std::string& type,
                      const std::string& consequence);
  void WalkParameter(int table, const Context& listContext, const Key& listKey,
                     std::vector<ParameterRecord>& records);
  int KeyLine(const std::string& file, const std::string& key);

  // --- ShowIf (ScriptCheckShowIf.cpp) ---------------------------------------------

  std::optional<ShowIfRule> WalkShowIf(int table, const Context& parameterContext);
  std::size_t WalkShowIfEntries(int list, const Context& context,
                                std::vector<ShowIfEntry>& entries);
  void WalkShowIfEntry(int table, const Context& context, const std::string& prefix,
                       std::vector<ShowIfEntry>& entries);
  ovslua::Lua::Args ShowIfArguments(const std::vector<ShowIfEntry>& entries,
                                    const ArgumentSource& source) const;
  void CallShowIf(const ShowIfRule& rule, const ArgumentSource& source);

  // --- Static data (ScriptCheckStaticData.cpp) ------------------------------------

  void CheckStaticData();
  void WalkStaticTable(int table, const Context& context, const std::string& parent, int depth);
  void WalkStaticEntry(int table, const Context& context, const std::string& path, int depth);
  void CheckStaticParameters(int list, const Context& context, const std::string& path);

  // Declared before the interpreter, whose allocator uses it until it is closed.
  Budget m_budget;
  Interpreter m_lua;
  lua_State* m_state = nullptr;

  ScriptCheckInput m_input;
  std::optional<DumpAccess> m_dump;
  FindingList m_findings;
  FindingList* m_sink = &m_findings;
  ScriptKnowledge m_knowledge;

  std::map<std::string, Place> m_definitions;         // the global functions present
  std::map<std::string, PropertyAddress> m_settings;  // as the plug-in reads them
  std::uint8_t m_nameLimit = 0;
  std::uint8_t m_textLimit = 0;
  std::set<const void*> m_staticPath;  // entries and SubData tables being walked
  std::map<std::pair<std::string, std::string>, int> m_keyLines;  // LineNamingKey, once each
};

}  // namespace lkdh::host::detail
