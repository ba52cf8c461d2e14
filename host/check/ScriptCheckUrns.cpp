// Checks of the URN and template functions: the selector property and the texts
// they return for each channel type (and selector value).
#include "ScriptCheckInternal.h"

#include <algorithm>
#include <cstdint>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace lkdh::host::detail {

void Checker::CheckSelectors(std::int64_t type) {
  PropertyInfo selector;
  if (Present(kGetPropertyIndexForUrns)) {
    const Context context = ContextFor(kGetPropertyIndexForUrns, {type});
    const CallResult result = CallGlobal(kGetPropertyIndexForUrns, {type});
    if (!result.Ok()) {
      ReportFailure(context, result, "", WhenItFails(kGetPropertyIndexForUrns));
    } else {
      if (lua_type(m_state, -1) == LUA_TTABLE) {
        selector = CheckSelector(context, static_cast<std::uint32_t>(type));
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
      values.insert(Values(slot).UInt8(selector).value_or(0));
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
  const bool anyDescribed =
      std::any_of(probes.begin(), probes.end(), [](const Probe& probe) { return probe.described; });
  for (const Probe& probe : probes) {
    if (m_dump || probe.described || !anyDescribed) m_sink->Append(probe.findings);
  }
}

// The URN and template functions: the plug-in reads their result as text.
// True when the answer is a text that is not empty.
bool Checker::CheckText(const char* name, const std::vector<std::int64_t>& arguments) {
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

}  // namespace lkdh::host::detail
