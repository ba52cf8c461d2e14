// A download of the demo device against every way writing or reading the
// project file can fail: each system call of the replace failing in turn, a
// failing read, broken paths, missing permissions and things that are not a
// regular file in the file's place. Every fault must give its exact error line
// (and the line naming the failed call and why) and false, leave the previous
// file byte for byte, call no callback and leave no temporary behind.

#include <DownloadDump.h>
#include <LuaKnxDownloadHandler/luaknxdownloadhandler.h>

#include <Helper/File.h>

#include <CapturingAppender.h>
#include <TempDir.h>

#include <gtest/gtest.h>
#include <log4cplus/loglevel.h>
#include <boost/filesystem/operations.hpp>

#include <fcntl.h>
#include <grp.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

namespace fs = boost::filesystem;
using Helper::File::detail::DefaultFileSystemOps;
using Helper::File::detail::FileSystemOps;
using Helper::File::detail::SetFileSystemOps;
using Korvex::IKnxDownloadHandler;
using lkdh::test::LogCapture;
using lkdh::test::ReadWholeFile;
using lkdh::test::TempDir;

const std::string kScript = LKDH_SOURCE_DIR "/examples/demo/demo.lua";
const std::string kDemoDump = LKDH_SOURCE_DIR "/examples/demo/demo-download.json";
const char* const kLogger = "KnxDownloadHandler";
// The unprivileged account ("nobody") a download without permissions runs as.
constexpr uid_t kNobody = 65534;

// ---- injected faults: each counts how often it made a call fail ----

int g_failedCalls = 0;
int g_writeCalls = 0;

const FileSystemOps& Real() { return DefaultFileSystemOps(); }

bool ForWriting(int flags) { return (flags & (O_WRONLY | O_RDWR)) != 0; }

int OpenForWritingFailsReadOnlyFs(const char* path, int flags, mode_t mode) {
  if (!ForWriting(flags)) return Real().open(path, flags, mode);
  ++g_failedCalls;
  errno = EROFS;
  return -1;
}

int OpenForReadingFailsWithEacces(const char* path, int flags, mode_t mode) {
  if (ForWriting(flags)) return Real().open(path, flags, mode);
  ++g_failedCalls;
  errno = EACCES;
  return -1;
}

ssize_t WriteFailsDiskFull(int, const void*, std::size_t) {
  ++g_failedCalls;
  errno = ENOSPC;
  return -1;
}

// Half of the document reaches the disk, then the disk is full.
ssize_t WriteShortThenDiskFull(int fd, const void* data, std::size_t size) {
  if (++g_writeCalls == 1) return Real().write(fd, data, size / 2);
  ++g_failedCalls;
  errno = ENOSPC;
  return -1;
}

ssize_t WriteMakesNoProgress(int, const void*, std::size_t) {
  ++g_failedCalls;
  return 0;
}

int FsyncFailsIo(int) {
  ++g_failedCalls;
  errno = EIO;
  return -1;
}

// Like Linux: the descriptor is released even when close reports an error.
int CloseFailsIo(int fd) {
  Real().close(fd);
  ++g_failedCalls;
  errno = EIO;
  return -1;
}

int RenameFailsIo(const char*, const char*) {
  ++g_failedCalls;
  errno = EIO;
  return -1;
}

int UnlinkFailsIo(const char*) {
  ++g_failedCalls;
  errno = EIO;
  return -1;
}

ssize_t ReadFailsIo(int, void*, std::size_t) {
  ++g_failedCalls;
  errno = EIO;
  return -1;
}

// ---- the downloads ----

std::string DumpText(bool alternative) {
  std::string text = ReadWholeFile(kDemoDump);
  if (alternative) {
    const auto folder = text.find("\"Living room\"");
    if (folder == std::string::npos) throw std::runtime_error("demo dump without 'Living room'");
    text.replace(folder, 13, "\"Living area\"");
  }
  return text;
}

const lkdh::host::DownloadDump& Download(bool alternative) {
  static const auto first = lkdh::host::ParseDownloadDump(DumpText(false));
  static const auto second = lkdh::host::ParseDownloadDump(DumpText(true));
  return alternative ? second : first;
}

enum class Expected { WriteFailed, ReadFailed, StatusFailed };

struct Scenario {
  fs::path target;
  bool previousDocument = true;  // a complete download is written first
  FileSystemOps ops{};           // for the faulty download only; null members stay real
  IKnxDownloadHandler::AppData appData = IKnxDownloadHandler::AppData_None;
  bool unprivileged = false;       // runs as nobody in a child process
  std::function<void()> takeAway;  // removes permissions before the faulty download
  std::function<void()> giveBack;  // restores them afterwards
  bool recovers = true;            // the same download succeeds once the fault is gone
};

