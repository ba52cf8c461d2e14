// knx-download-host: loads a download-handler plug-in as the device's host
// application does and hands it a download read from a JSON dump; with the
// check-script subcommand it checks a description script instead.

#include "CheckScriptCommand.h"
#include "DownloadDump.h"
#include "PluginLoader.h"

#include <Korvex/IKnxDownloadHandler.h>
#include <LuaKnxDownloadHandler/Version.h>

#include <log4cplus/configurator.h>
#include <log4cplus/consoleappender.h>
#include <log4cplus/initializer.h>
#include <log4cplus/layout.h>
#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>
#include <log4cplus/loglevel.h>
#include <CLI/CLI.hpp>

#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <exception>
#include <functional>
#include <iostream>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <system_error>

namespace {

using lkdh::host::CheckScriptOptions;
using lkdh::host::DownloadDump;
using lkdh::host::DumpError;
using lkdh::host::HandlerOwner;
using lkdh::host::PluginError;
using lkdh::host::PluginLibrary;

constexpr const char* kProgram = "knx-download-host";

enum ExitCode : int {
  kExitOk = 0,
  kExitUnexpected = 1,
  kExitUsage = 2,
  kExitPlugin = 3,
  kExitNotLoaded = 4,
  kExitNoWrite = 5,
  // As sysexits' EX_OSERR: the system could not give the command what it needed.
  kExitNoMemory = 71,
};

// Out of memory, wherever it happens: one line and the exit status, with
// nothing that needs memory itself; static destructors and exit handlers are
// skipped, since they may need memory too. Output was flushed line by line.
[[noreturn]] void ExitOutOfMemory() noexcept {
  // Led by a line break: a log line that ran out of memory half-way ends there
  // instead of swallowing this one.
  static const char kLine[] = "\nknx-download-host: out of memory\n";
  const ssize_t ignored = ::write(STDERR_FILENO, kLine, sizeof kLine - 1);
  static_cast<void>(ignored);
  ::_exit(kExitNoMemory);
}

// A failed allocation where no handler can catch it (a static initialiser of a
// library, a destructor, an exit handler) ends in std::terminate; it must still
// not abort. Anything else that terminates is a real fault and aborts as usual.
// A thread that could not be started for want of memory (log4cplus starts one
// while the library loads) comes as a system_error. Without an exception, the
// usual cause is that not even the exception could be allocated: then malloc's
// ENOMEM is still in errno.
void OnTerminate() noexcept {
  const int lastError = errno;
  const std::exception_ptr current = std::current_exception();
  if (!current && lastError == ENOMEM) ExitOutOfMemory();
  if (current) {
    try {
      std::rethrow_exception(current);
    } catch (const std::bad_alloc&) {
      ExitOutOfMemory();
    } catch (const std::system_error& error) {
      if (error.code() == std::errc::not_enough_memory ||
          error.code() == std::errc::resource_unavailable_try_again) {
        ExitOutOfMemory();
      }
    } catch (...) {
    }
  }
  std::abort();
}

// Installed before any library's static initialiser runs (.preinit_array).
void InstallTerminateHandler(int, char**, char**) { std::set_terminate(&OnTerminate); }
__attribute__((section(".preinit_array"),
               used)) void (*const kInstallTerminateHandler)(int, char**,
                                                             char**) = &InstallTerminateHandler;

struct Options {
  std::string plugin;
  std::string configuration;
  std::string appData = "0";
  std::string repeat = "1";
  bool emptyCallback = false;
  std::string logLevel = "INFO";
  std::string logConfig;
  std::string dump;
  bool failOnNoWrite = false;
  bool version = false;
};

// Plain decimal only: CLI11's own conversion would read "010" as octal and "0x10" as hex.
std::optional<std::uint32_t> ParseDecimalUint32(const std::string& text) {
  if (text.empty() || text.size() > 10) return std::nullopt;
  std::uint64_t value = 0;
  for (const char c : text) {
    if (c < '0' || c > '9') return std::nullopt;
    value = value * 10 + static_cast<std::uint64_t>(c - '0');
  }
  if (value > std::numeric_limits<std::uint32_t>::max()) return std::nullopt;
  return static_cast<std::uint32_t>(value);
}

CLI::Validator Uint32Validator(std::uint32_t minimum) {
  return CLI::Validator(
      [minimum](std::string& text) -> std::string {
        const auto value = ParseDecimalUint32(text);
        if (!value || *value < minimum) {
          return "expected a decimal number from " + std::to_string(minimum) +
                 " to 4294967295, got '" + text + "'";
        }
        return {};
      },
      "");
}

log4cplus::LogLevel LevelFromName(const std::string& name) {
  if (name == "TRACE") return log4cplus::TRACE_LOG_LEVEL;
  if (name == "DEBUG") return log4cplus::DEBUG_LOG_LEVEL;
  if (name == "WARN") return log4cplus::WARN_LOG_LEVEL;
  if (name == "ERROR") return log4cplus::ERROR_LOG_LEVEL;
  if (name == "OFF") return log4cplus::OFF_LOG_LEVEL;
  return log4cplus::INFO_LOG_LEVEL;
}

void ConfigureLogging(const std::string& logLevel, const std::string& logConfig) {
  if (!logConfig.empty()) {
    log4cplus::PropertyConfigurator::doConfigure(logConfig);
    return;
  }
  log4cplus::SharedAppenderPtr appender(
      new log4cplus::ConsoleAppender(/*logToStdErr=*/true, /*immediateFlush=*/true));
  appender->setLayout(std::make_unique<log4cplus::PatternLayout>("%p %c - %m%n"));
  log4cplus::Logger root = log4cplus::Logger::getRoot();
  root.addAppender(appender);
  root.setLogLevel(LevelFromName(logLevel));
}

// The download mode's --config and dump are required only without a
// subcommand, so the usage line is written here rather than by CLI11.
class HostFormatter : public CLI::Formatter {
 public:
  std::string make_usage(const CLI::App* app, std::string name) const override {
    if (app->get_parent() != nullptr) return CLI::Formatter::make_usage(app, std::move(name));
    return "Usage: " + name + " [OPTIONS] dump\n   or: " + name +
           " check-script [OPTIONS] script\n";
  }
};

void PrintLine(const std::string& line) { std::cout << line << '\n' << std::flush; }

int RunDownloads(const Options& options, const DownloadDump& dump,
                 const log4cplus::Logger& logger) {
  const std::string pluginPath =
      options.plugin.empty() ? lkdh::host::InstalledPluginPath() : options.plugin;
  // Declared before the handler so that the handler is deleted before the library closes.
  PluginLibrary library(pluginPath);
  const Korvex::CreateHandlerFunction createHandler = library.CreateHandler();
  const Korvex::DeleteHandlerFunction deleteHandler = library.DeleteHandler();
  LOG4CPLUS_DEBUG(logger, "Loaded plug-in " << pluginPath);

  Korvex::IKnxDownloadHandler* created = nullptr;
  try {
    created = createHandler(options.configuration);
  } catch (const std::bad_alloc&) {
    throw;
  } catch (const std::exception& error) {
    std::cerr << kProgram << ": CreateHandler failed: " << error.what() << '\n';
    return kExitNotLoaded;
  }
  if (created == nullptr) {
    std::cerr << kProgram << ": CreateHandler returned no handler\n";
    return kExitNotLoaded;
  }
  const HandlerOwner handler(created, deleteHandler);
  if (!handler->Loaded()) {
    // The plug-in says nothing about a configuration it cannot split, so the host names it.
    if (options.configuration.find(';') == std::string::npos) {
      std::cerr << kProgram << ": the handler is not loaded: the configuration '"
                << options.configuration
                << "' has no ';' between the etsproject path and the script (expected "
                   "\"ETSPROJECT;SCRIPT\")\n";
    } else {
      std::cerr << kProgram << ": the handler is not loaded (configuration '"
                << options.configuration << "'); see the log for why\n";
    }
    return kExitNotLoaded;
  }

  const auto appData =
      static_cast<Korvex::IKnxDownloadHandler::AppData>(*ParseDecimalUint32(options.appData));
  const std::uint32_t repeat = *ParseDecimalUint32(options.repeat);
  std::function<void()> resetUserData;
  if (!options.emptyCallback) resetUserData = [] { PrintLine("reset-user-data"); };

  bool wrote = false;
  for (std::uint64_t run = 1; run <= repeat; ++run) {
    LOG4CPLUS_DEBUG(logger, "CreateFileWithKnxData call " << run << " of " << repeat
                                                          << ", app data "
                                                          << static_cast<std::uint32_t>(appData));
    const bool result = handler->CreateFileWithKnxData(dump.interfaceObjects, dump.memory,
                                                       resetUserData, appData, dump.coDescriptors);
    PrintLine(result ? "result: true" : "result: false");
    wrote = wrote || result;
  }
  if (options.failOnNoWrite && !wrote) {
    std::cerr << kProgram << ": no call wrote the document (--fail-on-no-write)\n";
    return kExitNoWrite;
  }
  return kExitOk;
}

// This command's release, then the plug-in's, read from its exported version function.
int PrintVersion(const std::string& plugin) {
  PrintLine(std::string(kProgram) + " " + LKDH_VERSION);
  const std::string pluginPath = plugin.empty() ? lkdh::host::InstalledPluginPath() : plugin;
  const PluginLibrary library(pluginPath);
  const auto version = reinterpret_cast<LuaKnxDownloadHandlerVersionFunction>(
      library.OptionalSymbol(LKDH_VERSION_SYMBOL));
  PrintLine("plug-in " + pluginPath + " " +
            (version != nullptr ? std::string(version())
                                : std::string("unknown (no " LKDH_VERSION_SYMBOL ")")));
  return kExitOk;
}

// Runs a command's body; what escapes it is reported on stderr and becomes the
// exit status: 3 for the plug-in, 1 for anything unexpected.
template <typename Body>
int ExitStatusOf(Body&& body) {
  try {
    return body();
  } catch (const std::bad_alloc&) {
    throw;  // main's own exit status
  } catch (const PluginError& error) {
    std::cerr << kProgram << ": " << error.what() << '\n';
    return kExitPlugin;
  } catch (const std::exception& error) {
    std::cerr << kProgram << ": unexpected error: " << error.what() << '\n';
    return kExitUnexpected;
  } catch (...) {
    std::cerr << kProgram << ": unexpected error\n";
    return kExitUnexpected;
  }
}

int Run(int argc, char** argv) {
  Options options;
  CheckScriptOptions check;
  std::string checkLogLevel = "OFF";
  CLI::App app(
      "Loads a download-handler plug-in like the device's host application and hands it "
      "the download described in a JSON dump.",
      kProgram);
  app.formatter(std::make_shared<HostFormatter>());
  app.failure_message([](const CLI::App*, const CLI::Error& error) {
    return std::string(kProgram) + ": " + error.what() +
           "\nRun with --help for more information.\n";
  });
  app.add_option("--plugin", options.plugin,
                 "The plug-in library (default: ../lib/libLuaKnxDownloadHandler.so from this "
                 "command's directory)")
      ->type_name("FILE");
  // Required unless --version is given: checked after parsing, as the dump is.
  auto* config = app.add_option("--config", options.configuration,
                                "The handler's configuration, \"ETSPROJECT;SCRIPT\", passed as "
                                "it is")
                     ->type_name("TEXT");
  app.add_option("--app-data", options.appData,
                 "The AppData value of every call (1 forces a write)")
      ->check(Uint32Validator(0))
      ->type_name("N")
      ->capture_default_str();
  app.add_option("--repeat", options.repeat, "How many times to call CreateFileWithKnxData")
      ->check(Uint32Validator(1))
      ->type_name("N")
      ->capture_default_str();
  app.add_flag("--empty-callback", options.emptyCallback, "Pass an empty reset-user-data callback");
  app.add_flag("--fail-on-no-write", options.failOnNoWrite,
               "Exit with status 5 when no call wrote the document (none returned true)");
  app.add_flag("--version", options.version,
               "Print this command's version and the plug-in's, then exit");
  auto* logLevel = app.add_option("--log-level", options.logLevel, "The root logger's level")
                       ->check(CLI::IsMember({"TRACE", "DEBUG", "INFO", "WARN", "ERROR"}))
                       ->type_name("LEVEL")
                       ->capture_default_str();
  app.add_option("--log-config", options.logConfig,
                 "Configure log4cplus from this properties file instead")
      ->check(CLI::ExistingFile)
      ->type_name("PROPERTIES")
      ->excludes(logLevel);
  // Not required as far as CLI11 knows: a required positional would swallow the
  // subcommand's name. Checked after parsing, as are left-over arguments, in the
  // order in which CLI11 would report them.
  auto* dumpOption = app.add_option("dump", options.dump, "The download dump (JSON; REQUIRED)")
                         ->type_name("DUMP.json");
  app.allow_extras();
  app.footer(
      "Prints \"reset-user-data\" when the plug-in resets the user data and \"result: true|false\" "
      "after each call.\nExit status: 0 all calls ran, 2 usage error or bad dump, 3 plug-in not "
      "loadable, 4 handler not loaded, 5 nothing written (with --fail-on-no-write), 71 out of "
      "memory, 1 unexpected failure.\nRun \"knx-download-host "
      "check-script --help\" for the script check.");

  CLI::App* checkScript = app.add_subcommand(
      "check-script",
      "Checks a description script: calls its functions as the plug-in does and reports what "
      "the plug-in would misread");
  checkScript->allow_extras(false);
  checkScript->add_option("script", check.script, "The description script (Lua)")
      ->required()
      ->check(CLI::ExistingFile)
      ->type_name("SCRIPT");
  checkScript
      ->add_option("--dump", check.dump,
                   "Check with the channel types and values of this download dump, and "
                   "summarise the document the plug-in writes for it")
      ->type_name("DUMP.json");
  checkScript
      ->add_option("--plugin", check.plugin,
                   "The plug-in library for the document summary (default: the installed one)")
      ->type_name("FILE");
  checkScript
      ->add_option("--log-level", checkLogLevel, "The root logger's level (the plug-in's log)")
      ->check(CLI::IsMember({"TRACE", "DEBUG", "INFO", "WARN", "ERROR", "OFF"}))
      ->type_name("LEVEL")
      ->capture_default_str();
  checkScript->footer(
      "Prints one line per finding, \"[FILE:LINE: ]error|warning|info: MESSAGE\", then, with "
      "--dump, \"document: ...\" lines, and last \"check-script: N errors, M warnings\".\n"
      "Exit status: 0 no error, 1 an error was found, 2 usage error or bad dump, 3 plug-in not "
      "loadable, 71 out of memory.");

  try {
    app.parse(argc, argv);
    if (!checkScript->parsed() && !options.version) {
      if (config->count() == 0) throw CLI::RequiredError(config->get_name());
      if (dumpOption->count() == 0) throw CLI::RequiredError(dumpOption->get_name());
    }
    if (!app.remaining(false).empty()) throw CLI::ExtrasError(app.get_name(), app.remaining(false));
    if (checkScript->parsed()) {
      // The download mode's options mean nothing to the check.
      for (const CLI::Option* option : app.get_options()) {
        if (option->count() > 0) {
          throw CLI::ValidationError(option->get_name() + " cannot be used with check-script");
        }
      }
    }
  } catch (const CLI::ParseError& error) {
    const int code = app.exit(error);
    return code == 0 ? kExitOk : kExitUsage;
  }

  if (options.version) return ExitStatusOf([&] { return PrintVersion(options.plugin); });

  if (checkScript->parsed()) {
    return ExitStatusOf([&] {
      ConfigureLogging(checkLogLevel, "");
      return lkdh::host::RunCheckScript(check);
    });
  }

  try {
    ConfigureLogging(options.logLevel, options.logConfig);
  } catch (const std::bad_alloc&) {
    throw;
  } catch (const std::exception& error) {
    std::cerr << kProgram << ": cannot configure logging: " << error.what() << '\n';
    return kExitUsage;
  }
  const log4cplus::Logger logger = log4cplus::Logger::getInstance("KnxDownloadHost");

  // The dump is read before the plug-in is touched, so a bad dump fails the same way everywhere.
  DownloadDump dump;
  try {
    dump = lkdh::host::LoadDownloadDump(options.dump);
  } catch (const DumpError& error) {
    std::cerr << kProgram << ": bad dump '" << options.dump << "': " << error.what() << '\n';
    return kExitUsage;
  }
  LOG4CPLUS_DEBUG(logger, "Read dump " << options.dump << ": " << dump.objects.size()
                                       << " interface objects, " << dump.memory.GetSize()
                                       << " bytes of memory, " << dump.coDescriptors.size()
                                       << " communication-object descriptors");

  return ExitStatusOf([&] { return RunDownloads(options, dump, logger); });
}

}  // namespace

int main(int argc, char** argv) {
  try {
    // Outlives the plug-in library, whose logger is torn down when it is closed.
    log4cplus::Initializer initializer;
    return Run(argc, argv);
  } catch (const std::bad_alloc&) {
    ExitOutOfMemory();
  } catch (const std::exception& error) {
    std::cerr << kProgram << ": unexpected error: " << error.what() << '\n';
  } catch (...) {
    std::cerr << kProgram << ": unexpected error\n";
  }
  return kExitUnexpected;
}
