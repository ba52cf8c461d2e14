#pragma once
// Runs the installed knx-download-host as a child process and collects what it
// prints and how it exits. When the tests run under an emulator (a cross build
// run with qemu-arm), LKDH_TEST_EMULATOR holds its command line, which is put
// in front of the host's, since the kernel alone cannot start a foreign binary.

#include <TempDir.h>

#include <gtest/gtest.h>
#include <boost/filesystem/path.hpp>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

extern char** environ;

namespace lkdh::test {

struct Outcome {
  int exitCode = -1;  // 128 + signal when the command was killed
  std::string out;
  std::string err;
};

/// The words of LKDH_TEST_EMULATOR, separated by spaces or semicolons (CMake's
/// list separator); empty when it is unset or empty, and the host runs natively.
inline std::vector<std::string> EmulatorPrefix() {
  std::vector<std::string> words;
  const char* emulator = std::getenv("LKDH_TEST_EMULATOR");
  if (emulator == nullptr) return words;
  std::string word;
  for (const char* c = emulator;; ++c) {
    if (*c == '\0' || *c == ' ' || *c == ';' || *c == '\t') {
      if (!word.empty()) words.push_back(word);
      word.clear();
      if (*c == '\0') break;
    } else {
      word += *c;
    }
  }
  return words;
}

/// Runs host with args, behind the emulator's command when there is one. Its
/// output is captured in files in dir, which cannot fill up like pipes and
/// block the child.
inline Outcome RunHost(const std::string& host, const boost::filesystem::path& dir,
                       const std::vector<std::string>& args) {
  const std::string outPath = (dir / "stdout.txt").string();
  const std::string errPath = (dir / "stderr.txt").string();
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                   0600);
  posix_spawn_file_actions_addopen(&actions, 2, errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                   0600);
  std::vector<std::string> all = EmulatorPrefix();
  const bool emulated = !all.empty();
  all.push_back(host);
  all.insert(all.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (auto& arg : all) argv.push_back(arg.data());
  argv.push_back(nullptr);
  // The host runs from its path as given; an emulator may be a bare name, looked up in PATH.
  const std::string& program = all.front();
  pid_t pid = 0;
  const int spawned =
      !emulated || program.front() == '/'
          ? posix_spawn(&pid, program.c_str(), &actions, nullptr, argv.data(), environ)
          : posix_spawnp(&pid, program.c_str(), &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  Outcome outcome;
  if (spawned != 0) {
    ADD_FAILURE() << "cannot start " << program << ": " << std::strerror(spawned);
    return outcome;
  }
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) {
      ADD_FAILURE() << "waitpid failed: " << std::strerror(errno);
      return outcome;
    }
  }
  outcome.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  outcome.out = ReadWholeFile(outPath);
  outcome.err = ReadWholeFile(errPath);
  return outcome;
}

}  // namespace lkdh::test
