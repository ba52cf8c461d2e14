#pragma once
// Runs the real plug-in on a download dump into a scratch file and counts
// what the written etsproject document holds.

#include "DownloadDump.h"
#include "PluginSkips.h"
#include "ScriptCheck.h"

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace lkdh::host {

struct DocumentSummary {
  std::size_t folders = 0;
  std::size_t functions = 0;
  std::size_t staticRecords = 0;
  std::size_t enabledCos = 0;
  std::size_t parameters = 0;
  /// Function and static-data parameters by the value type the script gives them.
  std::map<std::string, std::size_t> parameterTypes;
};

/// The summary of the written document, or nothing when the plug-in wrote none
/// (why goes to the plug-in's log). What the plug-in skipped on the way goes to
/// skips. Throws PluginError when the plug-in cannot be loaded,
/// std::runtime_error when it cannot be run.
std::optional<DocumentSummary> SummariseDocument(const std::string& pluginPath,
                                                 const std::string& scriptPath,
                                                 const DownloadDump& dump,
                                                 const ScriptKnowledge& knowledge,
                                                 std::vector<PluginSkip>& skips);

/// The lines that describe a summary, each beginning "document: ".
std::vector<std::string> SummaryLines(const DocumentSummary& summary);

}  // namespace lkdh::host
