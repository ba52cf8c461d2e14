#include "DumpAccess.h"

#include <LuaKnxDownloadHandler/KnxValues.h>
#include <LuaKnxDownloadHandler/Rules.h>

#include <boost/format.hpp>

#include <cstring>

namespace lkdh::host {

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
  return Korvex::luaknxdownloadhandler::DecodeKnxFloat16(*raw);
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
    return (boost::format(Korvex::luaknxdownloadhandler::kWrongPropertyIdFormat) % address.property)
        .str();
  }
  const std::string text = Korvex::luaknxdownloadhandler::MemoryText(m_dump.memory, *where, limit);
  return text.empty() ? fallback : text;
}

}  // namespace lkdh::host
