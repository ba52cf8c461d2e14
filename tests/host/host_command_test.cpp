// Runs the installed knx-download-host as a child process and checks what it
// prints and how it exits.

#include "HostProcess.h"

#include <SchemaValidation.h>
#include <TempDir.h>

#include <gtest/gtest.h>
#include <boost/filesystem/operations.hpp>

#include <ostream>
#include <string>
#include <vector>

namespace {

namespace fs = boost::filesystem;
using lkdh::test::Outcome;
using lkdh::test::ReadWholeFile;
using lkdh::test::TempDir;

const std::string kHost = LKDH_INSTALLED_HOST;
const std::string kScript = LKDH_TEST_DATA_DIR "/host_device.lua";
const std::string kDump = LKDH_TEST_DATA_DIR "/host_download.json";
const std::string kUsageHint = "Run with --help for more information.\n";

class HostCommandTest : public ::testing::Test {
 protected:
  TempDir dir;
  fs::path project = dir.Path() / "etsproject.xml";

  std::string Config() const { return project.string() + ";" + kScript; }

  Outcome Run(const std::vector<std::string>& args) const {
    return lkdh::test::RunHost(kHost, dir.Path(), args);
  }

  std::string SaveLine() const {
    return "INFO KnxDownloadHandler - save new etsproject. Path: " + project.string() + "\n";
  }
};

bool StartsWith(const std::string& text, const std::string& prefix) {
  return text.rfind(prefix, 0) == 0;
}

bool EndsWith(const std::string& text, const std::string& suffix) {
  return text.size() >= suffix.size() &&
         text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

bool Contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

TEST_F(HostCommandTest, GoodRunWritesTheProjectAndResetsUserDataOnce) {
  const Outcome outcome = Run({"--config", Config(), kDump});
  EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
  EXPECT_EQ(outcome.out, "reset-user-data\nresult: true\n");
  EXPECT_EQ(outcome.err, SaveLine());
  ASSERT_TRUE(fs::exists(project));
  const std::string text = ReadWholeFile(project);
  EXPECT_TRUE(StartsWith(text, "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<etsproject")) << text;
  EXPECT_TRUE(Contains(text, "<element name=\"Living\" type=\"location\">")) << text;
  EXPECT_TRUE(Contains(text, "<co nr=\"1\" />")) << text;
  EXPECT_FALSE(Contains(text, "<co nr=\"2\" />")) << text;
  EXPECT_TRUE(lkdh::test::MatchesEtsprojectSchema(text));
}

TEST_F(HostCommandTest, SecondCallOfARepeatFindsTheSameDocument) {
  const Outcome outcome = Run({"--config", Config(), "--repeat", "2", kDump});
  EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
  EXPECT_EQ(outcome.out, "reset-user-data\nresult: true\nresult: false\n");
  EXPECT_EQ(outcome.err, SaveLine());
}

TEST_F(HostCommandTest, AppDataOneRewritesAnUnchangedProject) {
  ASSERT_EQ(Run({"--config", Config(), kDump}).out, "reset-user-data\nresult: true\n");
  const std::string first = ReadWholeFile(project);

  const Outcome unchanged = Run({"--config", Config(), kDump});
  EXPECT_EQ(unchanged.exitCode, 0);
  EXPECT_EQ(unchanged.out, "result: false\n");
  EXPECT_EQ(unchanged.err, "");

  const Outcome forced = Run({"--config", Config(), "--app-data", "1", "--repeat", "2", kDump});
  EXPECT_EQ(forced.exitCode, 0) << forced.err;
  EXPECT_EQ(forced.out, "reset-user-data\nresult: true\nreset-user-data\nresult: true\n");
  EXPECT_EQ(forced.err, SaveLine() + SaveLine());
  EXPECT_EQ(ReadWholeFile(project), first);
}

TEST_F(HostCommandTest, OtherAppDataValuesCompareAsUsual) {
  ASSERT_EQ(Run({"--config", Config(), kDump}).exitCode, 0);
  const Outcome outcome = Run({"--config", Config(), "--app-data", "4294967295", kDump});
  EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
  EXPECT_EQ(outcome.out, "result: false\n");
}

TEST_F(HostCommandTest, EmptyCallbackWritesTheFileButReportsFalse) {
  const Outcome outcome = Run({"--config", Config(), "--empty-callback", kDump});
  EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
  EXPECT_EQ(outcome.out, "result: false\n");
  EXPECT_EQ(
      outcome.err,
      SaveLine() +
          "ERROR KnxDownloadHandler - LuaKnxDownloadHandler::CreateFileWithKnxData exception: "
          "bad_function_call\n");
  EXPECT_TRUE(fs::exists(project));
}

TEST_F(HostCommandTest, DebugLevelShowsThePlugInsDebugLines) {
  const Outcome outcome = Run({"--config", Config(), "--log-level", "DEBUG", kDump});
  EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
  EXPECT_EQ(outcome.out, "reset-user-data\nresult: true\n");
  EXPECT_TRUE(Contains(outcome.err,
                       "DEBUG KnxDownloadHandler - CreateFileWithKnxData: CO count with enabled "
                       "communication flag: 2\n"))
      << outcome.err;
  EXPECT_TRUE(Contains(outcome.err, SaveLine())) << outcome.err;
}

TEST_F(HostCommandTest, ErrorLevelHidesTheSaveLine) {
  const Outcome outcome = Run({"--config", Config(), "--log-level", "ERROR", kDump});
  EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
  EXPECT_EQ(outcome.out, "reset-user-data\nresult: true\n");
  EXPECT_EQ(outcome.err, "");
}

TEST_F(HostCommandTest, LogConfigFileReplacesTheConsoleSetup) {
  const fs::path log = dir.Path() / "host.log";
  const fs::path properties =
      dir.WriteFile("log.properties",
                    "log4cplus.rootLogger=DEBUG, F\n"
                    "log4cplus.appender.F=log4cplus::FileAppender\n"
                    "log4cplus.appender.F.File=" +
                        log.string() +
                        "\n"
                        "log4cplus.appender.F.layout=log4cplus::PatternLayout\n"
                        "log4cplus.appender.F.layout.ConversionPattern=%p|%c|%m%n\n");
  const Outcome outcome = Run({"--config", Config(), "--log-config", properties.string(), kDump});
  EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
  EXPECT_EQ(outcome.out, "reset-user-data\nresult: true\n");
  EXPECT_EQ(outcome.err, "");
  const std::string text = ReadWholeFile(log);
  EXPECT_TRUE(Contains(
      text, "INFO|KnxDownloadHandler|save new etsproject. Path: " + project.string() + "\n"))
      << text;
  EXPECT_TRUE(Contains(text, "DEBUG|KnxDownloadHandler|CreateFileWithKnxData: CO count")) << text;
}

TEST_F(HostCommandTest, MissingPlugInExitsWithThree) {
  const Outcome outcome = Run({"--plugin", "/no/such/plugin.so", "--config", Config(), kDump});
  EXPECT_EQ(outcome.exitCode, 3);
  EXPECT_EQ(outcome.out, "");
  EXPECT_EQ(outcome.err,
            "knx-download-host: cannot load the plug-in: /no/such/plugin.so: cannot open shared "
            "object file: No such file or directory\n");
  EXPECT_FALSE(fs::exists(project));
}

TEST_F(HostCommandTest, LibraryWithoutEntryPointsExitsWithThree) {
  // A platform library loads fine but has no CreateHandler.
  const std::string library =
      (fs::path(LKDH_INSTALLED_PLUGIN).parent_path() / "libKnxStack.so").string();
  const Outcome outcome = Run({"--plugin", library, "--config", Config(), kDump});
  EXPECT_EQ(outcome.exitCode, 3);
  EXPECT_EQ(outcome.out, "");
  EXPECT_TRUE(StartsWith(outcome.err,
                         "knx-download-host: the plug-in has no entry point 'CreateHandler': "))
      << outcome.err;
  EXPECT_TRUE(EndsWith(outcome.err, "libKnxStack.so: undefined symbol: CreateHandler\n"))
      << outcome.err;
}

TEST_F(HostCommandTest, ExplicitPlugInPathIsUsed) {
  const Outcome outcome = Run({"--plugin", LKDH_INSTALLED_PLUGIN, "--config", Config(), kDump});
  EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
  EXPECT_EQ(outcome.out, "reset-user-data\nresult: true\n");
}

TEST_F(HostCommandTest, MissingScriptExitsWithFour) {
  const Outcome outcome = Run({"--config", "x.xml;/no/such.lua", kDump});
  EXPECT_EQ(outcome.exitCode, 4);
  EXPECT_EQ(outcome.out, "");
  EXPECT_TRUE(Contains(outcome.err, "/no/such.lua")) << outcome.err;
  EXPECT_TRUE(EndsWith(outcome.err,
                       "knx-download-host: the handler is not loaded (configuration "
                       "'x.xml;/no/such.lua'); see the log for why\n"))
      << outcome.err;
}

TEST_F(HostCommandTest, ConfigurationWithoutSeparatorExitsWithFourAndSaysSo) {
  const Outcome outcome = Run({"--config", project.string(), kDump});
  EXPECT_EQ(outcome.exitCode, 4);
  EXPECT_EQ(outcome.out, "");
  EXPECT_EQ(outcome.err, "knx-download-host: the handler is not loaded: the configuration '" +
                             project.string() +
                             "' has no ';' between the etsproject path and the script "
                             "(expected \"ETSPROJECT;SCRIPT\")\n");
  EXPECT_FALSE(fs::exists(project));
}

TEST_F(HostCommandTest, CommaInsteadOfSemicolonIsNamedAsTheProblem) {
  const std::string configuration = project.string() + "," + kScript;
  const Outcome outcome = Run({"--config", configuration, "--log-level", "TRACE", kDump});
  EXPECT_EQ(outcome.exitCode, 4);
  EXPECT_EQ(outcome.out, "");
  // The plug-in itself logs nothing about it, even at TRACE; the host's line says it all.
  EXPECT_FALSE(Contains(outcome.err, "KnxDownloadHandler -")) << outcome.err;
  EXPECT_FALSE(Contains(outcome.err, "ovslua -")) << outcome.err;
  EXPECT_TRUE(
      EndsWith(outcome.err, "\nknx-download-host: the handler is not loaded: the configuration '" +
                                configuration +
                                "' has no ';' between the etsproject path and the script "
                                "(expected \"ETSPROJECT;SCRIPT\")\n"))
      << outcome.err;
}

TEST_F(HostCommandTest, FailOnNoWriteExitsWithFiveWhenTheDocumentIsUnchanged) {
  const Outcome first = Run({"--config", Config(), "--fail-on-no-write", kDump});
  EXPECT_EQ(first.exitCode, 0) << first.err;
  EXPECT_EQ(first.out, "reset-user-data\nresult: true\n");
  EXPECT_EQ(first.err, SaveLine());

  const Outcome unchanged = Run({"--config", Config(), "--fail-on-no-write", kDump});
  EXPECT_EQ(unchanged.exitCode, 5);
  EXPECT_EQ(unchanged.out, "result: false\n");
  EXPECT_EQ(unchanged.err, "knx-download-host: no call wrote the document (--fail-on-no-write)\n");
}

TEST_F(HostCommandTest, FailOnNoWriteIsSatisfiedByOneWritingCallOfARepeat) {
  const Outcome outcome = Run({"--config", Config(), "--fail-on-no-write", "--repeat", "2", kDump});
  EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
  EXPECT_EQ(outcome.out, "reset-user-data\nresult: true\nresult: false\n");
}

TEST_F(HostCommandTest, FailOnNoWriteExitsWithFiveForADownloadWithoutObjects) {
  const fs::path dump = dir.WriteFile("empty.json", R"({"interfaceObjects": []})");
  const Outcome outcome = Run({"--config", Config(), "--fail-on-no-write", dump.string()});
  EXPECT_EQ(outcome.exitCode, 5);
  EXPECT_EQ(outcome.out, "result: false\n");
  EXPECT_EQ(outcome.err, "knx-download-host: no call wrote the document (--fail-on-no-write)\n");
  EXPECT_FALSE(fs::exists(project));
}

TEST_F(HostCommandTest, WithoutFailOnNoWriteAnUnchangedDocumentExitsWithZero) {
  ASSERT_EQ(Run({"--config", Config(), kDump}).exitCode, 0);
  const Outcome outcome = Run({"--config", Config(), kDump});
  EXPECT_EQ(outcome.exitCode, 0);
  EXPECT_EQ(outcome.out, "result: false\n");
}

TEST_F(HostCommandTest, VersionNamesTheCommandAndTheInstalledPlugIn) {
  const Outcome outcome = Run({"--version"});
  EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
  EXPECT_EQ(outcome.out, "knx-download-host " LKDH_PROJECT_VERSION "\nplug-in " +
                             fs::path(LKDH_INSTALLED_PLUGIN).lexically_normal().string() +
                             " " LKDH_PROJECT_VERSION "\n");
  EXPECT_EQ(outcome.err, "");
}

TEST_F(HostCommandTest, VersionReadsThePlugInGivenWithPlugin) {
  const std::string library =
      (fs::path(LKDH_INSTALLED_PLUGIN).parent_path() / "libKnxStack.so").string();
  const Outcome outcome = Run({"--plugin", library, "--version"});
  EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
  EXPECT_EQ(outcome.out, "knx-download-host " LKDH_PROJECT_VERSION "\nplug-in " + library +
                             " unknown (no LuaKnxDownloadHandlerVersion)\n");
}

TEST_F(HostCommandTest, VersionOfAMissingPlugInExitsWithThree) {
  const Outcome outcome = Run({"--plugin", "/no/such/plugin.so", "--version"});
  EXPECT_EQ(outcome.exitCode, 3);
  EXPECT_EQ(outcome.out, "knx-download-host " LKDH_PROJECT_VERSION "\n");
  EXPECT_EQ(outcome.err,
            "knx-download-host: cannot load the plug-in: /no/such/plugin.so: cannot open shared "
            "object file: No such file or directory\n");
}

TEST_F(HostCommandTest, BadDumpExitsWithTwoAndNamesTheLocation) {
  const fs::path dump =
      dir.WriteFile("x.json", R"({"interfaceObjects": [{"index": 0, "properties": [
      {"id": 1, "pdt": "PDT_UNSIGNED_CHAR", "values": [1, 300]}]}]})");
  const Outcome outcome = Run({"--config", Config(), dump.string()});
  EXPECT_EQ(outcome.exitCode, 2);
  EXPECT_EQ(outcome.out, "");
  EXPECT_EQ(outcome.err, "knx-download-host: bad dump '" + dump.string() +
                             "': /interfaceObjects/0/properties/0/values/1: 300 is out of range "
                             "for PDT_UNSIGNED_CHAR (0..255)\n");
  EXPECT_FALSE(fs::exists(project));
}

