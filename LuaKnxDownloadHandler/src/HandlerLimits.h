#pragma once
// The handler's limits. An integrator can change them without a new build,
// through environment variables read when a handler is created.

#include <LuaKnxDownloadHandler/Rules.h>

#include <cstddef>
#include <cstdint>

namespace Korvex::luaknxdownloadhandler {

/// 256 MiB: far beyond any real device's document (a full 255 x 255 download
/// is some tens of MiB), yet a bound on what a runaway script can make the
/// builder hold.
inline constexpr std::size_t kDefaultMaxDocumentBytes = 256U * 1024U * 1024U;
/// Environment variables, each a decimal number.
inline constexpr const char* kMaxDocumentBytesVariable = "LKDH_MAX_DOCUMENT_BYTES";
inline constexpr const char* kScriptMaxInstructionsVariable = "LKDH_SCRIPT_MAX_INSTRUCTIONS";
inline constexpr const char* kScriptMaxMemoryVariable = "LKDH_SCRIPT_MAX_MEMORY";

struct HandlerLimits {
  /// The largest etsproject text a download may produce; a larger one fails.
  std::size_t maxDocumentBytes = kDefaultMaxDocumentBytes;
  std::uint64_t scriptMaxInstructions = kDefaultScriptMaxInstructions;  // 0: no bound
  std::size_t scriptMaxMemory = kDefaultScriptMaxMemory;                // 0: no bound
};

/// The defaults, with each variable that is set to a valid value applied. An
/// invalid value keeps the default and is reported at TRACE: the handler's
/// creation logs nothing above it.
HandlerLimits ReadHandlerLimits();

}  // namespace Korvex::luaknxdownloadhandler