struct FaultCase {
  std::string name;
  std::string what;
  Expected expected;
  std::string reason;  // the line after the failure's, naming the call and why; "" for none
  std::function<Scenario(const fs::path& dir)> make;
};

std::ostream& operator<<(std::ostream& os, const FaultCase& fault) { return os << fault.name; }

// What a download reported; filled in a child process for an unprivileged one.
struct Report {
  bool result = true;
  int callbacks = 0;
  int failedCalls = 0;
  std::vector<std::string> errors;  // ERROR lines of the handler's logger
  std::string statusError;          // what() of the status query, when it throws
};

std::string Serialise(const Report& report) {
  std::ostringstream out;
  auto field = [&out](const std::string& text) { out << text.size() << ':' << text; };
  field(report.result ? "1" : "0");
  field(std::to_string(report.callbacks));
  field(std::to_string(report.failedCalls));
  field(report.statusError);
  for (const auto& line : report.errors) field(line);
  return out.str();
}

std::optional<Report> Deserialise(const std::string& text) {
  std::vector<std::string> fields;
  std::size_t position = 0;
  while (position < text.size()) {
    const auto colon = text.find(':', position);
    if (colon == std::string::npos) return std::nullopt;
    const std::size_t length = std::stoul(text.substr(position, colon - position));
    if (colon + 1 + length > text.size()) return std::nullopt;
    fields.push_back(text.substr(colon + 1, length));
    position = colon + 1 + length;
  }
  if (fields.size() < 4) return std::nullopt;
  Report report;
  report.result = fields[0] == "1";
  report.callbacks = std::stoi(fields[1]);
  report.failedCalls = std::stoi(fields[2]);
  report.statusError = fields[3];
  report.errors.assign(fields.begin() + 4, fields.end());
  return report;
}

Report RunFaultyDownload(Korvex::LuaKnxDownloadHandler& handler, const Scenario& scenario) {
  Report report;
  try {
    (void)fs::status(scenario.target);
  } catch (const fs::filesystem_error& error) {
    report.statusError = error.what();
  }
  g_failedCalls = 0;
  g_writeCalls = 0;
  LogCapture capture;
  const FileSystemOps previous = SetFileSystemOps(scenario.ops);
  const auto& download = Download(true);
  report.result = handler.CreateFileWithKnxData(
      download.interfaceObjects, download.memory, [&report] { ++report.callbacks; },
      scenario.appData, download.coDescriptors);
  SetFileSystemOps(previous);
  report.failedCalls = g_failedCalls;
  for (const auto& line : capture.Lines(log4cplus::ERROR_LOG_LEVEL)) {
    if (line.logger == kLogger) report.errors.push_back(line.message);
  }
  return report;
}

// Runs the download in a child that has given up root, since root ignores permissions.
std::optional<Report> RunUnprivileged(Korvex::LuaKnxDownloadHandler& handler,
                                      const Scenario& scenario) {
  int channel[2];
  if (::pipe(channel) != 0) return std::nullopt;
  const pid_t pid = ::fork();
  if (pid < 0) return std::nullopt;
  if (pid == 0) {
    ::close(channel[0]);
    if (::geteuid() == 0 &&
        (::setgroups(0, nullptr) != 0 || ::setgid(kNobody) != 0 || ::setuid(kNobody) != 0)) {
      ::_exit(3);
    }
    const std::string text = Serialise(RunFaultyDownload(handler, scenario));
    std::size_t sent = 0;
    while (sent < text.size()) {
      const ssize_t n = ::write(channel[1], text.data() + sent, text.size() - sent);
      if (n <= 0) ::_exit(4);
      sent += static_cast<std::size_t>(n);
    }
    ::_exit(0);  // no exit handlers: the parent's test state stays the parent's
  }
  ::close(channel[1]);
  std::string text;
  char buffer[4096];
  for (;;) {
    const ssize_t n = ::read(channel[0], buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    text.append(buffer, static_cast<std::size_t>(n));
  }
  ::close(channel[0]);
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    ADD_FAILURE() << "the unprivileged download ended with status " << status;
    return std::nullopt;
  }
  return Deserialise(text);
}

// What is at a path: the bytes of a file, the names in a directory, or nothing.
std::string Snapshot(const fs::path& path) {
  boost::system::error_code error;
  const auto status = fs::symlink_status(path, error);
  if (fs::is_regular_file(status)) return "file:" + ReadWholeFile(path);
  if (fs::is_directory(status)) {
    std::string names = "directory:";
    for (const auto& entry : fs::directory_iterator(path)) {
      names += entry.path().filename().string() + "\n";
    }
    return names;
  }
  return fs::exists(status) ? "other" : "absent";
}

