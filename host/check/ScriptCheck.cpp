// The script check's driver: runs every check on one interpreter, gathers the
// findings, and checks that the global functions the plug-in calls are defined.
#include "ScriptCheck.h"

#include "ScriptCheckInternal.h"

#include <cstdint>
#include <exception>
#include <string>
#include <utility>
#include <vector>

namespace lkdh::host {

namespace detail {

namespace {

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

}  // namespace

std::string WhenItFails(const std::string& name) {
  for (const GlobalFunction& function : kGlobalFunctions) {
    if (name == function.name) return function.whenItFails;
  }
  return "the call fails";
}

ScriptCheckResult Checker::Run() {
  try {
    CheckEnvironment();
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

// --- Reporting -------------------------------------------------------------------

void Checker::Report(Severity severity, const Context& context, const std::string& message) {
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

void Checker::ReportFailure(const Context& context, const CallResult& result,
                            const std::string& subject, const std::string& consequence,
                            Severity severity) {
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

// --- Global functions ------------------------------------------------------------

Context Checker::ContextFor(const char* name, std::vector<std::int64_t> arguments) const {
  Context context;
  context.call = name;
  context.arguments = std::move(arguments);
  const auto found = m_definitions.find(name);
  if (found != m_definitions.end()) context.place = found->second;
  return context;
}

void Checker::CheckPresence() {
  for (const GlobalFunction& function : kGlobalFunctions) {
    const int type = PushGlobal(function.name);
    Context context;
    if (type == LUA_TFUNCTION) {
      const Place place = DefinitionOf(-1);
      m_definitions.emplace(function.name, place);
      m_knowledge.definitions[function.name] = {place.file, place.line};
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

}  // namespace detail

ScriptCheckResult CheckScript(const ScriptCheckInput& input) {
  detail::Checker checker(input);
  return checker.Run();
}

}  // namespace lkdh::host
