#pragma once
// Typed reads of KNX property values, array elements and memory-image strings,
// and the shared formatter objects of the document builder.

#include <LuaKnxDownloadHandler/KnxValues.h>

#include <KnxStack/BinaryData.h>
#include <KnxStack/IInterfaceObject.h>
#include <Korvex/IKnxDownloadHandler.h>

#include <boost/format.hpp>
#include <boost/optional.hpp>

#include <cstdint>
#include <cstring>
#include <functional>
#include <string>

namespace Korvex::luaknxdownloadhandler {

using Korvex::CoDescriptorDataMap;
using Korvex::InterfaceObjectMap;

/// The address of one KNX property.
struct PropertyInfo {
  std::uint32_t PropertyId = 0;         // 0..255
  std::uint32_t InterfaceObjectId = 0;  // key in the InterfaceObjectMap
};

// Process-wide formatters, made once at library load and reused on every use.
// They change state with each use: one document build at a time.
extern boost::format s_folderFormat;           // "Folder %d"
extern boost::format s_functionFormat;         // "Function %d"
extern boost::format s_nameNumberFormat;       // "%s %d"
extern boost::format s_wrongPropertyIdFormat;  // "ERROR: maybe wrong property id (%d), ..."
extern boost::format s_floorCallButtonFormat;  // "Floor call button"

namespace detail {

// Only the first object under an index counts; the host never stores an empty
// vector, and a null first pointer reads as "no such object".
inline const KnxStack::IProperty* FindProperty(PropertyInfo info,
                                               const InterfaceObjectMap& interfaceObjects) {
  const auto entry = interfaceObjects.find(info.InterfaceObjectId);
  if (entry == interfaceObjects.end() || entry->second.empty() ||
      entry->second.front() == nullptr) {
    return nullptr;
  }
  return entry->second.front()->GetProperty(info.PropertyId);
}

}  // namespace detail

/// The whole value of the property, decoded by reader; empty when not readable.
template <typename T>
boost::optional<T> GetValueWithId(PropertyInfo info, const InterfaceObjectMap& interfaceObjects,
                                  std::function<T(KnxStack::BinaryData&)> reader) {
  const KnxStack::IProperty* property = detail::FindProperty(info, interfaceObjects);
  if (property == nullptr) {
    return boost::none;
  }
  KnxStack::BinaryData data;
  if (!property->Read(data)) {
    return boost::none;
  }
  return reader(data);
}

/// Element index of the property, decoded by reader at byte offset index x
/// element size of the whole array; empty when not readable.
template <typename T>
boost::optional<T> GetValueFromArrayWithId(
    PropertyInfo info, unsigned int index, const InterfaceObjectMap& interfaceObjects,
    std::function<T(KnxStack::BinaryData&, unsigned int)> reader) {
  const KnxStack::IProperty* property = detail::FindProperty(info, interfaceObjects);
  if (property == nullptr) {
    return boost::none;
  }
  const std::uint32_t elementSize = property->GetElementSize();
  std::uint32_t count = 0;
  if (!property->GetElementCount(count)) {
    return boost::none;
  }
  KnxStack::BinaryData data;
  if (!property->ReadElements(0, count, data)) {
    return boost::none;
  }
  // Not compared with the count: past the end the buffer itself reads zeros.
  return reader(data, index * elementSize);
}

namespace detail {

inline bool ReadBool(KnxStack::BinaryData& data, unsigned int offset) {
  return data.GetUInt8Value(offset) != 0;
}
inline unsigned char ReadUInt8(KnxStack::BinaryData& data, unsigned int offset) {
  return data.GetUInt8Value(offset);
}
inline unsigned short ReadUInt16(KnxStack::BinaryData& data, unsigned int offset) {
  return data.GetUInt16Value(offset);
}
inline unsigned int ReadUInt32(KnxStack::BinaryData& data, unsigned int offset) {
  return data.GetUInt32Value(offset);
}
inline float ReadFloat(KnxStack::BinaryData& data, unsigned int offset) {
  const std::uint32_t bits = data.GetUInt32Value(offset);
  float value = 0.0F;
  static_assert(sizeof value == sizeof bits, "IEEE 754 single expected");
  std::memcpy(&value, &bits, sizeof value);
  return value;
}

}  // namespace detail

namespace detail {
inline float ReadFloat16(KnxStack::BinaryData& data, unsigned int offset) {
  return DecodeKnxFloat16(data.GetUInt16Value(offset));
}
inline std::string ReadString(KnxStack::BinaryData& data, unsigned int offset) {
  return data.GetStringValue(offset);
}
}  // namespace detail

// Whole-property getters.
inline boost::optional<bool> GetBoolWithId(PropertyInfo info, const InterfaceObjectMap& objects) {
  return GetValueWithId<bool>(info, objects,
                              [](KnxStack::BinaryData& d) { return detail::ReadBool(d, 0); });
}
inline boost::optional<unsigned char> GetUInt8WithId(PropertyInfo info,
                                                     const InterfaceObjectMap& objects) {
  return GetValueWithId<unsigned char>(
      info, objects, [](KnxStack::BinaryData& d) { return detail::ReadUInt8(d, 0); });
}
inline boost::optional<unsigned short> GetUInt16WithId(PropertyInfo info,
                                                       const InterfaceObjectMap& objects) {
  return GetValueWithId<unsigned short>(
      info, objects, [](KnxStack::BinaryData& d) { return detail::ReadUInt16(d, 0); });
}
inline boost::optional<unsigned int> GetUInt32WithId(PropertyInfo info,
                                                     const InterfaceObjectMap& objects) {
  return GetValueWithId<unsigned int>(
      info, objects, [](KnxStack::BinaryData& d) { return detail::ReadUInt32(d, 0); });
}
inline boost::optional<float> GetFloatWithId(PropertyInfo info, const InterfaceObjectMap& objects) {
  return GetValueWithId<float>(info, objects,
                               [](KnxStack::BinaryData& d) { return detail::ReadFloat(d, 0); });
}
inline boost::optional<float> GetFloat16WithId(PropertyInfo info,
                                               const InterfaceObjectMap& objects) {
  return GetValueWithId<float>(info, objects,
                               [](KnxStack::BinaryData& d) { return detail::ReadFloat16(d, 0); });
}
/// The string value of the property as read (an empty one included), or the
/// fallback when the property cannot be read.
inline std::string GetStringWithId(PropertyInfo info, const InterfaceObjectMap& objects,
                                   std::string&& fallback) {
  auto value = GetValueWithId<std::string>(
      info, objects, [](KnxStack::BinaryData& d) { return detail::ReadString(d, 0); });
  return value ? std::move(*value) : std::move(fallback);
}

// Array-element getters.
inline boost::optional<bool> GetBoolFromArrayWithId(PropertyInfo info, unsigned int index,
                                                    const InterfaceObjectMap& objects) {
  return GetValueFromArrayWithId<bool>(info, index, objects, &detail::ReadBool);
}
inline boost::optional<unsigned char> GetUInt8FromArrayWithId(PropertyInfo info, unsigned int index,
                                                              const InterfaceObjectMap& objects) {
  return GetValueFromArrayWithId<unsigned char>(info, index, objects, &detail::ReadUInt8);
}
inline boost::optional<unsigned short> GetUInt16FromArrayWithId(PropertyInfo info,
                                                                unsigned int index,
                                                                const InterfaceObjectMap& objects) {
  return GetValueFromArrayWithId<unsigned short>(info, index, objects, &detail::ReadUInt16);
}
inline boost::optional<unsigned int> GetUInt32FromArrayWithId(PropertyInfo info, unsigned int index,
                                                              const InterfaceObjectMap& objects) {
  return GetValueFromArrayWithId<unsigned int>(info, index, objects, &detail::ReadUInt32);
}
inline boost::optional<float> GetFloatFromArrayWithId(PropertyInfo info, unsigned int index,
                                                      const InterfaceObjectMap& objects) {
  return GetValueFromArrayWithId<float>(info, index, objects, &detail::ReadFloat);
}
inline boost::optional<float> GetFloat16FromArrayWithId(PropertyInfo info, unsigned int index,
                                                        const InterfaceObjectMap& objects) {
  return GetValueFromArrayWithId<float>(info, index, objects, &detail::ReadFloat16);
}

/// Element index of the property as a string, or the fallback when unreadable.
std::string GetStringFromArrayWithId(PropertyInfo info, unsigned int index,
                                     const InterfaceObjectMap& interfaceObjects,
                                     std::string&& fallback);

/// The text at the memory-image address the property holds, at most length
/// bytes, trimmed; the fallback when that text is empty; the wrong-property-id
/// text when the address itself cannot be read.
std::string GetStringWithIdFromMemory(PropertyInfo info, unsigned char length,
                                      const InterfaceObjectMap& interfaceObjects,
                                      const KnxStack::BinaryData* memory, std::string&& fallback);

/// As GetStringWithIdFromMemory, with the address in element index of the property.
std::string GetStringFromArrayWithIdFromMemory(PropertyInfo info, unsigned char length,
                                               unsigned int index,
                                               const InterfaceObjectMap& interfaceObjects,
                                               const KnxStack::BinaryData* memory,
                                               std::string&& fallback);

/// "ERROR: maybe wrong property id (<id>), no User should see this!"
std::string WrongPropertyIdText(std::uint32_t propertyId);

}  // namespace Korvex::luaknxdownloadhandler
