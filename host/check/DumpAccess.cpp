#include "DumpAccess.h"

#include <LuaKnxDownloadHandler/KnxValues.h>
#include <LuaKnxDownloadHandler/PropertyAccess.h>
#include <LuaKnxDownloadHandler/Rules.h>

#include <boost/format.hpp>

namespace lkdh::host {

namespace {

namespace plugin = Korvex::luaknxdownloadhandler;

plugin::PropertyInfo Info(PropertyAddress address) { return {address.property, address.object}; }

template <typename Value>
std::optional<Value> Std(const boost::optional<Value>& value) {
  if (!value) return std::nullopt;
  return *value;
}

}  // namespace

const KnxStack::IProperty* DumpAccess::Find(PropertyAddress address) const {
  return plugin::detail::FindProperty(Info(address), m_dump.interfaceObjects);
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

// The plug-in's own readers (PropertyAccess.h), on the dump's interface objects.

std::optional<std::uint8_t> DumpAccess::UInt8(PropertyAddress address, Element element) const {
  const auto& objects = m_dump.interfaceObjects;
  return Std(element ? plugin::GetUInt8FromArrayWithId(Info(address), *element, objects)
                     : plugin::GetUInt8WithId(Info(address), objects));
}

std::optional<std::uint16_t> DumpAccess::UInt16(PropertyAddress address, Element element) const {
  const auto& objects = m_dump.interfaceObjects;
  return Std(element ? plugin::GetUInt16FromArrayWithId(Info(address), *element, objects)
                     : plugin::GetUInt16WithId(Info(address), objects));
}

std::optional<std::uint32_t> DumpAccess::UInt32(PropertyAddress address, Element element) const {
  const auto& objects = m_dump.interfaceObjects;
  return Std(element ? plugin::GetUInt32FromArrayWithId(Info(address), *element, objects)
                     : plugin::GetUInt32WithId(Info(address), objects));
}

std::optional<bool> DumpAccess::Bool(PropertyAddress address, Element element) const {
  const auto& objects = m_dump.interfaceObjects;
  return Std(element ? plugin::GetBoolFromArrayWithId(Info(address), *element, objects)
                     : plugin::GetBoolWithId(Info(address), objects));
}

std::optional<float> DumpAccess::Float32(PropertyAddress address, Element element) const {
  const auto& objects = m_dump.interfaceObjects;
  return Std(element ? plugin::GetFloatFromArrayWithId(Info(address), *element, objects)
                     : plugin::GetFloatWithId(Info(address), objects));
}

std::optional<float> DumpAccess::Float16(PropertyAddress address, Element element) const {
  const auto& objects = m_dump.interfaceObjects;
  return Std(element ? plugin::GetFloat16FromArrayWithId(Info(address), *element, objects)
                     : plugin::GetFloat16WithId(Info(address), objects));
}

std::string DumpAccess::PropertyText(PropertyAddress address, Element element,
                                     const std::string& fallback) const {
  const auto& objects = m_dump.interfaceObjects;
  const auto text = element ? plugin::GetValueFromArrayWithId<std::string>(
                                  Info(address), *element, objects, &plugin::detail::ReadString)
                            : plugin::GetValueWithId<std::string>(
                                  Info(address), objects,
                                  [](auto& data) { return plugin::detail::ReadString(data, 0); });
  return text ? *text : fallback;
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
