#pragma once
// The global functions of a description script, as the bridge calls them and
// check-script looks for them. Header-only.

namespace Korvex::luaknxdownloadhandler::script {

inline constexpr const char* kGetPropertyIds = "GetPropertyIds";
inline constexpr const char* kGetPropertyIndexForUrns = "GetPropertyIndexForUrns";
inline constexpr const char* kIsThereUrns = "IsThereUrnsByPropertyIndex";
inline constexpr const char* kFunctionUrn = "GetFunctionUrnByTypeId";
inline constexpr const char* kChannelUrn = "GetChannelUrnByTypeId";
inline constexpr const char* kFunctionUrnBySelector = "GetFunctionUrnByTypeIdAndPropertyIndex";
inline constexpr const char* kChannelUrnBySelector = "GetChannelUrnByTypeIdAndPropertyIndex";
inline constexpr const char* kTemplateIndex = "GetLuaTemplateIndexByTypeIdAndPropertyIndex";
inline constexpr const char* kGetParameters = "GetParametersFromChannelTypeId";
inline constexpr const char* kGetStaticData = "GetStaticData";
inline constexpr const char* kHandleDcsType = "HandleDcsType";

}  // namespace Korvex::luaknxdownloadhandler::script
