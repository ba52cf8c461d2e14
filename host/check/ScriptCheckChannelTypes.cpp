// Checks of what the script says for each channel type: whether it has URNs, its
// URN and template answers, and its parameter list.
#include "ScriptCheckInternal.h"

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace lkdh::host::detail {

void Checker::CheckChannelTypes() {
  std::set<std::int64_t> types;
  if (m_dump) {
    const PropertyInfo channelTypes = Setting("ChannelType");
    const KnxStack::IProperty* property =
        Korvex::luaknxdownloadhandler::detail::FindProperty(channelTypes, m_dump->interfaceObjects);
    std::uint32_t count = 0;
    if (property == nullptr || !property->GetElementCount(count)) count = 0;
    for (std::uint32_t slot = 0; slot < count; ++slot) {
      const std::uint8_t type = Values(slot).UInt8(channelTypes).value_or(0);
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

std::vector<std::uint32_t> Checker::SlotsOf(std::int64_t type) const {
  std::vector<std::uint32_t> slots;
  for (const auto& [slot, slotType] : m_knowledge.slotChannelTypes) {
    if (slotType == type) slots.push_back(slot);
  }
  return slots;
}

// True when the script describes the type: URNs that depend on a selector, a
// URN, or parameters.
bool Checker::CheckChannelType(std::int64_t type) {
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

// True when the type has parameters.
bool Checker::CheckParameters(std::int64_t type) {
  if (!Present(kGetParameters)) return false;
  const Context context = ContextFor(kGetParameters, {type});
  if (!CallForTable(context, Severity::Warning, "read as no parameters")) return false;
  lua_pushnil(m_state);
  const bool any = lua_next(m_state, -2) != 0;
  if (any) lua_pop(m_state, 2);

  std::vector<Slot> slots;
  if (m_dump) {
    for (const std::uint32_t slot : SlotsOf(type)) slots.emplace_back(slot);
  } else {
    slots.emplace_back(std::nullopt);
  }
  auto& types = m_knowledge.functionParameterTypes[static_cast<std::uint32_t>(type)];
  for (const LuaParameter& parameter : CheckParameterList(context, slots)) {
    types.emplace(parameter.key, parameter.type);
  }
  return any;
}

}  // namespace lkdh::host::detail
