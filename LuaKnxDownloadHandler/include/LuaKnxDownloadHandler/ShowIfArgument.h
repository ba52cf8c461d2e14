#pragma once
// The argument a ShowIf function gets for one PropertyIds entry, by its value
// type. A template over where the values come from, so that the plug-in (a
// download) and check-script (a dump, or zero values) build the same arguments.

#include <LuaKnxDownloadHandler/ValueTypes.h>

#include <ovslua/Lua.h>

namespace Korvex::luaknxdownloadhandler {

/// Appends the entry's argument to args; "Url" gives none. Source answers
/// Bool, UInt8, UInt16, UInt32, Float16 and Float32 with something that has
/// value_or, and Text, Name and Generic20 with the text to pass.
template <typename Source, typename Id>
void AppendShowIfArgument(ovslua::Lua::Args& args, ValueType type, const Source& source,
                          const Id& id) {
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
      args += Arg::FromString(source.Text(id));
      break;
    case ValueType::Name:
      args += Arg::FromString(source.Name(id));
      break;
    case ValueType::Generic20:
      args += Arg::FromString(source.Generic20(id));
      break;
    case ValueType::Url:
      break;
  }
}

}  // namespace Korvex::luaknxdownloadhandler
