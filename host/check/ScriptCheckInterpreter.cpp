// The interpreter under the check's limits (instructions, memory, no exit), and the
// helpers that call into it and read values and tables off its stack.
#include "ScriptCheckInternal.h"

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <fstream>
#include <iostream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace lkdh::host::detail {

namespace {

Budget* BudgetOf(lua_State* state) { return *static_cast<Budget**>(lua_getextraspace(state)); }

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

// One token of the script's text that matters for finding library uses.
struct Token {
  enum Kind { Name, Dot, Colon, Other } kind = Other;
  std::string text;
  int line = 0;
};

bool IsNameStart(char c) { return std::isalpha(static_cast<unsigned char>(c)) != 0 || c == '_'; }
bool IsNameChar(char c) { return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_'; }

// At source[at] == '[': the level of a long bracket "[==[" (the number of '='),
// or -1 when none starts there.
int LongBracketLevel(const std::string& source, std::size_t at) {
  std::size_t i = at + 1;
  while (i < source.size() && source[i] == '=') ++i;
  return i < source.size() && source[i] == '[' ? static_cast<int>(i - at - 1) : -1;
}

// Skips a long string or comment opened at source[at] with the given level;
// returns the index after it, counting the lines it spans.
std::size_t SkipLong(const std::string& source, std::size_t at, int level, int& line) {
  const std::string close = "]" + std::string(static_cast<std::size_t>(level), '=') + "]";
  const std::size_t end = source.find(close, at + static_cast<std::size_t>(level) + 2);
  const std::size_t stop = end == std::string::npos ? source.size() : end + close.size();
  line += static_cast<int>(std::count(source.begin() + static_cast<std::ptrdiff_t>(at),
                                      source.begin() + static_cast<std::ptrdiff_t>(stop), '\n'));
  return stop;
}

// Names, dots and colons of the source, without comments and strings.
std::vector<Token> Tokens(const std::string& source) {
  std::vector<Token> tokens;
  int line = 1;
  std::size_t i = 0;
  if (source.rfind("#", 0) == 0) i = source.find('\n');  // a "#!" first line
  while (i < source.size()) {
    const char c = source[i];
    if (c == '\n') {
      ++line;
      ++i;
    } else if (c == '-' && i + 1 < source.size() && source[i + 1] == '-') {
      const int level =
          i + 2 < source.size() && source[i + 2] == '[' ? LongBracketLevel(source, i + 2) : -1;
      if (level >= 0) {
        i = SkipLong(source, i + 2, level, line);
      } else {
        i = source.find('\n', i);
      }
    } else if (c == '[' && LongBracketLevel(source, i) >= 0) {
      i = SkipLong(source, i, LongBracketLevel(source, i), line);
      tokens.push_back({Token::Other, "string", line});
    } else if (c == '"' || c == '\'') {
      ++i;
      while (i < source.size() && source[i] != c && source[i] != '\n') {
        if (source[i] == '\\' && i + 1 < source.size()) {
          if (source[i + 1] == '\n') ++line;
          ++i;
        }
        ++i;
      }
      ++i;
      tokens.push_back({Token::Other, "string", line});
    } else if (IsNameStart(c)) {
      const std::size_t start = i;
      while (i < source.size() && IsNameChar(source[i])) ++i;
      tokens.push_back({Token::Name, source.substr(start, i - start), line});
    } else if (c == '.' && i + 1 < source.size() && source[i + 1] == '.') {
      while (i < source.size() && source[i] == '.') ++i;
      tokens.push_back({Token::Other, "..", line});
    } else if (c == '.') {
      ++i;
      tokens.push_back({Token::Dot, ".", line});
    } else if (c == ':' && i + 1 < source.size() && source[i + 1] == ':') {
      i += 2;
      tokens.push_back({Token::Other, "::", line});
    } else if (c == ':') {
      ++i;
      tokens.push_back({Token::Colon, ":", line});
    } else if (std::isspace(static_cast<unsigned char>(c)) != 0) {
      ++i;
    } else {
      ++i;
      tokens.push_back({Token::Other, std::string(1, c), line});
    }
    if (i == std::string::npos) break;
  }
  return tokens;
}

// Whether library.member is offered to description scripts.
bool Offered(const std::string& library, const std::string& member) {
  if (library == "os") {
    return member == "time" || member == "date" || member == "clock" || member == "difftime";
  }
  if (library == "debug") return member == "traceback";
  return false;  // io: nothing
}

}  // namespace

// --- Set-up ----------------------------------------------------------------------

// The plug-in's interpreter offers no io, of os only the clock and calendar, of
// debug only traceback, and no __gc metamethods; a use of anything else fails
// when it runs, so it is reported wherever it is written.
void Checker::CheckEnvironment() {
  std::ifstream in(m_input.scriptPath, std::ios::binary);
  if (!in) return;  // the load reports it
  const std::string source{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
  const std::vector<Token> tokens = Tokens(source);
  for (std::size_t i = 0; i < tokens.size(); ++i) {
    const Token& token = tokens[i];
    if (token.kind != Token::Name) continue;
    const bool member =
        i > 0 && (tokens[i - 1].kind == Token::Dot || tokens[i - 1].kind == Token::Colon);
    Context context;
    context.place = Place{m_input.scriptPath, token.line};
    if (token.text == "__gc") {
      Report(Severity::Error, context,
             "__gc metamethods are not available to description scripts: setmetatable raises an "
             "error for a metatable with __gc");
      continue;
    }
    if (member || (token.text != "io" && token.text != "os" && token.text != "debug") ||
        i + 2 >= tokens.size() ||
        (tokens[i + 1].kind != Token::Dot && tokens[i + 1].kind != Token::Colon) ||
        tokens[i + 2].kind != Token::Name) {
      continue;
    }
    if (!Offered(token.text, tokens[i + 2].text)) {
      Report(Severity::Error, context,
             token.text + "." + tokens[i + 2].text +
                 " is not available to description scripts: using it raises an error");
    }
  }
}

bool Checker::Start() {
  // The memory budget is the wrapper's own; the instruction budget is counted
  // here, so that a finding can name the line where the call was stopped.
  m_lua.SetLimits(0, kScriptMemoryLimit);
  if (!m_lua.Initialize() || m_lua.State() == nullptr) {
    throw std::runtime_error("cannot create the Lua interpreter");
  }
  m_state = m_lua.State();
  *static_cast<Budget**>(lua_getextraspace(m_state)) = &m_budget;

  lua_pushcfunction(m_state, &PrintToStandardError);
  lua_setglobal(m_state, "print");

  // The top level runs under the same limits as every later call.
  m_budget.callExpired = false;
  lua_sethook(m_state, &StopLongCall, LUA_MASKCOUNT, kInstructionLimit);
  const bool loaded = m_lua.LoadInitialized(m_input.scriptPath);
  lua_sethook(m_state, nullptr, 0, 0);
  if (loaded) return true;

  CallResult failure;
  failure.status = m_budget.callExpired                          ? CallResult::Status::TooLong
                   : m_lua.ErrorMessage() == "not enough memory" ? CallResult::Status::NoMemory
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

// "file:12: text": the place, and the text without it. Lua shortens long
// file names to "...tail"; such a name is taken as the script when it fits.
void Checker::SplitPlace(const std::string& message, CallResult& result) const {
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

// --- Interpreter helpers ---------------------------------------------------------

void Checker::EnsureStack(int slots) const {
  if (lua_checkstack(m_state, slots) == 0) {
    throw std::runtime_error("the Lua stack cannot grow by " + std::to_string(slots) + " slots");
  }
}

// The value as Lua writes it, converted on a copy so that the value keeps its type.
std::string Checker::TextOf(int index) const {
  EnsureStack(1);
  lua_pushvalue(m_state, index);
  std::size_t length = 0;
  const char* text = lua_tolstring(m_state, -1, &length);
  std::string result = text != nullptr ? std::string(text, length) : std::string();
  lua_pop(m_state, 1);
  return result;
}

std::string Checker::Describe(int index) const {
  return Korvex::luaknxdownloadhandler::DescribeLuaValue(m_state, index);
}

Place Checker::DefinitionOf(int index) const {
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
int Checker::PushGlobal(const char* name) const {
  EnsureStack(2);
  lua_rawgeti(m_state, LUA_REGISTRYINDEX, LUA_RIDX_GLOBALS);
  lua_pushstring(m_state, name);
  lua_rawget(m_state, -2);
  lua_remove(m_state, -2);
  return lua_type(m_state, -1);
}

// Calls the function below its arguments, protected and under the limits.
// Leaves the results on the stack on success, nothing otherwise.
CallResult Checker::ProtectedCall(int arguments, int results) {
  m_budget.callExpired = false;
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
  } else if (status == LUA_ERRMEM) {
    result.status = CallResult::Status::NoMemory;
  } else {
    result.status = CallResult::Status::Error;
  }
  SplitPlace(message, result);
  return result;
}

CallResult Checker::CallGlobal(const char* name, const std::vector<std::int64_t>& arguments,
                               int results) {
  EnsureStack(static_cast<int>(arguments.size()) + 2);
  PushGlobal(name);
  for (const std::int64_t argument : arguments) {
    lua_pushinteger(m_state, static_cast<lua_Integer>(argument));
  }
  return ProtectedCall(static_cast<int>(arguments.size()), results);
}

}  // namespace lkdh::host::detail
