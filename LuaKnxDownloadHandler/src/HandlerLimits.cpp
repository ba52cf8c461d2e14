#include "HandlerLimits.h"

#include <LuaKnxDownloadHandler/luaknxdownloadhandler.h>

#include <log4cplus/loggingmacros.h>

#include <cstdlib>
#include <limits>
#include <optional>
#include <string_view>

namespace Korvex::luaknxdownloadhandler {

namespace {

// Plain decimal digits, up to what Number holds.
template <typename Number>
std::optional<Number> ParseDecimal(std::string_view text) {
  if (text.empty()) return std::nullopt;
  Number value = 0;
  for (const char c : text) {
    if (c < '0' || c > '9') return std::nullopt;
    const auto digit = static_cast<Number>(c - '0');
    if (value > (std::numeric_limits<Number>::max() - digit) / 10) return std::nullopt;
    value = value * 10 + digit;
  }
  return value;
}

// Applies the variable name to limit when it holds an accepted number; 0 is
// accepted only where it means "no bound". kind names such a number and
// subject what it limits, for the TRACE lines.
template <typename Number>
void ApplyVariable(const char* name, bool zeroAllowed, const char* kind, const char* subject,
                   const char* unit, Number& limit) {
  const char* text = std::getenv(name);
  if (text == nullptr) return;
  const std::optional<Number> value = ParseDecimal<Number>(text);
  if (value && (*value != 0 || zeroAllowed)) {
    limit = *value;
    LOG4CPLUS_TRACE(s_logger,
                    name << ": " << subject << " limited to " << limit << " " << unit << ".");
  } else {
    LOG4CPLUS_TRACE(s_logger, name << " '" << text << "' is not " << kind << " from "
                                   << (zeroAllowed ? 0 : 1) << " up; " << subject << " limited to "
                                   << limit << " " << unit << ".");
  }
}

}  // namespace

HandlerLimits ReadHandlerLimits() {
  HandlerLimits limits;
  ApplyVariable(kMaxDocumentBytesVariable, false, "a byte count", "documents are", "bytes",
                limits.maxDocumentBytes);
  // 0 lifts the script's bounds: an integrator may trust a script it wrote itself.
  ApplyVariable(kScriptMaxInstructionsVariable, true, "an instruction count", "script calls are",
                "instructions (0: no bound)", limits.scriptMaxInstructions);
  ApplyVariable(kScriptMaxMemoryVariable, true, "a byte count", "the script's memory is",
                "bytes (0: no bound)", limits.scriptMaxMemory);
  return limits;
}

}  // namespace Korvex::luaknxdownloadhandler
