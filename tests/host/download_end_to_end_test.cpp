// Whole downloads through the installed knx-download-host and plug-in: what
// the device's host sees of the saved file, the reset callback and the log.

#include "HostProcess.h"

#include <SchemaValidation.h>
#include <TempDir.h>

#include <gtest/gtest.h>
#include <boost/filesystem/operations.hpp>

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
const std::string kDemoScript = LKDH_SOURCE_DIR "/examples/demo/demo.lua";
const std::string kDemoDump = LKDH_SOURCE_DIR "/examples/demo/demo-download.json";
const std::string kDemoExpected = LKDH_SOURCE_DIR "/examples/demo/expected-etsproject.xml";

std::string Replaced(std::string text, const std::string& from, const std::string& to) {
  const std::size_t at = text.find(from);
  if (at == std::string::npos) {
    ADD_FAILURE() << "'" << from << "' is not in the text";
    return text;
  }
  return text.replace(at, from.size(), to);
}

class DownloadEndToEndTest : public ::testing::Test {
 protected:
  TempDir dir;
  fs::path project = dir.Path() / "etsproject.xml";

  Outcome Download(const fs::path& target, const std::string& script,
                   const std::vector<std::string>& more, const std::string& dump) const {
    std::vector<std::string> args{"--config", target.string() + ";" + script};
    args.insert(args.end(), more.begin(), more.end());
    args.push_back(dump);
    return lkdh::test::RunHost(kHost, dir.Path(), args);
  }

  Outcome Download(const std::vector<std::string>& more = {}) const {
    return Download(project, kScript, more, kDump);
  }

  std::string SaveLine(const fs::path& target) const {
    return "INFO KnxDownloadHandler - save new etsproject. Path: " + target.string() + "\n";
  }
};

TEST_F(DownloadEndToEndTest, DemoDeviceWritesTheExpectedDocumentByteForByte) {
  const Outcome outcome = Download(project, kDemoScript, {}, kDemoDump);
  EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
  EXPECT_EQ(outcome.out, "reset-user-data\nresult: true\n");
  EXPECT_EQ(outcome.err, SaveLine(project));
  const std::string text = ReadWholeFile(project);
  EXPECT_EQ(text, ReadWholeFile(kDemoExpected));
  EXPECT_TRUE(lkdh::test::MatchesEtsprojectSchema(text));
}

TEST_F(DownloadEndToEndTest, DemoDeviceDownloadedAgainIsTheSameDocument) {
  ASSERT_EQ(Download(project, kDemoScript, {}, kDemoDump).exitCode, 0);
  const Outcome again = Download(project, kDemoScript, {"--log-level", "DEBUG"}, kDemoDump);
  EXPECT_EQ(again.exitCode, 0) << again.err;
  EXPECT_EQ(again.out, "result: false\n");
  EXPECT_NE(again.err.find("DEBUG KnxDownloadHandler - etsproject is same with saved "
                           "etsproject.\n"),
            std::string::npos)
      << again.err;
}

TEST_F(DownloadEndToEndTest, ResetUserDataSettingRewritesTheSameDocumentAndCallsBackEachTime) {
  const std::string dump =
      dir.WriteFile("reset.json",
                    Replaced(ReadWholeFile(kDump),
                             R"({ "id": 55, "pdt": "PDT_BINARY_INFORMATION", "values": [false] })",
                             R"({ "id": 55, "pdt": "PDT_BINARY_INFORMATION", "values": [true] })"))
          .string();
  const Outcome outcome = Download(project, kScript, {"--repeat", "2"}, dump);
  EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
  EXPECT_EQ(outcome.out, "reset-user-data\nresult: true\nreset-user-data\nresult: true\n");
  EXPECT_EQ(outcome.err, SaveLine(project) + SaveLine(project));
  EXPECT_NE(ReadWholeFile(project).find(R"(<parameter key="ResetUserData" value="True" />)"),
            std::string::npos);
}

TEST_F(DownloadEndToEndTest, ExistingFileThatCannotBeReadIsKeptWithoutCallback) {
  // A directory in the document's place exists but cannot be read as a file,
  // even by root, for whom permission bits would not stop the read.
  fs::create_directory(project);
  const Outcome outcome = Download();
  EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
  EXPECT_EQ(outcome.out, "result: false\n");
  EXPECT_EQ(outcome.err,
            "ERROR KnxDownloadHandler - Failed to read file '" + project.string() +
                "'.\nERROR KnxDownloadHandler - stat: a directory, not a regular file\n");
  EXPECT_TRUE(fs::is_directory(project));
  EXPECT_TRUE(fs::is_empty(project));
}

TEST_F(DownloadEndToEndTest, UnwritableTargetLogsTheWriteErrorWithoutCallback) {
  const fs::path target = dir.Path() / "no-such-directory" / "etsproject.xml";
  const Outcome outcome = Download(target, kScript, {}, kDump);
  EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
  EXPECT_EQ(outcome.out, "result: false\n");
  EXPECT_EQ(outcome.err, SaveLine(target) + "ERROR KnxDownloadHandler - Failed to write file '" +
                             target.string() +
                             "'.\nERROR KnxDownloadHandler - open: No such file or directory\n");
  EXPECT_FALSE(fs::exists(target.parent_path()));
}

TEST_F(DownloadEndToEndTest, SavedFileDifferingInOneByteIsReplaced) {
  ASSERT_EQ(Download().exitCode, 0);
  const std::string written = ReadWholeFile(project);
  const std::size_t at = written.find("Living");
  ASSERT_NE(at, std::string::npos);
  std::string changed = written;
  changed[at] = 'l';
  dir.WriteFile("etsproject.xml", changed);

  const Outcome outcome = Download();
  EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
  EXPECT_EQ(outcome.out, "reset-user-data\nresult: true\n");
  EXPECT_EQ(outcome.err, SaveLine(project));
  EXPECT_EQ(ReadWholeFile(project), written);
}

TEST_F(DownloadEndToEndTest, SameContentWrittenByAnotherRunIsNotReplaced) {
  ASSERT_EQ(Download().exitCode, 0);
  const std::string written = ReadWholeFile(project);
  // The same bytes, but a new file: only the content counts.
  fs::remove(project);
  dir.WriteFile("etsproject.xml", written);
  const Outcome outcome = Download();
  EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
  EXPECT_EQ(outcome.out, "result: false\n");
  EXPECT_EQ(outcome.err, "");
}

}  // namespace