std::vector<FaultCase> Cases() {
  auto plain = [](const fs::path& dir) {
    Scenario s;
    s.target = dir / "etsproject.xml";
    return s;
  };
  auto withOps = [plain](auto change) {
    return [plain, change](const fs::path& dir) {
      Scenario s = plain(dir);
      change(s.ops);
      return s;
    };
  };
  auto unprivileged = [](const char* folder, mode_t folderMode, mode_t fileMode) {
    return [folder, folderMode, fileMode](const fs::path& dir) {
      Scenario s;
      const fs::path where = dir / folder;
      fs::create_directory(where);
      s.target = where / "etsproject.xml";
      s.unprivileged = true;
      s.recovers = false;
      const fs::path target = s.target;
      s.takeAway = [where, target, folderMode, fileMode] {
        ::chmod(target.c_str(), fileMode);
        ::chmod(where.c_str(), folderMode);
      };
      s.giveBack = [where, target] {
        ::chmod(where.c_str(), 0755);
        ::chmod(target.c_str(), 0644);
      };
      return s;
    };
  };
  using E = Expected;
  return {
      {"OpenOfTheTemporaryFails", "open of the temporary fails (EROFS)", E::WriteFailed,
       "open: Read-only file system",
       withOps([](FileSystemOps& o) { o.open = OpenForWritingFailsReadOnlyFs; })},
      {"WriteFailsWithDiskFull", "write fails (ENOSPC)", E::WriteFailed,
       "write: No space left on device",
       withOps([](FileSystemOps& o) { o.write = WriteFailsDiskFull; })},
      {"ShortWriteThenDiskFull", "half the document written, then ENOSPC", E::WriteFailed,
       "write: No space left on device",
       withOps([](FileSystemOps& o) { o.write = WriteShortThenDiskFull; })},
      {"WriteMakesNoProgress", "write returns 0 for ever", E::WriteFailed, "write: no byte written",
       withOps([](FileSystemOps& o) { o.write = WriteMakesNoProgress; })},
      {"FsyncFails", "fsync fails (EIO)", E::WriteFailed, "fsync: Input/output error",
       withOps([](FileSystemOps& o) { o.fsync = FsyncFailsIo; })},
      {"CloseFails", "close fails (EIO)", E::WriteFailed, "close: Input/output error",
       withOps([](FileSystemOps& o) { o.close = CloseFailsIo; })},
      {"RenameFails", "rename fails (EIO)", E::WriteFailed, "rename: Input/output error",
       withOps([](FileSystemOps& o) { o.rename = RenameFailsIo; })},
      {"ReadOfTheSavedFileFails", "read of the saved file fails (EIO)", E::ReadFailed,
       "read: Input/output error", withOps([](FileSystemOps& o) { o.read = ReadFailsIo; })},
      {"OpenOfTheSavedFileFails", "open of the saved file fails (EACCES)", E::ReadFailed,
       "open: Permission denied",
       withOps([](FileSystemOps& o) { o.open = OpenForReadingFailsWithEacces; })},
      {"MissingDirectory", "the directory does not exist", E::WriteFailed,
       "open: No such file or directory",
       [](const fs::path& dir) {
         Scenario s;
         s.target = dir / "missing" / "etsproject.xml";
         s.previousDocument = false;
         s.recovers = false;
         return s;
       }},
      {"PathComponentIsAFile", "a directory of the path is a file (ENOTDIR)", E::WriteFailed,
       "lstat: Not a directory",
       [](const fs::path& dir) {
         std::ofstream(dir / "plain-file") << "not a directory";
         Scenario s;
         s.target = dir / "plain-file" / "etsproject.xml";
         s.previousDocument = false;
         s.recovers = false;
         return s;
       }},
      {"TargetIsADirectory", "the path is a directory", E::ReadFailed,
       "stat: a directory, not a regular file",
       [](const fs::path& dir) {
         Scenario s;
         s.target = dir / "etsproject.xml";
         fs::create_directory(s.target);
         std::ofstream(s.target / "inside.txt") << "keep";
         s.previousDocument = false;
         s.recovers = false;
         return s;
       }},
      {"TargetIsADirectoryForcedWrite", "the path is a directory, write forced (AppData 1)",
       E::WriteFailed, "lstat: a directory, not a regular file",
       [](const fs::path& dir) {
         Scenario s;
         s.target = dir / "etsproject.xml";
         fs::create_directory(s.target);
         std::ofstream(s.target / "inside.txt") << "keep";
         s.previousDocument = false;
         s.appData = IKnxDownloadHandler::AppData_ForceWrite;
         s.recovers = false;
         return s;
       }},
      {"FifoInPlaceOfTheFile", "a FIFO in place of the saved file", E::ReadFailed,
       "stat: a FIFO, not a regular file",
       [](const fs::path& dir) {
         Scenario s;
         s.target = dir / "etsproject.xml";
         if (::mkfifo(s.target.c_str(), 0644) != 0) throw std::runtime_error("mkfifo failed");
         s.previousDocument = false;
         s.recovers = false;
         return s;
       }},
      {"FifoInPlaceOfTheFileForcedWrite", "a FIFO in place of the file, write forced (AppData 1)",
       E::WriteFailed, "lstat: a FIFO, not a regular file",
       [](const fs::path& dir) {
         Scenario s;
         s.target = dir / "etsproject.xml";
         if (::mkfifo(s.target.c_str(), 0644) != 0) throw std::runtime_error("mkfifo failed");
         s.previousDocument = false;
         s.appData = IKnxDownloadHandler::AppData_ForceWrite;
         s.recovers = false;
         return s;
       }},
      {"LinkToADevice", "the path is a symbolic link to /dev/null", E::ReadFailed,
       "stat: a character device, not a regular file",
       [](const fs::path& dir) {
         Scenario s;
         s.target = dir / "etsproject.xml";
         fs::create_symlink("/dev/null", s.target);
         s.previousDocument = false;
         s.recovers = false;
         return s;
       }},
      {"LinkToADeviceForcedWrite", "a symbolic link to /dev/null, write forced (AppData 1)",
       E::WriteFailed, "lstat: a character device, not a regular file",
       [](const fs::path& dir) {
         Scenario s;
         s.target = dir / "etsproject.xml";
         fs::create_symlink("/dev/null", s.target);
         s.previousDocument = false;
         s.appData = IKnxDownloadHandler::AppData_ForceWrite;
         s.recovers = false;
         return s;
       }},
      {"SymbolicLinkLoop", "a symbolic-link loop in the path (ELOOP)", E::StatusFailed, "",
       [](const fs::path& dir) {
         fs::create_symlink(dir / "loop", dir / "loop");
         Scenario s;
         s.target = dir / "loop" / "etsproject.xml";
         s.previousDocument = false;
         s.recovers = false;
         return s;
       }},
      {"NameTooLong", "a file name longer than NAME_MAX", E::StatusFailed, "",
       [](const fs::path& dir) {
         Scenario s;
         s.target = dir / std::string(300, 'x');
         s.previousDocument = false;
         s.recovers = false;
         return s;
       }},
      {"NoSearchPermissionOnTheDirectory", "no search permission on the directory (as nobody)",
       E::StatusFailed, "", unprivileged("locked", 0666, 0644)},
      {"ReadOnlyDirectory", "a directory without write permission (as nobody)", E::WriteFailed,
       "open: Permission denied", unprivileged("read-only", 0555, 0644)},
      {"UnreadableFile", "a saved file without read permission (as nobody)", E::ReadFailed,
       "open: Permission denied", unprivileged("writable", 0777, 0200)},
  };
}

