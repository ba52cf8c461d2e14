#pragma once
// Checks a description script on the workstation: loads it into the same
// interpreter set-up as the plug-in, calls every global function the plug-in
// calls, and compares what comes back with what the plug-in can read.

#include "DownloadDump.h"
#include "Findings.h"

#include <LuaKnxDownloadHandler/Rules.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

namespace lkdh::host {

// The plug-in's default budgets, so that what passes here also runs on the device.

/// A call that runs longer than this many Lua instructions is stopped.
inline constexpr int kInstructionLimit =
    static_cast<int>(Korvex::luaknxdownloadhandler::kDefaultScriptMaxInstructions);
/// The interpreter may not hold more than this; a script that wants more is stopped.
inline constexpr std::size_t kScriptMemoryLimit =
    Korvex::luaknxdownloadhandler::kDefaultScriptMaxMemory;

struct ScriptCheckInput {
  std::string scriptPath;
  /// With a dump: the channel types, selector values and property values it
  /// holds; without one the channel types 1 to 255 and selectors 0 to 255.
  const DownloadDump* dump = nullptr;
};

/// What the check learnt about the script, for the document summary.
struct ScriptKnowledge {
  bool loaded = false;
  /// False when running the plug-in on this script could hang or exhaust memory.
  bool safeToRun = true;
  /// Function slot (0-based) to its channel type, from the dump.
  std::map<std::uint32_t, std::uint32_t> slotChannelTypes;
  /// Channel type to parameter key to value type.
  std::map<std::uint32_t, std::map<std::string, std::string>> functionParameterTypes;
  /// Where the script defines each global function it has.
  struct Definition {
    std::string file;
    int line = 0;
  };
  std::map<std::string, Definition> definitions;
  /// Static-data entry path ("Timers/Morning") to parameter key to value type.
  std::map<std::string, std::map<std::string, std::string>> staticParameterTypes;
};

struct ScriptCheckResult {
  FindingList findings;
  ScriptKnowledge knowledge;
};

/// Whatever the script does ends up as findings; a failure of the check itself
/// (no interpreter, no stack) is reported as an error finding too.
ScriptCheckResult CheckScript(const ScriptCheckInput& input);

}  // namespace lkdh::host
