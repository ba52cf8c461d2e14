#include "ScriptCheck.h"

#include "DumpAccess.h"

#include <ovslua/Lua.h>

#include <lua.hpp>

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <iostream>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace lkdh::host {

namespace {

// The value type names the plug-in writes; anything else is left out.
const std::vector<std::string> kValueTypes = {"Bool",   "Int8",   "Int16",     "Int32",   "UInt8",
                                              "UInt16", "UInt32", "Float16",   "Float32", "Text",
                                              "Name",   "Url",    "GENERIC_20"};

// The setting names the document builder reads, in the order it reads them.
const std::vector<std::string> kSettings = {"MaxFunctionPerFolder",
                                            "MaxNameCharCount",
                                            "MaxTextCharCount",
                                            "MaxUrlCharCount",
                                            "ShowRootFolder",
                                            "ShowOutdoorTemp",
                                            "ShowIndoorTemp",
                                            "ShowDateTime",
                                            "UseTVK",
                                            "DcsType",
                                            "UseDcsFloorcall",
                                            "DcsFloorCallNameOffset",
                                            "DcsFloorCallMelody",
                                            "UseWeather",
                                            "UseTimers",
                                            "UseHeatingTimers",
                                            "ResetUserData",
                                            "NumberOfFolders",
                                            "FolderNameOffset",
                                            "FolderIcon",
                                            "FolderShowOnHome",
                                            "NumberFuncPerFolder",
                                            "ChannelType",
                                            "FunctionNameOffset"};

// The limits without which the builder writes no document.
const std::set<std::string> kRequiredSettings = {"MaxFunctionPerFolder", "MaxNameCharCount",
                                                 "MaxTextCharCount"};

const std::vector<std::string> kPropertyFields = {"InterfaceObjectId", "PropertyId"};
const std::vector<std::string> kParameterFields = {"Key", "Type", "Property", "Digits", "ShowIf"};
const std::vector<std::string> kShowIfFields = {"PropertyIds", "Function"};
const std::vector<std::string> kShowIfEntryFields = {"Id", "Type"};
const std::vector<std::string> kStaticEntryFields = {"EnabledProperty", "Type", "Parameters",
                                                     "SubData"};

// The plug-in gives up on static data nested deeper than this.
constexpr int kMaxStaticDataDepth = 1000;

constexpr const char* kGetPropertyIds = "GetPropertyIds";
constexpr const char* kGetPropertyIndexForUrns = "GetPropertyIndexForUrns";
constexpr const char* kIsThereUrns = "IsThereUrnsByPropertyIndex";
constexpr const char* kFunctionUrn = "GetFunctionUrnByTypeId";
constexpr const char* kChannelUrn = "GetChannelUrnByTypeId";
constexpr const char* kFunctionUrnBySelector = "GetFunctionUrnByTypeIdAndPropertyIndex";
constexpr const char* kChannelUrnBySelector = "GetChannelUrnByTypeIdAndPropertyIndex";
constexpr const char* kTemplateIndex = "GetLuaTemplateIndexByTypeIdAndPropertyIndex";
constexpr const char* kGetParameters = "GetParametersFromChannelTypeId";
constexpr const char* kGetStaticData = "GetStaticData";
constexpr const char* kHandleDcsType = "HandleDcsType";

struct GlobalFunction {
  const char* name;
  const char* whenItFails;  // what the plug-in makes of one failed call
};

const GlobalFunction kGlobalFunctions[] = {
    {kGetPropertyIds,
     "every setting is read at the zero address (interface object 0, property 0), so no document "
     "is written"},
    {kGetPropertyIndexForUrns, "the URN selector is read at interface object 0, property 0"},
    {kIsThereUrns, "the plug-in takes false"},
    {kFunctionUrn, "the plug-in writes \"Unsupported\""},
    {kChannelUrn, "the plug-in writes \"Unsupported\""},
    {kFunctionUrnBySelector, "the plug-in writes \"Unsupported\""},
    {kChannelUrnBySelector, "the plug-in writes \"Unsupported\""},
    {kTemplateIndex, "the function gets no luaTemplateIndex"},
    {kGetParameters, "the function gets no parameters"},
    {kGetStaticData, "the document gets no static data"},
    {kHandleDcsType, "the plug-in logs an error and goes on"},
};

std::string WhenItFails(const std::string& name) {
  for (const GlobalFunction& function : kGlobalFunctions) {
    if (name == function.name) return function.whenItFails;
  }
  return "the call fails";
}

bool IsValueType(const std::string& type) {
  return std::find(kValueTypes.begin(), kValueTypes.end(), type) != kValueTypes.end();
}

bool IsSetting(const std::string& name) {
  return std::find(kSettings.begin(), kSettings.end(), name) != kSettings.end();
}

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

Budget* BudgetOf(lua_State* state) { return *static_cast<Budget**>(lua_getextraspace(state)); }

void* LimitedAllocate(void* data, void* block, std::size_t oldSize, std::size_t newSize) {
  auto* budget = static_cast<Budget*>(data);
  // Without a block, oldSize tells the kind of object, not a size.
  const std::size_t held = block != nullptr ? oldSize : 0;
  const std::size_t room = kScriptMemoryLimit - std::min(budget->used, kScriptMemoryLimit);
  if (newSize > held && newSize - held > room) {
    budget->memoryExceeded = true;
    return nullptr;
  }
  void* result = budget->allocate(budget->allocateData, block, oldSize, newSize);
  if (result != nullptr || newSize == 0) {
    // Blocks from before the budget was installed are not counted; never below 0.
    budget->used = budget->used - std::min(held, budget->used) + newSize;
  }
  return result;
}

// Stops a call that has run too long. Every instruction after this fails too,
// so a script that catches the error cannot run on.
void StopLongCall(lua_State* state, lua_Debug* debug) {
  if (Budget* budget = BudgetOf(state)) budget->callExpired = true;
  lua_sethook(state, &StopLongCall, LUA_MASKCOUNT, 1);
  if (lua_getinfo(state, "Sl", debug) != 0 && debug->currentline > 0 && debug->source[0] == '@') {
    lua_pushfstring(state, "%s:%d: stopped after %d instructions", debug->source + 1,
                    debug->currentline, kInstructionLimit);
  } else {
    lua_pushfstring(state, "stopped after %d instructions", kInstructionLimit);
  }
  lua_error(state);
}

// The script's print output would mix with the findings; it goes to stderr.
int PrintToStandardError(lua_State* state) {
  const int count = lua_gettop(state);
  for (int i = 1; i <= count; ++i) {
    std::size_t length = 0;
    const char* text = luaL_tolstring(state, i, &length);
    if (i > 1) std::cerr << '\t';
    std::cerr.write(text, static_cast<std::streamsize>(length));
    lua_pop(state, 1);
  }
  std::cerr << '\n';
  return 0;
}

int RefuseExit(lua_State* state) {
  return luaL_error(state, "os.exit would end the device's host process");
}

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

// Numbers (integers first) in ascending order, then strings byte-wise: lua_next's
// order of a hash part changes from run to run, the findings must not.
bool KeyBefore(const Key& a, const Key& b) {
  const auto rank = [](const Key& key) {
    if (key.type == LUA_TNUMBER) return key.isInteger ? 0 : 1;
    return key.type == LUA_TSTRING ? 2 : 3;
  };
  if (rank(a) != rank(b)) return rank(a) < rank(b);
  if (a.type == LUA_TNUMBER) return a.isInteger ? a.integer < b.integer : a.number < b.number;
  return a.text < b.text;
}

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

  ScriptCheckResult Run() {
    try {
      if (Start()) {
        m_knowledge.loaded = true;
        CheckPresence();
        CheckPropertyIds();
        ReadLimits();
        CheckDcsType();
        CheckChannelTypes();
        CheckStaticData();
      }
    } catch (const std::exception& error) {
      // A failure outside any protected call (no memory, no stack): the rest is not checked.
      m_sink = &m_findings;
      m_knowledge.safeToRun = false;
      Context context;
      context.place.file = m_input.scriptPath;
      Report(Severity::Error, context, std::string("the check had to stop: ") + error.what());
    }
    ScriptCheckResult result;
    result.findings = std::move(m_findings);
    result.knowledge = std::move(m_knowledge);
    return result;
  }

 private:
  // --- Set-up -------------------------------------------------------------

  bool Start() {
    if (!m_lua.Initialize() || m_lua.State() == nullptr) {
      throw std::runtime_error("cannot create the Lua interpreter");
    }
    m_state = m_lua.State();
    *static_cast<Budget**>(lua_getextraspace(m_state)) = &m_budget;
    m_budget.allocate = lua_getallocf(m_state, &m_budget.allocateData);
    lua_setallocf(m_state, &LimitedAllocate, &m_budget);

    lua_pushcfunction(m_state, &PrintToStandardError);
    lua_setglobal(m_state, "print");
    if (lua_getglobal(m_state, "os") == LUA_TTABLE) {
      lua_pushcfunction(m_state, &RefuseExit);
      lua_setfield(m_state, -2, "exit");
    }
    lua_pop(m_state, 1);

    // The top level runs under the same limits as every later call.
    m_budget.callExpired = false;
    lua_sethook(m_state, &StopLongCall, LUA_MASKCOUNT, kInstructionLimit);
    const bool loaded = m_lua.Load(m_input.scriptPath);
    lua_sethook(m_state, nullptr, 0, 0);
    if (loaded) return true;

    CallResult failure;
    failure.status = m_budget.callExpired      ? CallResult::Status::TooLong
                     : m_budget.memoryExceeded ? CallResult::Status::NoMemory
                                               : CallResult::Status::Error;
    SplitPlace(m_lua.ErrorMessage(), failure);
    Context context;
    context.place = failure.place.file.empty() ? Place{m_input.scriptPath, 0} : failure.place;
    if (failure.status == CallResult::Status::TooLong) {
      Report(Severity::Error, context,
             "the script's top level runs for more than " + std::to_string(kInstructionLimit) +
                 " Lua instructions and was stopped (an endless loop?)");
    } else {
      Report(Severity::Error, context, "the script does not load: " + failure.message);
    }
    return false;
  }

  // --- Reporting ------------------------------------------------------------

  void Report(Severity severity, const Context& context, const std::string& message) {
    Finding finding;
    finding.severity = severity;
    finding.file = context.place.file;
    finding.line = context.place.line;
    finding.call = context.call;
    finding.arguments = context.arguments;
    finding.where = context.where;
    finding.message = message;
    m_sink->Add(finding);
  }

  void ReportFailure(const Context& context, const CallResult& result, const std::string& subject,
                     const std::string& consequence, Severity severity = Severity::Error) {
    const Context at = context.At(result.place);
    switch (result.status) {
      case CallResult::Status::Ok:
        return;
      case CallResult::Status::Error:
        Report(severity, at, subject + "raises an error: " + result.message + ": " + consequence);
        return;
      case CallResult::Status::TooLong:
        m_knowledge.safeToRun = false;
        Report(Severity::Error, at,
               subject + "runs for more than " + std::to_string(kInstructionLimit) +
                   " Lua instructions and was stopped (an endless loop?): the download would "
                   "hang");
        return;
      case CallResult::Status::NoMemory:
        m_knowledge.safeToRun = false;
        Report(Severity::Error, at,
               subject + "needs more than " + std::to_string(kScriptMemoryLimit / (1024 * 1024)) +
                   " MiB of memory and was stopped: " + consequence);
        return;
    }
  }

  // "file:12: text": the place, and the text without it. Lua shortens long
  // file names to "...tail"; such a name is taken as the script when it fits.
  void SplitPlace(const std::string& message, CallResult& result) const {
    result.message = message;
    for (std::size_t colon = message.find(':'); colon != std::string::npos;
         colon = message.find(':', colon + 1)) {
      if (colon == 0) continue;
      std::size_t end = colon + 1;
      while (end < message.size() && std::isdigit(static_cast<unsigned char>(message[end]))) {
        ++end;
      }
      const std::size_t digits = end - colon - 1;
      if (digits == 0 || digits > 9 || end + 1 >= message.size() || message[end] != ':' ||
          message[end + 1] != ' ') {
        continue;
      }
      std::string file = message.substr(0, colon);
      const std::string& script = m_input.scriptPath;
      if (file.rfind("...", 0) == 0 && file.size() > 3 && script.size() >= file.size() - 3 &&
          script.compare(script.size() - (file.size() - 3), file.size() - 3, file, 3) == 0) {
        file = script;
      }
      result.place.file = file;
      result.place.line = std::stoi(message.substr(colon + 1, digits));
      result.message = message.substr(end + 2);
      return;
    }
  }

  // --- Interpreter helpers --------------------------------------------------

  void EnsureStack(int slots) const {
    if (lua_checkstack(m_state, slots) == 0) {
      throw std::runtime_error("the Lua stack cannot grow by " + std::to_string(slots) + " slots");
    }
  }

  // The value as Lua writes it, converted on a copy so that the value keeps its type.
  std::string TextOf(int index) const {
    EnsureStack(1);
    lua_pushvalue(m_state, index);
    std::size_t length = 0;
    const char* text = lua_tolstring(m_state, -1, &length);
    std::string result = text != nullptr ? std::string(text, length) : std::string();
    lua_pop(m_state, 1);
    return result;
  }

  std::string Describe(int index) const {
    const int type = lua_type(m_state, index);
    switch (type) {
      case LUA_TNIL:
        return "nil";
      case LUA_TBOOLEAN:
        return lua_toboolean(m_state, index) != 0 ? "a boolean (true)" : "a boolean (false)";
      case LUA_TNUMBER:
        return (lua_isinteger(m_state, index) != 0 ? "an integer (" : "a float (") + TextOf(index) +
               ")";
      case LUA_TSTRING: {
        std::string text = TextOf(index);
        if (text.size() > 40) text = text.substr(0, 37) + "...";
        return "a string ('" + text + "')";
      }
      default:
        return std::string("a ") + lua_typename(m_state, type);
    }
  }

  // "PropertyId 5.0 is a float" or "PropertyId is a string ('5')".
  std::string NotInteger(const std::string& field, int index) const {
    if (lua_type(m_state, index) == LUA_TNUMBER) {
      return field + " " + TextOf(index) + " is a float";
    }
    return field + " is " + Describe(index);
  }

  bool IsText(int index) const {
    const int type = lua_type(m_state, index);
    return type == LUA_TSTRING || type == LUA_TNUMBER;
  }

  Place DefinitionOf(int index) const {
    EnsureStack(1);
    lua_pushvalue(m_state, index);
    lua_Debug debug{};
    Place place;
    if (lua_getinfo(m_state, ">S", &debug) != 0 && debug.source != nullptr &&
        debug.source[0] == '@' && debug.linedefined > 0) {
      place.file = debug.source + 1;
      place.line = debug.linedefined;
    }
    return place;
  }

  // Raw, so that a metatable on the globals runs no script code here.
  int PushGlobal(const char* name) const {
    EnsureStack(2);
    lua_rawgeti(m_state, LUA_REGISTRYINDEX, LUA_RIDX_GLOBALS);
    lua_pushstring(m_state, name);
    lua_rawget(m_state, -2);
    lua_remove(m_state, -2);
    return lua_type(m_state, -1);
  }

  // Calls the function below its arguments, protected and under the limits.
  // Leaves the results on the stack on success, nothing otherwise.
  CallResult ProtectedCall(int arguments, int results) {
    m_budget.callExpired = false;
    m_budget.memoryExceeded = false;
    lua_sethook(m_state, &StopLongCall, LUA_MASKCOUNT, kInstructionLimit);
    const int status = lua_pcall(m_state, arguments, results, 0);
    lua_sethook(m_state, nullptr, 0, 0);
    CallResult result;
    if (status == LUA_OK) return result;
    std::string message;
    const int type = lua_type(m_state, -1);
    if (type == LUA_TSTRING || type == LUA_TNUMBER) {
      message = TextOf(-1);
    } else {
      message = std::string("(error object is a ") + lua_typename(m_state, type) + " value)";
    }
    lua_pop(m_state, 1);
    if (m_budget.callExpired) {
      result.status = CallResult::Status::TooLong;
    } else if (status == LUA_ERRMEM || m_budget.memoryExceeded) {
      result.status = CallResult::Status::NoMemory;
    } else {
      result.status = CallResult::Status::Error;
    }
    SplitPlace(message, result);
    return result;
  }

  CallResult CallGlobal(const char* name, const std::vector<std::int64_t>& arguments,
                        int results = 1) {
    EnsureStack(static_cast<int>(arguments.size()) + 2);
    PushGlobal(name);
    for (const std::int64_t argument : arguments) {
      lua_pushinteger(m_state, static_cast<lua_Integer>(argument));
    }
    return ProtectedCall(static_cast<int>(arguments.size()), results);
  }

  std::vector<Key> Keys(int table) const {
    table = lua_absindex(m_state, table);
    EnsureStack(3);
    std::vector<Key> keys;
    lua_pushnil(m_state);
    while (lua_next(m_state, table) != 0) {
      Key key;
      key.type = lua_type(m_state, -2);
      if (key.type == LUA_TSTRING) {
        std::size_t length = 0;
        const char* text = lua_tolstring(m_state, -2, &length);
        key.text.assign(text, length);
      } else if (key.type == LUA_TNUMBER) {
        key.isInteger = lua_isinteger(m_state, -2) != 0;
        key.integer = key.isInteger ? lua_tointeger(m_state, -2) : 0;
        key.number = lua_tonumber(m_state, -2);
        key.text = TextOf(-2);
      } else {
        key.text = lua_typename(m_state, key.type);
      }
      keys.push_back(std::move(key));
      lua_pop(m_state, 1);
    }
    std::sort(keys.begin(), keys.end(), KeyBefore);
    return keys;
  }

  // Pushes table[key] (raw) for a string or number key.
  void PushField(int table, const Key& key) const {
    table = lua_absindex(m_state, table);
    EnsureStack(2);
    if (key.type == LUA_TSTRING) {
      lua_pushlstring(m_state, key.text.data(), key.text.size());
      lua_rawget(m_state, table);
    } else if (key.isInteger) {
      lua_rawgeti(m_state, table, key.integer);
    } else {
      lua_pushnumber(m_state, key.number);
      lua_rawget(m_state, table);
    }
  }

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

  void ReportUnknownField(const Context& context, const std::string& prefix,
                          const std::string& field, const std::vector<std::string>& known) {
    const std::string suggestion = ClosestName(field, known);
    Report(Severity::Warning, context,
           prefix + "unknown field '" + field + "' is ignored" +
               (suggestion.empty() ? std::string() : " (did you mean '" + suggestion + "'?)"));
  }

  // --- Property tables --------------------------------------------------------

  PropertyAddress CheckPropertyTable(int table, const Context& context, const std::string& prefix) {
    PropertyAddress address;
    bool hasPropertyId = false;
    WalkFields(table, context, "a property table", [&](const std::string& field, int value) {
      if (field == "PropertyId") {
        hasPropertyId = true;
        if (lua_isinteger(m_state, value) == 0) {
          Report(Severity::Error, context,
                 prefix + NotInteger(field, value) +
                     ", not an integer: the plug-in ignores it and reads property 0");
          return;
        }
        const lua_Integer id = lua_tointeger(m_state, value);
        address.property = static_cast<std::uint32_t>(static_cast<lua_Unsigned>(id) & 0xFFU);
        if (id < 0 || id > 255) {
          Report(Severity::Warning, context,
                 prefix + "PropertyId " + std::to_string(id) + " is read as " +
                     std::to_string(address.property) + " (only its low 8 bits count)");
        }
      } else if (field == "InterfaceObjectId") {
        if (lua_isinteger(m_state, value) == 0) {
          Report(Severity::Error, context,
                 prefix + NotInteger(field, value) +
                     ", not an integer: the plug-in ignores it and reads interface object 0");
          return;
        }
        const lua_Integer id = lua_tointeger(m_state, value);
        address.object = static_cast<std::uint32_t>(static_cast<lua_Unsigned>(id));
        if (id < 0 || id > 0xFFFFFFFFLL) {
          Report(Severity::Warning, context,
                 prefix + "InterfaceObjectId " + std::to_string(id) + " is read as " +
                     std::to_string(address.object) + " (only its low 32 bits count)");
        }
      } else {
        ReportUnknownField(context, prefix, field, kPropertyFields);
      }
    });
    if (!hasPropertyId) {
      Report(Severity::Warning, context, prefix + "PropertyId is missing: property 0 is read");
    }
    return address;
  }

  void CheckAddress(PropertyAddress address, const Context& context, const std::string& what,
                    const std::string& consequence) {
    if (!m_dump) return;
    const std::string why = m_dump->WhyMissing(address);
    if (why.empty()) return;
    Report(Severity::Warning, context,
           what + " (interface object " + std::to_string(address.object) + ", property " +
               std::to_string(address.property) + ") is not in the download: " + why + consequence);
  }

  PropertyAddress Setting(const std::string& name) const {
    const auto found = m_settings.find(name);
    return found != m_settings.end() ? found->second : PropertyAddress{};
  }

  // --- Global functions -------------------------------------------------------

  bool Present(const char* name) const { return m_definitions.count(name) != 0; }

  Context ContextFor(const char* name, std::vector<std::int64_t> arguments) const {
    Context context;
    context.call = name;
    context.arguments = std::move(arguments);
    const auto found = m_definitions.find(name);
    if (found != m_definitions.end()) context.place = found->second;
    return context;
  }

  void CheckPresence() {
    for (const GlobalFunction& function : kGlobalFunctions) {
      const int type = PushGlobal(function.name);
      Context context;
      if (type == LUA_TFUNCTION) {
        const Place place = DefinitionOf(-1);
        m_definitions.emplace(function.name, place);
        context.place = place;
        Report(Severity::Info, context, std::string(function.name) + " is defined");
      } else {
        context.place.file = m_input.scriptPath;
        const std::string what = type == LUA_TNIL ? std::string(" is not defined")
                                                  : " is " + Describe(-1) + ", not a function";
        Report(Severity::Error, context,
               function.name + what + ": every call fails and " + function.whenItFails);
      }
      lua_pop(m_state, 1);
    }
  }

  // --- Settings -----------------------------------------------------------------

  void CheckPropertyIds() {
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
        const bool required = kRequiredSettings.count(name) != 0;
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
      const std::string suggestion = ClosestName(name, kSettings);
      if (!suggestion.empty() && named.count(suggestion) == 0) {
        Report(Severity::Warning, context,
               "setting '" + name + "' is not read by the plug-in (did you mean '" + suggestion +
                   "'?)");
      } else {
        Report(Severity::Info, context, "setting '" + name + "' is not read by the plug-in");
      }
    }
    for (const std::string& name : kSettings) {
      if (named.count(name) != 0) continue;
      if (kRequiredSettings.count(name) != 0) {
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
  void ReadLimits() {
    if (!m_dump) return;
    m_nameLimit = m_dump->UInt8(Setting("MaxNameCharCount"), std::nullopt).value_or(0);
    m_textLimit = m_dump->UInt8(Setting("MaxTextCharCount"), std::nullopt).value_or(0);
  }

  // --- Door communication -------------------------------------------------------

  void CheckDcsType() {
    if (!Present(kHandleDcsType)) return;
    std::vector<std::int64_t> values;
    if (m_dump) {
      // As the builder does: a floor call without a type makes the script see type 10.
      std::int64_t type = m_dump->UInt8(Setting("DcsType"), std::nullopt).value_or(0);
      if (m_dump->Bool(Setting("UseDcsFloorcall"), std::nullopt).value_or(false) && type == 0) {
        type = 10;
      }
      values.push_back(type);
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

  // --- Channel types ------------------------------------------------------------

  struct Probe {
    std::int64_t value = 0;
    FindingList findings;
    bool described = false;
  };

  void CheckChannelTypes() {
    std::set<std::int64_t> types;
    if (m_dump) {
      const PropertyAddress channelTypes = Setting("ChannelType");
      const std::uint32_t count = m_dump->ElementCount(channelTypes).value_or(0);
      for (std::uint32_t slot = 0; slot < count; ++slot) {
        const std::uint8_t type = m_dump->UInt8(channelTypes, slot).value_or(0);
        if (type == 0) continue;
        m_knowledge.slotChannelTypes[slot] = type;
        types.insert(type);
      }
    } else {
      for (std::int64_t type = 1; type <= 255; ++type) types.insert(type);
    }

    std::vector<Probe> probes;
    for (const std::int64_t type : types) {
      Probe probe;
      probe.value = type;
      m_sink = &probe.findings;
      probe.described = CheckChannelType(type);
      m_sink = &m_findings;
      probes.push_back(std::move(probe));
    }

    // Without a dump, a type the script gives nothing for is taken as one the
    // device does not have, unless the script describes none at all.
    std::set<std::int64_t> described;
    for (const Probe& probe : probes) {
      if (probe.described) described.insert(probe.value);
    }
    Context context;
    if (m_dump) {
      if (types.empty()) {
        Report(Severity::Info, context, "the download has no function slot with a channel type");
      } else {
        Report(Severity::Info, context, "channel types in the download: " + FormatNumberSet(types));
      }
    } else if (described.empty()) {
      Report(Severity::Warning, context,
             "the script gives no channel type from 1 to 255 a URN or parameters");
    } else {
      Report(Severity::Info, context,
             "channel types the script describes: " + FormatNumberSet(described));
    }
    for (const Probe& probe : probes) {
      if (m_dump || probe.described || described.empty()) m_findings.Append(probe.findings);
    }
  }

  std::vector<std::uint32_t> SlotsOf(std::int64_t type) const {
    std::vector<std::uint32_t> slots;
    for (const auto& [slot, slotType] : m_knowledge.slotChannelTypes) {
      if (slotType == type) slots.push_back(slot);
    }
    return slots;
  }

  // True when the script describes the type: URNs that depend on a selector, a
  // URN, or parameters.
  bool CheckChannelType(std::int64_t type) {
    bool described = false;
    bool bySelector = false;
    if (Present(kIsThereUrns)) {
      const Context context = ContextFor(kIsThereUrns, {type});
      const CallResult result = CallGlobal(kIsThereUrns, {type});
      if (!result.Ok()) {
        ReportFailure(context, result, "", WhenItFails(kIsThereUrns));
      } else {
        const int returned = lua_type(m_state, -1);
        bySelector = lua_toboolean(m_state, -1) != 0;
        if (returned == LUA_TNIL) {
          Report(Severity::Warning, context, "returns nil, not a boolean: read as false");
        } else if (returned != LUA_TBOOLEAN) {
          const bool zero = returned == LUA_TNUMBER && lua_tonumber(m_state, -1) == 0;
          Report(Severity::Warning, context,
                 "returns " + Describe(-1) + ", not a boolean: read as true" +
                     (zero ? std::string(" (0 is true in Lua)") : std::string()));
        }
        lua_pop(m_state, 1);
      }
    }
    if (bySelector) {
      described = true;
      CheckSelectors(type);
    } else {
      described |= CheckText(kFunctionUrn, {type});
      described |= CheckText(kChannelUrn, {type});
    }
    described |= CheckParameters(type);
    return described;
  }

  void CheckSelectors(std::int64_t type) {
    PropertyAddress selector;
    if (Present(kGetPropertyIndexForUrns)) {
      const Context context = ContextFor(kGetPropertyIndexForUrns, {type});
      const CallResult result = CallGlobal(kGetPropertyIndexForUrns, {type});
      if (!result.Ok()) {
        ReportFailure(context, result, "", WhenItFails(kGetPropertyIndexForUrns));
      } else {
        if (lua_type(m_state, -1) == LUA_TTABLE) {
          selector = CheckPropertyTable(-1, context, "");
          CheckAddress(selector, context, "the URN selector", "");
        } else {
          Report(Severity::Warning, context,
                 "returns " + Describe(-1) +
                     ", not a property table: the selector is read at interface object 0, "
                     "property 0");
        }
        lua_pop(m_state, 1);
      }
    }

    std::set<std::int64_t> values;
    if (m_dump) {
      for (const std::uint32_t slot : SlotsOf(type)) {
        values.insert(m_dump->UInt8(selector, slot).value_or(0));
      }
    } else {
      for (std::int64_t value = 0; value <= 255; ++value) values.insert(value);
    }

    FindingList* typeSink = m_sink;
    std::vector<Probe> probes;
    for (const std::int64_t value : values) {
      Probe probe;
      probe.value = value;
      m_sink = &probe.findings;
      probe.described |= CheckText(kFunctionUrnBySelector, {type, value});
      probe.described |= CheckText(kChannelUrnBySelector, {type, value});
      probe.described |= CheckText(kTemplateIndex, {type, value});
      m_sink = typeSink;
      probes.push_back(std::move(probe));
    }
    const bool anyDescribed = std::any_of(probes.begin(), probes.end(),
                                          [](const Probe& probe) { return probe.described; });
    for (const Probe& probe : probes) {
      if (m_dump || probe.described || !anyDescribed) m_sink->Append(probe.findings);
    }
  }

  // The URN and template functions: the plug-in reads their result as text.
  // True when the answer is a text that is not empty.
  bool CheckText(const char* name, const std::vector<std::int64_t>& arguments) {
    if (!Present(name)) return false;
    const Context context = ContextFor(name, arguments);
    const CallResult result = CallGlobal(name, arguments);
    if (!result.Ok()) {
      ReportFailure(context, result, "", WhenItFails(name));
      return false;
    }
    const std::string function = name;
    const bool isTemplate = function == kTemplateIndex;
    const std::string attribute = (function == kFunctionUrn || function == kFunctionUrnBySelector)
                                      ? "functionUrn"
                                      : "channelTypeUrn";
    const std::string effect = isTemplate ? " (no luaTemplateIndex)"
                                          : ", so " + attribute + " is empty, not \"Unsupported\"";
    const int returned = lua_type(m_state, -1);
    bool text = false;
    if (returned == LUA_TSTRING || returned == LUA_TNUMBER) {
      text = !TextOf(-1).empty();
      if (!text && !isTemplate) {
        Report(Severity::Warning, context,
               "returns an empty text: " + attribute +
                   " is empty (return \"Unsupported\" for a channel type without one)");
      }
    } else if (returned == LUA_TNIL) {
      Report(Severity::Warning, context,
             "returns nil: the plug-in reads it as an empty text" + effect);
    } else {
      Report(Severity::Warning, context,
             "returns " + Describe(-1) + ", not a string: the plug-in reads it as an empty text" +
                 effect);
    }
    lua_pop(m_state, 1);
    return text;
  }

  // True when the type has parameters.
  bool CheckParameters(std::int64_t type) {
    if (!Present(kGetParameters)) return false;
    const Context context = ContextFor(kGetParameters, {type});
    const CallResult result = CallGlobal(kGetParameters, {type});
    if (!result.Ok()) {
      ReportFailure(context, result, "", WhenItFails(kGetParameters));
      return false;
    }
    if (lua_type(m_state, -1) != LUA_TTABLE) {
      Report(Severity::Warning, context,
             "returns " + Describe(-1) + ", not a table: read as no parameters");
      lua_pop(m_state, 1);
      return false;
    }
    lua_pushnil(m_state);
    const bool any = lua_next(m_state, -2) != 0;
    if (any) lua_pop(m_state, 2);

    std::vector<ParameterRecord> records = WalkParameterList(-1, context);
    lua_pop(m_state, 1);
    auto& types = m_knowledge.functionParameterTypes[static_cast<std::uint32_t>(type)];
    for (ParameterRecord& record : records) {
      types.emplace(record.key, record.type);
      if (!record.showIf) continue;
      if (m_dump) {
        for (const std::uint32_t slot : SlotsOf(type)) CallShowIf(*record.showIf, {true, slot});
      } else {
        CallShowIf(*record.showIf, {false, std::nullopt});
      }
      luaL_unref(m_state, LUA_REGISTRYINDEX, record.showIf->function);
    }
    return any;
  }

  // --- Parameters -----------------------------------------------------------------

  std::vector<ParameterRecord> WalkParameterList(int list, const Context& context) {
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

  void CheckValueType(const Context& context, const std::string& prefix, const std::string& type,
                      const std::string& consequence) {
    if (IsValueType(type)) return;
    const std::string suggestion = ClosestName(type, kValueTypes);
    Report(Severity::Error, context,
           prefix + "unknown value type '" + type + "'" +
               (suggestion.empty() ? std::string() : " (did you mean '" + suggestion + "'?)") +
               ": " + consequence);
  }

  void WalkParameter(int table, const Context& listContext, const Key& listKey,
                     std::vector<ParameterRecord>& records) {
    // Named by its Key when it has one, else by its place in the list.
    PushField(table, Key::Named("Key"));
    const std::string name = IsText(-1) ? TextOf(-1) : std::string();
    lua_pop(m_state, 1);
    const Context context = listContext.With(name.empty() ? ", parameter " + listKey.Bracketed()
                                                          : ", parameter '" + name + "'");

    ParameterRecord record;
    bool hasKey = false;
    bool hasType = false;
    bool hasProperty = false;
    WalkFields(table, context, "a parameter table", [&](const std::string& field, int value) {
      if (field == "Key") {
        hasKey = true;
        if (IsText(value)) {
          record.key = TextOf(value);
        } else {
          Report(Severity::Warning, context,
                 "Key is " + Describe(value) + ", not a string: the parameter's key is empty");
        }
      } else if (field == "Type") {
        hasType = true;
        if (IsText(value)) {
          record.type = TextOf(value);
          CheckValueType(context, "", record.type, "the parameter is silently left out");
        } else {
          Report(
              Severity::Error, context,
              "Type is " + Describe(value) + ", not a string: the parameter is silently left out");
        }
      } else if (field == "Property") {
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
      } else if (field == "Digits") {
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
      } else if (field == "ShowIf") {
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
    if (!hasType)
      Report(Severity::Error, context, "has no Type: the parameter is silently left out");
    if (hasType && !hasProperty) {
      Report(Severity::Warning, context,
             "has no Property: read at the zero address (interface object 0, property 0)");
    }
    records.push_back(std::move(record));
  }

  // --- ShowIf -----------------------------------------------------------------------

  std::optional<ShowIfRule> WalkShowIf(int table, const Context& parameterContext) {
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
      if (field == "Function") {
        hasFunction = true;
        if (lua_type(m_state, value) == LUA_TFUNCTION) {
          lua_pushvalue(m_state, value);
          rule.function = luaL_ref(m_state, LUA_REGISTRYINDEX);
        } else {
          notAFunction = Describe(value);
        }
      } else if (field == "PropertyIds") {
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
  std::size_t WalkShowIfEntries(int list, const Context& context,
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
        Report(Severity::Warning, context,
               prefix + "is " + Describe(-1) + ", not a table: skipped");
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

  void WalkShowIfEntry(int table, const Context& context, const std::string& prefix,
                       std::vector<ShowIfEntry>& entries) {
    const std::string noArgument = "the entry passes no argument (a later one takes its place)";
    ShowIfEntry entry;
    bool hasId = false;
    bool hasType = false;
    WalkFields(
        table, context, "a PropertyIds entry table", [&](const std::string& field, int value) {
          if (field == "Id") {
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
          } else if (field == "Type") {
            hasType = true;
            if (!IsText(value)) {
              Report(Severity::Error, context,
                     prefix + "Type is " + Describe(value) + ", not a string: " + noArgument);
              return;
            }
            entry.type = TextOf(value);
            if (entry.type == "Url") {
              Report(Severity::Warning, context,
                     prefix + "a 'Url' entry passes no argument (a later one takes its place)");
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
  ovslua::Lua::Args ShowIfArguments(const std::vector<ShowIfEntry>& entries,
                                    const ArgumentSource& source) const {
    using Arg = ovslua::Lua::Args::Arg;
    ovslua::Lua::Args arguments;
    const DumpAccess* dump = source.fromDump && m_dump ? &*m_dump : nullptr;
    const Element element = source.element;
    for (const ShowIfEntry& entry : entries) {
      const std::string& type = entry.type;
      const PropertyAddress id = entry.id;
      if (type == "Bool") {
        arguments += Arg::FromBool(dump != nullptr && dump->Bool(id, element).value_or(false));
      } else if (type == "Int8" || type == "UInt8") {
        const std::uint8_t raw = dump != nullptr ? dump->UInt8(id, element).value_or(0) : 0;
        arguments += Arg::FromInt(type == "Int8" ? static_cast<std::int8_t>(raw) : raw);
      } else if (type == "Int16" || type == "UInt16") {
        const std::uint16_t raw = dump != nullptr ? dump->UInt16(id, element).value_or(0) : 0;
        arguments += Arg::FromInt(type == "Int16" ? static_cast<std::int16_t>(raw) : raw);
      } else if (type == "Int32") {
        const std::uint32_t raw = dump != nullptr ? dump->UInt32(id, element).value_or(0) : 0;
        arguments += Arg::FromInt(static_cast<std::int32_t>(raw));
      } else if (type == "UInt32") {
        arguments += Arg::FromUnsigned(dump != nullptr ? dump->UInt32(id, element).value_or(0) : 0);
      } else if (type == "Float16" || type == "Float32") {
        float value = 0.0F;
        if (dump != nullptr) {
          value = (type == "Float16" ? dump->Float16(id, element) : dump->Float32(id, element))
                      .value_or(0.0F);
        }
        arguments += Arg::FromDouble(static_cast<double>(value));
      } else if (type == "Text") {
        arguments += Arg::FromString(
            dump != nullptr ? dump->MemoryText(id, element, m_textLimit, "") : std::string());
      } else if (type == "Name") {
        arguments += Arg::FromString(
            dump != nullptr ? dump->MemoryText(id, element, m_nameLimit, "DefaultString")
                            : std::string("DefaultString"));
      } else if (type == "GENERIC_20") {
        arguments +=
            Arg::FromString(dump != nullptr ? dump->PropertyText(id, element, "") : std::string());
      }
    }
    return arguments;
  }

  void CallShowIf(const ShowIfRule& rule, const ArgumentSource& source) {
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

  // --- Static data ------------------------------------------------------------------

  void CheckStaticData() {
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

  void WalkStaticTable(int table, const Context& context, const std::string& parent, int depth) {
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

  void WalkStaticEntry(int table, const Context& context, const std::string& path, int depth) {
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
          if (field == "EnabledProperty") {
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
          } else if (field == "Type") {
            hasType = true;
            if (!IsText(value)) {
              Report(Severity::Warning, entryContext,
                     "Type is " + Describe(value) + ", not a string: the entry's type is empty");
            }
          } else if (field == "Parameters") {
            if (lua_type(m_state, value) == LUA_TTABLE) {
              CheckStaticParameters(value, entryContext, path);
            } else {
              Report(Severity::Warning, entryContext,
                     "Parameters is " + Describe(value) + ", not a list: read as no parameters");
            }
          } else if (field == "SubData") {
            if (lua_type(m_state, value) != LUA_TTABLE) {
              Report(Severity::Warning, entryContext,
                     "SubData is " + Describe(value) + ", not a table: read as no nested entries");
            } else if (m_staticPath.count(lua_topointer(m_state, value)) != 0) {
              Report(
                  Severity::Error, entryContext,
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

  void CheckStaticParameters(int list, const Context& context, const std::string& path) {
    std::vector<ParameterRecord> records = WalkParameterList(list, context);
    auto& types = m_knowledge.staticParameterTypes[path];
    for (ParameterRecord& record : records) {
      types.emplace(record.key, record.type);
      if (!record.showIf) continue;
      CallShowIf(*record.showIf, {m_dump.has_value(), std::nullopt});
      luaL_unref(m_state, LUA_REGISTRYINDEX, record.showIf->function);
    }
  }

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
};

}  // namespace

ScriptCheckResult CheckScript(const ScriptCheckInput& input) {
  Checker checker(input);
  return checker.Run();
}

}  // namespace lkdh::host