class FsFaultTest : public ::testing::TestWithParam<FaultCase> {};

TEST_P(FsFaultTest, FailsWithItsMessageAndKeepsEverything) {
  const FaultCase& fault = GetParam();
  TempDir dir;
  // nobody must reach the folders below, whatever the umask made of the test directory.
  ::chmod(dir.Path().c_str(), 0755);
  Scenario scenario = fault.make(dir.Path());
  RecordProperty("fault", fault.what);

  Korvex::LuaKnxDownloadHandler handler(scenario.target.string() + ";" + kScript);
  ASSERT_TRUE(handler.Loaded());
  if (scenario.previousDocument) {
    int callbacks = 0;
    const auto& download = Download(false);
    ASSERT_TRUE(handler.CreateFileWithKnxData(
        download.interfaceObjects, download.memory, [&callbacks] { ++callbacks; },
        IKnxDownloadHandler::AppData_None, download.coDescriptors));
    ASSERT_EQ(callbacks, 1);
  }
  const fs::path folder = scenario.target.parent_path();
  const std::string targetBefore = Snapshot(scenario.target);
  const std::string folderBefore = Snapshot(folder);
  const std::string topBefore = Snapshot(dir.Path());

  if (scenario.takeAway) scenario.takeAway();
  std::optional<Report> report;
  if (scenario.unprivileged) {
    report = RunUnprivileged(handler, scenario);
  } else {
    report = RunFaultyDownload(handler, scenario);
  }
  if (scenario.giveBack) scenario.giveBack();
  ASSERT_TRUE(report.has_value()) << "no report from the download";

  EXPECT_FALSE(report->result);
  EXPECT_EQ(report->callbacks, 0);
  std::string message;
  switch (fault.expected) {
    case Expected::WriteFailed:
      message = "Failed to write file '" + scenario.target.string() + "'.";
      break;
    case Expected::ReadFailed:
      message = "Failed to read file '" + scenario.target.string() + "'.";
      break;
    case Expected::StatusFailed:
      ASSERT_FALSE(report->statusError.empty()) << "the status query did not fail";
      message = "LuaKnxDownloadHandler::CreateFileWithKnxData filesystem_error exception: " +
                report->statusError;
      break;
  }
  std::vector<std::string> expectedErrors{message};
  if (!fault.reason.empty()) expectedErrors.push_back(fault.reason);
  EXPECT_EQ(report->errors, expectedErrors);
  EXPECT_EQ(Snapshot(scenario.target), targetBefore);
  // No temporary beside the target, nothing created or removed anywhere around it.
  EXPECT_EQ(Snapshot(folder), folderBefore);
  EXPECT_EQ(Snapshot(dir.Path()), topBefore);
  if (scenario.ops.open || scenario.ops.write || scenario.ops.read || scenario.ops.fsync ||
      scenario.ops.close || scenario.ops.rename) {
    EXPECT_GT(report->failedCalls, 0) << "the injected fault was never reached";
  }
  RecordProperty("failed_calls", report->failedCalls);
  RecordProperty("reason_line", report->errors.size() > 1 ? report->errors[1] : "(none)");

  if (scenario.recovers) {
    // With the fault gone the same download goes through.
    int callbacks = 0;
    const auto& download = Download(true);
    EXPECT_TRUE(handler.CreateFileWithKnxData(
        download.interfaceObjects, download.memory, [&callbacks] { ++callbacks; },
        IKnxDownloadHandler::AppData_None, download.coDescriptors));
    EXPECT_EQ(callbacks, 1);
    EXPECT_NE(Snapshot(scenario.target), targetBefore);
  }
}

