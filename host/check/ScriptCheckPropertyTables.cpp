// Checks of the property tables (InterfaceObjectId, PropertyId) that name a property
// anywhere in the script, and whether the download holds that property.
#include "ScriptCheckInternal.h"

#include <LuaKnxDownloadHandler/ScriptFields.h>

#include <cstdint>
#include <string>
#include <vector>

namespace lkdh::host::detail {

namespace fields = Korvex::luaknxdownloadhandler::fields;

namespace {

const std::vector<std::string> kPropertyFields = fields::Names(fields::kPropertyTable);

}  // namespace

PropertyAddress Checker::CheckPropertyTable(int table, const Context& context,
                                            const std::string& prefix) {
  PropertyAddress address;
  bool hasPropertyId = false;
  WalkFields(table, context, "a property table", [&](const std::string& field, int value) {
    if (field == fields::kPropertyId) {
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
    } else if (field == fields::kInterfaceObjectId) {
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

void Checker::CheckAddress(PropertyAddress address, const Context& context, const std::string& what,
                           const std::string& consequence) {
  if (!m_dump) return;
  const std::string why = m_dump->WhyMissing(address);
  if (why.empty()) return;
  Report(Severity::Warning, context,
         what + " (interface object " + std::to_string(address.object) + ", property " +
             std::to_string(address.property) + ") is not in the download: " + why + consequence);
}

}  // namespace lkdh::host::detail
