#include "HandlerLimits.h"

#include <LuaKnxDownloadHandler/luaknxdownloadhandler.h>

#include <log4cplus/loggingmacros.h>

#include <cstdlib>
#include <limits>
#include <optional>
#include <string_view>

namespace Korvex::luaknxdownloadhandler {

namespace {

// Plain decimal digits, from 1 up to what a size_t holds.
std::optional<std::size_t> ParseByteCount(std::string_view text) {
  if (text.empty()) return std::nullopt;
  std::size_t value = 0;
  for (const char c : text) {
    if (c < '0' || c > '9') return std::nullopt;
    const auto digit = static_cast<std::size_t>(c - '0');
    if (value > (std::numeric_limits<std::size_t>::max() - digit) / 10) return std::nullopt;
    value = value * 10 + digit;
  }
  if (value == 0) return std::nullopt;
  return value;
}

}  // namespace

HandlerLimits ReadHandlerLimits() {
  HandlerLimits limits;
  if (const char* text = std::getenv(kMaxDocumentBytesVariable)) {
    if (const auto bytes = ParseByteCount(text)) {
      limits.maxDocumentBytes = *bytes;
      LOG4CPLUS_TRACE(s_logger, kMaxDocumentBytesVariable << ": documents are limited to "
                                                          << limits.maxDocumentBytes << " bytes.");
    } else {
      LOG4CPLUS_TRACE(s_logger, kMaxDocumentBytesVariable
                                    << " '" << text
                                    << "' is not a byte count from 1 up; documents are limited to "
                                    << limits.maxDocumentBytes << " bytes.");
    }
  }
  return limits;
}

}  // namespace Korvex::luaknxdownloadhandler
