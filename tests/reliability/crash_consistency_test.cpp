// Kills the installed knx-download-host with SIGKILL at random moments while it
// writes one of two documents alternately, as a power cut or a crash would, and
// checks after every kill that the project file is one whole document, never a
// truncated or mixed one, and that temporaries do not pile up.

#include <TempDir.h>

#include <gtest/gtest.h>
#include <boost/filesystem/operations.hpp>

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace {

namespace fs = boost::filesystem;
using Clock = std::chrono::steady_clock;
using lkdh::test::ReadWholeFile;
using lkdh::test::TempDir;

const std::string kHost = LKDH_INSTALLED_HOST;
const std::string kScript = LKDH_SOURCE_DIR "/examples/demo/demo.lua";
const std::string kDemoDump = LKDH_SOURCE_DIR "/examples/demo/demo-download.json";

constexpr int kTrials = 200;
constexpr auto kTimeBudget = std::chrono::seconds(120);
// Under an emulator every run is many times slower; the trials must still all happen.
constexpr auto kEmulatedTimeBudget = std::chrono::seconds(480);
// Every call rewrites the file, so that a kill lands inside a write more often
// than with the single call of a real download, whose start-up dominates.
constexpr const char* kCallsPerRun = "8";

// "qemu-arm -L SYSROOT" in front of the command when the tests run under an emulator.
std::vector<std::string> EmulatorPrefix() {
  std::vector<std::string> words;
  const char* emulator = std::getenv("LKDH_TEST_EMULATOR");
  if (emulator == nullptr) return words;
  std::istringstream in(emulator);
  for (std::string word; in >> word;) words.push_back(word);
  return words;
}

pid_t StartHost(const fs::path& project, const fs::path& dump) {
  std::vector<std::string> args = EmulatorPrefix();
  const std::vector<std::string> command{
      kHost,        "--config",    project.string() + ";" + kScript,
      "--app-data", "1",           "--repeat",
      kCallsPerRun, "--log-level", "ERROR",
      dump.string()};
  args.insert(args.end(), command.begin(), command.end());
  std::vector<char*> argv;
  for (auto& arg : args) argv.push_back(arg.data());
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
  pid_t pid = -1;
  const int spawned = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (spawned != 0) {
    ADD_FAILURE() << "cannot start " << argv[0] << ": " << std::strerror(spawned);
    return -1;
  }
  return pid;
}

int Wait(pid_t pid) {
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) {
      ADD_FAILURE() << "waitpid failed: " << std::strerror(errno);
      return -1;
    }
  }
  return status;
}

// One uninterrupted run; returns its duration.
Clock::duration RunToCompletion(const fs::path& project, const fs::path& dump) {
  const auto start = Clock::now();
  const pid_t pid = StartHost(project, dump);
  if (pid < 0) return {};
  const int status = Wait(pid);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
  return Clock::now() - start;
}

std::vector<std::string> Temporaries(const fs::path& directory, const std::string& target) {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(directory)) {
    const std::string name = entry.path().filename().string();
    if (name.rfind("." + target + ".tmp-", 0) == 0) names.push_back(name);
  }
  return names;
}

std::string Describe(const std::string& content) {
  std::ostringstream out;
  out << content.size() << " bytes, ending \""
      << content.substr(content.size() > 40 ? content.size() - 40 : 0) << "\"";
  return out.str();
}

