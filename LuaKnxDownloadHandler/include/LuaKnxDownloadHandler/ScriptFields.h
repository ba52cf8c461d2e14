#pragma once
// The field names of the script's tables, as the bridge's readers look them up
// and check-script knows them (its did-you-mean candidates). Header-only.

#include <array>
#include <string>
#include <string_view>
#include <vector>

namespace Korvex::luaknxdownloadhandler::fields {

// A property table.
inline constexpr std::string_view kInterfaceObjectId = "InterfaceObjectId";
inline constexpr std::string_view kPropertyId = "PropertyId";
// A parameter table.
inline constexpr std::string_view kKey = "Key";
inline constexpr std::string_view kType = "Type";  // also of ShowIf entries and records
inline constexpr std::string_view kProperty = "Property";
inline constexpr std::string_view kDigits = "Digits";
inline constexpr std::string_view kShowIf = "ShowIf";
// A ShowIf table and the entries of its PropertyIds.
inline constexpr std::string_view kPropertyIds = "PropertyIds";
inline constexpr std::string_view kFunction = "Function";
inline constexpr std::string_view kId = "Id";
// A static-data record.
inline constexpr std::string_view kEnabledProperty = "EnabledProperty";
inline constexpr std::string_view kParameters = "Parameters";
inline constexpr std::string_view kSubData = "SubData";

inline constexpr std::array<std::string_view, 2> kPropertyTable = {kInterfaceObjectId, kPropertyId};
inline constexpr std::array<std::string_view, 5> kParameterTable = {kKey, kType, kProperty, kDigits,
                                                                    kShowIf};
inline constexpr std::array<std::string_view, 2> kShowIfTable = {kPropertyIds, kFunction};
inline constexpr std::array<std::string_view, 2> kShowIfEntryTable = {kId, kType};
inline constexpr std::array<std::string_view, 4> kStaticDataTable = {kEnabledProperty, kType,
                                                                     kParameters, kSubData};

/// The names of one kind of table as strings, for a search among them.
template <std::size_t N>
std::vector<std::string> Names(const std::array<std::string_view, N>& table) {
  return {table.begin(), table.end()};
}

}  // namespace Korvex::luaknxdownloadhandler::fields
