#include "HandlerLimits.h"

#include <LuaKnxDownloadHandler/luaknxdownloadhandler.h>

#include <log4cplus/loggingmacros.h>

#include <charconv>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <system_error>

namespace Korvex::luaknxdownloadhandler {

namespace {

// The variable's decimal value, or fallback when it is unset or no such number.
template <typename Number>
Number FromVariable(const char* name, Number fallback) {
  const char* text = std::getenv(name);
  if (text == nullptr) return fallback;
  const char* end = text + std::strlen(text);
  Number value = 0;
  const auto [at, error] = std::from_chars(text, end, value);
  if (error != std::errc() || at != end || at == text) {
    LOG4CPLUS_WARN(s_logger, name << "='" << text << "' is no decimal number of at most "
                                  << std::numeric_limits<Number>::max() << "; using " << fallback
                                  << ".");
    return fallback;
  }
  return value;
}

}  // namespace

HandlerLimits HandlerLimits::FromEnvironment() {
  HandlerLimits limits;
  limits.scriptMaxInstructions =
      FromVariable("LKDH_SCRIPT_MAX_INSTRUCTIONS", limits.scriptMaxInstructions);
  limits.scriptMaxMemory = FromVariable("LKDH_SCRIPT_MAX_MEMORY", limits.scriptMaxMemory);
  return limits;
}

}  // namespace Korvex::luaknxdownloadhandler