TEST(CrashConsistency, KillsAtRandomMomentsLeaveOneWholeDocument) {
  TempDir dir;
  // The second document differs from the demo in one folder name.
  std::string alternative = ReadWholeFile(kDemoDump);
  const auto folder = alternative.find("\"Living room\"");
  ASSERT_NE(folder, std::string::npos);
  alternative.replace(folder, 13, "\"Living area\"");
  const fs::path dumps[2] = {kDemoDump, dir.WriteFile("alternative.json", alternative)};

  // The two complete documents, and how long an uninterrupted run takes: the
  // median of three runs of each, so that one slow start does not stretch every trial.
  std::string documents[2];
  std::vector<Clock::duration> durations;
  for (int i = 0; i < 2; ++i) {
    fs::create_directory(dir.Path() / ("reference-" + std::to_string(i)));
    const fs::path reference = dir.Path() / ("reference-" + std::to_string(i)) / "etsproject.xml";
    for (int run = 0; run < 3; ++run) durations.push_back(RunToCompletion(reference, dumps[i]));
    documents[i] = ReadWholeFile(reference);
  }
  ASSERT_FALSE(documents[0].empty());
  ASSERT_NE(documents[0], documents[1]);
  std::sort(durations.begin(), durations.end());
  const auto uninterrupted = durations[durations.size() / 2];
  const auto window =
      std::chrono::duration_cast<std::chrono::microseconds>(uninterrupted) * 12 / 10;
  std::cout << "uninterrupted run: "
            << std::chrono::duration_cast<std::chrono::milliseconds>(uninterrupted).count()
            << " ms (median of " << durations.size() << "), kill window 0 to "
            << window.count() / 1000 << " ms\n";

  const fs::path work = dir.Path() / "device";
  fs::create_directory(work);
  const fs::path project = work / "etsproject.xml";
  const std::uint64_t seed = std::random_device{}();
  std::mt19937_64 random(seed);
  std::uniform_int_distribution<std::int64_t> delay(0, window.count());

  int killed = 0, finishedFirst = 0, temporaryLeft = 0, absent = 0, maxTemporaries = 0;
  int outcome[2] = {0, 0};
  bool everWritten = false;
  std::vector<std::string> previousTemporaries;
  const auto budget =
      std::getenv("LKDH_TEST_EMULATOR") != nullptr ? kEmulatedTimeBudget : kTimeBudget;
  const auto start = Clock::now();
  int trial = 0;
  for (; trial < kTrials; ++trial) {
    ASSERT_LT(Clock::now() - start, budget)
        << "only " << trial << " trials in " << budget.count() << " s; is the machine overloaded?";
    const int which = trial % 2;
    const pid_t pid = StartHost(project, dumps[which]);
    ASSERT_GT(pid, 0);
    std::this_thread::sleep_for(std::chrono::microseconds(delay(random)));
    ::kill(pid, SIGKILL);  // a finished child is an unreaped zombie, so the pid is still its own
    const int status = Wait(pid);
    if (WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) {
      ++killed;
    } else {
      ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
      ++finishedFirst;
    }

    const auto temporaries = Temporaries(work, project.filename().string());
    maxTemporaries = std::max(maxTemporaries, static_cast<int>(temporaries.size()));
    EXPECT_LE(temporaries.size(), 1U) << "trial " << trial;
    // One left by an earlier kill may still be there when this run died before writing.
    for (const auto& name : temporaries) {
      if (std::find(previousTemporaries.begin(), previousTemporaries.end(), name) ==
          previousTemporaries.end()) {
        ++temporaryLeft;
      }
    }
    previousTemporaries = temporaries;

    if (!fs::exists(project)) {
      EXPECT_FALSE(everWritten) << "trial " << trial << ": the project file disappeared";
      ++absent;
      continue;
    }
    everWritten = true;
    const std::string content = ReadWholeFile(project);
    if (content == documents[0]) {
      ++outcome[0];
    } else if (content == documents[1]) {
      ++outcome[1];
    } else {
      ADD_FAILURE() << "trial " << trial << " (seed " << seed << "): the project file is neither "
                    << "document: " << Describe(content);
    }
  }
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();

  // A final complete run removes whatever temporary the last kill left.
  RunToCompletion(project, dumps[0]);
  EXPECT_EQ(ReadWholeFile(project), documents[0]);
  EXPECT_TRUE(Temporaries(work, project.filename().string()).empty());

  RecordProperty("trials", trial);
  RecordProperty("killed", killed);
  RecordProperty("finished_before_kill", finishedFirst);
  RecordProperty("kills_during_write", temporaryLeft);
  RecordProperty("file_absent", absent);
  RecordProperty("file_document_a", outcome[0]);
  RecordProperty("file_document_b", outcome[1]);
  RecordProperty("max_temporaries", maxTemporaries);
  RecordProperty("run_ms",
                 static_cast<int>(
                     std::chrono::duration_cast<std::chrono::milliseconds>(uninterrupted).count()));
  RecordProperty("seconds", static_cast<int>(seconds + 0.5));
  RecordProperty("seed", std::to_string(seed));
  std::cout << "crash trials: " << trial << " in " << seconds << " s (seed " << seed
            << "), uninterrupted run "
            << std::chrono::duration_cast<std::chrono::milliseconds>(uninterrupted).count()
            << " ms, killed " << killed << ", finished before the kill " << finishedFirst
            << ", kills during a write (temporary left) " << temporaryLeft << ", file absent "
            << absent << ", document A " << outcome[0] << ", document B " << outcome[1]
            << ", most temporaries at once " << maxTemporaries << "\n";
}

}  // namespace
