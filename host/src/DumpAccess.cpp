#include "DumpAccess.h"

#include <cstring>

namespace lkdh::host {

namespace {

std::string Trimmed(const std::string& text) {
  const char* const blanks = " \t\n\v\f\r";
  const std::size_t first = text.find_first_not_of(blanks);
  if (first == std::string::npos) return {};
  const std::size_t last = text.find_last_not_of(blanks);
  return text.substr(first, last - first + 1);
}

}  // namespace

const KnxStack::IProperty* DumpAccess::Find(PropertyAddress address) const {
  const auto found = m_dump.interfaceObjects.find(address.object);
  if (found == m_dump.interfaceObjects.end() || found->second.empty() ||
      found->second.front() == nullptr) {
    return nullptr;
  }
  return found->second.front()->GetProperty(address.property);
}

std::string DumpAccess::WhyMissing(PropertyAddress address) const {
  const auto found = m_dump.interfaceObjects.find(address.object);
  if (found == m_dump.interfaceObjects.end() || found->second.empty()) {
    return "there is no interface object " + std::to_string(address.object);
  }
  if (Find(address) == nullptr) {
    const bool several = found->second.size() > 1;
    return std::string(several ? "the first interface object " : "interface object ") +
           std::to_string(address.object) + " has no property " + std::to_string(address.property);
  }
  return {};
}

std::optional<std::uint32_t> DumpAccess::ElementCount(PropertyAddress address) const {
  const KnxStack::IProperty* property = Find(address);
  std::uint32_t count = 0;
  if (property == nullptr || !property->GetElementCount(count)) return std::nullopt;
  return count;
}

std::optional<DumpAccess::Slice> DumpAccess::Read(PropertyAddress address, Element element) const {
  const KnxStack::IProperty* property = Find(address);
  if (property == nullptr) return std::nullopt;
  Slice slice;
  if (!element) {
    if (!property->Read(slice.data)) return std::nullopt;
    return slice;
  }
  // Like the plug-in: the whole array in one read, the element found by its offset.
  const std::uint32_t size = property->GetElementSize();
  std::uint32_t count = 0;
  if (!property->GetElementCount(count) || !property->ReadElements(0, count, slice.data)) {
    return std::nullopt;
  }
  slice.offset = static_cast<std::size_t>(*element) * size;
  return slice;
}

std::optional<std::uint8_t> DumpAccess::UInt8(PropertyAddress address, Element element) const {
  const auto slice = Read(address, element);
  if (!slice) return std::nullopt;
  return slice->data.GetUInt8Value(slice->offset);
}

std::optional<std::uint16_t> DumpAccess::UInt16(PropertyAddress address, Element element) const {
  const auto slice = Read(address, element);
  if (!slice) return std::nullopt;
  return slice->data.GetUInt16Value(slice->offset);
}

std::optional<std::uint32_t> DumpAccess::UInt32(PropertyAddress address, Element element) const {
  const auto slice = Read(address, element);
  if (!slice) return std::nullopt;
  return slice->data.GetUInt32Value(slice->offset);
}

std::optional<bool> DumpAccess::Bool(PropertyAddress address, Element element) const {
  const auto value = UInt8(address, element);
  if (!value) return std::nullopt;
  return *value != 0;
}

std::optional<float> DumpAccess::Float32(PropertyAddress address, Element element) const {
  const auto bits = UInt32(address, element);
  if (!bits) return std::nullopt;
  float value = 0.0F;
  std::memcpy(&value, &*bits, sizeof value);
  return value;
}

std::optional<float> DumpAccess::Float16(PropertyAddress address, Element element) const {
  const auto raw = UInt16(address, element);
  if (!raw) return std::nullopt;
  std::int32_t mantissa = *raw & 0x7FF;
  if ((*raw & 0x8000U) != 0) mantissa -= 2048;
  const int exponent = (*raw >> 11) & 0xF;
  const std::int32_t scaled = mantissa * (std::int32_t{1} << exponent);
  return static_cast<float>(scaled) * 0.01F;
}

std::string DumpAccess::PropertyText(PropertyAddress address, Element element,
                                     const std::string& fallback) const {
  const auto slice = Read(address, element);
  if (!slice) return fallback;
  return slice->data.GetStringValue(slice->offset);
}

std::string DumpAccess::MemoryText(PropertyAddress address, Element element, std::uint8_t limit,
                                   const std::string& fallback) const {
  const auto where = UInt32(address, element);
  if (!where) {
    return "ERROR: maybe wrong property id (" + std::to_string(address.property) +
           "), no User should see this!";
  }
  const std::string text = Trimmed(m_dump.memory.GetRange(*where, limit).GetStringValue(0));
  return text.empty() ? fallback : text;
}

}  // namespace lkdh::host
