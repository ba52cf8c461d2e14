#pragma once
// Shared by the files of the script check: the checker, which runs every check
// on one interpreter, and the types its checks pass between them.

#include "DownloadDump.h"
#include "Findings.h"
#include "ScriptCheck.h"

#include <LuaKnxDownloadHandler/LuxHelper.h>
#include <LuaKnxDownloadHandler/ScriptFunctions.h>
#include <LuaKnxDownloadHandler/ValueSource.h>

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

// The global functions by their names (kGetParameters, ...).
using namespace Korvex::luaknxdownloadhandler::script;

// What the plug-in makes of one failed call of the global function.
std::string WhenItFails(const std::string& name);

using Korvex::luaknxdownloadhandler::LuaParameter;
using Korvex::luaknxdownloadhandler::LuxStaticData;
using Korvex::luaknxdownloadhandler::PropertyInfo;
using Korvex::luaknxdownloadhandler::SkipReason;
using Korvex::luaknxdownloadhandler::detail::ValueSource;

// The plug-in's own script bridge: its interpreter set-up (standard libraries,
// source text only, the panic handler) and its table readers, which read the
// script's answers here as in a download.
class Interpreter final : public Korvex::luaknxdownloadhandler::LuxHelper {
 public:
  Interpreter() = default;
  Interpreter(const Interpreter&) = delete;
  Interpreter& operator=(const Interpreter&) = delete;

  lua_State* State() const noexcept { return m_luaState; }
  const std::string& ErrorMessage() const noexcept { return m_errorMessage; }
  using LuxHelper::Initialize;
  using LuxHelper::LoadInitialized;
  using LuxHelper::PushArguments;
};

// What the readers reported about one table, as the sink got it.
struct SkipReport {
  SkipReason reason{};
  std::string slot;
  std::string subject;
  std::string key;
  std::string detail;
  std::string field;
  std::string position;  // "[4]": the place in its list of a parameter without Key
};

// Shared with the count hook through the state's extra space.
struct Budget {
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

// Which values are read: one function slot's elements of array properties, or
// whole properties (static data, settings).
using Slot = std::optional<std::uint32_t>;

class Checker {
 public:
  explicit Checker(const ScriptCheckInput& input) : m_input(input), m_dump(input.dump) {}

  ScriptCheckResult Run();

 private:
  // --- Set-up (ScriptCheckInterpreter.cpp) ------------------------------------

  bool Start();
  void CheckEnvironment();

  // --- Reporting (ScriptCheck.cpp) ----------------------------------------------

  void Report(Severity severity, const Context& context, const std::string& message);
  void ReportFailure(const Context& context, const CallResult& result, const std::string& subject,
                     const std::string& consequence, Severity severity = Severity::Error);

  // --- Interpreter helpers (ScriptCheckInterpreter.cpp) -------------------------

  void SplitPlace(const std::string& message, CallResult& result) const;
  void EnsureStack(int slots) const;
  std::string TextOf(int index) const;
  std::string Describe(int index) const;
  Place DefinitionOf(int index) const;
  int PushGlobal(const char* name) const;
  CallResult ProtectedCall(int arguments, int results);
  CallResult CallGlobal(const char* name, const std::vector<std::int64_t>& arguments,
                        int results = 1);

  // --- The plug-in's readers (ScriptCheckTables.cpp) ------------------------------

  // Calls the global function of the context; true with the table it returned on
  // top, else the failure or what it returned instead is reported.
  bool CallForTable(const Context& context, Severity severity, const std::string& readAs);
  // Runs read() on the table at the top with a sink; false when the read failed,
  // which the reports or a finding of its own say.
  template <typename Read>
  bool ReadTable(const Context& context, std::vector<SkipReport>& reports, Read&& read);
  // showIfPlaces: the definition of each ShowIf function by record path and key.
  void ReportSkips(const Context& context, const std::vector<SkipReport>& reports,
                   const std::map<std::string, Place>& showIfPlaces = {});
  void AddShowIfPlaces(const std::vector<LuaParameter>& parameters, const std::string& path,
                       std::map<std::string, Place>& places) const;
  void AddStaticShowIfPlaces(const std::vector<LuxStaticData>& records, const std::string& parent,
                             std::map<std::string, Place>& places) const;
  void CheckAddress(PropertyInfo info, const Context& context, const std::string& what,
                    const std::string& consequence);
  // The dump's values as the plug-in reads them.
  ValueSource Values(Slot slot) const;

  // --- Global functions (ScriptCheck.cpp) -----------------------------------------

  bool Present(const char* name) const { return m_definitions.count(name) != 0; }
  Context ContextFor(const char* name, std::vector<std::int64_t> arguments) const;
  void CheckPresence();

  // --- Settings and door communication (ScriptCheckTables.cpp) ---------------------

  PropertyInfo Setting(const std::string& name) const;
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

  // --- Parameters, ShowIf and static data (ScriptCheckTables.cpp) -----------------

  std::vector<LuaParameter> CheckParameterList(const Context& context,
                                               const std::vector<Slot>& slots);
  Context ParameterContext(const Context& context, const LuaParameter& parameter,
                           const std::string& position = std::string());
  void CheckParameter(const LuaParameter& parameter, const Context& at,
                      const std::vector<SkipReport>& reports);
  std::string UnknownValueType(const std::string& type) const;
  void CheckShowIf(const LuaParameter& parameter, const Context& context,
                   const std::vector<Slot>& slots, const std::vector<SkipReport>& reports);
  int KeyLine(const std::string& file, const std::string& key);
  PropertyInfo CheckSelector(const Context& context, std::uint32_t type);
  void CheckStaticData();
  void CheckStaticRecords(const std::vector<LuxStaticData>& records, const Context& context,
                          const std::string& parent, const std::vector<SkipReport>& reports);

  // Declared before the interpreter, whose count hook uses it until it is closed.
  Budget m_budget;
  Interpreter m_lua;
  lua_State* m_state = nullptr;

  ScriptCheckInput m_input;
  const DownloadDump* m_dump;
  FindingList m_findings;
  FindingList* m_sink = &m_findings;
  ScriptKnowledge m_knowledge;

  std::map<std::string, Place> m_definitions;      // the global functions present
  std::map<std::string, PropertyInfo> m_settings;  // as the plug-in reads them
  Korvex::luaknxdownloadhandler::detail::TextLimits m_limits;
  std::map<std::pair<std::string, std::string>, int> m_keyLines;  // LineNamingKey, once each
};

}  // namespace lkdh::host::detail
