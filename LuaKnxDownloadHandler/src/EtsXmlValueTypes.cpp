#include "EtsXmlValueTypes.h"

#include "EtsXmlTree.h"

#include <LuaKnxDownloadHandler/EtsXmlParameter.h>
#include <LuaKnxDownloadHandler/ShowIfArguments.h>

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

const char* BoolText(bool value) { return value ? "True" : "False"; }

std::string FixedPointText(float value, std::int32_t digits) {
  // Only the low byte counts: the script's digits are a small count, and a
  // stray large value must not ask for a huge precision.
  const unsigned int precision = static_cast<std::uint8_t>(digits);
  // Compiled: the format is not parsed again for every value, and the text
  // comes from the same float writer of fmt as with a runtime format.
  return fmt::format(FMT_COMPILE("{:.{}f}"), value, precision);
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

bool IsParameterShown(const LuaParameter& parameter, const ValueSource& source,
                      LuxHelperBase& luxHelper) {
  return IsParameterShown(parameter, source, luxHelper, nullptr);
}

}  // namespace Korvex::luaknxdownloadhandler::detail
