#pragma once
// knx-download-host check-script: checks a description script on the
// workstation and prints one line per finding.

#include <string>

namespace lkdh::host {

struct CheckScriptOptions {
  std::string script;
  std::string dump;    // empty: no dump
  std::string plugin;  // empty: the installed plug-in
};

/// Prints the findings and, with a dump, a summary of the document the plug-in
/// writes. Returns the exit status: 0 no error, 1 an error found, 2 bad dump,
/// 3 plug-in not loadable.
int RunCheckScript(const CheckScriptOptions& options);

}  // namespace lkdh::host
