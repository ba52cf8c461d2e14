#pragma once
// Where the values of one parameter list come from: the download's interface
// objects and memory image, read with the getters of PropertyAccess.h. Part of
// the script bridge, so that check-script reads a dump as a download is read.

#include <LuaKnxDownloadHandler/Diagnostics.h>
#include <LuaKnxDownloadHandler/PropertyAccess.h>
#include <LuaKnxDownloadHandler/ValueTypes.h>

#include <KnxStack/BinaryData.h>

#include <boost/optional.hpp>

#include <string>

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

}  // namespace Korvex::luaknxdownloadhandler::detail
