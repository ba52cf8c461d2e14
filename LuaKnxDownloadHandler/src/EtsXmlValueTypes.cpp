#include "EtsXmlValueTypes.h"

#include "EtsXmlTree.h"

#include <LuaKnxDownloadHandler/EtsXmlParameter.h>
#include <LuaKnxDownloadHandler/Rules.h>
#include <LuaKnxDownloadHandler/ShowIfArgument.h>

#include <fmt/compile.h>
#include <fmt/format.h>

#include <string_view>
#include <utility>

namespace Korvex::luaknxdownloadhandler::detail {

namespace {

// The arguments as a ShowIf function got them, for a TRACE line.
std::string ShowIfArgsText(const ovslua::Lua::Args& args) {
  using Arg = ovslua::Lua::Args::Arg;
  std::string text;
  for (unsigned int position = 0; position < args.Count(); ++position) {
    const Arg& arg = args[position];
    if (position > 0) text += ", ";
    switch (arg.GetKind()) {
      case Arg::Boolean:
        text += arg.GetBool() ? "true" : "false";
        break;
      case Arg::Integer:
        text += std::to_string(arg.GetInt());
        break;
      case Arg::Unsigned:
        text += std::to_string(arg.GetUnsigned());
        break;
      case Arg::Number:
        text += fmt::format("{}", arg.GetDouble());
        break;
      default:
        text += "'" + arg.GetText() + "'";
        break;
    }
  }
  return text;
}

}  // namespace

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

const char* BoolText(bool value) { return value ? "True" : "False"; }

std::string FixedPointText(float value, std::int32_t digits) {
  // Only the low byte counts: the script's digits are a small count, and a
  // stray large value must not ask for a huge precision.
  const unsigned int precision = static_cast<std::uint8_t>(digits);
  // Compiled: the format is not parsed again for every value, and the text
  // comes from the same float writer of fmt as with a runtime format.
  return fmt::format(FMT_COMPILE("{:.{}f}"), value, precision);
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

// The values a ShowIf function gets, read from the value source.
struct ShowIfSource {
  const ValueSource& source;

  boost::optional<bool> Bool(PropertyInfo id) const { return source.Bool(id); }
  boost::optional<unsigned char> UInt8(PropertyInfo id) const { return source.UInt8(id); }
  boost::optional<unsigned short> UInt16(PropertyInfo id) const { return source.UInt16(id); }
  boost::optional<unsigned int> UInt32(PropertyInfo id) const { return source.UInt32(id); }
  boost::optional<float> Float16(PropertyInfo id) const { return source.Float16(id); }
  boost::optional<float> Float32(PropertyInfo id) const { return source.Float32(id); }
  std::string Text(PropertyInfo id) const {
    return source.MemoryString(id, source.Limits().text, {});
  }
  std::string Name(PropertyInfo id) const {
    return source.MemoryString(id, source.Limits().name, kShowIfNameDefault);
  }
  std::string Generic20(PropertyInfo id) const { return source.PropertyString(id, {}); }
};

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

void WriteParameter(pugi::xml_node& parameters, const LuaParameter& parameter,
                    const ValueSource& source, const NameDefault& nameDefault, DocumentBytes& size,
                    Diagnostics* diagnostics) {
  const ValueTypeInfo* info = FindValueType(parameter.type);
  if (info == nullptr) {
    // Not ours to write: no element, and no message above TRACE.
    if (diagnostics != nullptr) {
      const std::string detail =
          fmt::format("'{}' is no value type: the parameter is not written", parameter.type);
      diagnostics->Report({SkipReason::UnknownValueType, "parameter", parameter.key, detail});
    }
    return;
  }
  const char* key = parameter.key.c_str();
  const PropertyInfo property = parameter.property;
  const TextLimits& limits = source.Limits();
  const unsigned char limit = info->type == ValueType::Text   ? limits.text
                              : info->type == ValueType::Name ? limits.name
                                                              : limits.url;
  if (diagnostics != nullptr) {
    source.CheckRead(property, *info, limit, *diagnostics,
                     {SkipReason::UnknownField, "parameter", parameter.key, {}});
  }
  // A number is at least one character; a text is counted whole.
  const auto writeText = [&parameters, key, &parameter, &size](const std::string& text) {
    size.Parameter(parameter.key, text.size());
    AddParameter<std::string>(parameters, key, text);
  };
  const auto writeNumber = [&parameters, key, &parameter, &size](auto value) {
    size.Parameter(parameter.key, 1);
    AddParameter<decltype(value)>(parameters, key, value);
  };

  switch (info->type) {
    case ValueType::Bool: {
      const char* text = BoolText(source.Bool(property).value_or(false));
      size.Parameter(parameter.key, std::char_traits<char>::length(text));
      AddParameter<const char*>(parameters, key, text);
      break;
    }
    case ValueType::Int8:
      // signed char, not char: char is unsigned on the ARM target.
      writeNumber(static_cast<signed char>(source.UInt8(property).value_or(0)));
      break;
    case ValueType::Int16:
      writeNumber(static_cast<short>(source.UInt16(property).value_or(0)));
      break;
    case ValueType::Int32:
      writeNumber(static_cast<int>(source.UInt32(property).value_or(0U)));
      break;
    case ValueType::UInt8:
      writeNumber(static_cast<unsigned char>(source.UInt8(property).value_or(0)));
      break;
    case ValueType::UInt16:
      writeNumber(static_cast<unsigned short>(source.UInt16(property).value_or(0)));
      break;
    case ValueType::UInt32:
      writeNumber(static_cast<unsigned int>(source.UInt32(property).value_or(0U)));
      break;
    case ValueType::Float16:
      writeText(FixedPointText(source.Float16(property).value_or(0.0F), parameter.digits));
      break;
    case ValueType::Float32:
      writeText(FixedPointText(source.Float32(property).value_or(0.0F), parameter.digits));
      break;
    case ValueType::Text:
    case ValueType::Url:
      writeText(source.MemoryString(property, limit, {}));
      break;
    case ValueType::Name: {
      // Read with an empty fallback, which comes back exactly when the default
      // is due: the default is made only for a name the memory does not hold.
      std::string name = source.MemoryString(property, limit, {});
      if (name.empty()) name = nameDefault(parameter);
      writeText(name);
      break;
    }
    case ValueType::Generic20:
      writeText(source.PropertyString(property, {}));
      break;
  }
}

ovslua::Lua::Args MakeShowIfArgs(const std::vector<LuaParameterShowIfPropertyIds>& entries,
                                 const ValueSource& source, Diagnostics* diagnostics,
                                 const std::string& key) {
  ovslua::Lua::Args args;
  const TextLimits& limits = source.Limits();
  std::size_t position = 0;
  for (const auto& entry : entries) {
    ++position;
    const ValueTypeInfo* info = FindValueType(entry.type);
    if (info == nullptr || !info->showIfArgument) {
      // "Url" and unknown names give the function no argument.
      if (diagnostics != nullptr) {
        const std::string detail = fmt::format(
            "ShowIf entry {}: '{}' gives the ShowIf function no argument, a later entry takes "
            "its place",
            position, entry.type);
        diagnostics->Report({SkipReason::UnknownValueType, "parameter", key, detail});
      }
      continue;
    }
    const PropertyInfo id = entry.id;
    if (diagnostics != nullptr) {
      const std::string prefix = fmt::format("ShowIf entry {}: ", position);
      const unsigned char limit = info->type == ValueType::Text ? limits.text : limits.name;
      source.CheckRead(id, *info, limit, *diagnostics,
                       {SkipReason::UnknownField, "parameter", key, prefix});
    }
    AppendShowIfArgument(args, info->type, ShowIfSource{source}, id);
  }
  return args;
}

bool IsParameterShown(const LuaParameter& parameter, const ValueSource& source,
                      LuxHelperBase& luxHelper, Diagnostics* diagnostics) {
  if (parameter.showIf.propertyIds.empty()) {
    return true;
  }
  ovslua::Lua::Args args =
      MakeShowIfArgs(parameter.showIf.propertyIds, source, diagnostics, parameter.key);
  const bool shown = luxHelper.CallShowIfFunction(parameter.showIf.functionRef, args);
  if (!shown && diagnostics != nullptr) {
    if (luxHelper.LastCallFailed()) {
      diagnostics->Report({SkipReason::ShowIfFailed, "parameter", parameter.key,
                           "its ShowIf function could not be called or raised an error (the "
                           "ERROR line before says which): the parameter is not written"});
    } else {
      const std::string detail = "its ShowIf function answered false to (" + ShowIfArgsText(args) +
                                 "): the parameter is not written";
      diagnostics->Report({SkipReason::ShowIfHidden, "parameter", parameter.key, detail});
    }
  }
  return shown;
}

// Without diagnostics: the signatures the module has always exported.
void WriteParameter(pugi::xml_node& parameters, const LuaParameter& parameter,
                    const ValueSource& source, const NameDefault& nameDefault,
                    DocumentBytes& size) {
  WriteParameter(parameters, parameter, source, nameDefault, size, nullptr);
}

ovslua::Lua::Args MakeShowIfArgs(const std::vector<LuaParameterShowIfPropertyIds>& entries,
                                 const ValueSource& source) {
  return MakeShowIfArgs(entries, source, nullptr, {});
}

bool IsParameterShown(const LuaParameter& parameter, const ValueSource& source,
                      LuxHelperBase& luxHelper) {
  return IsParameterShown(parameter, source, luxHelper, nullptr);
}

}  // namespace Korvex::luaknxdownloadhandler::detail
