#pragma once
// The script's value types: how each is read from KNX data, written as a
// "parameter" element and handed to a ShowIf function. Shared by the function
// writer (array elements of a slot) and the static-data writer (whole properties).

#include <LuaKnxDownloadHandler/Diagnostics.h>
#include <LuaKnxDownloadHandler/LuxHelperBase.h>
#include <LuaKnxDownloadHandler/LuxRecords.h>
#include <LuaKnxDownloadHandler/PropertyAccess.h>
#include <LuaKnxDownloadHandler/ValueTypes.h>

#include <KnxStack/BinaryData.h>
#include <ovslua/Lua.h>

#include <boost/optional.hpp>
#include <pugixml.hpp>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace Korvex::luaknxdownloadhandler::detail {

/// The character limits the builder read at construction.
struct TextLimits {
  unsigned char name = 0;
  unsigned char text = 0;
  unsigned char url = 0;
};

/// Where the values of one parameter list come from: element `index` of array
/// properties (a function slot) or whole properties (a static-data record).
class ValueSource {
 public:
  static ValueSource ArrayElement(const InterfaceObjectMap& interfaceObjects,
                                  const KnxStack::BinaryData& memory, TextLimits limits,
                                  unsigned int index);
  static ValueSource WholeProperty(const InterfaceObjectMap& interfaceObjects,
                                   const KnxStack::BinaryData& memory, TextLimits limits);

  boost::optional<bool> Bool(PropertyInfo info) const;
  boost::optional<unsigned char> UInt8(PropertyInfo info) const;
  boost::optional<unsigned short> UInt16(PropertyInfo info) const;
  boost::optional<unsigned int> UInt32(PropertyInfo info) const;
  boost::optional<float> Float16(PropertyInfo info) const;
  boost::optional<float> Float32(PropertyInfo info) const;
  /// A text the property locates in the memory image, at most length bytes.
  std::string MemoryString(PropertyInfo info, unsigned char length, std::string&& fallback) const;
  /// A text held in the property value itself.
  std::string PropertyString(PropertyInfo info, std::string&& fallback) const;

  const TextLimits& Limits() const noexcept { return m_limits; }

  /// Why a value of the type reads otherwise than the property holds (missing,
  /// past the end of the array, narrower or wider), told to diagnostics; and
  /// for a text, whether it is longer than its limit. Reads again: only with a sink.
  void CheckRead(PropertyInfo info, const ValueTypeInfo& type, unsigned char limit,
                 Diagnostics& diagnostics, const Skip& where) const;

 private:
  ValueSource(const InterfaceObjectMap& interfaceObjects, const KnxStack::BinaryData& memory,
              TextLimits limits, boost::optional<unsigned int> index);

  const InterfaceObjectMap& m_interfaceObjects;
  const KnxStack::BinaryData& m_memory;
  TextLimits m_limits;
  boost::optional<unsigned int> m_index;  // empty: whole properties
};

/// "True" or "False", the spelling of every boolean setting and parameter.
const char* BoolText(bool value);

/// Fixed-point text with the low 8 bits of digits as the number of decimals.
std::string FixedPointText(float value, std::int32_t digits);

/// The default of a "Name" parameter whose text cannot be read; differs per caller.
using NameDefault = std::function<std::string(const LuaParameter&)>;

class DocumentBytes;

/// Appends the parameter's "parameter" element by its value type, counted in
/// size first; an unknown type appends nothing.
void WriteParameter(pugi::xml_node& parameters, const LuaParameter& parameter,
                    const ValueSource& source, const NameDefault& nameDefault, DocumentBytes& size,
                    Diagnostics* diagnostics);
void WriteParameter(pugi::xml_node& parameters, const LuaParameter& parameter,
                    const ValueSource& source, const NameDefault& nameDefault, DocumentBytes& size);

/// The arguments of a ShowIf function: one per entry whose type has a kind,
/// keyed by the running count so that a skipped entry leaves no gap.
ovslua::Lua::Args MakeShowIfArgs(const std::vector<LuaParameterShowIfPropertyIds>& entries,
                                 const ValueSource& source, Diagnostics* diagnostics,
                                 const std::string& key);
ovslua::Lua::Args MakeShowIfArgs(const std::vector<LuaParameterShowIfPropertyIds>& entries,
                                 const ValueSource& source);

/// Whether the parameter is shown: always without ShowIf properties, otherwise
/// the answer of its ShowIf function.
bool IsParameterShown(const LuaParameter& parameter, const ValueSource& source,
                      LuxHelperBase& luxHelper, Diagnostics* diagnostics);
bool IsParameterShown(const LuaParameter& parameter, const ValueSource& source,
                      LuxHelperBase& luxHelper);

}  // namespace Korvex::luaknxdownloadhandler::detail
