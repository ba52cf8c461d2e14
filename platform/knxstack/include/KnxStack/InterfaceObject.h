#pragma once
// An in-memory interface object and property, as a host builds them from a download.

#include <KnxStack/BinaryData.h>
#include <KnxStack/IInterfaceObject.h>
#include <KnxStack/PropertyDataType.h>

#include <cstdint>
#include <map>
#include <memory>

namespace KnxStack {

/// A property whose elements are held in memory, big-endian, each of the size
/// its datatype fixes. A PDT_VARIABLE_LENGTH property holds one element whose
/// size is the whole value.
class Property final : public IProperty {
 public:
  /// Throws std::invalid_argument when the bytes are not a whole number of elements.
  Property(std::uint8_t id, PropertyDataType pdt, BinaryData elements);

  std::uint8_t GetId() const override { return m_id; }
  bool Read(BinaryData& value) const override;
  std::uint32_t GetElementSize() const override;
  bool GetElementCount(std::uint32_t& count) const override;
  bool ReadElements(std::uint32_t startIndex, std::uint32_t count,
                    BinaryData& value) const override;

  PropertyDataType GetDataType() const noexcept { return m_pdt; }
  const BinaryData& GetElements() const noexcept { return m_elements; }

  /// An unreadable property fails every whole-value and element read.
  void SetReadable(bool readable) noexcept { m_readable = readable; }
  /// A property without an available count fails the element-count query.
  void SetCountAvailable(bool available) noexcept { m_countAvailable = available; }

 private:
  std::uint8_t m_id;
  PropertyDataType m_pdt;
  BinaryData m_elements;
  std::uint32_t m_elementSize = 0;
  std::uint32_t m_elementCount = 0;
  bool m_readable = true;
  bool m_countAvailable = true;
};

/// An interface object that owns its properties.
class InterfaceObject final : public IInterfaceObject {
 public:
  /// Adds a property; throws std::invalid_argument when the id is taken.
  Property& AddProperty(std::uint8_t id, PropertyDataType pdt, BinaryData elements);

  const IProperty* GetProperty(std::uint32_t propertyId) const override;

  std::size_t GetPropertyCount() const noexcept { return m_properties.size(); }

 private:
  std::map<std::uint8_t, std::unique_ptr<Property>> m_properties;
};

}  // namespace KnxStack
