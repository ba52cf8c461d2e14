#include "EtsXmlValueTypes.h"

#include "EtsXmlTree.h"

#include <LuaKnxDownloadHandler/EtsXmlParameter.h>

#include <fmt/format.h>

#include <string_view>
#include <utility>

namespace Korvex::luaknxdownloadhandler::detail {

// The type names are compared as string_views: lengths first, so most
// mismatches cost no character comparison at all.
using namespace std::string_view_literals;

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
  return fmt::format("{:.{}f}", value, precision);
}

void WriteParameter(pugi::xml_node& parameters, const LuaParameter& parameter,
                    const ValueSource& source, const NameDefault& nameDefault,
                    DocumentBytes& size) {
  const char* key = parameter.key.c_str();
  const std::string_view type = parameter.type;
  const PropertyInfo property = parameter.property;
  const TextLimits& limits = source.Limits();
  // A number is at least one character; a text is counted whole.
  const auto writeText = [&parameters, key, &parameter, &size](const std::string& text) {
    size.Parameter(parameter.key, text.size());
    AddParameter<std::string>(parameters, key, text);
  };
  const auto countNumber = [&parameter, &size] { size.Parameter(parameter.key, 1); };

  if (type == "Bool"sv) {
    const char* text = BoolText(source.Bool(property).value_or(false));
    size.Parameter(parameter.key, std::char_traits<char>::length(text));
    AddParameter<const char*>(parameters, key, text);
  } else if (type == "Int8"sv) {
    // signed char, not char: char is unsigned on the ARM target.
    const auto value = static_cast<signed char>(source.UInt8(property).value_or(0));
    countNumber();
    AddParameter<signed char>(parameters, key, value);
  } else if (type == "Int16"sv) {
    const auto value = static_cast<short>(source.UInt16(property).value_or(0));
    countNumber();
    AddParameter<short>(parameters, key, value);
  } else if (type == "Int32"sv) {
    const auto value = static_cast<int>(source.UInt32(property).value_or(0U));
    countNumber();
    AddParameter<int>(parameters, key, value);
  } else if (type == "UInt8"sv) {
    const unsigned char value = source.UInt8(property).value_or(0);
    countNumber();
    AddParameter<unsigned char>(parameters, key, value);
  } else if (type == "UInt16"sv) {
    const unsigned short value = source.UInt16(property).value_or(0);
    countNumber();
    AddParameter<unsigned short>(parameters, key, value);
  } else if (type == "UInt32"sv) {
    const unsigned int value = source.UInt32(property).value_or(0U);
    countNumber();
    AddParameter<unsigned int>(parameters, key, value);
  } else if (type == "Float16"sv) {
    writeText(FixedPointText(source.Float16(property).value_or(0.0F), parameter.digits));
  } else if (type == "Float32"sv) {
    writeText(FixedPointText(source.Float32(property).value_or(0.0F), parameter.digits));
  } else if (type == "Text"sv) {
    writeText(source.MemoryString(property, limits.text, {}));
  } else if (type == "Name"sv) {
    writeText(source.MemoryString(property, limits.name, nameDefault(parameter)));
  } else if (type == "Url"sv) {
    writeText(source.MemoryString(property, limits.url, {}));
  } else if (type == "GENERIC_20"sv) {
    writeText(source.PropertyString(property, {}));
  }
  // Any other type name is not ours to write: no element, no message.
}

ovslua::Lua::Args MakeShowIfArgs(const std::vector<LuaParameterShowIfPropertyIds>& entries,
                                 const ValueSource& source) {
  using Arg = ovslua::Lua::Args::Arg;
  ovslua::Lua::Args args;
  const TextLimits& limits = source.Limits();
  for (const auto& entry : entries) {
    const std::string_view type = entry.type;
    const PropertyInfo id = entry.id;
    if (type == "Bool"sv) {
      args += Arg::FromBool(source.Bool(id).value_or(false));
    } else if (type == "Int8"sv) {
      args += Arg::FromInt(static_cast<signed char>(source.UInt8(id).value_or(0)));
    } else if (type == "Int16"sv) {
      args += Arg::FromInt(static_cast<short>(source.UInt16(id).value_or(0)));
    } else if (type == "Int32"sv) {
      args += Arg::FromInt(static_cast<int>(source.UInt32(id).value_or(0U)));
    } else if (type == "UInt8"sv) {
      args += Arg::FromInt(source.UInt8(id).value_or(0));
    } else if (type == "UInt16"sv) {
      args += Arg::FromInt(source.UInt16(id).value_or(0));
    } else if (type == "UInt32"sv) {
      args += Arg::FromUnsigned(source.UInt32(id).value_or(0U));
    } else if (type == "Float16"sv) {
      args += Arg::FromDouble(static_cast<double>(source.Float16(id).value_or(0.0F)));
    } else if (type == "Float32"sv) {
      args += Arg::FromDouble(static_cast<double>(source.Float32(id).value_or(0.0F)));
    } else if (type == "Text"sv) {
      args += Arg::FromString(source.MemoryString(id, limits.text, {}));
    } else if (type == "Name"sv) {
      args += Arg::FromString(source.MemoryString(id, limits.name, "DefaultString"));
    } else if (type == "GENERIC_20"sv) {
      args += Arg::FromString(source.PropertyString(id, {}));
    }
    // "Url" and unknown names give the function no argument.
  }
  return args;
}

bool IsParameterShown(const LuaParameter& parameter, const ValueSource& source,
                      LuxHelperBase& luxHelper) {
  if (parameter.showIf.propertyIds.empty()) {
    return true;
  }
  ovslua::Lua::Args args = MakeShowIfArgs(parameter.showIf.propertyIds, source);
  return luxHelper.CallShowIfFunction(parameter.showIf.functionRef, args);
}

}  // namespace Korvex::luaknxdownloadhandler::detail
