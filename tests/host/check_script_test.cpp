// knx-download-host check-script: flawed description scripts, one flaw each,
// must produce exactly their finding line and the right exit status; clean
// scripts (the demo among them) must pass.

#include "HostProcess.h"

#include <TempDir.h>

#include <gtest/gtest.h>

#include <ostream>
#include <sstream>
#include <string>
#include <vector>

namespace {

using lkdh::test::Outcome;
using lkdh::test::TempDir;

const std::string kHost = LKDH_INSTALLED_HOST;
const std::string kData = LKDH_TEST_DATA_DIR;
const std::string kBase = kData + "/check_base.lua";
const std::string kCheckDump = kData + "/check_download.json";
const std::string kDemoScript = LKDH_SOURCE_DIR "/examples/demo/demo.lua";
const std::string kDemoDump = LKDH_SOURCE_DIR "/examples/demo/demo-download.json";
const std::string kUsageHint = "Run with --help for more information.\n";

std::vector<std::string> SplitLines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

bool Contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

// The error and warning lines of the output, in order.
std::vector<std::string> Problems(const std::string& out) {
  std::vector<std::string> problems;
  for (const std::string& line : SplitLines(out)) {
    if (Contains(line, ": error: ") || Contains(line, ": warning: ") ||
        line.rfind("error: ", 0) == 0 || line.rfind("warning: ", 0) == 0) {
      problems.push_back(line);
    }
  }
  return problems;
}

std::string LastLine(const std::string& out) {
  const std::vector<std::string> lines = SplitLines(out);
  return lines.empty() ? std::string() : lines.back();
}

// "DIR/check_x.lua:12: " before a finding.
std::string At(const std::string& script, int line) {
  return kData + "/" + script + ":" + std::to_string(line) + ": ";
}

class CheckScriptTest : public ::testing::Test {
 protected:
  TempDir dir;

