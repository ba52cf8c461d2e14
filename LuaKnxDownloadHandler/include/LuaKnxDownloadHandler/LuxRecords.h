#pragma once
// What the description script says about parameters, ShowIf rules and static data.

#include <LuaKnxDownloadHandler/PropertyAccess.h>

#include <boost/optional.hpp>

#include <cstdint>
#include <string>
#include <vector>

namespace Korvex::luaknxdownloadhandler {

/// One property a ShowIf rule depends on.
struct LuaParameterShowIfPropertyIds {
  std::string type;  // "Type": a value type name
  PropertyInfo id;   // "Id"
};

/// The ShowIf rule of one parameter.
struct LuaParameterShowIf {
  std::int32_t functionRef = 0;  // registry reference of "Function"; 0: none
  std::vector<LuaParameterShowIfPropertyIds> propertyIds;  // "PropertyIds"
};

/// One parameter of a function or a static-data record.
struct LuaParameter {
  std::string key;            // "Key"
  std::string type;           // "Type"
  LuaParameterShowIf showIf;  // "ShowIf"
  std::int32_t digits = 0;    // "Digits"
  PropertyInfo property;      // "Property"
};

/// One static-data record with its nested records.
struct LuxStaticData {
  boost::optional<PropertyInfo> enabledProperty;  // "EnabledProperty"
  std::string name;                               // its key in the parent table
  std::string type;                               // "Type"
  std::vector<LuaParameter> parameters;           // "Parameters", sorted by key
  std::vector<LuxStaticData> subData;             // "SubData", sorted by name
};

}  // namespace Korvex::luaknxdownloadhandler
