#include <LuaKnxDownloadHandler/Diagnostics.h>

#include <log4cplus/loggingmacros.h>

#include <utility>

namespace Korvex::luaknxdownloadhandler {

LogDiagnostics::LogDiagnostics(const log4cplus::Logger& logger, std::string slot)
    : m_logger(logger), m_slot(std::move(slot)) {}

void LogDiagnostics::Enter(std::string_view slot) { m_slot.assign(slot.data(), slot.size()); }

void LogDiagnostics::Report(const Skip& skip) {
  std::string line = m_slot;
  line += ", ";
  line.append(skip.subject.data(), skip.subject.size());
  line += " '";
  line.append(skip.key.data(), skip.key.size());
  line += "': ";
  line += SkipReasonText(skip.reason);
  line += ": ";
  line.append(skip.detail.data(), skip.detail.size());
  LOG4CPLUS_TRACE_STR(m_logger, line);
}

}  // namespace Korvex::luaknxdownloadhandler
