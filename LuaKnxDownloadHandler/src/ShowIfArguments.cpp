#include <LuaKnxDownloadHandler/ShowIfArguments.h>

#include <LuaKnxDownloadHandler/Rules.h>
#include <LuaKnxDownloadHandler/ValueTypes.h>

#include <fmt/format.h>

#include <cstddef>

namespace Korvex::luaknxdownloadhandler::detail {

namespace {

// Appends the entry's argument by its value type; "Url" gives none.
void AppendShowIfArgument(ovslua::Lua::Args& args, ValueType type, const ValueSource& source,
                          PropertyInfo id) {
  using Arg = ovslua::Lua::Args::Arg;
  switch (type) {
    case ValueType::Bool:
      args += Arg::FromBool(source.Bool(id).value_or(false));
      break;
    case ValueType::Int8:
      // signed char, not char: char is unsigned on the ARM target.
      args += Arg::FromInt(static_cast<signed char>(source.UInt8(id).value_or(0)));
      break;
    case ValueType::Int16:
      args += Arg::FromInt(static_cast<short>(source.UInt16(id).value_or(0)));
      break;
    case ValueType::Int32:
      args += Arg::FromInt(static_cast<int>(source.UInt32(id).value_or(0U)));
      break;
    case ValueType::UInt8:
      args += Arg::FromInt(source.UInt8(id).value_or(0));
      break;
    case ValueType::UInt16:
      args += Arg::FromInt(source.UInt16(id).value_or(0));
      break;
    case ValueType::UInt32:
      args += Arg::FromUnsigned(source.UInt32(id).value_or(0U));
      break;
    case ValueType::Float16:
      args += Arg::FromDouble(static_cast<double>(source.Float16(id).value_or(0.0F)));
      break;
    case ValueType::Float32:
      args += Arg::FromDouble(static_cast<double>(source.Float32(id).value_or(0.0F)));
      break;
    case ValueType::Text:
      args += Arg::FromString(source.MemoryString(id, source.Limits().text, {}));
      break;
    case ValueType::Name:
      args += Arg::FromString(source.MemoryString(id, source.Limits().name, kShowIfNameDefault));
      break;
    case ValueType::Generic20:
      args += Arg::FromString(source.PropertyString(id, {}));
      break;
    case ValueType::Url:
      break;
  }
}

}  // namespace

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
    AppendShowIfArgument(args, info->type, source, id);
  }
  return args;
}

// Without diagnostics: the signature the module has always exported.
ovslua::Lua::Args MakeShowIfArgs(const std::vector<LuaParameterShowIfPropertyIds>& entries,
                                 const ValueSource& source) {
  return MakeShowIfArgs(entries, source, nullptr, {});
}

}  // namespace Korvex::luaknxdownloadhandler::detail
