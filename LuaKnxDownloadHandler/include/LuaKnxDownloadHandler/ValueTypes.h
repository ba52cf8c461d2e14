#pragma once
// The script's value types: their names, the bytes each reads from a property
// element, and whether a ShowIf function gets an argument for it. Header-only,
// so that check-script, which may not link the plug-in, reads the same table.

#include <array>
#include <cstdint>
#include <string_view>

namespace Korvex::luaknxdownloadhandler {

enum class ValueType : std::uint8_t {
  Bool,
  Int8,
  Int16,
  Int32,
  UInt8,
  UInt16,
  UInt32,
  Float16,
  Float32,
  Text,
  Name,
  Url,
  Generic20,
};

struct ValueTypeInfo {
  ValueType type;
  std::string_view name;  // as the script spells it
  std::uint32_t bytes;    // read from the property element; texts read a 4-byte address
  bool showIfArgument;    // a ShowIf function gets an argument for it ("Url" none)
};

inline constexpr std::array<ValueTypeInfo, 13> kValueTypes = {{
    {ValueType::Bool, "Bool", 1, true},
    {ValueType::Int8, "Int8", 1, true},
    {ValueType::Int16, "Int16", 2, true},
    {ValueType::Int32, "Int32", 4, true},
    {ValueType::UInt8, "UInt8", 1, true},
    {ValueType::UInt16, "UInt16", 2, true},
    {ValueType::UInt32, "UInt32", 4, true},
    {ValueType::Float16, "Float16", 2, true},
    {ValueType::Float32, "Float32", 4, true},
    {ValueType::Text, "Text", 4, true},
    {ValueType::Name, "Name", 4, true},
    {ValueType::Url, "Url", 4, false},
    {ValueType::Generic20, "GENERIC_20", 20, true},
}};

/// The value type of that name, or null for a name no writer knows.
constexpr const ValueTypeInfo* FindValueType(std::string_view name) noexcept {
  // Length and first letter first: a type is found with one full comparison.
  for (const ValueTypeInfo& info : kValueTypes) {
    if (info.name.size() == name.size() && info.name[0] == name[0] && info.name == name) {
      return &info;
    }
  }
  return nullptr;
}

}  // namespace Korvex::luaknxdownloadhandler
