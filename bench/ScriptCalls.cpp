#include "ScriptCalls.h"

#include "../LuaKnxDownloadHandler/src/HandlerLimits.h"

#include <LuaKnxDownloadHandler/luaknxdownloadhandler.h>

#include <lua.hpp>

#include <boost/filesystem/operations.hpp>

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <map>
#include <sstream>
#include <stdexcept>

namespace lkdh::bench {

namespace fs = boost::filesystem;

namespace {

// Description scripts have no io: each call is printed as one tab-separated line.
constexpr const char* kRecorder = R"lua(
local function value(v)
  local kind = math.type(v)
  if kind == "integer" then return "i" .. v end
  if kind == "float" then return "f" .. string.format("%a", v) end
  if type(v) == "boolean" then return v and "b1" or "b0" end
  if v == nil then return "n" end
  if type(v) == "string" and not v:find("[\t\n]") then return "s" .. v end
  error("the recorder cannot keep an argument of type " .. type(v))
end
local function record(head, ...)
  local parts = { "@call", head }
  for i = 1, select("#", ...) do parts[#parts + 1] = value((select(i, ...))) end
  print(table.concat(parts, "\t"))
end
dofile(SCRIPT)
for _, name in ipairs({"GetPropertyIds", "IsThereUrnsByPropertyIndex", "GetPropertyIndexForUrns",
    "GetFunctionUrnByTypeId", "GetChannelUrnByTypeId", "GetFunctionUrnByTypeIdAndPropertyIndex",
    "GetChannelUrnByTypeIdAndPropertyIndex", "GetLuaTemplateIndexByTypeIdAndPropertyIndex",
    "GetStaticData", "HandleDcsType"}) do
  local f = _G[name]
  if f then _G[name] = function(...) record("G" .. name, ...) return f(...) end end
end
local parameters = GetParametersFromChannelTypeId
local lists = 0
GetParametersFromChannelTypeId = function(...)
  record("GGetParametersFromChannelTypeId", ...)
  lists = lists + 1
  local list, serial = parameters(...), lists
  for key, p in pairs(list) do
    if math.type(key) == "integer" and type(p) == "table" and type(p.ShowIf) == "table"
        and type(p.ShowIf.Function) == "function" then
      local f = p.ShowIf.Function
      p.ShowIf.Function = function(...) record("S" .. serial .. ":" .. key, ...) return f(...) end
    end
  end
  return list
end
)lua";

ScriptValue ParseValue(const std::string& field) {
  ScriptValue value;
  if (field.empty()) throw std::runtime_error("empty recorded argument");
  const std::string rest = field.substr(1);
  switch (field[0]) {
    case 'i':
      value.type = ScriptValue::Type::Integer;
      value.integer = std::stoll(rest);
      break;
    case 'f':
      value.type = ScriptValue::Type::Float;
      value.number = std::strtod(rest.c_str(), nullptr);
      break;
    case 'b':
      value.type = ScriptValue::Type::Boolean;
      value.boolean = rest == "1";
      break;
    case 's':
      value.type = ScriptValue::Type::String;
      value.text = rest;
      break;
    case 'n':
      break;
    default:
      throw std::runtime_error("unknown recorded argument " + field);
  }
  return value;
}

std::vector<ScriptCall> ParseCalls(std::istream& in) {
  std::vector<ScriptCall> calls;
  std::string line;
  while (std::getline(in, line)) {
    std::vector<std::string> fields;
    std::istringstream split(line);
    for (std::string field; std::getline(split, field, '\t');) fields.push_back(field);
    if (fields.size() < 2 || fields[0] != "@call") continue;
    ScriptCall call;
    const std::string& head = fields[1];
    if (head[0] == 'G') {
      call.name = head.substr(1);
      call.returnsList = call.name == "GetParametersFromChannelTypeId";
    } else {
      call.kind = ScriptCall::Kind::ShowIf;
      const std::size_t colon = head.find(':');
      call.list = std::stoull(head.substr(1, colon - 1));
      call.key = std::stoll(head.substr(colon + 1));
    }
    for (std::size_t i = 2; i < fields.size(); ++i) call.arguments.push_back(ParseValue(fields[i]));
    calls.push_back(std::move(call));
  }
  return calls;
}

}  // namespace

std::vector<ScriptCall> RecordScriptCalls(const Korvex::InterfaceObjectMap& objects,
                                          const KnxStack::BinaryData& memory,
                                          const Korvex::CoDescriptorDataMap& descriptors,
                                          const fs::path& scriptPath, const fs::path& workDir) {
  const fs::path recorder = workDir / "recorder.lua";
  const fs::path output = workDir / "calls.txt";
  const fs::path document = workDir / "recorded.xml";
  {
    std::ofstream out(recorder.string());
    out << "local SCRIPT = [==[" << scriptPath.string() << "]==]\n" << kRecorder;
  }
  // The interpreter prints through C's stdout: it goes to the file while the download runs.
  std::fflush(stdout);
  const int saved = ::dup(STDOUT_FILENO);
  const int file = ::open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  if (saved < 0 || file < 0) throw std::runtime_error("cannot redirect stdout");
  ::dup2(file, STDOUT_FILENO);
  ::close(file);
  bool loaded = false;
  {
    Korvex::LuaKnxDownloadHandler handler(document.string() + ";" + recorder.string());
    loaded = handler.Loaded();
    if (loaded) {
      fs::remove(document);
      handler.CreateFileWithKnxData(
          objects, memory, [] {}, Korvex::IKnxDownloadHandler::AppData_None, descriptors);
    }
  }
  std::fflush(stdout);
  ::dup2(saved, STDOUT_FILENO);
  ::close(saved);
  if (!loaded) throw std::runtime_error("the recording script did not load");
  std::ifstream in(output.string());
  std::vector<ScriptCall> calls = ParseCalls(in);
  if (calls.empty()) throw std::runtime_error("no script calls recorded");
  return calls;
}

ScriptReplay::ScriptReplay(const fs::path& scriptPath, std::vector<ScriptCall> calls)
    : m_calls(std::move(calls)) {
  SetInstructionLimit(Korvex::luaknxdownloadhandler::kDefaultScriptMaxInstructions);
  SetMemoryLimit(Korvex::luaknxdownloadhandler::kDefaultScriptMaxMemory);
  if (!Initialize() || !Load(scriptPath.string())) {
    throw std::runtime_error("the script did not load for the replay");
  }
  // The functions are looked up once, so that the replay costs as little as it can.
  std::map<std::string, int> functions;
  m_functions.reserve(m_calls.size());
  for (const ScriptCall& call : m_calls) {
    if (call.kind != ScriptCall::Kind::Global) {
      m_functions.push_back(LUA_NOREF);
      continue;
    }
    auto found = functions.find(call.name);
    if (found == functions.end()) {
      lua_getglobal(m_luaState, call.name.c_str());
      found = functions.emplace(call.name, luaL_ref(m_luaState, LUA_REGISTRYINDEX)).first;
    }
    m_functions.push_back(found->second);
  }
}

ScriptReplay::~ScriptReplay() = default;

void ScriptReplay::Push(const ScriptValue& value) const {
  switch (value.type) {
    case ScriptValue::Type::Nil:
      lua_pushnil(m_luaState);
      break;
    case ScriptValue::Type::Boolean:
      lua_pushboolean(m_luaState, value.boolean ? 1 : 0);
      break;
    case ScriptValue::Type::Integer:
      lua_pushinteger(m_luaState, value.integer);
      break;
    case ScriptValue::Type::Float:
      lua_pushnumber(m_luaState, value.number);
      break;
    case ScriptValue::Type::String:
      lua_pushlstring(m_luaState, value.text.data(), value.text.size());
      break;
  }
}

void ScriptReplay::Run() {
  // Watched by the CPU-time tick, as a download's calls are, so that the
  // script's share carries no count hook the download does not pay for.
  struct Watch {
    ScriptReplay& replay;
    explicit Watch(ScriptReplay& r) : replay(r) { replay.BeginWatchedCalls(); }
    ~Watch() { replay.EndWatchedCalls(); }
    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;
  } watch(*this);
  lua_State* const state = m_luaState;
  lua_settop(state, 0);
  lua_pushnil(state);  // index 1: the latest parameter list
  std::uint64_t lists = 0;
  for (std::size_t i = 0; i < m_calls.size(); ++i) {
    const ScriptCall& call = m_calls[i];
    const bool isList = call.kind == ScriptCall::Kind::Global && call.returnsList;
    if (call.kind == ScriptCall::Kind::Global) {
      lua_rawgeti(state, LUA_REGISTRYINDEX, m_functions[i]);
    } else {
      if (call.list != lists) throw std::runtime_error("a ShowIf call of an earlier list");
      lua_geti(state, 1, call.key);
      lua_getfield(state, -1, "ShowIf");
      lua_getfield(state, -1, "Function");
      lua_replace(state, 2);
      lua_settop(state, 2);
    }
    for (const ScriptValue& argument : call.arguments) Push(argument);
    if (ProtectedCall(static_cast<int>(call.arguments.size()), 1, call.name.c_str()) != LUA_OK) {
      throw std::runtime_error("a replayed call failed: " + call.name);
    }
    if (isList) {
      lua_replace(state, 1);
      ++lists;
    }
    lua_settop(state, 1);
  }
  lua_settop(state, 0);
}

}  // namespace lkdh::bench