  Outcome Run(const std::vector<std::string>& args) const {
    return lkdh::test::RunHost(kHost, dir.Path(), args);
  }
};

// The presence lines of the base script's eleven functions.
std::string BasePresence() {
  const auto defined = [](int line, const std::string& name) {
    return kBase + ":" + std::to_string(line) + ": info: " + name + " is defined\n";
  };
  return defined(11, "GetPropertyIds") + defined(53, "GetPropertyIndexForUrns") +
         defined(49, "IsThereUrnsByPropertyIndex") + defined(57, "GetFunctionUrnByTypeId") +
         defined(61, "GetChannelUrnByTypeId") +
         defined(65, "GetFunctionUrnByTypeIdAndPropertyIndex") +
         defined(70, "GetChannelUrnByTypeIdAndPropertyIndex") +
         defined(75, "GetLuaTemplateIndexByTypeIdAndPropertyIndex") +
         defined(80, "GetParametersFromChannelTypeId") + defined(97, "GetStaticData") +
         defined(107, "HandleDcsType");
}

TEST_F(CheckScriptTest, CleanScriptPassesWithoutADump) {
  const Outcome outcome = Run({"check-script", kBase});
  EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
  EXPECT_EQ(outcome.out, BasePresence() +
                             "info: channel types the script describes: 1-2\n"
                             "check-script: 0 errors, 0 warnings\n");
  EXPECT_EQ(outcome.err, "");
}

TEST_F(CheckScriptTest, CleanScriptWithADumpSummarisesTheDocument) {
  const Outcome outcome = Run({"check-script", kBase, "--dump", kCheckDump});
  EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
  // Slot 2 is an RGB dimmer, so its colour is shown; slot 1's is not.
  EXPECT_EQ(outcome.out, BasePresence() +
                             "info: channel types in the download: 1-2\n"
                             "document: 1 folder, 3 functions, 1 static-data record, 1 enabled "
                             "communication object\n"
                             "document: 5 parameters of functions and static data: 3 Bool, 1 "
                             "UInt32, 1 Text\n"
                             "check-script: 0 errors, 0 warnings\n");
  EXPECT_EQ(outcome.err, "");
}

TEST_F(CheckScriptTest, ExplicitPlugInGivesTheSameSummary) {
  const Outcome outcome =
      Run({"check-script", "--plugin", LKDH_INSTALLED_PLUGIN, "--dump", kCheckDump, kBase});
  EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
  EXPECT_TRUE(Contains(outcome.out, "document: 1 folder, 3 functions,")) << outcome.out;
}

TEST_F(CheckScriptTest, DemoPassesWithoutADump) {
  const Outcome outcome = Run({"check-script", kDemoScript});
  EXPECT_EQ(outcome.exitCode, 0) << outcome.out << outcome.err;
  EXPECT_EQ(Problems(outcome.out), std::vector<std::string>{});
  EXPECT_TRUE(Contains(outcome.out, "info: channel types the script describes: 1-5\n"))
      << outcome.out;
  EXPECT_EQ(LastLine(outcome.out), "check-script: 0 errors, 0 warnings");
  EXPECT_EQ(outcome.err, "");
}

TEST_F(CheckScriptTest, DemoPassesWithItsDump) {
  const Outcome outcome = Run({"check-script", kDemoScript, "--dump", kDemoDump});
  EXPECT_EQ(outcome.exitCode, 0) << outcome.out << outcome.err;
  EXPECT_EQ(Problems(outcome.out), std::vector<std::string>{});
  EXPECT_TRUE(Contains(outcome.out,
                       "info: channel types in the download: 1-5\n"
                       "document: 3 folders, 9 functions, 3 static-data records, 9 enabled "
                       "communication objects\n"
                       "document: 23 parameters of functions and static data: 6 Bool, 10 UInt8, "
                       "4 Float16, 1 Text, 1 Name, 1 Url\n"
                       "check-script: 0 errors, 0 warnings\n"))
      << outcome.out;
  EXPECT_EQ(outcome.err, "");
}

struct FlawCase {
  const char* name;
  std::string script;                 // in the test data directory
  std::vector<std::string> options;   // besides the script
  std::vector<std::string> findings;  // the error and warning lines, exactly
  int exitCode;
};

std::ostream& operator<<(std::ostream& os, const FlawCase& flaw) { return os << flaw.name; }

class CheckScriptFlawTest : public CheckScriptTest,
                            public ::testing::WithParamInterface<FlawCase> {};

TEST_P(CheckScriptFlawTest, ReportsTheFlawOnItsLine) {
  const FlawCase& flaw = GetParam();
  std::vector<std::string> args{"check-script", kData + "/" + flaw.script};
  args.insert(args.end(), flaw.options.begin(), flaw.options.end());
  const Outcome outcome = Run(args);
  EXPECT_EQ(outcome.exitCode, flaw.exitCode) << outcome.out << outcome.err;
  EXPECT_EQ(Problems(outcome.out), flaw.findings) << outcome.out;
  std::size_t errors = 0;
  for (const std::string& finding : flaw.findings) {
    if (Contains(finding, ": error: ") || finding.rfind("error: ", 0) == 0) ++errors;
  }
  const std::size_t warnings = flaw.findings.size() - errors;
  EXPECT_EQ(LastLine(outcome.out),
            "check-script: " + std::to_string(errors) + (errors == 1 ? " error, " : " errors, ") +
                std::to_string(warnings) + (warnings == 1 ? " warning" : " warnings"));
  EXPECT_EQ(outcome.err, "");
}

const std::string kNoDocument =
    "error: the plug-in writes no document for this download (run with --log-level ERROR to see "
    "why)";

INSTANTIATE_TEST_SUITE_P(
    Scripts, CheckScriptFlawTest,
    ::testing::Values(
        FlawCase{"SyntaxError",
                 "check_syntax_error.lua",
                 {},
                 {At("check_syntax_error.lua", 4) +
                  "error: the script does not load: unexpected symbol near '='"},
                 1},
        FlawCase{
            "MissingFunction",
            "check_missing_function.lua",
            {},
            {kData + "/check_missing_function.lua: error: GetStaticData is not defined: every call "
                     "fails and the document gets no static data"},
            1},
        FlawCase{"NumericKeyInParameter",
                 "check_numeric_key.lua",
                 {},
                 {At("check_numeric_key.lua", 6) +
                  "error: GetParametersFromChannelTypeId(1), parameter 'State': numeric key [1] "
                  "in a parameter table: the download aborts"},
                 1},
        FlawCase{"NumericKeyInProperty",
                 "check_property_numeric_key.lua",
                 {},
                 {At("check_property_numeric_key.lua", 6) +
                  "error: GetParametersFromChannelTypeId(1), parameter 'State': Property: numeric "
                  "key [1] in a property table: the download aborts"},
                 1},
        FlawCase{"NumericKeyInShowIfEntry",
                 "check_showif_numeric_key.lua",
                 {},
                 {At("check_showif_numeric_key.lua", 7) +
                  "error: GetParametersFromChannelTypeId(1), parameter 'State': "
                  "ShowIf.PropertyIds[1]: numeric key [1] in a ShowIf PropertyIds entry: the "
                  "download aborts"},
                 1},
        FlawCase{"NumericKeyInShowIfOfAParameterWithoutKey",
                 "check_keyless_showif_list.lua",
                 {},
                 {At("check_keyless_showif_list.lua", 4) +
                  "error: GetParametersFromChannelTypeId(1), parameter [2]: ShowIf: numeric key "
                  "[1] in a ShowIf table: the download aborts"},
                 1},
        FlawCase{"BooleanKeyInParameter",
                 "check_boolean_key.lua",
                 {},
                 {At("check_boolean_key.lua", 6) +
                  "warning: GetParametersFromChannelTypeId(1), parameter 'State': a key of type "
                  "boolean in a parameter table is ignored"},
                 0},
        FlawCase{"BooleanKeyInShowIfEntry",
                 "check_showif_boolean_key.lua",
                 {},
                 {At("check_showif_boolean_key.lua", 10) +
                  "warning: GetParametersFromChannelTypeId(1), parameter 'State': "
                  "ShowIf.PropertyIds[1]: a key of type boolean in a ShowIf PropertyIds entry is "
                  "ignored"},
                 0},
        FlawCase{"ListEntryUnderABooleanKeyIsRead", "check_list_boolean_key.lua", {}, {}, 0},
        FlawCase{"ListEntryThatIsNoTable",
                 "check_list_entry_text.lua",
                 {},
                 {At("check_list_entry_text.lua", 4) +
                  "warning: GetParametersFromChannelTypeId(1): list entry [2] is a string, not a "
                  "parameter table: skipped"},
                 0},
        FlawCase{"ParametersWithoutKeyAreNamedByTheirPlace",
                 "check_keyless_parameters.lua",
                 {},
                 {At("check_keyless_parameters.lua", 4) +
                      "warning: GetParametersFromChannelTypeId(1), parameter [2]: no 'Key': its "
                      "key is empty",
                  At("check_keyless_parameters.lua", 4) +
                      "warning: GetParametersFromChannelTypeId(1), parameter [3]: no 'Key': its "
                      "key is empty",
                  At("check_keyless_parameters.lua", 4) +
                      "warning: GetParametersFromChannelTypeId(1), parameter [3]: unknown field "
                      "'Propery' is ignored (did you mean 'Property'?): read at interface object "
                      "0, property 0"},
                 0},
        FlawCase{"TheOneParameterWithoutKeyIsNamedByItsPlace",
                 "check_keyless_type.lua",
                 {},
                 {At("check_keyless_type.lua", 4) +
                      "warning: GetParametersFromChannelTypeId(1), parameter [2]: no 'Key': its "
                      "key is empty",
                  At("check_keyless_type.lua", 4) +
                      "error: GetParametersFromChannelTypeId(1), parameter [2]: unknown value type "
                      "'Uint8' (did you mean 'UInt8'?): the parameter is silently left out"},
                 1},
        FlawCase{"LowerCaseType",
                 "check_lower_case_type.lua",
                 {},
                 {At("check_lower_case_type.lua", 6) +
                  "error: GetParametersFromChannelTypeId(1), parameter 'State': unknown value "
                  "type 'bool' (did you mean 'Bool'?): the parameter is silently left out"},
                 1},
        FlawCase{"FloatPropertyId",
                 "check_float_property_id.lua",
                 {},
                 {At("check_float_property_id.lua", 6) +
                  "error: GetParametersFromChannelTypeId(1), parameter 'State': Property: "
                  "'PropertyId' is a float (53.0), not an integer: property 0 is read"},
                 1},
        FlawCase{"PropertyIdOverOneOctet",
                 "check_property_id_range.lua",
                 {},
                 {At("check_property_id_range.lua", 6) +
                  "warning: GetParametersFromChannelTypeId(1), parameter 'State': Property: "
                  "'PropertyId' 300 is read as 44 (only its low 8 bits count)"},
                 0},
        FlawCase{"FloatDigits",
                 "check_float_digits.lua",
                 {},
                 {At("check_float_digits.lua", 6) +
                  "warning: GetParametersFromChannelTypeId(1), parameter 'Power': 'Digits' is a "
                  "float (2.0), not an integer: no decimals"},
                 0},
        FlawCase{"MisspeltField",
                 "check_unknown_field.lua",
                 {},
                 {At("check_unknown_field.lua", 6) +
                  "warning: GetParametersFromChannelTypeId(1), parameter 'Power': unknown field "
                  "'Digit' is ignored (did you mean 'Digits'?)"},
                 0},
        FlawCase{"MisspeltFieldIsOneFinding",
                 "check_misspelt_property_id.lua",
                 {},
                 {At("check_misspelt_property_id.lua", 6) +
                  "warning: GetParametersFromChannelTypeId(1), parameter 'State': Property: "
                  "unknown field 'PropertyID' is ignored (did you mean 'PropertyId'?): "
                  "property 0 is read"},
                 0},
        FlawCase{"DuplicateKey",
                 "check_duplicate_key.lua",
                 {},
                 {At("check_duplicate_key.lua", 4) +
                  "warning: GetParametersFromChannelTypeId(1), parameter 'State': 2 parameters "
                  "have this key: the document lists them in no defined order"},
                 0},
        FlawCase{"UrnNil",
                 "check_urn_nil.lua",
                 {},
                 {At("check_urn_nil.lua", 4) +
                  "warning: GetChannelUrnByTypeId(1): returns nil: the plug-in reads it as an "
                  "empty text, so channelTypeUrn is empty, not \"Unsupported\""},
                 0},
        FlawCase{"UrnErrorPointsAtTheError",
                 "check_urn_error.lua",
                 {},
                 {At("check_urn_error.lua", 6) +
                  "error: GetChannelUrnByTypeId(1): raises an error: no channel URN for 1: the "
                  "plug-in writes \"Unsupported\""},
                 1},
        FlawCase{"SelectorQueryReturnsANumber",
                 "check_selector_number.lua",
                 {},
                 {At("check_selector_number.lua", 4) +
                  "warning: IsThereUrnsByPropertyIndex(2): returns an integer (1), not a boolean: "
                  "read as true"},
                 0},
        FlawCase{"SelectorUrnNil",
                 "check_selector_nil.lua",
                 {},
                 {At("check_selector_nil.lua", 4) +
                  "warning: GetChannelUrnByTypeIdAndPropertyIndex(2, 1): returns nil: the plug-in "
                  "reads it as an empty text, so channelTypeUrn is empty, not \"Unsupported\""},
                 0},
        FlawCase{"SelectorUrnNilForTheDumpsSlot",
                 "check_selector_nil.lua",
                 {"--dump", kCheckDump},
                 {At("check_selector_nil.lua", 4) +
                  "warning: GetChannelUrnByTypeIdAndPropertyIndex(2, 1): returns nil: the plug-in "
                  "reads it as an empty text, so channelTypeUrn is empty, not \"Unsupported\""},
                 0},
        FlawCase{"SelectorFieldTypo",
                 "check_selector_typo.lua",
                 {},
                 {At("check_selector_typo.lua", 4) +
                  "warning: GetPropertyIndexForUrns(2): unknown field 'PropertyID' is ignored "
                  "(did you mean 'PropertyId'?): property 0 is read"},
                 0},
        FlawCase{"ShowIfWithoutFunction",
                 "check_showif_without_function.lua",
                 {},
                 {At("check_showif_without_function.lua", 7) +
                  "error: GetParametersFromChannelTypeId(1), parameter 'State': ShowIf has "
                  "PropertyIds but no Function: the plug-in calls an invalid reference and always "
                  "hides the parameter"},
                 1},
        FlawCase{"ShowIfWithoutPropertyIds",
                 "check_showif_without_ids.lua",
                 {},
                 {At("check_showif_without_ids.lua", 9) +
                  "warning: GetParametersFromChannelTypeId(1), parameter 'State': ShowIf has a "
                  "Function but no PropertyIds: the function is never called and the parameter "
                  "is always shown"},
                 0},
        FlawCase{"ShowIfUrlEntry",
                 "check_showif_url.lua",
                 {},
                 {At("check_showif_url.lua", 10) +
                  "warning: GetParametersFromChannelTypeId(1), parameter 'State': ShowIf "
                  "PropertyIds entry [1]: a 'Url' entry passes no argument (a later one takes "
                  "its place)"},
                 0},
        FlawCase{"ShowIfError",
                 "check_showif_error.lua",
                 {},
                 {At("check_showif_error.lua", 11) +
                  "error: GetParametersFromChannelTypeId(1), parameter 'State': ShowIf function "
                  "raises an error: attempt to index a number value (local 'kind'): the "
                  "parameter is hidden"},
                 1},
        // Without a dump a ShowIf function gets what a download without those
        // properties passes: for texts the wrong-property-id text, else zero values.
        FlawCase{"ShowIfWithoutADumpGetsTheValuesOfAnEmptyDownload",
                 "check_showif_stand_in_values.lua",
                 {},
                 {At("check_showif_stand_in_values.lua", 12) +
                  "error: GetParametersFromChannelTypeId(1), parameter 'State': ShowIf function "
                  "raises an error: \"ERROR: maybe wrong property id (60), no User should see "
                  "this!\" \"ERROR: maybe wrong property id (61), no User should see this!\" 0 "
                  "false \"\": the parameter is hidden"},
                 1},
        FlawCase{"ShowIfReturnsNothing",
                 "check_showif_nil.lua",
                 {},
                 {At("check_showif_nil.lua", 10) +
                  "warning: GetParametersFromChannelTypeId(1), parameter 'State': ShowIf function "
                  "returns nil, not a boolean: read as false, so the parameter is hidden"},
                 0},
        FlawCase{"MissingLimit",
                 "check_missing_limit.lua",
                 {},
                 {At("check_missing_limit.lua", 5) +
                  "error: GetPropertyIds(): setting 'MaxTextCharCount' is missing: the limit is "
                  "read at the zero address (interface object 0, property 0), and without a "
                  "value there no document is written"},
                 1},
        FlawCase{"MissingLimitWithDump",
                 "check_missing_limit.lua",
                 {"--dump", kCheckDump},
                 {At("check_missing_limit.lua", 5) +
                      "error: GetPropertyIds(): setting 'MaxTextCharCount' is missing: the limit "
                      "is read at the zero address (interface object 0, property 0), and without "
                      "a value there no document is written",
                  kNoDocument},
                 1},
        FlawCase{"MissingSetting",
                 "check_missing_setting.lua",
                 {},
                 {At("check_missing_setting.lua", 5) +
                  "warning: GetPropertyIds(): setting 'FolderIcon' is missing: read at the zero "
                  "address (interface object 0, property 0)"},
                 0},
        FlawCase{"SettingTypo",
                 "check_setting_typo.lua",
                 {},
                 {At("check_setting_typo.lua", 5) +
                      "warning: GetPropertyIds(): setting 'FolderIcons' is not read by the "
                      "plug-in (did you mean 'FolderIcon'?)",
                  At("check_setting_typo.lua", 5) +
                      "warning: GetPropertyIds(): setting 'FolderIcon' is missing: read at the "
                      "zero address (interface object 0, property 0)"},
                 0},
        FlawCase{"SettingsNotReturned",
                 "check_settings_nil.lua",
                 {},
                 {At("check_settings_nil.lua", 4) +
                  "error: GetPropertyIds(): returns nil, not a table: every setting is read at "
                  "the zero address (interface object 0, property 0), so no document is "
                  "written"},
                 1},
        FlawCase{"InterfaceObjectAsText",
                 "check_interface_object_text.lua",
                 {},
                 {At("check_interface_object_text.lua", 5) +
                  "error: GetPropertyIds(), setting 'ChannelType': 'InterfaceObjectId' is a "
                  "string ('1'), not an integer: interface object 0 is read"},
                 1},
        FlawCase{"BooleanKeysInTheSettings",
                 "check_settings_boolean_key.lua",
                 {},
                 {At("check_settings_boolean_key.lua", 7) +
                      "warning: GetPropertyIds(): a key of type boolean in the settings table is "
                      "ignored",
                  At("check_settings_boolean_key.lua", 7) +
                      "warning: GetPropertyIds(), setting 'ChannelType': a key of type boolean in "
                      "a property table is ignored"},
                 0},
        FlawCase{"StaticDataAsList",
                 "check_static_list.lua",
                 {},
                 {At("check_static_list.lua", 4) +
                  "error: GetStaticData(): numeric key [1] in the static-data table: the "
                  "download aborts"},
                 1},
        FlawCase{"SubDataAsList",
                 "check_list_subdata.lua",
                 {},
                 {At("check_list_subdata.lua", 4) +
                  "error: GetStaticData(), entry 'Timers': numeric key [1] in a SubData table: "
                  "the download aborts"},
                 1},
        FlawCase{"SubDataCycle",
                 "check_subdata_cycle.lua",
                 {},
                 {At("check_subdata_cycle.lua", 4) +
                  "error: GetStaticData(), entry 'Timers/Again': contains itself through SubData: "
                  "the nesting never ends and the download would abort"},
                 1},
        FlawCase{"EnabledPropertyAsFlag",
                 "check_enabled_flag.lua",
                 {},
                 {At("check_enabled_flag.lua", 4) +
                  "warning: GetStaticData(), entry 'Weather': 'EnabledProperty' is a boolean "
                  "(true), not a table: the record is always written"},
                 0},
        FlawCase{"EnabledPropertyAsList",
                 "check_enabled_property_list.lua",
                 {},
                 {At("check_enabled_property_list.lua", 4) +
                  "error: GetStaticData(), entry 'Weather': EnabledProperty: numeric key [1] in a "
                  "property table: the download aborts"},
                 1},
        FlawCase{"BooleanKeysInStaticData",
                 "check_static_boolean_key.lua",
                 {},
                 {At("check_static_boolean_key.lua", 4) +
                      "warning: GetStaticData(): a key of type boolean in the static-data table "
                      "is ignored",
                  At("check_static_boolean_key.lua", 4) +
                      "warning: GetStaticData(), entry 'Weather': a key of type boolean in a "
                      "static-data entry is ignored"},
                 0},
        FlawCase{"EndlessLoop",
                 "check_endless_loop.lua",
                 {},
                 {At("check_endless_loop.lua", 7) +
                  "error: GetStaticData(): runs for more than 2000000 Lua instructions and was "
                  "stopped (an endless loop?): the download would hang"},
                 1},
        FlawCase{"EndlessLoopSkipsThePlugIn",
                 "check_endless_loop.lua",
                 {"--dump", kCheckDump},
                 {At("check_endless_loop.lua", 7) +
                  "error: GetStaticData(): runs for more than 2000000 Lua instructions and was "
                  "stopped (an endless loop?): the download would hang"},
                 1},
        FlawCase{"PropertyNotInTheDownload",
                 "check_missing_property.lua",
                 {"--dump", kCheckDump},
                 {At("check_missing_property.lua", 6) +
                  "warning: GetParametersFromChannelTypeId(1), parameter 'State': Property "
                  "(interface object 1, property 99) is not in the download: interface object 1 "
                  "has no property 99"},
                 0},
        FlawCase{"PropertyNotCheckedWithoutDump", "check_missing_property.lua", {}, {}, 0},
        FlawCase{"Float16OnAOneByteProperty",
                 "check_float16_one_byte.lua",
                 {"--dump", kCheckDump},
                 {At("check_float16_one_byte.lua", 6) +
                  "error: GetParametersFromChannelTypeId(2), parameter 'Setpoint': property "
                  "narrower than the value type: Float16 reads 2 bytes but each element of "
                  "interface object 1, property 52 holds 1 byte: the value takes in the bytes "
                  "after it"},
                 1},
        FlawCase{"WidthsAreNotCheckedWithoutDump", "check_float16_one_byte.lua", {}, {}, 0},
        FlawCase{"ShowIfArgumentOnANarrowProperty",
                 "check_showif_narrow.lua",
                 {"--dump", kCheckDump},
                 {At("check_showif_narrow.lua", 7) +
                  "error: GetParametersFromChannelTypeId(1), parameter 'State': property "
                  "narrower than the value type: ShowIf entry 1: UInt16 reads 2 bytes but each "
                  "element of interface object 1, property 52 holds 1 byte: the value takes in "
                  "the bytes after it"},
                 1},
        FlawCase{"ShowIfArgumentNotInTheDownload",
                 "check_showif_missing_argument.lua",
                 {"--dump", kCheckDump},
                 {At("check_showif_missing_argument.lua", 9) +
                  "warning: GetParametersFromChannelTypeId(1), parameter 'State': ShowIf "
                  "PropertyIds entry [1]: Id (interface object 1, property 98) is not in the "
                  "download: interface object 1 has no property 98"},
                 0},
        FlawCase{"NestedStaticDataOnANarrowProperty",
                 "check_static_narrow.lua",
                 {"--dump", kCheckDump},
                 {At("check_static_narrow.lua", 10) +
                  "error: GetStaticData(), entry 'Weather/Today', parameter 'Low': property "
                  "narrower than the value type: Float16 reads 2 bytes but each element of "
                  "interface object 2, property 70 holds 1 byte: the value takes in the bytes "
                  "after it"},
                 1},
        FlawCase{"PropertyWiderThanTheValueType",
                 "check_wide_property.lua",
                 {"--dump", kCheckDump},
                 {At("check_wide_property.lua", 6) +
                  "warning: GetParametersFromChannelTypeId(1), parameter 'Colour': property wider "
                  "than the value type: UInt8 reads 1 byte but each element of interface object "
                  "1, property 55 holds 4 bytes: the value is read from its first bytes only"},
                 0},
        FlawCase{"ArrayShorterThanTheSlots",
                 "check_short_array.lua",
                 {"--dump", kCheckDump},
                 {At("check_short_array.lua", 6) +
                  "warning: GetParametersFromChannelTypeId(2), parameter 'Icon': no element for "
                  "the slot: interface object 0, property 42 has 1 elements, fewer than its slots "
                  "need: UInt16 read as 0"},
                 0},
        FlawCase{"UnavailableLibraryFunctions",
                 "check_unavailable_library.lua",
                 {},
                 {At("check_unavailable_library.lua", 5) +
                      "error: io.open is not available to description scripts: using it raises "
                      "an error",
                  At("check_unavailable_library.lua", 6) +
                      "error: os.execute is not available to description scripts: using it "
                      "raises an error",
                  At("check_unavailable_library.lua", 7) +
                      "error: __gc metamethods are not available to description scripts: "
                      "setmetatable raises an error for a metatable with __gc",
                  At("check_unavailable_library.lua", 8) +
                      "error: debug.getinfo is not available to description scripts: using it "
                      "raises an error",
                  At("check_unavailable_library.lua", 11) +
                      "error: os.exit is not available to description scripts: using it raises "
                      "an error",
                  At("check_unavailable_library.lua", 11) +
                      "warning: HandleDcsType(0-255): raises an error: os.exit is not available "
                      "to description scripts: the plug-in logs an error and goes on"},
                 1}),
    [](const ::testing::TestParamInfo<FlawCase>& param) { return std::string(param.param.name); });

TEST_F(CheckScriptTest, EndlessLoopLeavesNoDocumentSummary) {
  const Outcome outcome =
      Run({"check-script", kData + "/check_endless_loop.lua", "--dump", kCheckDump});
  EXPECT_EQ(outcome.exitCode, 1);
  EXPECT_TRUE(Contains(outcome.out,
                       "info: no document summary: the plug-in would not come back from this "
                       "script\n"))
      << outcome.out;
  EXPECT_FALSE(Contains(outcome.out, "document: ")) << outcome.out;
}

TEST_F(CheckScriptTest, PlugInLogShowsWhyNoDocumentIsWritten) {
  const Outcome outcome = Run({"check-script", kData + "/check_missing_limit.lua", "--dump",
                               kCheckDump, "--log-level", "ERROR"});
  EXPECT_EQ(outcome.exitCode, 1);
  EXPECT_TRUE(Contains(outcome.err,
                       "ERROR KnxDownloadHandler - Max text char count not set. PropertyId: 0\n"))
      << outcome.err;
}

TEST_F(CheckScriptTest, PlugInLogKeepsTheChosenLevelWhileItsSkipsAreRead) {
  const std::string script = kData + "/check_float16_one_byte.lua";
  const Outcome debug = Run({"check-script", script, "--dump", kCheckDump, "--log-level", "DEBUG"});
  // The scratch directory's name varies: the INFO line is compared up to it.
  const std::vector<std::string> lines = SplitLines(debug.err);
  ASSERT_EQ(lines.size(), 3U) << debug.err;
  EXPECT_EQ(lines[0],
            "DEBUG KnxDownloadHandler - CreateFileWithKnxData: CO count with enabled communication "
            "flag: 2");
  EXPECT_EQ(lines[1], "DEBUG KnxDownloadHandler - CO count with enabled communication flag: 2");
  EXPECT_EQ(lines[2].rfind("INFO KnxDownloadHandler - save new etsproject. Path: ", 0), 0U)
      << lines[2];
  const Outcome trace = Run({"check-script", script, "--dump", kCheckDump, "--log-level", "TRACE"});
  EXPECT_TRUE(Contains(trace.err,
                       "TRACE KnxDownloadHandler - folder 0/function 2 (functionId 3), parameter "
                       "'Setpoint': property narrower than the value type: Float16 reads 2 bytes "
                       "but each element of interface object 1, property 52 holds 1 byte: the "
                       "value takes in the bytes after it\n"))
      << trace.err;
  EXPECT_EQ(Problems(trace.out), Problems(debug.out));
}

TEST_F(CheckScriptTest, FindingsAboutOneTableComeInTheSameOrderEveryRun) {
  const std::string script = kData + "/check_several_flaws.lua";
  const std::string where = At("check_several_flaws.lua", 6) +
                            "warning: GetParametersFromChannelTypeId(1), parameter 'Power': ";
  const std::vector<std::string> expected = {
      where + "unknown field 'Colour' is ignored",
      where + "unknown field 'Digit' is ignored (did you mean 'Digits'?)",
      where + "'Digits' is a float (2.0), not an integer: no decimals",
      where + "unknown field 'Size' is ignored"};
  // Lua walks a table's fields in an order that changes from run to run.
  for (int run = 0; run < 4; ++run) {
    EXPECT_EQ(Problems(Run({"check-script", script}).out), expected);
  }
}

TEST_F(CheckScriptTest, ScriptPrintOutputGoesToStandardError) {
  const auto script = dir.WriteFile("printing.lua", "dofile(\"" + kBase +
                                                        "\")\n"
                                                        "print(\"loaded\", 42)\n");
  const Outcome outcome = Run({"check-script", script.string()});
  EXPECT_EQ(outcome.exitCode, 0) << outcome.out;
  EXPECT_EQ(outcome.err, "loaded\t42\n");
  EXPECT_EQ(LastLine(outcome.out), "check-script: 0 errors, 0 warnings");
}

TEST_F(CheckScriptTest, MissingPlugInExitsWithThreeAfterTheFindings) {
  const Outcome outcome =
      Run({"check-script", kBase, "--dump", kCheckDump, "--plugin", "/no/such/plugin.so"});
  EXPECT_EQ(outcome.exitCode, 3);
  EXPECT_EQ(LastLine(outcome.out), "check-script: 0 errors, 0 warnings");
  EXPECT_EQ(outcome.err,
            "knx-download-host: cannot load the plug-in: /no/such/plugin.so: cannot open shared "
            "object file: No such file or directory\n");
}

TEST_F(CheckScriptTest, BadDumpExitsWithTwo) {
  const auto dump = dir.WriteFile("x.json", "{\"interfaceObjects\": [], \"memroy\": {}}");
  const Outcome outcome = Run({"check-script", kBase, "--dump", dump.string()});
  EXPECT_EQ(outcome.exitCode, 2);
  EXPECT_EQ(outcome.out, "");
  EXPECT_EQ(
      outcome.err,
      "knx-download-host: bad dump '" + dump.string() +
          "': /memroy: unknown key (allowed here: interfaceObjects, memory, coDescriptors)\n");
}

struct CheckUsageCase {
  const char* name;
  std::vector<std::string> args;
  std::string message;
};

std::ostream& operator<<(std::ostream& os, const CheckUsageCase& usage) { return os << usage.name; }

class CheckScriptUsageTest : public CheckScriptTest,
                             public ::testing::WithParamInterface<CheckUsageCase> {};

TEST_P(CheckScriptUsageTest, ExitsWithTwoAndAMessage) {
  const Outcome outcome = Run(GetParam().args);
  EXPECT_EQ(outcome.exitCode, 2);
  EXPECT_EQ(outcome.out, "");
  EXPECT_EQ(outcome.err, "knx-download-host: " + GetParam().message + "\n" + kUsageHint);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, CheckScriptUsageTest,
    ::testing::Values(CheckUsageCase{"NoScript", {"check-script"}, "script is required"},
                      CheckUsageCase{"MissingScript",
                                     {"check-script", "/no/such.lua"},
                                     "script: File does not exist: /no/such.lua"},
                      CheckUsageCase{"DownloadOption",
                                     {"--config", "a;b", "check-script", kBase},
                                     "--config cannot be used with check-script"},
                      CheckUsageCase{"UnknownLevel",
                                     {"check-script", kBase, "--log-level", "LOUD"},
                                     "--log-level: LOUD not in {TRACE,DEBUG,INFO,WARN,ERROR,OFF}"},
                      CheckUsageCase{"TwoScripts",
                                     {"check-script", kBase, kBase},
                                     "The following argument was not expected: " + kBase}),
    [](const ::testing::TestParamInfo<CheckUsageCase>& param) {
      return std::string(param.param.name);
    });

TEST_F(CheckScriptTest, HelpNamesTheSubcommand) {
  const Outcome main = Run({"--help"});
  EXPECT_EQ(main.exitCode, 0);
  EXPECT_TRUE(Contains(main.out, "   or: knx-download-host check-script [OPTIONS] script\n"))
      << main.out;

  const Outcome sub = Run({"check-script", "--help"});
  EXPECT_EQ(sub.exitCode, 0);
  EXPECT_TRUE(Contains(sub.out, "Usage: knx-download-host check-script [OPTIONS] script\n"))
      << sub.out;
  EXPECT_TRUE(Contains(sub.out, "--dump DUMP.json")) << sub.out;
}

}  // namespace
