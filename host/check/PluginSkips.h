#pragma once
// What the plug-in itself skips in a download, and why: the TRACE lines its
// diagnostics write, caught while check-script runs it on a dump and turned
// into findings. So these findings come from the plug-in's own readers and
// builder, and cannot disagree with them.

#include "Findings.h"
#include "ScriptCheck.h"

#include <LuaKnxDownloadHandler/Diagnostics.h>

#include <log4cplus/appender.h>
#include <log4cplus/logger.h>

#include <optional>
#include <string>
#include <vector>

namespace lkdh::host {

/// One TRACE line of the plug-in's diagnostics, taken apart.
struct PluginSkip {
  Korvex::luaknxdownloadhandler::SkipReason reason{};
  std::string slot;     // "folder 0/function 2 (functionId 3)", "static data 'Timers'"
  std::string subject;  // "parameter", "record", "setting"
  std::string key;
  std::string detail;
};

/// The line as the plug-in's diagnostics write it, or nothing for any other line.
std::optional<PluginSkip> ParsePluginSkip(const std::string& message);

/// While it lives, the plug-in's logger is at TRACE and its diagnostics lines
/// are caught here; each line goes on to the host's appenders as before, when
/// the level the logger had lets it.
class PluginSkipCapture {
 public:
  PluginSkipCapture();
  ~PluginSkipCapture();
  PluginSkipCapture(const PluginSkipCapture&) = delete;
  PluginSkipCapture& operator=(const PluginSkipCapture&) = delete;

  std::vector<PluginSkip> Skips() const;

 private:
  class Appender;
  log4cplus::Logger m_logger;
  log4cplus::LogLevel m_ownLevel;
  bool m_additive;
  Appender* m_raw;
  log4cplus::SharedAppenderPtr m_appender;
};

/// The findings about the script among the plug-in's skips: a property whose
/// elements are narrower or wider than the value type reads, and an array
/// with no element for a slot. Each points at the line of the parameter's Key
/// when the file that defines the query names it once, else at the query.
void AddPluginSkipFindings(const std::vector<PluginSkip>& skips, const ScriptKnowledge& knowledge,
                           FindingList& findings);

}  // namespace lkdh::host
