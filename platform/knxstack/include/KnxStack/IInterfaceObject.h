#pragma once
// KNX interface objects and their properties as the stack exposes them.

#include <KnxStack/BinaryData.h>

#include <cstdint>

namespace KnxStack {

/// One property of an interface object: an array of elements of a fixed size.
class IProperty {
 public:
  virtual ~IProperty() = default;

  virtual std::uint8_t GetId() const = 0;
  /// Copies all elements, back to back, into value; false when not readable.
  virtual bool Read(BinaryData& value) const = 0;
  /// Bytes per element, fixed by the property datatype.
  virtual std::uint32_t GetElementSize() const = 0;
  /// The current number of elements; false when the count is unavailable.
  virtual bool GetElementCount(std::uint32_t& count) const = 0;
  /// Copies count elements from startIndex (0 is the first element, not the
  /// KNX count slot) into value; false when not readable or out of range.
  virtual bool ReadElements(std::uint32_t startIndex, std::uint32_t count,
                            BinaryData& value) const = 0;
};

class IInterfaceObject {
 public:
  virtual ~IInterfaceObject() = default;

  /// The property with that id, or null when the object has none.
  virtual const IProperty* GetProperty(std::uint32_t propertyId) const = 0;
};

}  // namespace KnxStack
