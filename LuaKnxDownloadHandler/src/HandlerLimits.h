#pragma once
// The limits a handler puts on its description script, read from the
// environment when the handler is created so that an integrator can change
// them without a new build.

#include <cstddef>
#include <cstdint>

namespace Korvex::luaknxdownloadhandler {

struct HandlerLimits {
  /// Lua instructions one script call may run: 1,000 times the most expensive
  /// call of the largest generated download (1,754, bench/script_limits.cpp),
  /// rounded up (docs/description-scripts.md).
  static constexpr std::uint64_t kDefaultScriptMaxInstructions = 2'000'000;
  /// Bytes the script's interpreter may hold. 1,000 times the peak of a
  /// 255 x 255 x 4 download (2.2 MB) would be gigabytes, so it is capped at what
  /// a 32-bit panel can spare; the 255 x 255 x 100 download peaks at 67.5 MB.
  static constexpr std::size_t kDefaultScriptMaxMemory = 128U * 1024U * 1024U;

  std::uint64_t scriptMaxInstructions = kDefaultScriptMaxInstructions;  // 0: no bound
  std::size_t scriptMaxMemory = kDefaultScriptMaxMemory;                // 0: no bound

  /// The defaults, each replaced by its environment variable when that holds a
  /// decimal number: LKDH_SCRIPT_MAX_INSTRUCTIONS, LKDH_SCRIPT_MAX_MEMORY
  /// (bytes). Any other value keeps the default and is logged at WARN.
  static HandlerLimits FromEnvironment();
};

}  // namespace Korvex::luaknxdownloadhandler
