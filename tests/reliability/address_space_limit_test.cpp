// The installed knx-download-host under an address-space limit (RLIMIT_AS),
// with a script whose URNs make a document of tens of MiB: whatever the limit,
// the saved file is the previous one or the whole new document, never a part
// of it, and the command never ends by a signal.

#include <TempDir.h>

#include <gtest/gtest.h>
#include <boost/filesystem/operations.hpp>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

namespace {

namespace fs = boost::filesystem;
using lkdh::test::ReadWholeFile;
using lkdh::test::TempDir;

const std::string kHost = LKDH_INSTALLED_HOST;
const std::string kScript = LKDH_SOURCE_DIR "/examples/demo/demo.lua";
const std::string kDump = LKDH_SOURCE_DIR "/examples/demo/demo-download.json";
const std::string kPrevious = "<etsproject version=\"0.9\" />\n";

struct Outcome {
  int exitCode = -1;  // 128 + signal when killed
  std::string out;
  std::string err;
};

class AddressSpaceLimitTest : public ::testing::Test {
 protected:
  void SetUp() override {
#if defined(LKDH_UNDER_SANITIZER)
    GTEST_SKIP() << "AddressSanitizer reserves more address space than any limit here allows";
#endif
    if (std::getenv("LKDH_TEST_EMULATOR") != nullptr) {
      GTEST_SKIP() << "the emulator's own address space would count against the limit";
    }
    fs::create_directory(m_project);
    // Every function URN 4 MiB long: a document of some tens of MiB.
    std::ifstream in(kScript);
    std::stringstream script;
    script << in.rdbuf()
           << "\nfunction GetFunctionUrnByTypeId(typeId) return string.rep(\"u\", 4 * 1024 * "
              "1024) end\n";
    m_script = m_dir.WriteFile("large.lua", script.str());
  }

  // The host with at most limitBytes of address space (0: no limit).
  Outcome Run(rlim_t limitBytes) {
    const std::string outPath = (m_dir.Path() / "stdout.txt").string();
    const std::string errPath = (m_dir.Path() / "stderr.txt").string();
    const std::string config = m_file.string() + ";" + m_script.string();
    std::vector<std::string> words = {kHost, "--config", config, kDump};
    std::vector<char*> argv;
    for (auto& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    Outcome outcome;
    const pid_t pid = fork();
    if (pid < 0) {
      ADD_FAILURE() << "fork failed";
      return outcome;
    }
    if (pid == 0) {
      // Only async-signal-safe calls between fork and exec.
      const int out = open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      const int err = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      if (out < 0 || err < 0 || dup2(out, 1) < 0 || dup2(err, 2) < 0) _exit(120);
      if (limitBytes != 0) {
        const rlimit limit{limitBytes, limitBytes};
        if (setrlimit(RLIMIT_AS, &limit) != 0) _exit(121);
      }
      execv(argv[0], argv.data());
      _exit(122);
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
      if (errno != EINTR) {
        ADD_FAILURE() << "waitpid failed";
        return outcome;
      }
    }
    outcome.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    outcome.out = ReadWholeFile(outPath);
    outcome.err = ReadWholeFile(errPath);
    return outcome;
  }

  TempDir m_dir;
  fs::path m_project = m_dir.Path() / "project";
  fs::path m_file = m_project / "etsproject.xml";
  fs::path m_script;
};

TEST_F(AddressSpaceLimitTest, TheSavedFileIsTheOldOrTheWholeNewDocument) {
  const Outcome unlimited = Run(0);
  ASSERT_EQ(unlimited.exitCode, 0) << unlimited.err;
  ASSERT_EQ(unlimited.out, "reset-user-data\nresult: true\n");
  const std::string expected = ReadWholeFile(m_file);
  ASSERT_GT(expected.size(), 16U * 1024U * 1024U);

  int written = 0;
  int failed = 0;
  int outOfMemory = 0;
  for (const rlim_t mebibytes : {64, 96, 128, 160, 192, 256, 320, 384, 512, 768, 1024}) {
    m_dir.WriteFile("project/etsproject.xml", kPrevious);
    const Outcome run = Run(mebibytes * 1024 * 1024);
    const std::string saved = ReadWholeFile(m_file);
    const std::string where = "limit " + std::to_string(mebibytes) + " MiB";
    EXPECT_TRUE(saved == kPrevious || saved == expected)
        << where << ": a file of " << saved.size() << " bytes was saved";
    EXPECT_LT(run.exitCode, 128) << where << ": killed by signal " << run.exitCode - 128;
    if (run.exitCode == 0 && run.out == "reset-user-data\nresult: true\n") {
      EXPECT_EQ(saved, expected) << where;
      ++written;
    } else if (run.exitCode == 0) {
      EXPECT_EQ(run.out, "result: false\n") << where;
      EXPECT_EQ(saved, kPrevious) << where;
      EXPECT_NE(run.err.find("ERROR KnxDownloadHandler - "), std::string::npos)
          << where << ": " << run.err;
      ++failed;
    } else {
      // Out of memory before the download ran, or in the teardown after it.
      EXPECT_EQ(run.exitCode, 71) << where << ": " << run.err;
      EXPECT_EQ(run.err.substr(run.err.size() - std::min<std::size_t>(run.err.size(), 33)),
                "knx-download-host: out of memory\n")
          << where;
      if (run.out.find("result: true") == std::string::npos) {
        EXPECT_EQ(saved, kPrevious) << where;
      }
      ++outOfMemory;
    }
  }
  std::cout << expected.size() << " bytes of document; " << written << " limits wrote it, "
            << failed << " failed the download, " << outOfMemory << " ended out of memory\n";
  RecordProperty("document_bytes", std::to_string(expected.size()));
  RecordProperty("written", written);
  RecordProperty("failed", failed);
  RecordProperty("out_of_memory", outOfMemory);
  EXPECT_GT(written, 0);
  EXPECT_GT(failed, 0);
}

}  // namespace
