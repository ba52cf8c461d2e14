// The reads of one parameter list's values, and why a read differs from what the
// property holds.
#include <LuaKnxDownloadHandler/ValueSource.h>

#include <fmt/format.h>

#include <cstddef>
#include <cstdint>
#include <utility>

namespace Korvex::luaknxdownloadhandler::detail {

ValueSource::ValueSource(const InterfaceObjectMap& interfaceObjects,
                         const KnxStack::BinaryData& memory, TextLimits limits,
                         boost::optional<unsigned int> index)
    : m_interfaceObjects(interfaceObjects), m_memory(memory), m_limits(limits), m_index(index) {}

ValueSource ValueSource::ArrayElement(const InterfaceObjectMap& interfaceObjects,
                                      const KnxStack::BinaryData& memory, TextLimits limits,
                                      unsigned int index) {
  return ValueSource(interfaceObjects, memory, limits, index);
}

ValueSource ValueSource::WholeProperty(const InterfaceObjectMap& interfaceObjects,
                                       const KnxStack::BinaryData& memory, TextLimits limits) {
  return ValueSource(interfaceObjects, memory, limits, boost::none);
}

boost::optional<bool> ValueSource::Bool(PropertyInfo info) const {
  return m_index ? GetBoolFromArrayWithId(info, *m_index, m_interfaceObjects)
                 : GetBoolWithId(info, m_interfaceObjects);
}

boost::optional<unsigned char> ValueSource::UInt8(PropertyInfo info) const {
  return m_index ? GetUInt8FromArrayWithId(info, *m_index, m_interfaceObjects)
                 : GetUInt8WithId(info, m_interfaceObjects);
}

boost::optional<unsigned short> ValueSource::UInt16(PropertyInfo info) const {
  return m_index ? GetUInt16FromArrayWithId(info, *m_index, m_interfaceObjects)
                 : GetUInt16WithId(info, m_interfaceObjects);
}

boost::optional<unsigned int> ValueSource::UInt32(PropertyInfo info) const {
  return m_index ? GetUInt32FromArrayWithId(info, *m_index, m_interfaceObjects)
                 : GetUInt32WithId(info, m_interfaceObjects);
}

boost::optional<float> ValueSource::Float16(PropertyInfo info) const {
  return m_index ? GetFloat16FromArrayWithId(info, *m_index, m_interfaceObjects)
                 : GetFloat16WithId(info, m_interfaceObjects);
}

boost::optional<float> ValueSource::Float32(PropertyInfo info) const {
  return m_index ? GetFloatFromArrayWithId(info, *m_index, m_interfaceObjects)
                 : GetFloatWithId(info, m_interfaceObjects);
}

std::string ValueSource::MemoryString(PropertyInfo info, unsigned char length,
                                      std::string&& fallback) const {
  return m_index ? GetStringFromArrayWithIdFromMemory(info, length, *m_index, m_interfaceObjects,
                                                      &m_memory, std::move(fallback))
                 : GetStringWithIdFromMemory(info, length, m_interfaceObjects, &m_memory,
                                             std::move(fallback));
}

std::string ValueSource::PropertyString(PropertyInfo info, std::string&& fallback) const {
  return m_index ? GetStringFromArrayWithId(info, *m_index, m_interfaceObjects, std::move(fallback))
                 : GetStringWithId(info, m_interfaceObjects, std::move(fallback));
}

namespace {

// "interface object 1, property 51", as the script's tables name a property.
std::string Address(PropertyInfo info) {
  return fmt::format("interface object {}, property {}", info.InterfaceObjectId, info.PropertyId);
}

std::string Bytes(std::uint32_t count) {
  return fmt::format("{} {}", count, count == 1 ? "byte" : "bytes");
}

// What a value of this type is read as when its bytes are not there; a text's
// outcome differs between a missing property and a missing array element.
const char* Consequence(ValueType type, const char* forText) {
  switch (type) {
    case ValueType::Bool:
      return "read as false";
    case ValueType::Text:
    case ValueType::Name:
    case ValueType::Url:
      return forText;
    case ValueType::Generic20:
      return "read as an empty text";
    default:
      return "read as 0";
  }
}

// A missing property: texts get the wrong-property-id text.
const char* UnreadableConsequence(ValueType type) {
  return Consequence(type, "read as the wrong-property-id text");
}

// Past the end of an array the bytes read are zero, so texts come from address 0.
const char* MissingElementConsequence(ValueType type) {
  return Consequence(type, "read from memory address 0");
}

void Report(Diagnostics& diagnostics, const Skip& where, SkipReason reason,
            const std::string& detail) {
  Skip skip = where;
  skip.reason = reason;
  const std::string text = std::string(where.detail) + detail;
  skip.detail = text;
  diagnostics.Report(skip);
}

}  // namespace

void ValueSource::CheckRead(PropertyInfo info, const ValueTypeInfo& type, unsigned char limit,
                            Diagnostics& diagnostics, const Skip& where) const {
  const auto entry = m_interfaceObjects.find(info.InterfaceObjectId);
  if (entry == m_interfaceObjects.end() || entry->second.empty() ||
      entry->second.front() == nullptr) {
    Report(diagnostics, where, SkipReason::UnreadableProperty,
           fmt::format("there is no interface object {}: {} {}", info.InterfaceObjectId, type.name,
                       UnreadableConsequence(type.type)));
    return;
  }
  const KnxStack::IProperty* property = detail::FindProperty(info, m_interfaceObjects);
  if (property == nullptr) {
    Report(diagnostics, where, SkipReason::UnreadableProperty,
           fmt::format("interface object {} has no property {}: {} {}", info.InterfaceObjectId,
                       info.PropertyId, type.name, UnreadableConsequence(type.type)));
    return;
  }
  std::uint32_t count = 0;
  if (m_index && property->GetElementCount(count) && *m_index >= count) {
    Report(diagnostics, where, SkipReason::MissingElement,
           fmt::format("{} has {} elements, none at index {}: {} {}", Address(info), count,
                       *m_index, type.name, MissingElementConsequence(type.type)));
    return;
  }
  const std::uint32_t size = property->GetElementSize();
  if (size != type.bytes) {
    Report(diagnostics, where,
           size < type.bytes ? SkipReason::NarrowProperty : SkipReason::WideProperty,
           fmt::format("{} reads {} but each element of {} holds {}: {}", type.name,
                       Bytes(type.bytes), Address(info), Bytes(size),
                       size < type.bytes ? "the value takes in the bytes after it"
                                         : "the value is read from its first bytes only"));
  }
  if (type.type != ValueType::Text && type.type != ValueType::Name && type.type != ValueType::Url) {
    return;
  }
  const boost::optional<unsigned int> address = UInt32(info);
  if (!address) return;
  const std::size_t available =
      m_memory.GetRange(*address, std::size_t{limit} + 1).GetStringValue(0).size();
  if (available > limit) {
    Report(diagnostics, where, SkipReason::TextCut,
           fmt::format("the {} at memory address {} is longer than its limit of {} characters: "
                       "cut to {}",
                       type.name, *address, static_cast<unsigned int>(limit),
                       static_cast<unsigned int>(limit)));
  }
}

}  // namespace Korvex::luaknxdownloadhandler::detail
