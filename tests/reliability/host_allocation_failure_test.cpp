// The installed knx-download-host with heap allocations failing, one at a time
// and in runs, through an LD_PRELOAD shim that counts from the process start:
// static initialisers, option parsing, log4cplus set-up, the dump parser, the
// plug-in, teardown. The command must never end by a signal: it runs its calls
// (a failed download is the plug-in's own clean "result: false"), or it exits
// with status 71 and the one line "knx-download-host: out of memory".

#include "../host/HostProcess.h"

#include <TempDir.h>

#include <gtest/gtest.h>
#include <boost/filesystem/operations.hpp>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>

#include <cerrno>
#include <cstring>
#include <iostream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace {

namespace fs = boost::filesystem;
using lkdh::test::TempDir;

const std::string kHost = LKDH_INSTALLED_HOST;
const std::string kShim = LKDH_FAIL_ALLOCATION_SHIM;
const std::string kScript = LKDH_SOURCE_DIR "/examples/demo/demo.lua";
const std::string kDump = LKDH_SOURCE_DIR "/examples/demo/demo-download.json";
const std::string kOutOfMemory = "knx-download-host: out of memory\n";
constexpr int kExitNoMemory = 71;

// After the first kEveryOneUpTo positions, every kStride-th: each run starts a
// process, and a run of the host makes some thousands of allocations.
#if defined(LKDH_HOST_SWEEP_STRIDE)
constexpr unsigned long kStride = LKDH_HOST_SWEEP_STRIDE;
#else
constexpr unsigned long kStride = 7;
#endif
#if defined(LKDH_HOST_SWEEP_EVERY_ONE_UP_TO)
constexpr unsigned long kEveryOneUpTo = LKDH_HOST_SWEEP_EVERY_ONE_UP_TO;
#else
constexpr unsigned long kEveryOneUpTo = 400;
#endif

struct HostRun {
  int exitCode = -1;     // 128 + signal when killed
  bool reached = false;  // the process made at least as many allocations as the position
  std::string out;
  std::string err;
};

class HostAllocationFailureTest : public ::testing::Test {
 protected:
  void SetUp() override {
#if defined(LKDH_UNDER_SANITIZER)
    GTEST_SKIP() << "AddressSanitizer's runtime must come first; it cannot run behind a preloaded "
                    "allocator";
#endif
    fs::create_directory(m_project);
  }

  // The host with allocations first .. first + count - 1 failing.
  HostRun RunHost(unsigned long first, unsigned long count) {
    fs::remove(m_mark);
    fs::remove(m_project / "etsproject.xml");
    const std::string outPath = (m_dir.Path() / "stdout.txt").string();
    const std::string errPath = (m_dir.Path() / "stderr.txt").string();
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                     0600);
    posix_spawn_file_actions_addopen(&actions, 2, errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                     0600);

    std::vector<std::string> environment;
    for (char** variable = environ; *variable != nullptr; ++variable) {
      environment.emplace_back(*variable);
    }
    environment.push_back("LKDH_FAIL_ALLOCATION=" + std::to_string(first) + "+" +
                          std::to_string(count));
    environment.push_back("LKDH_FAIL_ALLOCATION_MARK=" + m_mark.string());
    std::vector<std::string> words = lkdh::test::EmulatorPrefix();
    const bool emulated = !words.empty();
    // Under an emulator the preload belongs to the emulated program, not to the emulator.
    if (emulated) {
      words.push_back("-E");
      words.push_back("LD_PRELOAD=" + kShim);
    } else {
      environment.push_back("LD_PRELOAD=" + kShim);
    }
    words.insert(words.end(), {kHost, "--config",
                               (m_project / "etsproject.xml").string() + ";" + kScript, kDump});
    std::vector<char*> argv;
    for (auto& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    std::vector<char*> envp;
    for (auto& variable : environment) envp.push_back(variable.data());
    envp.push_back(nullptr);

    HostRun run;
    pid_t pid = 0;
    const int spawned =
        !emulated || words.front().front() == '/'
            ? posix_spawn(&pid, words.front().c_str(), &actions, nullptr, argv.data(), envp.data())
            : posix_spawnp(&pid, words.front().c_str(), &actions, nullptr, argv.data(),
                           envp.data());
    posix_spawn_file_actions_destroy(&actions);
    if (spawned != 0) {
      ADD_FAILURE() << "cannot start " << words.front() << ": " << std::strerror(spawned);
      return run;
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
      if (errno != EINTR) {
        ADD_FAILURE() << "waitpid failed: " << std::strerror(errno);
        return run;
      }
    }
    run.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    run.reached = fs::exists(m_mark);
    run.out = lkdh::test::ReadWholeFile(outPath);
    run.err = lkdh::test::ReadWholeFile(errPath);
    return run;
  }

  static std::string LastLine(const std::string& text) {
    if (text.empty() || text.back() != '\n') return {};
    const auto start = text.rfind('\n', text.size() - 2);
    return text.substr(start == std::string::npos ? 0 : start + 1);
  }

