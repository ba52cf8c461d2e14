#include "SchemaValidation.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#ifndef LKDH_SOURCE_DIR
#error "LKDH_SOURCE_DIR must name the source tree (it holds docs/etsproject.xsd)"
#endif

extern char** environ;

namespace lkdh::test {
namespace {

constexpr const char* kSchemaPath = LKDH_SOURCE_DIR "/docs/etsproject.xsd";

// Removes the file and closes the descriptor when the check is done.
class TemporaryFile {
 public:
  TemporaryFile() {
    const char* dir = std::getenv("TMPDIR");
    std::string pattern = (dir != nullptr && *dir != '\0') ? dir : "/tmp";
    pattern += "/lkdh-etsproject-XXXXXX.xml";
    m_path.assign(pattern.begin(), pattern.end());
    m_path.push_back('\0');
    m_fd = ::mkostemps(m_path.data(), 4, O_CLOEXEC);
    if (m_fd < 0) m_error = errno;
  }
  ~TemporaryFile() {
    if (m_fd >= 0) {
      ::close(m_fd);
      ::unlink(m_path.data());
    }
  }
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;

  bool Ok() const noexcept { return m_fd >= 0; }
  int Error() const noexcept { return m_error; }
  const char* Path() const noexcept { return m_path.data(); }

  /// Writes all of text; false with errno set on failure.
  bool Write(const std::string& text) const {
    const char* data = text.data();
    std::size_t left = text.size();
    while (left > 0) {
      const ssize_t written = ::write(m_fd, data, left);
      if (written < 0) {
        if (errno == EINTR) continue;
        return false;
      }
      data += written;
      left -= static_cast<std::size_t>(written);
    }
    return true;
  }

 private:
  std::vector<char> m_path;
  int m_fd = -1;
  int m_error = 0;
};

struct RunResult {
  int spawnError = 0;  // errno-style code when the program could not be run
  int status = 0;      // waitpid status
  std::string output;  // stdout and stderr, interleaved
};

// Runs argv[0] (searched in PATH) with stdout and stderr going to one pipe.
RunResult Run(const std::vector<std::string>& arguments) {
  RunResult result;
  std::vector<char*> argv;
  argv.reserve(arguments.size() + 1);
  for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);

  int pipeFds[2];
  if (::pipe2(pipeFds, O_CLOEXEC) != 0) {
    result.spawnError = errno;
    return result;
  }

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, pipeFds[1], STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, pipeFds[1], STDERR_FILENO);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);

  pid_t pid = 0;
  const int spawned = ::posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  ::close(pipeFds[1]);
  if (spawned != 0) {
    ::close(pipeFds[0]);
    result.spawnError = spawned;
    return result;
  }

  char buffer[4096];
  for (;;) {
    const ssize_t got = ::read(pipeFds[0], buffer, sizeof buffer);
    if (got > 0) {
      result.output.append(buffer, static_cast<std::size_t>(got));
    } else if (got == 0 || errno != EINTR) {
      break;
    }
  }
  ::close(pipeFds[0]);

  while (::waitpid(pid, &result.status, 0) < 0) {
    if (errno != EINTR) {
      result.spawnError = errno;
      break;
    }
  }
  return result;
}

std::string Describe(int status) {
  std::ostringstream text;
  if (WIFEXITED(status)) {
    text << "exit status " << WEXITSTATUS(status);
  } else if (WIFSIGNALED(status)) {
    text << "killed by signal " << WTERMSIG(status);
  } else {
    text << "wait status " << status;
  }
  return text.str();
}

std::string NumberedLines(const std::string& text) {
  std::ostringstream out;
  std::istringstream in(text);
  std::string line;
  int number = 0;
  while (std::getline(in, line)) out << ++number << ": " << line << '\n';
  return out.str();
}

}  // namespace

::testing::AssertionResult MatchesEtsprojectSchema(const std::string& documentText) {
  TemporaryFile file;
  if (!file.Ok()) {
    return ::testing::AssertionFailure()
           << "cannot create a temporary file: " << std::strerror(file.Error());
  }
  if (!file.Write(documentText)) {
    return ::testing::AssertionFailure()
           << "cannot write " << file.Path() << ": " << std::strerror(errno);
  }

  // --huge: static data may nest deeper than libxml2's default limit of 256 levels.
  const RunResult run = Run({"xmllint", "--noout", "--huge", "--schema", kSchemaPath, file.Path()});
  if (run.spawnError != 0) {
    return ::testing::AssertionFailure()
           << "cannot run xmllint (package libxml2-utils): " << std::strerror(run.spawnError);
  }
  if (WIFEXITED(run.status) && WEXITSTATUS(run.status) == 0) {
    return ::testing::AssertionSuccess() << "the document matches " << kSchemaPath;
  }
  return ::testing::AssertionFailure()
         << "xmllint --noout --schema " << kSchemaPath << " rejected the document ("
         << Describe(run.status) << "):\n"
         << run.output << "Document:\n"
         << NumberedLines(documentText);
}

}  // namespace lkdh::test
