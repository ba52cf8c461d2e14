#pragma once
// The questions the document builder asks the description script.

#include <LuaKnxDownloadHandler/LuxRecords.h>
#include <LuaKnxDownloadHandler/PropertyAccess.h>

#include <ovslua/Lua.h>

#include <boost/optional.hpp>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace Korvex::luaknxdownloadhandler {

class Diagnostics;

class LuxHelperBase {
 public:
  virtual ~LuxHelperBase() = default;

  virtual bool IsThereUrnsByPropertyIndex(std::uint32_t typeId) = 0;
  virtual PropertyInfo GetPropertyIndexForUrns(std::uint32_t typeId) = 0;
  virtual boost::optional<std::string> GetFunctionUrnByTypeId(std::uint32_t typeId) = 0;
  virtual boost::optional<std::string> GetChannelUrnByTypeId(std::uint32_t typeId) = 0;
  virtual boost::optional<std::string> GetFunctionUrnByTypeIdAndPropertyIndex(
      std::uint32_t typeId, std::uint32_t propertyIndex) = 0;
  virtual boost::optional<std::string> GetChannelUrnByTypeIdAndPropertyIndex(
      std::uint32_t typeId, std::uint32_t propertyIndex) = 0;
  virtual boost::optional<std::string> GetLuaTemplateIndexByTypeIdAndPropertyIndex(
      std::uint32_t typeId, std::uint32_t propertyIndex) = 0;
  virtual std::vector<LuaParameter> GetParametersFromChannelTypeId(std::uint32_t channelTypeId) = 0;
  virtual std::map<std::string, PropertyInfo> GetPropertyIds() = 0;
  virtual std::vector<LuxStaticData> GetStaticData() = 0;
  virtual bool CallShowIfFunction(std::int32_t refId, ovslua::Lua::Args& args) = 0;
  virtual bool HandleDcsType(std::uint32_t dcsType) = 0;

  /// Where the table readers tell what they skip; null (the default) tells no one.
  virtual void SetDiagnostics(Diagnostics* diagnostics) { (void)diagnostics; }
  /// Whether the last call failed, rather than answered false.
  virtual bool LastCallFailed() const { return false; }
};

}  // namespace Korvex::luaknxdownloadhandler