  // What a run may end in; empty when allowed, else what is wrong.
  static std::string Problem(const HostRun& run) {
    if (run.exitCode == kExitNoMemory) {
      // One line of its own, the last; nothing after it.
      const auto at = run.err.find(kOutOfMemory);
      if (at == std::string::npos || at + kOutOfMemory.size() != run.err.size() ||
          (at != 0 && run.err[at - 1] != '\n')) {
        return "status 71 without the line";
      }
      return {};
    }
    if (run.exitCode == 0) {
      if (run.out == "reset-user-data\nresult: true\n" || run.out == "result: false\n") return {};
      return "status 0 with the output '" + run.out + "'";
    }
    // The dynamic loader and the interpreter's creation report a lack of memory
    // as their own failure: the plug-in cannot be loaded, the handler is not loaded.
    if (run.exitCode == 3 &&
        LastLine(run.err).rfind("knx-download-host: cannot load the plug-in: ", 0) == 0) {
      return {};
    }
    if (run.exitCode == 4 &&
        LastLine(run.err).rfind("knx-download-host: the handler is not loaded", 0) == 0) {
      return {};
    }
    if (run.exitCode > 128) return "killed by signal " + std::to_string(run.exitCode - 128);
    return "status " + std::to_string(run.exitCode);
  }

  // Tries positions from 1 on, every one up to everyOneUpTo and then every
  // step-th, while the host still reaches the position.
  std::map<std::string, unsigned> Sweep(unsigned long everyOneUpTo, unsigned long step,
                                        unsigned long count, unsigned long& positions) {
    std::map<std::string, unsigned> outcomes;
    int reported = 0;
    for (unsigned long n = 1;; n += n < everyOneUpTo ? 1 : step) {
      const HostRun run = RunHost(n, count);
      if (!run.reached) {
        EXPECT_EQ(run.exitCode, 0) << "without a fault: " << run.err;
        break;
      }
      ++positions;
      const std::string problem = Problem(run);
      if (!problem.empty() && ++reported <= 10) {
        ADD_FAILURE() << "allocations " << n << " to " << n + count - 1 << " failing: " << problem
                      << "\nstderr:\n"
                      << run.err;
      }
      std::string kind =
          problem.empty()
              ? (run.exitCode == kExitNoMemory  ? "status 71, out of memory"
                 : run.out == "result: false\n" ? "status 0, the download failed cleanly"
                                                : "status 0, the document written")
              : "WRONG: " + problem;
      ++outcomes[kind];
    }
    return outcomes;
  }

  static void Print(const std::string& key, const std::string& title, unsigned long positions,
                    const std::map<std::string, unsigned>& outcomes) {
    RecordProperty(key + ".positions", std::to_string(positions));
    std::string kinds;
    for (const auto& [kind, number] : outcomes)
      kinds += std::to_string(number) + "\t" + kind + "\n";
    RecordProperty(key + ".outcomes", kinds);
    std::ostringstream text;
    text << title << ": " << positions << " positions\n";
    for (const auto& [kind, number] : outcomes) text << "  " << number << " x " << kind << '\n';
    std::cout << text.str() << std::flush;
  }

  TempDir m_dir;
  fs::path m_project = m_dir.Path() / "project";
  fs::path m_mark = m_dir.Path() / "reached";
};

TEST_F(HostAllocationFailureTest, NoFailedAllocationEndsTheCommandBySignal) {
  unsigned long positions = 0;
  // Every one of the first ones (static initialisers, option parsing, logging
  // set-up), then every few to the end of the run.
  auto outcomes = Sweep(kEveryOneUpTo, kStride, 1, positions);
  Print("single", "host, one allocation failing", positions, outcomes);
  RecordProperty("every_one_up_to", std::to_string(kEveryOneUpTo));
  RecordProperty("stride", std::to_string(kStride));
  for (const auto& [kind, number] : outcomes) {
    EXPECT_EQ(kind.rfind("WRONG", 0), std::string::npos) << number << " x " << kind;
  }
  EXPECT_GT(outcomes["status 71, out of memory"], 0U);
  EXPECT_GT(outcomes["status 0, the download failed cleanly"], 0U);
}

TEST_F(HostAllocationFailureTest, RunsOfFailedAllocationsEndTheCommandWithItsLine) {
  unsigned long positions = 0;
  auto outcomes = Sweep(0, 3 * kStride, 16, positions);
  Print("runs_of_16", "host, runs of 16 allocations failing", positions, outcomes);
  for (const auto& [kind, number] : outcomes) {
    EXPECT_EQ(kind.rfind("WRONG", 0), std::string::npos) << number << " x " << kind;
  }
  EXPECT_GT(outcomes["status 71, out of memory"], 0U);
}

TEST_F(HostAllocationFailureTest, MemoryThatNeverComesBackEndsWithTheLine) {
  // From some point on every allocation fails, teardown included.
  unsigned long positions = 0;
  auto outcomes = Sweep(0, 5 * kStride, 1000000000UL, positions);
  Print("for_good", "host, every allocation failing from a position on", positions, outcomes);
  for (const auto& [kind, number] : outcomes) {
    EXPECT_EQ(kind.rfind("WRONG", 0), std::string::npos) << number << " x " << kind;
  }
}

}  // namespace
