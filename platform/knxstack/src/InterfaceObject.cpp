#include <KnxStack/InterfaceObject.h>

#include <limits>
#include <stdexcept>
#include <string>
#include <utility>

namespace KnxStack {

namespace {

// A truncation test rather than "> UINT32_MAX", which is always false (and warned about) where
// size_t is 32 bits.
bool FitsUInt32(std::size_t value) { return static_cast<std::uint32_t>(value) == value; }

std::uint32_t CheckedElementSize(PropertyDataType pdt, const BinaryData& elements) {
  if (pdt == PropertyDataType::PDT_VARIABLE_LENGTH) {
    if (!FitsUInt32(elements.GetSize())) {
      throw std::invalid_argument("Property: variable-length value too long");
    }
    return static_cast<std::uint32_t>(elements.GetSize());
  }
  const std::uint32_t size = ElementSize(pdt);
  if (size == 0) {
    throw std::invalid_argument("Property: unknown datatype " +
                                std::to_string(static_cast<unsigned>(pdt)));
  }
  return size;
}

std::uint32_t CheckedElementCount(PropertyDataType pdt, std::uint32_t elementSize,
                                  const BinaryData& elements) {
  // An empty variable-length value has no element rather than one of size 0.
  if (pdt == PropertyDataType::PDT_VARIABLE_LENGTH) return elements.IsEmpty() ? 0 : 1;
  if (elements.GetSize() % elementSize != 0) {
    throw std::invalid_argument("Property: " + std::to_string(elements.GetSize()) +
                                " bytes are not a whole number of " + std::to_string(elementSize) +
                                "-byte elements");
  }
  const std::size_t count = elements.GetSize() / elementSize;
  if (!FitsUInt32(count)) {
    throw std::invalid_argument("Property: too many elements");
  }
  return static_cast<std::uint32_t>(count);
}

}  // namespace

Property::Property(std::uint8_t id, PropertyDataType pdt, BinaryData elements)
    : m_id(id), m_pdt(pdt), m_elements(std::move(elements)) {
  m_elementSize = CheckedElementSize(m_pdt, m_elements);
  m_elementCount = CheckedElementCount(m_pdt, m_elementSize, m_elements);
}

bool Property::Read(BinaryData& value) const {
  if (!m_readable) return false;
  value = m_elements;
  return true;
}

std::uint32_t Property::GetElementSize() const { return m_elementSize; }

bool Property::GetElementCount(std::uint32_t& count) const {
  if (!m_countAvailable) return false;
  count = m_elementCount;
  return true;
}

bool Property::ReadElements(std::uint32_t startIndex, std::uint32_t count,
                            BinaryData& value) const {
  if (!m_readable) return false;
  // Written as two comparisons so that startIndex + count cannot wrap.
  if (startIndex > m_elementCount || count > m_elementCount - startIndex) return false;
  value = m_elements.GetRange(static_cast<std::size_t>(startIndex) * m_elementSize,
                              static_cast<std::size_t>(count) * m_elementSize);
  return true;
}

Property& InterfaceObject::AddProperty(std::uint8_t id, PropertyDataType pdt, BinaryData elements) {
  if (m_properties.count(id) != 0) {
    throw std::invalid_argument("InterfaceObject: property " +
                                std::to_string(static_cast<unsigned>(id)) + " already exists");
  }
  auto property = std::make_unique<Property>(id, pdt, std::move(elements));
  Property& result = *property;
  m_properties.emplace(id, std::move(property));
  return result;
}

const IProperty* InterfaceObject::GetProperty(std::uint32_t propertyId) const {
  if (propertyId > std::numeric_limits<std::uint8_t>::max()) return nullptr;
  const auto it = m_properties.find(static_cast<std::uint8_t>(propertyId));
  return it == m_properties.end() ? nullptr : it->second.get();
}

}  // namespace KnxStack