TEST_F(HostCommandTest, BadDumpIsReportedBeforeThePlugInIsLoaded) {
  const fs::path dump = dir.WriteFile("x.json", "{\"interfaceObjects\": [], \"memroy\": {}}");
  const Outcome outcome =
      Run({"--plugin", "/no/such/plugin.so", "--config", "x.xml;/no/such.lua", dump.string()});
  EXPECT_EQ(outcome.exitCode, 2);
  EXPECT_EQ(
      outcome.err,
      "knx-download-host: bad dump '" + dump.string() +
          "': /memroy: unknown key (allowed here: interfaceObjects, memory, coDescriptors)\n");
}

TEST_F(HostCommandTest, InvalidJsonExitsWithTwo) {
  const fs::path dump = dir.WriteFile("x.json", "{\"interfaceObjects\": [}");
  const Outcome outcome = Run({"--config", Config(), dump.string()});
  EXPECT_EQ(outcome.exitCode, 2);
  EXPECT_TRUE(StartsWith(outcome.err, "knx-download-host: bad dump '" + dump.string() +
                                          "': invalid JSON at byte 23: "))
      << outcome.err;
}

TEST_F(HostCommandTest, MissingDumpExitsWithTwo) {
  const Outcome outcome = Run({"--config", Config(), "/no/such/dump.json"});
  EXPECT_EQ(outcome.exitCode, 2);
  EXPECT_EQ(
      outcome.err,
      "knx-download-host: bad dump '/no/such/dump.json': cannot open the file: No such file or "
      "directory\n");
}

