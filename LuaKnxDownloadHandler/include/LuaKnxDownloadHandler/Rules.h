#pragma once
// Rules of the plug-in that check-script must apply exactly as the plug-in
// does: the settings it reads, the door-communication type the script gets,
// the nesting limit of static data, the script budgets and the text shown for
// a wrong property id. Header-only, as check-script may not link the plug-in.

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace Korvex::luaknxdownloadhandler {

/// The names the document builder looks up in the settings table (GetPropertyIds).
inline constexpr std::array<std::string_view, 24> kSettingNames = {"MaxFunctionPerFolder",
                                                                   "MaxNameCharCount",
                                                                   "MaxTextCharCount",
                                                                   "MaxUrlCharCount",
                                                                   "ShowRootFolder",
                                                                   "ShowOutdoorTemp",
                                                                   "ShowIndoorTemp",
                                                                   "ShowDateTime",
                                                                   "UseTVK",
                                                                   "DcsType",
                                                                   "UseDcsFloorcall",
                                                                   "DcsFloorCallNameOffset",
                                                                   "DcsFloorCallMelody",
                                                                   "UseWeather",
                                                                   "UseTimers",
                                                                   "UseHeatingTimers",
                                                                   "ResetUserData",
                                                                   "NumberOfFolders",
                                                                   "FolderNameOffset",
                                                                   "FolderIcon",
                                                                   "FolderShowOnHome",
                                                                   "NumberFuncPerFolder",
                                                                   "ChannelType",
                                                                   "FunctionNameOffset"};

/// The limits without which no document is written (MaxFunctionPerFolder only
/// when there are folders).
inline constexpr std::array<std::string_view, 3> kRequiredSettings = {
    "MaxFunctionPerFolder", "MaxNameCharCount", "MaxTextCharCount"};

/// The type HandleDcsType gets: a floor call needs a door-communication type,
/// so an unset one is 10 for the script, while the document keeps the value.
constexpr std::uint32_t ScriptDcsType(std::uint8_t dcsType, bool useFloorCall) noexcept {
  return useFloorCall && dcsType == 0 ? 10U : dcsType;
}

/// Static data nests through SubData by recursion; this bounds the C stack it
/// may use (about 4 Lua slots and two C++ frames per level).
inline constexpr int kMaxStaticDataDepth = 1000;

/// Lua instructions one script call may run: 1,000 times the most expensive
/// call of the largest generated download (1,754, bench/script_limits.cpp),
/// rounded up (docs/description-scripts.md).
inline constexpr std::uint64_t kDefaultScriptMaxInstructions = 2'000'000;
/// Bytes the script's interpreter may hold. 1,000 times the peak of a
/// 255 x 255 x 4 download (2.2 MB) would be gigabytes, so it is capped at what
/// a 32-bit panel can spare; the 255 x 255 x 100 download peaks at 67.5 MB.
inline constexpr std::size_t kDefaultScriptMaxMemory = 128U * 1024U * 1024U;

/// boost::format text standing in for a memory text whose address cannot be read.
inline constexpr const char* kWrongPropertyIdFormat =
    "ERROR: maybe wrong property id (%d), no User should see this!";

/// What a ShowIf function gets for a "Name" entry whose text is empty.
inline constexpr const char* kShowIfNameDefault = "DefaultString";

}  // namespace Korvex::luaknxdownloadhandler
