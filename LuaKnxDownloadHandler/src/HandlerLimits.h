#pragma once
// The handler's limits. An integrator can change them without a new build,
// through environment variables read when a handler is created.

#include <cstddef>

namespace Korvex::luaknxdownloadhandler {

/// 256 MiB: far beyond any real device's document (a full 255 x 255 download
/// is some tens of MiB), yet a bound on what a runaway script can make the
/// builder hold.
inline constexpr std::size_t kDefaultMaxDocumentBytes = 256U * 1024U * 1024U;

/// Environment variable of the document size limit, a decimal byte count.
inline constexpr const char* kMaxDocumentBytesVariable = "LKDH_MAX_DOCUMENT_BYTES";

struct HandlerLimits {
  /// The largest etsproject text a download may produce; a larger one fails.
  std::size_t maxDocumentBytes = kDefaultMaxDocumentBytes;
};

/// The defaults, with each variable that is set to a valid value applied. An
/// invalid value keeps the default and is reported at TRACE.
HandlerLimits ReadHandlerLimits();

}  // namespace Korvex::luaknxdownloadhandler