TEST_F(HostCommandTest, EmptyInterfaceObjectListStillRunsEveryCall) {
  const fs::path dump = dir.WriteFile("empty.json", R"({"interfaceObjects": []})");
  const Outcome outcome = Run({"--config", Config(), "--repeat", "3", dump.string()});
  EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
  EXPECT_EQ(outcome.out, "result: false\nresult: false\nresult: false\n");
  EXPECT_FALSE(fs::exists(project));
}

struct UsageCase {
  const char* name;
  std::vector<std::string> args;
  std::string message;  // first line on stderr
};

std::ostream& operator<<(std::ostream& os, const UsageCase& usage) { return os << usage.name; }

class HostUsageTest : public HostCommandTest, public ::testing::WithParamInterface<UsageCase> {};

TEST_P(HostUsageTest, ExitsWithTwoAndAMessage) {
  const Outcome outcome = Run(GetParam().args);
  EXPECT_EQ(outcome.exitCode, 2);
  EXPECT_EQ(outcome.out, "");
  EXPECT_EQ(outcome.err, "knx-download-host: " + GetParam().message + "\n" + kUsageHint);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, HostUsageTest,
    ::testing::Values(
        UsageCase{"NoArguments", {}, "--config is required"},
        UsageCase{"NoDump", {"--config", "a;b"}, "dump is required"},
        UsageCase{"NoConfig", {kDump}, "--config is required"},
        UsageCase{"UnknownLevel",
                  {"--config", "a;b", "--log-level", "VERBOSE", kDump},
                  "--log-level: VERBOSE not in {TRACE,DEBUG,INFO,WARN,ERROR}"},
        UsageCase{"LowerCaseLevel",
                  {"--config", "a;b", "--log-level", "debug", kDump},
                  "--log-level: debug not in {TRACE,DEBUG,INFO,WARN,ERROR}"},
        UsageCase{"MissingLogConfig",
                  {"--config", "a;b", "--log-config", "/no/such.properties", kDump},
                  "--log-config: File does not exist: /no/such.properties"},
        UsageCase{"LogConfigAndLevel",
                  {"--config", "a;b", "--log-config", kDump, "--log-level", "INFO", kDump},
                  "--log-level excludes --log-config"},
        UsageCase{"RepeatZero",
                  {"--config", "a;b", "--repeat", "0", kDump},
                  "--repeat: expected a decimal number from 1 to 4294967295, got '0'"},
        UsageCase{"RepeatNotANumber",
                  {"--config", "a;b", "--repeat", "two", kDump},
                  "--repeat: expected a decimal number from 1 to 4294967295, got 'two'"},
        UsageCase{"NegativeAppData",
                  {"--config", "a;b", "--app-data", "-1", kDump},
                  "--app-data: expected a decimal number from 0 to 4294967295, got '-1'"},
        UsageCase{"AppDataTooLarge",
                  {"--config", "a;b", "--app-data", "4294967296", kDump},
                  "--app-data: expected a decimal number from 0 to 4294967295, got '4294967296'"},
        UsageCase{"HexAppData",
                  {"--config", "a;b", "--app-data", "0x1", kDump},
                  "--app-data: expected a decimal number from 0 to 4294967295, got '0x1'"},
        UsageCase{"UnknownOption",
                  {"--config", "a;b", "--verbose", kDump},
                  "The following argument was not expected: --verbose"},
        UsageCase{"VersionWithExtraArgument",
                  {"--version", kDump, "extra"},
                  "The following argument was not expected: extra"},
        UsageCase{"VersionWithCheckScript",
                  {"--version", "check-script", kDump},
                  "--version cannot be used with check-script"},
        UsageCase{"TwoDumps",
                  {"--config", "a;b", kDump, kDump},
                  "The following argument was not expected: " + kDump}),
    [](const ::testing::TestParamInfo<UsageCase>& param) { return std::string(param.param.name); });

TEST_F(HostCommandTest, HelpExitsWithZero) {
  const Outcome outcome = Run({"--help"});
  EXPECT_EQ(outcome.exitCode, 0);
  EXPECT_TRUE(Contains(outcome.out, "Usage: knx-download-host [OPTIONS] dump")) << outcome.out;
  EXPECT_TRUE(Contains(outcome.out, "--empty-callback")) << outcome.out;
  EXPECT_EQ(outcome.err, "");
}

}  // namespace
