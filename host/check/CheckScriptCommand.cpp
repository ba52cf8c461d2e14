#include "CheckScriptCommand.h"

#include "DocumentSummary.h"
#include "DownloadDump.h"
#include "Findings.h"
#include "PluginLoader.h"
#include "PluginSkips.h"
#include "ScriptCheck.h"

#include <exception>
#include <iostream>
#include <optional>
#include <string>

namespace lkdh::host {

namespace {

constexpr const char* kProgram = "knx-download-host";

void PrintLine(const std::string& line) { std::cout << line << '\n'; }

}  // namespace

int RunCheckScript(const CheckScriptOptions& options) {
  std::optional<DownloadDump> dump;
  if (!options.dump.empty()) {
    try {
      dump = LoadDownloadDump(options.dump);
    } catch (const DumpError& error) {
      std::cerr << kProgram << ": bad dump '" << options.dump << "': " << error.what() << '\n';
      return 2;
    }
  }

  ScriptCheckInput input;
  input.scriptPath = options.script;
  input.dump = dump ? &*dump : nullptr;
  ScriptCheckResult result = CheckScript(input);

  std::optional<DocumentSummary> summary;
  std::string pluginFailure;
  if (dump && result.knowledge.loaded) {
    if (!result.knowledge.safeToRun) {
      Finding skipped;
      skipped.severity = Severity::Info;
      skipped.message = "no document summary: the plug-in would not come back from this script";
      result.findings.Add(skipped);
    } else {
      try {
        const std::string plugin = options.plugin.empty() ? InstalledPluginPath() : options.plugin;
        std::vector<PluginSkip> skips;
        summary = SummariseDocument(plugin, options.script, *dump, result.knowledge, skips);
        AddPluginSkipFindings(skips, result.knowledge, result.findings);
        if (!summary) {
          Finding none;
          none.severity = Severity::Error;
          none.message =
              "the plug-in writes no document for this download (run with --log-level ERROR to "
              "see why)";
          result.findings.Add(none);
        }
      } catch (const PluginError& error) {
        pluginFailure = error.what();
      } catch (const std::exception& error) {
        Finding failed;
        failed.severity = Severity::Error;
        failed.message =
            std::string("the plug-in could not be run on the download: ") + error.what();
        result.findings.Add(failed);
      }
    }
  }

  for (const std::string& line : result.findings.Lines()) PrintLine(line);
  if (summary) {
    for (const std::string& line : SummaryLines(*summary)) PrintLine(line);
  }
  const std::size_t errors = result.findings.Count(Severity::Error);
  const std::size_t warnings = result.findings.Count(Severity::Warning);
  PrintLine("check-script: " + CountText(errors, "error") + ", " + CountText(warnings, "warning"));
  std::cout << std::flush;
  if (!pluginFailure.empty()) {
    std::cerr << kProgram << ": " << pluginFailure << '\n';
    return 3;
  }
  return errors > 0 ? 1 : 0;
}

}  // namespace lkdh::host
