#include <LuaKnxDownloadHandler/ShowIfArguments.h>

#include <LuaKnxDownloadHandler/Rules.h>
#include <LuaKnxDownloadHandler/ShowIfArgument.h>
#include <LuaKnxDownloadHandler/ValueTypes.h>

#include <fmt/format.h>

#include <cstddef>

namespace Korvex::luaknxdownloadhandler::detail {

namespace {

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

// Without diagnostics: the signature the module has always exported.
ovslua::Lua::Args MakeShowIfArgs(const std::vector<LuaParameterShowIfPropertyIds>& entries,
                                 const ValueSource& source) {
  return MakeShowIfArgs(entries, source, nullptr, {});
}

}  // namespace Korvex::luaknxdownloadhandler::detail