INSTANTIATE_TEST_SUITE_P(Faults, FsFaultTest, ::testing::ValuesIn(Cases()),
                         [](const ::testing::TestParamInfo<FaultCase>& param) {
                           return param.param.name;
                         });

TEST(FsFaults, ATemporaryLeftByAFailedCleanUpIsRemovedByTheNextWrite) {
  // Rename and unlink both fail: the one case where a temporary stays behind.
  TempDir dir;
  const fs::path target = dir.Path() / "etsproject.xml";
  Korvex::LuaKnxDownloadHandler handler(target.string() + ";" + kScript);
  ASSERT_TRUE(handler.Loaded());
  int callbacks = 0;
  auto download = [&](bool alternative) {
    const auto& d = Download(alternative);
    return handler.CreateFileWithKnxData(
        d.interfaceObjects, d.memory, [&callbacks] { ++callbacks; },
        IKnxDownloadHandler::AppData_None, d.coDescriptors);
  };
  ASSERT_TRUE(download(false));
  const std::string before = ReadWholeFile(target);
  FileSystemOps ops{};
  ops.rename = RenameFailsIo;
  ops.unlink = UnlinkFailsIo;
  g_failedCalls = 0;
  std::vector<std::string> errors;
  const FileSystemOps previous = SetFileSystemOps(ops);
  bool result = true;
  {
    LogCapture capture;
    result = download(true);
    for (const auto& line : capture.Lines(log4cplus::ERROR_LOG_LEVEL)) {
      if (line.logger == kLogger) errors.push_back(line.message);
    }
  }
  SetFileSystemOps(previous);
  EXPECT_FALSE(result);
  EXPECT_EQ(errors, (std::vector<std::string>{"Failed to write file '" + target.string() + "'.",
                                              "rename: Input/output error"}));
  EXPECT_EQ(g_failedCalls, 2);
  EXPECT_EQ(ReadWholeFile(target), before);
  EXPECT_EQ(std::distance(fs::directory_iterator(dir.Path()), fs::directory_iterator()), 2);

  EXPECT_TRUE(download(true));
  EXPECT_EQ(callbacks, 2);
  EXPECT_EQ(std::distance(fs::directory_iterator(dir.Path()), fs::directory_iterator()), 1);
  RecordProperty("fault", "rename and unlink of the temporary fail");
  RecordProperty("failed_calls", 2);
  RecordProperty("reason_line", errors.size() > 1 ? errors[1] : "(none)");
}

}  // namespace
