#include <LuaKnxDownloadHandler/PropertyAccess.h>

#include "Formats.h"

#include <utility>

namespace Korvex::luaknxdownloadhandler {

// Explicit instantiations: the module exports the readers for every value type
// the builder uses.
template boost::optional<bool> GetValueWithId<bool>(PropertyInfo, const InterfaceObjectMap&,
                                                    std::function<bool(KnxStack::BinaryData&)>);
template boost::optional<unsigned char> GetValueWithId<unsigned char>(
    PropertyInfo, const InterfaceObjectMap&, std::function<unsigned char(KnxStack::BinaryData&)>);
template boost::optional<unsigned short> GetValueWithId<unsigned short>(
    PropertyInfo, const InterfaceObjectMap&, std::function<unsigned short(KnxStack::BinaryData&)>);
template boost::optional<unsigned int> GetValueWithId<unsigned int>(
    PropertyInfo, const InterfaceObjectMap&, std::function<unsigned int(KnxStack::BinaryData&)>);
template boost::optional<float> GetValueWithId<float>(PropertyInfo, const InterfaceObjectMap&,
                                                      std::function<float(KnxStack::BinaryData&)>);
template boost::optional<std::string> GetValueWithId<std::string>(
    PropertyInfo, const InterfaceObjectMap&, std::function<std::string(KnxStack::BinaryData&)>);
template boost::optional<bool> GetValueFromArrayWithId<bool>(
    PropertyInfo, unsigned int, const InterfaceObjectMap&,
    std::function<bool(KnxStack::BinaryData&, unsigned int)>);
template boost::optional<unsigned char> GetValueFromArrayWithId<unsigned char>(
    PropertyInfo, unsigned int, const InterfaceObjectMap&,
    std::function<unsigned char(KnxStack::BinaryData&, unsigned int)>);
template boost::optional<unsigned short> GetValueFromArrayWithId<unsigned short>(
    PropertyInfo, unsigned int, const InterfaceObjectMap&,
    std::function<unsigned short(KnxStack::BinaryData&, unsigned int)>);
template boost::optional<unsigned int> GetValueFromArrayWithId<unsigned int>(
    PropertyInfo, unsigned int, const InterfaceObjectMap&,
    std::function<unsigned int(KnxStack::BinaryData&, unsigned int)>);
template boost::optional<float> GetValueFromArrayWithId<float>(
    PropertyInfo, unsigned int, const InterfaceObjectMap&,
    std::function<float(KnxStack::BinaryData&, unsigned int)>);
template boost::optional<std::string> GetValueFromArrayWithId<std::string>(
    PropertyInfo, unsigned int, const InterfaceObjectMap&,
    std::function<std::string(KnxStack::BinaryData&, unsigned int)>);

std::string WrongPropertyIdText(std::uint32_t propertyId) {
  return detail::FormatShared(s_wrongPropertyIdFormat, propertyId);
}

namespace {

std::string StringFromMemory(const boost::optional<unsigned int>& address, PropertyInfo info,
                             unsigned char length, const KnxStack::BinaryData* memory,
                             std::string&& fallback) {
  if (!address) {
    // The error text stands in for the string on purpose: it shows a wrong
    // property id in the script right where the user would see the name.
    return WrongPropertyIdText(info.PropertyId);
  }
  std::string text = MemoryText(*memory, *address, length);
  return text.empty() ? std::move(fallback) : text;
}

}  // namespace

std::string GetStringFromArrayWithId(PropertyInfo info, unsigned int index,
                                     const InterfaceObjectMap& interfaceObjects,
                                     std::string&& fallback) {
  auto value =
      GetValueFromArrayWithId<std::string>(info, index, interfaceObjects, &detail::ReadString);
  return value ? std::move(*value) : std::move(fallback);
}

std::string GetStringWithIdFromMemory(PropertyInfo info, unsigned char length,
                                      const InterfaceObjectMap& interfaceObjects,
                                      const KnxStack::BinaryData* memory, std::string&& fallback) {
  return StringFromMemory(GetUInt32WithId(info, interfaceObjects), info, length, memory,
                          std::move(fallback));
}

std::string GetStringFromArrayWithIdFromMemory(PropertyInfo info, unsigned char length,
                                               unsigned int index,
                                               const InterfaceObjectMap& interfaceObjects,
                                               const KnxStack::BinaryData* memory,
                                               std::string&& fallback) {
  return StringFromMemory(GetUInt32FromArrayWithId(info, index, interfaceObjects), info, length,
                          memory, std::move(fallback));
}

}  // namespace Korvex::luaknxdownloadhandler
