#include <Helper/File.h>

#include "TempDir.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>
#include <boost/filesystem/operations.hpp>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

namespace fs = boost::filesystem;
using Helper::File::read_file;
using Helper::File::write_file;
using Helper::File::WriteFileMode;
using Helper::File::detail::DefaultFileSystemOps;
using Helper::File::detail::FileSystemOps;
using Helper::File::detail::SetFileSystemOps;
using lkdh::test::ReadWholeFile;
using lkdh::test::TempDir;

// What the fake system calls do and what they saw; reset before every test.
struct FakeState {
  std::vector<std::string> events;
  std::vector<std::string> openedPaths;
  std::set<int> openFds;
  int exclusiveOpensFailingWithEexist = 0;
  int interruptedOpens = 0;
  int writeCalls = 0;
  int failWriteAtCall = 0;  // 1-based; 0 never
  int writeErrno = ENOSPC;
  std::size_t maxBytesPerWrite = 0;  // 0: unlimited
  int interruptedWrites = 0;
  bool writeReturnsZero = false;
  bool writeThrows = false;
  int readCalls = 0;
  std::size_t maxBytesPerRead = 0;
  int interruptedReads = 0;
  bool failRead = false;
  bool failFsync = false;
  int interruptedFsyncs = 0;
  bool failClose = false;
  bool failRename = false;
  bool failFsyncDirectory = false;
  bool failUnlink = false;
  std::string openInsteadForReading;  // a read-only open opens this path instead
  std::size_t largestRead = 0;        // the most bytes one read asked for
};

FakeState g_fake;

const FileSystemOps& Real() { return DefaultFileSystemOps(); }

int FakeOpen(const char* path, int flags, mode_t mode) {
  g_fake.events.push_back(std::string("open ") + path);
  g_fake.openedPaths.emplace_back(path);
  if ((flags & (O_WRONLY | O_RDWR)) == 0 && !g_fake.openInsteadForReading.empty()) {
    path = g_fake.openInsteadForReading.c_str();
  }
  if (g_fake.interruptedOpens > 0) {
    --g_fake.interruptedOpens;
    errno = EINTR;
    return -1;
  }
  if ((flags & O_EXCL) != 0 && g_fake.exclusiveOpensFailingWithEexist > 0) {
    --g_fake.exclusiveOpensFailingWithEexist;
    errno = EEXIST;
    return -1;
  }
  const int fd = Real().open(path, flags, mode);
  if (fd >= 0) g_fake.openFds.insert(fd);
  return fd;
}

ssize_t FakeWrite(int fd, const void* data, std::size_t size) {
  ++g_fake.writeCalls;
  g_fake.events.push_back("write");
  if (g_fake.writeThrows) throw std::runtime_error("write exploded");
  if (g_fake.interruptedWrites > 0) {
    --g_fake.interruptedWrites;
    errno = EINTR;
    return -1;
  }
  if (g_fake.failWriteAtCall == g_fake.writeCalls) {
    errno = g_fake.writeErrno;
    return -1;
  }
  if (g_fake.writeReturnsZero) return 0;
  if (g_fake.maxBytesPerWrite != 0) size = std::min(size, g_fake.maxBytesPerWrite);
  return Real().write(fd, data, size);
}

ssize_t FakeRead(int fd, void* data, std::size_t size) {
  ++g_fake.readCalls;
  g_fake.largestRead = std::max(g_fake.largestRead, size);
  if (g_fake.interruptedReads > 0) {
    --g_fake.interruptedReads;
    errno = EINTR;
    return -1;
  }
  if (g_fake.failRead) {
    errno = EIO;
    return -1;
  }
  if (g_fake.maxBytesPerRead != 0) size = std::min(size, g_fake.maxBytesPerRead);
  return Real().read(fd, data, size);
}

int FakeFsync(int fd) {
  g_fake.events.push_back("fsync");
  if (g_fake.interruptedFsyncs > 0) {
    --g_fake.interruptedFsyncs;
    errno = EINTR;
    return -1;
  }
  if (g_fake.failFsync) {
    errno = EIO;
    return -1;
  }
  return Real().fsync(fd);
}

int FakeClose(int fd) {
  g_fake.events.push_back("close");
  g_fake.openFds.erase(fd);
  // Like Linux: the descriptor is gone even when close reports an error.
  const int result = Real().close(fd);
  if (g_fake.failClose) {
    errno = EIO;
    return -1;
  }
  return result;
}

int FakeRename(const char* from, const char* to) {
  g_fake.events.push_back(std::string("rename ") + from + " -> " + to);
  if (g_fake.failRename) {
    errno = EXDEV;
    return -1;
  }
  return Real().rename(from, to);
}

int FakeFsyncDirectory(const char* directory) {
  g_fake.events.push_back(std::string("fsyncDirectory ") + directory);
  if (g_fake.failFsyncDirectory) {
    errno = EINVAL;
    return -1;
  }
  return Real().fsyncDirectory(directory);
}

int FakeUnlink(const char* path) {
  g_fake.events.push_back(std::string("unlink ") + path);
  if (g_fake.failUnlink) {
    errno = EPERM;
    return -1;
  }
  return Real().unlink(path);
}

std::set<std::string> Entries(const fs::path& directory) {
  std::set<std::string> names;
  for (const auto& entry : fs::directory_iterator(directory)) {
    names.insert(entry.path().filename().string());
  }
  return names;
}

bool StartsWith(const std::string& text, const std::string& prefix) {
  return text.compare(0, prefix.size(), prefix) == 0;
}

// Positions of the first event starting with each prefix, for order checks.
std::ptrdiff_t IndexOf(const std::string& prefix) {
  const auto& events = g_fake.events;
  const auto it = std::find_if(events.begin(), events.end(),
                               [&](const std::string& e) { return StartsWith(e, prefix); });
  return it == events.end() ? -1 : it - events.begin();
}

class FileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    g_fake = FakeState{};
    m_previous = SetFileSystemOps({FakeOpen, FakeWrite, FakeRead, FakeFsync, FakeClose, FakeRename,
                                   FakeFsyncDirectory, FakeUnlink});
  }
  void TearDown() override {
    SetFileSystemOps(m_previous);
    EXPECT_TRUE(g_fake.openFds.empty()) << "a file descriptor was left open";
  }

  // Whether a temporary file was created during the call (so "none left" means something).
  static bool TemporaryWasCreated(const std::string& targetName) {
    for (const auto& path : g_fake.openedPaths) {
      if (StartsWith(fs::path(path).filename().string(), "." + targetName + ".tmp-")) return true;
    }
    return false;
  }

  // Runs a replace that must fail and checks that the old file and the directory are untouched.
  void ExpectFailedReplaceKeepsOldFile() {
    const fs::path target = m_dir.WriteFile("etsproject.xml", "old content");
    EXPECT_FALSE(write_file(target, "new and longer content", WriteFileMode::Replace));
    EXPECT_EQ(ReadWholeFile(target), "old content");
    EXPECT_EQ(Entries(m_dir.Path()), std::set<std::string>{"etsproject.xml"});
    EXPECT_TRUE(TemporaryWasCreated("etsproject.xml"));
    EXPECT_EQ(IndexOf("fsyncDirectory"), -1);
  }

  TempDir m_dir;
  FileSystemOps m_previous{};
};

// ---- read_file ----

TEST_F(FileTest, ReadFileReturnsTheWholeContentIncludingZeroBytes) {
  const std::string content("a\0b\xFF\0\n\r end", 12);
  const fs::path path = m_dir.WriteFile("data.bin", content);
  std::string read;
  ASSERT_TRUE(read_file(path, read));
  EXPECT_EQ(read, content);
}

TEST_F(FileTest, ReadFileReadsFilesLargerThanOneChunk) {
  std::string content;
  for (int i = 0; i < 300000; ++i) content.push_back(static_cast<char>(i * 7 % 256));
  const fs::path path = m_dir.WriteFile("large.bin", content);
  std::string read;
  ASSERT_TRUE(read_file(path, read));
  EXPECT_EQ(read, content);
}

TEST_F(FileTest, ReadFileReplacesWhatTheStringHeldBefore) {
  const fs::path path = m_dir.WriteFile("short.txt", "xy");
  std::string read = "stale content";
  ASSERT_TRUE(read_file(path, read));
  EXPECT_EQ(read, "xy");
}

TEST_F(FileTest, ReadFileOfAnEmptyFileGivesAnEmptyString) {
  const fs::path path = m_dir.WriteFile("empty.txt", "");
  std::string read = "stale";
  ASSERT_TRUE(read_file(path, read));
  EXPECT_EQ(read, "");
}

TEST_F(FileTest, ReadFileCollectsShortReads) {
  g_fake.maxBytesPerRead = 3;
  const fs::path path = m_dir.WriteFile("data.txt", "0123456789abcdef");
  std::string read;
  ASSERT_TRUE(read_file(path, read));
  EXPECT_EQ(read, "0123456789abcdef");
  EXPECT_GE(g_fake.readCalls, 6);
}

TEST_F(FileTest, ReadFileRetriesInterruptedCalls) {
  g_fake.interruptedOpens = 1;
  g_fake.interruptedReads = 2;
  const fs::path path = m_dir.WriteFile("data.txt", "content");
  std::string read;
  ASSERT_TRUE(read_file(path, read));
  EXPECT_EQ(read, "content");
}

TEST_F(FileTest, ReadFileFailsOnAReadError) {
  g_fake.failRead = true;
  const fs::path path = m_dir.WriteFile("data.txt", "content");
  std::string read;
  EXPECT_FALSE(read_file(path, read));
}

TEST_F(FileTest, ReadFileFailsForAMissingFile) {
  std::string read;
  EXPECT_FALSE(read_file(m_dir.Path() / "missing.txt", read));
  EXPECT_FALSE(read_file(m_dir.Path() / "missing-dir" / "file.txt", read));
}

TEST_F(FileTest, ReadFileFailsForADirectory) {
  std::string read;
  EXPECT_FALSE(read_file(m_dir.Path(), read));
}

TEST_F(FileTest, ReadFileFailsForAnEmptyPath) {
  std::string read;
  EXPECT_FALSE(read_file(fs::path(), read));
}

TEST_F(FileTest, ReadFileRefusesAPathWithAnEmbeddedZeroByte) {
  // Through the C API this would name "data.txt" and read the wrong file.
  m_dir.WriteFile("data.txt", "content");
  std::string read;
  EXPECT_FALSE(read_file(m_dir.Path() / std::string("data.txt\0.bak", 13), read));
}

// ---- write_file, Replace ----

TEST_F(FileTest, ReplaceCreatesAMissingFileWithExactlyTheData) {
  const fs::path target = m_dir.Path() / "etsproject.xml";
  const std::string data("<?xml?>\0\xFF<etsproject/>\n", 22);
  ASSERT_TRUE(write_file(target, data, WriteFileMode::Replace));
  EXPECT_EQ(ReadWholeFile(target), data);
  EXPECT_EQ(Entries(m_dir.Path()), std::set<std::string>{"etsproject.xml"});
}

TEST_F(FileTest, ReplaceOverwritesLongerContentCompletely) {
  const fs::path target = m_dir.WriteFile("etsproject.xml", "a much longer old document text");
  ASSERT_TRUE(write_file(target, "short", WriteFileMode::Replace));
  EXPECT_EQ(ReadWholeFile(target), "short");
}

TEST_F(FileTest, ReplaceOverwritesShorterContentCompletely) {
  const fs::path target = m_dir.WriteFile("etsproject.xml", "old");
  ASSERT_TRUE(write_file(target, "a longer new document", WriteFileMode::Replace));
  EXPECT_EQ(ReadWholeFile(target), "a longer new document");
}

TEST_F(FileTest, ReplaceWithNoDataLeavesAnEmptyFile) {
  const fs::path target = m_dir.WriteFile("etsproject.xml", "old");
  ASSERT_TRUE(write_file(target, "", WriteFileMode::Replace));
  EXPECT_EQ(ReadWholeFile(target), "");
}

TEST_F(FileTest, ReplaceGivesTheNewFileMode0644LessTheUmask) {
  const mode_t mask = ::umask(022);
  ::umask(mask);
  const fs::path target = m_dir.Path() / "etsproject.xml";
  ASSERT_TRUE(write_file(target, "x", WriteFileMode::Replace));
  struct stat info {};
  ASSERT_EQ(::stat(target.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0644u & ~mask);
}

TEST_F(FileTest, ReplaceWritesATemporaryBesideTheTargetAndRenamesIt) {
  const fs::path target = m_dir.WriteFile("etsproject.xml", "old");
  ASSERT_TRUE(write_file(target, "new", WriteFileMode::Replace));

  ASSERT_EQ(g_fake.openedPaths.size(), 1u);
  const fs::path temporary = g_fake.openedPaths[0];
  EXPECT_EQ(temporary.parent_path(), target.parent_path());
  EXPECT_TRUE(StartsWith(temporary.filename().string(), ".etsproject.xml.tmp-"))
      << temporary.filename();
  // The target itself is never opened, so a crash cannot leave it half written.
  EXPECT_NE(temporary, target);

  const auto write = IndexOf("write");
  const auto fsync = IndexOf("fsync");
  const auto close = IndexOf("close");
  const auto rename = IndexOf("rename " + temporary.string() + " -> " + target.string());
  const auto directorySync = IndexOf("fsyncDirectory " + target.parent_path().string());
  ASSERT_GE(write, 0);
  EXPECT_LT(write, fsync);
  EXPECT_LT(fsync, close);
  EXPECT_LT(close, rename);
  EXPECT_LT(rename, directorySync);
  EXPECT_EQ(IndexOf("unlink"), -1);
  EXPECT_FALSE(fs::exists(temporary));
}

TEST_F(FileTest, ReplaceUsesAFreshTemporaryNameEachTime) {
  const fs::path target = m_dir.Path() / "etsproject.xml";
  ASSERT_TRUE(write_file(target, "one", WriteFileMode::Replace));
  ASSERT_TRUE(write_file(target, "two", WriteFileMode::Replace));
  ASSERT_EQ(g_fake.openedPaths.size(), 2u);
  EXPECT_NE(g_fake.openedPaths[0], g_fake.openedPaths[1]);
  EXPECT_EQ(ReadWholeFile(target), "two");
}

TEST_F(FileTest, ReplaceTriesAnotherTemporaryNameWhenOneIsTaken) {
  g_fake.exclusiveOpensFailingWithEexist = 2;
  const fs::path target = m_dir.WriteFile("etsproject.xml", "old");
  ASSERT_TRUE(write_file(target, "new", WriteFileMode::Replace));
  EXPECT_EQ(ReadWholeFile(target), "new");
  ASSERT_EQ(g_fake.openedPaths.size(), 3u);
  EXPECT_NE(g_fake.openedPaths[0], g_fake.openedPaths[1]);
  EXPECT_NE(g_fake.openedPaths[1], g_fake.openedPaths[2]);
}

TEST_F(FileTest, ReplaceGivesUpWhenEveryTemporaryNameIsTaken) {
  g_fake.exclusiveOpensFailingWithEexist = 1000000;
  const fs::path target = m_dir.WriteFile("etsproject.xml", "old");
  EXPECT_FALSE(write_file(target, "new", WriteFileMode::Replace));
  EXPECT_EQ(ReadWholeFile(target), "old");
  EXPECT_LE(g_fake.openedPaths.size(), 1000u);
}

TEST_F(FileTest, ReplaceKeepsTheTemporaryNameWithinTheFileNameLimit) {
  const std::string longName(250, 'n');
  const fs::path target = m_dir.Path() / longName;
  ASSERT_TRUE(write_file(target, "content", WriteFileMode::Replace));
  EXPECT_EQ(ReadWholeFile(target), "content");
  ASSERT_EQ(g_fake.openedPaths.size(), 1u);
  EXPECT_LE(fs::path(g_fake.openedPaths[0]).filename().string().size(),
            static_cast<std::size_t>(NAME_MAX));
  EXPECT_EQ(Entries(m_dir.Path()), std::set<std::string>{longName});
}

TEST_F(FileTest, ReplaceRemovesTemporariesACrashLeftBehindForTheSameTarget) {
  const fs::path target = m_dir.WriteFile("etsproject.xml", "old");
  // What a process killed between creating its temporary and renaming it leaves.
  const std::vector<std::string> stale{".etsproject.xml.tmp-0a1b2c3d",
                                       ".etsproject.xml.tmp-zzzzzzzz",
                                       ".etsproject.xml.tmp-00000000"};
  for (const auto& name : stale) m_dir.WriteFile(name, "<etsproject half written");
  // Names that are not this helper's temporaries of this target stay.
  const std::set<std::string> others{
      ".other.xml.tmp-0a1b2c3d",      ".etsproject.xml.tmp-short",
      ".etsproject.xml.tmp-0A1B2C3D", ".etsproject.xml.tmp-0a1b2c3d4",
      "etsproject.xml.tmp-0a1b2c3d",  ".etsproject.xml.bak"};
  for (const auto& name : others) m_dir.WriteFile(name, "keep");

  ASSERT_TRUE(write_file(target, "new", WriteFileMode::Replace));

  EXPECT_EQ(ReadWholeFile(target), "new");
  std::set<std::string> expected = others;
  expected.insert("etsproject.xml");
  EXPECT_EQ(Entries(m_dir.Path()), expected);
  for (const auto& name : stale) {
    const auto unlinked = IndexOf("unlink " + (m_dir.Path() / name).string());
    EXPECT_GE(unlinked, 0) << name;
    // Removed before the new temporary exists, so it can never be taken for a stale one.
    EXPECT_LT(unlinked, IndexOf("open ")) << name;
  }
}

TEST_F(FileTest, ReplaceSucceedsWhenAStaleTemporaryCannotBeRemoved) {
  const fs::path target = m_dir.WriteFile("etsproject.xml", "old");
  m_dir.WriteFile(".etsproject.xml.tmp-12345678", "<etsproject half written");
  g_fake.failUnlink = true;
  ASSERT_TRUE(write_file(target, "new", WriteFileMode::Replace));
  EXPECT_EQ(ReadWholeFile(target), "new");
  EXPECT_GE(IndexOf("unlink " + (m_dir.Path() / ".etsproject.xml.tmp-12345678").string()), 0);
  EXPECT_EQ(Entries(m_dir.Path()),
            (std::set<std::string>{"etsproject.xml", ".etsproject.xml.tmp-12345678"}));
}

TEST_F(FileTest, ReplaceLeavesEntriesWithATemporaryNameThatAreNoFilesAlone) {
  const fs::path target = m_dir.WriteFile("etsproject.xml", "old");
  fs::create_directory(m_dir.Path() / ".etsproject.xml.tmp-12345678");
  ASSERT_EQ(::mkfifo((m_dir.Path() / ".etsproject.xml.tmp-fifofifo").c_str(), 0600), 0);
  fs::create_symlink(target, m_dir.Path() / ".etsproject.xml.tmp-linklink");
  ASSERT_TRUE(write_file(target, "new", WriteFileMode::Replace));
  EXPECT_EQ(ReadWholeFile(target), "new");
  EXPECT_EQ(IndexOf("unlink"), -1);
  EXPECT_EQ(
      Entries(m_dir.Path()),
      (std::set<std::string>{"etsproject.xml", ".etsproject.xml.tmp-12345678",
                             ".etsproject.xml.tmp-fifofifo", ".etsproject.xml.tmp-linklink"}));
}

TEST_F(FileTest, ReplaceOfANewFileAlsoRemovesStaleTemporaries) {
  // A crash during the very first write leaves a temporary but no target.
  m_dir.WriteFile(".etsproject.xml.tmp-abcdefgh", "<etsproject half written");
  ASSERT_TRUE(write_file(m_dir.Path() / "etsproject.xml", "first", WriteFileMode::Replace));
  EXPECT_EQ(Entries(m_dir.Path()), std::set<std::string>{"etsproject.xml"});
}

TEST_F(FileTest, ReplaceLeavesCutTemporaryNamesOfVeryLongTargetsAlone) {
  // Near NAME_MAX the temporary's name is cut and may as well belong to another target.
  const std::string longName(250, 'n');
  const std::string cut = "." + std::string(NAME_MAX - 1 - 13, 'n') + ".tmp-abcdefgh";
  ASSERT_EQ(cut.size(), static_cast<std::size_t>(NAME_MAX));
  m_dir.WriteFile(cut, "unknown owner");
  ASSERT_TRUE(write_file(m_dir.Path() / longName, "content", WriteFileMode::Replace));
  EXPECT_EQ(Entries(m_dir.Path()), (std::set<std::string>{longName, cut}));
  EXPECT_EQ(IndexOf("unlink"), -1);
}

TEST_F(FileTest, ReplaceCollectsShortWrites) {
  g_fake.maxBytesPerWrite = 3;
  const fs::path target = m_dir.WriteFile("etsproject.xml", "old");
  const std::string data = "written three bytes at a time";
  ASSERT_TRUE(write_file(target, data, WriteFileMode::Replace));
  EXPECT_EQ(ReadWholeFile(target), data);
  EXPECT_GE(g_fake.writeCalls, 10);
}

TEST_F(FileTest, ReplaceRetriesInterruptedWritesAndFsyncs) {
  g_fake.interruptedWrites = 2;
  g_fake.interruptedFsyncs = 1;
  g_fake.interruptedOpens = 1;
  const fs::path target = m_dir.WriteFile("etsproject.xml", "old");
  ASSERT_TRUE(write_file(target, "new", WriteFileMode::Replace));
  EXPECT_EQ(ReadWholeFile(target), "new");
}

TEST_F(FileTest, ReplaceWritesLargeDataCompletely) {
  std::string data;
  for (int i = 0; i < (1 << 20) + 17; ++i) data.push_back(static_cast<char>(i % 251));
  g_fake.maxBytesPerWrite = 65536 + 3;
  const fs::path target = m_dir.Path() / "large.xml";
  ASSERT_TRUE(write_file(target, data, WriteFileMode::Replace));
  EXPECT_EQ(ReadWholeFile(target), data);
}

TEST_F(FileTest, ReplaceFailingWithDiskFullKeepsTheOldFile) {
  g_fake.failWriteAtCall = 1;
  g_fake.writeErrno = ENOSPC;
  ExpectFailedReplaceKeepsOldFile();
}

TEST_F(FileTest, ReplaceFailingAfterAShortWriteKeepsTheOldFile) {
  g_fake.maxBytesPerWrite = 3;
  g_fake.failWriteAtCall = 2;
  ExpectFailedReplaceKeepsOldFile();
  EXPECT_EQ(g_fake.writeCalls, 2);
}

TEST_F(FileTest, ReplaceWhoseWritesMakeNoProgressFailsInsteadOfLooping) {
  g_fake.writeReturnsZero = true;
  ExpectFailedReplaceKeepsOldFile();
}

TEST_F(FileTest, ReplaceWithAFailingFsyncKeepsTheOldFile) {
  g_fake.failFsync = true;
  ExpectFailedReplaceKeepsOldFile();
}

TEST_F(FileTest, ReplaceWithAFailingCloseKeepsTheOldFile) {
  g_fake.failClose = true;
  ExpectFailedReplaceKeepsOldFile();
}

TEST_F(FileTest, ReplaceWithAFailingRenameKeepsTheOldFile) {
  g_fake.failRename = true;
  ExpectFailedReplaceKeepsOldFile();
}

TEST_F(FileTest, ReplaceSurvivesAnExceptionFromBelowAndCleansUp) {
  g_fake.writeThrows = true;
  ExpectFailedReplaceKeepsOldFile();
}

TEST_F(FileTest, ReplaceThatFailsCreatesNoFileWhereThereWasNone) {
  g_fake.failFsync = true;
  const fs::path target = m_dir.Path() / "etsproject.xml";
  EXPECT_FALSE(write_file(target, "new", WriteFileMode::Replace));
  EXPECT_TRUE(Entries(m_dir.Path()).empty());
}

TEST_F(FileTest, ReplaceStillSucceedsWhenTheDirectoryCannotBeSynced) {
  // The rename has already put the new content in place; reporting failure would hide it.
  g_fake.failFsyncDirectory = true;
  const fs::path target = m_dir.WriteFile("etsproject.xml", "old");
  EXPECT_TRUE(write_file(target, "new", WriteFileMode::Replace));
  EXPECT_EQ(ReadWholeFile(target), "new");
  EXPECT_EQ(Entries(m_dir.Path()), std::set<std::string>{"etsproject.xml"});
  EXPECT_GE(IndexOf("fsyncDirectory"), 0);
}

TEST_F(FileTest, ReplaceIntoAMissingDirectoryFailsCleanly) {
  const fs::path target = m_dir.Path() / "missing" / "etsproject.xml";
  EXPECT_FALSE(write_file(target, "new", WriteFileMode::Replace));
  EXPECT_FALSE(fs::exists(target.parent_path()));
  EXPECT_TRUE(Entries(m_dir.Path()).empty());
}

TEST_F(FileTest, ReplaceOfADirectoryFailsAndLeavesItAlone) {
  fs::create_directory(m_dir.Path() / "folder");
  m_dir.WriteFile("folder/inside.txt", "keep");
  EXPECT_FALSE(write_file(m_dir.Path() / "folder", "new", WriteFileMode::Replace));
  EXPECT_TRUE(fs::is_directory(m_dir.Path() / "folder"));
  EXPECT_EQ(ReadWholeFile(m_dir.Path() / "folder" / "inside.txt"), "keep");
  EXPECT_EQ(Entries(m_dir.Path()), std::set<std::string>{"folder"});
}

TEST_F(FileTest, ReplaceOfAPathWithoutFileNameFails) {
  EXPECT_FALSE(write_file(m_dir.Path() / ".", "new", WriteFileMode::Replace));
  EXPECT_FALSE(write_file(m_dir.Path() / "..", "new", WriteFileMode::Replace));
  EXPECT_FALSE(write_file(fs::path(m_dir.Path().string() + "/"), "new", WriteFileMode::Replace));
  EXPECT_FALSE(write_file(fs::path(), "new", WriteFileMode::Replace));
  EXPECT_TRUE(Entries(m_dir.Path()).empty());
}

TEST_F(FileTest, ReplaceRefusesAPathWithAnEmbeddedZeroByte) {
  EXPECT_FALSE(write_file(m_dir.Path() / std::string("a\0b", 3), "new", WriteFileMode::Replace));
  EXPECT_TRUE(Entries(m_dir.Path()).empty());
}

TEST_F(FileTest, ReplaceOfARelativePathUsesTheWorkingDirectory) {
  const fs::path previous = fs::current_path();
  fs::current_path(m_dir.Path());
  const bool written = write_file("relative.xml", "content", WriteFileMode::Replace);
  fs::current_path(previous);
  ASSERT_TRUE(written);
  EXPECT_EQ(ReadWholeFile(m_dir.Path() / "relative.xml"), "content");
  EXPECT_GE(IndexOf("fsyncDirectory ."), 0);
}

TEST_F(FileTest, UnknownWriteModeFails) {
  const fs::path target = m_dir.Path() / "file.txt";
  EXPECT_FALSE(write_file(target, "data", static_cast<WriteFileMode>(7)));
  EXPECT_FALSE(fs::exists(target));
}

// ---- write_file, Append ----

TEST_F(FileTest, AppendCreatesAMissingFile) {
  const fs::path target = m_dir.Path() / "log.txt";
  ASSERT_TRUE(write_file(target, std::string("first\0", 6), WriteFileMode::Append));
  EXPECT_EQ(ReadWholeFile(target), std::string("first\0", 6));
}

TEST_F(FileTest, AppendAddsToTheEndOfExistingContent) {
  const fs::path target = m_dir.WriteFile("log.txt", "one;");
  ASSERT_TRUE(write_file(target, "two;", WriteFileMode::Append));
  ASSERT_TRUE(write_file(target, "three", WriteFileMode::Append));
  EXPECT_EQ(ReadWholeFile(target), "one;two;three");
}

TEST_F(FileTest, AppendCollectsShortWrites) {
  g_fake.maxBytesPerWrite = 2;
  const fs::path target = m_dir.WriteFile("log.txt", "start:");
  ASSERT_TRUE(write_file(target, "appended", WriteFileMode::Append));
  EXPECT_EQ(ReadWholeFile(target), "start:appended");
}

TEST_F(FileTest, AppendReportsAFailedWrite) {
  g_fake.failWriteAtCall = 1;
  const fs::path target = m_dir.WriteFile("log.txt", "start:");
  EXPECT_FALSE(write_file(target, "appended", WriteFileMode::Append));
  EXPECT_EQ(ReadWholeFile(target), "start:");
}

TEST_F(FileTest, AppendReportsAFailedClose) {
  g_fake.failClose = true;
  const fs::path target = m_dir.WriteFile("log.txt", "start:");
  EXPECT_FALSE(write_file(target, "appended", WriteFileMode::Append));
}

TEST_F(FileTest, AppendIntoAMissingDirectoryFails) {
  EXPECT_FALSE(write_file(m_dir.Path() / "missing" / "log.txt", "x", WriteFileMode::Append));
  EXPECT_TRUE(Entries(m_dir.Path()).empty());
}

// ---- only regular files are read ----

std::string ReadError(const fs::path& path) {
  std::string read = "untouched";
  Helper::File::FileError error;
  EXPECT_FALSE(read_file(path, read, error));
  EXPECT_TRUE(error.Failed());
  return error.Describe();
}

TEST_F(FileTest, ReadFileOfAFifoFailsAtOnceNamingItsType) {
  // Without a writer, a blocking open of a FIFO would wait for ever.
  const fs::path fifo = m_dir.Path() / "etsproject.xml";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0644), 0);
  EXPECT_EQ(ReadError(fifo), "stat: a FIFO, not a regular file");
  EXPECT_TRUE(g_fake.openedPaths.empty()) << "the FIFO was opened";
}

TEST_F(FileTest, ReadFileOfADirectoryFailsNamingItsType) {
  EXPECT_EQ(ReadError(m_dir.Path()), "stat: a directory, not a regular file");
}

TEST_F(FileTest, ReadFileOfACharacterDeviceFailsWithoutOpeningIt) {
  EXPECT_EQ(ReadError("/dev/null"), "stat: a character device, not a regular file");
  EXPECT_TRUE(g_fake.openedPaths.empty());
}

TEST_F(FileTest, ReadFileOfASocketFailsNamingItsType) {
  const fs::path path = m_dir.Path() / "socket";
  const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
  ASSERT_GE(fd, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  ASSERT_LT(path.string().size(), sizeof address.sun_path);
  std::copy(path.string().begin(), path.string().end(), address.sun_path);
  const int bound = ::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
  ::close(fd);
  ASSERT_EQ(bound, 0) << std::strerror(errno);
  EXPECT_EQ(ReadError(path), "stat: a socket, not a regular file");
}

TEST_F(FileTest, ReadFileChecksTheTypeOfWhatItOpenedToo) {
  // Something else may take the file's place between the look and the open.
  const fs::path path = m_dir.WriteFile("data.txt", "content");
  fs::create_directory(m_dir.Path() / "folder");
  g_fake.openInsteadForReading = (m_dir.Path() / "folder").string();
  EXPECT_EQ(ReadError(path), "fstat: a directory, not a regular file");
}

TEST_F(FileTest, ReadFileFollowsASymbolicLinkToARegularFile) {
  m_dir.WriteFile("data.txt", "through the link");
  fs::create_symlink("data.txt", m_dir.Path() / "link");
  std::string read;
  ASSERT_TRUE(read_file(m_dir.Path() / "link", read));
  EXPECT_EQ(read, "through the link");
}

TEST_F(FileTest, ReadFileTellsWhichCallFailedAndWhy) {
  EXPECT_EQ(ReadError(m_dir.Path() / "missing.txt"), "stat: No such file or directory");
  EXPECT_EQ(ReadError(fs::path()), "open: an empty path or one holding a zero byte");
  const fs::path path = m_dir.WriteFile("data.txt", "content");
  g_fake.failRead = true;
  EXPECT_EQ(ReadError(path), "read: Input/output error");
}

TEST_F(FileTest, ReadFileWithAnErrorOutParameterReadsLikeTheOtherOne) {
  const fs::path path = m_dir.WriteFile("data.txt", std::string("a\0b", 3));
  std::string read;
  Helper::File::FileError error;
  ASSERT_TRUE(read_file(path, read, error));
  EXPECT_EQ(read, std::string("a\0b", 3));
  EXPECT_FALSE(error.Failed());
  EXPECT_EQ(error.Describe(), "no error");
}

// ---- FileReader ----

TEST_F(FileTest, ReaderReadsAHugeSparseFileInPiecesOfTheCallersBuffer) {
  // 2 GiB of hole and three bytes: no piece may be larger than the buffer given.
  const fs::path path = m_dir.Path() / "huge.xml";
  constexpr std::uint64_t kHole = std::uint64_t{2} << 30;
  {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    ASSERT_GE(fd, 0);
    const ssize_t written = ::pwrite(fd, "end", 3, static_cast<off_t>(kHole));
    ::close(fd);
    ASSERT_EQ(written, 3);
  }
  Helper::File::FileReader reader;
  Helper::File::FileError error;
  ASSERT_TRUE(reader.Open(path, error)) << error;
  EXPECT_EQ(reader.Size(), kHole + 3);

  std::vector<char> buffer(1 << 20);
  std::uint64_t total = 0;
  std::string tail;
  for (;;) {
    std::size_t got = 0;
    ASSERT_TRUE(reader.Read(buffer.data(), buffer.size(), got, error)) << error;
    if (got == 0) break;
    total += got;
    // Only the last three bytes matter; copying whole pieces would dominate the test.
    const std::size_t keep = std::min<std::size_t>(got, 3);
    tail.append(buffer.data() + got - keep, keep);
    if (tail.size() > 3) tail.erase(0, tail.size() - 3);
  }
  EXPECT_EQ(total, kHole + 3);
  EXPECT_EQ(tail, "end");
  EXPECT_LE(g_fake.largestRead, buffer.size());
  reader.Close();
}

TEST_F(FileTest, ReaderOfAFifoFailsAndHoldsNoDescriptor) {
  const fs::path fifo = m_dir.Path() / "fifo";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0644), 0);
  Helper::File::FileReader reader;
  Helper::File::FileError error;
  EXPECT_FALSE(reader.Open(fifo, error));
  EXPECT_EQ(error.Describe(), "stat: a FIFO, not a regular file");
  std::size_t got = 1;
  char buffer[8];
  EXPECT_FALSE(reader.Read(buffer, sizeof buffer, got, error));
  EXPECT_EQ(got, 0u);
  EXPECT_EQ(error.Describe(), "read: Bad file descriptor");
}

TEST_F(FileTest, ReaderClosesItsFileWhenDestroyed) {
  const fs::path path = m_dir.WriteFile("data.txt", "content");
  {
    Helper::File::FileReader reader;
    Helper::File::FileError error;
    ASSERT_TRUE(reader.Open(path, error));
    EXPECT_EQ(g_fake.openFds.size(), 1u);
  }
  // TearDown checks that no descriptor is left open.
}

// ---- the reason of a failed write ----

std::string WriteError(const fs::path& target, WriteFileMode mode = WriteFileMode::Replace) {
  Helper::File::FileError error;
  EXPECT_FALSE(write_file(target, "new", mode, error));
  EXPECT_TRUE(error.Failed());
  return error.Describe();
}

TEST_F(FileTest, ReplaceTellsWhichCallFailedAndWhy) {
  const fs::path target = m_dir.WriteFile("etsproject.xml", "old");
  g_fake.failWriteAtCall = 1;
  g_fake.writeErrno = ENOSPC;
  EXPECT_EQ(WriteError(target), "write: No space left on device");
  g_fake = FakeState{};
  g_fake.failWriteAtCall = 1;
  g_fake.writeErrno = EDQUOT;
  EXPECT_EQ(WriteError(target), "write: Disk quota exceeded");
  g_fake = FakeState{};
  g_fake.writeReturnsZero = true;
  EXPECT_EQ(WriteError(target), "write: no byte written");
  g_fake = FakeState{};
  g_fake.failFsync = true;
  EXPECT_EQ(WriteError(target), "fsync: Input/output error");
  g_fake = FakeState{};
  g_fake.failClose = true;
  EXPECT_EQ(WriteError(target), "close: Input/output error");
  g_fake = FakeState{};
  g_fake.failRename = true;
  EXPECT_EQ(WriteError(target), "rename: Invalid cross-device link");
  g_fake = FakeState{};
  g_fake.writeThrows = true;
  EXPECT_EQ(WriteError(target), "write_file: unexpected exception");
  g_fake = FakeState{};
  g_fake.exclusiveOpensFailingWithEexist = 1000000;
  EXPECT_EQ(WriteError(target), "open: File exists");
  g_fake = FakeState{};
  EXPECT_EQ(ReadWholeFile(target), "old");
  EXPECT_EQ(Entries(m_dir.Path()), std::set<std::string>{"etsproject.xml"});
}

TEST_F(FileTest, ReplaceTellsWhyThePathCannotBeWritten) {
  EXPECT_EQ(WriteError(m_dir.Path() / "missing" / "etsproject.xml"),
            "open: No such file or directory");
  m_dir.WriteFile("plain", "a file");
  EXPECT_EQ(WriteError(m_dir.Path() / "plain" / "etsproject.xml"), "lstat: Not a directory");
  EXPECT_EQ(WriteError(fs::path()), "open: an empty path or one holding a zero byte");
  EXPECT_EQ(WriteError(m_dir.Path() / ".."), "lstat: a directory, not a regular file");
  EXPECT_EQ(WriteError(fs::path("/")), "lstat: a directory, not a regular file");
  EXPECT_EQ(WriteError(m_dir.Path() / "file", static_cast<WriteFileMode>(7)),
            "write_file: unknown write mode");
}

TEST_F(FileTest, AppendTellsWhichCallFailedAndWhy) {
  EXPECT_EQ(WriteError(m_dir.Path() / "missing" / "log.txt", WriteFileMode::Append),
            "open: No such file or directory");
  const fs::path target = m_dir.WriteFile("log.txt", "start:");
  g_fake.failWriteAtCall = 1;
  EXPECT_EQ(WriteError(target, WriteFileMode::Append), "write: No space left on device");
  g_fake = FakeState{};
  g_fake.failClose = true;
  EXPECT_EQ(WriteError(target, WriteFileMode::Append), "close: Input/output error");
}

TEST_F(FileTest, AppendToAFifoWithoutReaderFailsAtOnce) {
  const fs::path fifo = m_dir.Path() / "log.fifo";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0644), 0);
  EXPECT_EQ(WriteError(fifo, WriteFileMode::Append), "open: No such device or address");
}

TEST_F(FileTest, AppendToACharacterDeviceFailsNamingItsType) {
  EXPECT_EQ(WriteError("/dev/null", WriteFileMode::Append),
            "fstat: a character device, not a regular file");
}

TEST_F(FileTest, ASuccessfulWriteLeavesTheErrorEmpty) {
  Helper::File::FileError error;
  ASSERT_TRUE(write_file(m_dir.Path() / "etsproject.xml", "new", WriteFileMode::Replace, error));
  EXPECT_FALSE(error.Failed());
}

// ---- what is not a regular file is not replaced ----

TEST_F(FileTest, ReplaceOfAFifoFailsAndLeavesIt) {
  const fs::path fifo = m_dir.Path() / "etsproject.xml";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0644), 0);
  EXPECT_EQ(WriteError(fifo), "lstat: a FIFO, not a regular file");
  struct stat info {};
  ASSERT_EQ(::lstat(fifo.c_str(), &info), 0);
  EXPECT_TRUE(S_ISFIFO(info.st_mode));
  EXPECT_EQ(Entries(m_dir.Path()), std::set<std::string>{"etsproject.xml"});
}

TEST_F(FileTest, ReplaceThroughALinkToADeviceFailsAndLeavesTheDevice) {
  const fs::path link = m_dir.Path() / "etsproject.xml";
  fs::create_symlink("/dev/null", link);
  EXPECT_EQ(WriteError(link), "lstat: a character device, not a regular file");
  EXPECT_TRUE(fs::is_symlink(link));
  struct stat info {};
  ASSERT_EQ(::stat("/dev/null", &info), 0);
  EXPECT_TRUE(S_ISCHR(info.st_mode));
  EXPECT_TRUE(g_fake.openedPaths.empty());
}

// ---- symbolic links ----

TEST_F(FileTest, ReplaceThroughALinkReplacesItsTargetAndKeepsTheLink) {
  fs::create_directory(m_dir.Path() / "data");
  const fs::path target = m_dir.WriteFile("data/etsproject.xml", "old");
  const fs::path link = m_dir.Path() / "etsproject.xml";
  fs::create_symlink(target, link);

  ASSERT_TRUE(write_file(link, "new", WriteFileMode::Replace));

  EXPECT_TRUE(fs::is_symlink(link));
  EXPECT_EQ(fs::read_symlink(link), target);
  EXPECT_EQ(ReadWholeFile(target), "new");
  // The temporary lives beside the target, so the rename stays within one file system.
  ASSERT_EQ(g_fake.openedPaths.size(), 1u);
  EXPECT_EQ(fs::path(g_fake.openedPaths[0]).parent_path(), target.parent_path());
  EXPECT_GE(IndexOf("rename " + g_fake.openedPaths[0] + " -> " + target.string()), 0);
  EXPECT_GE(IndexOf("fsyncDirectory " + target.parent_path().string()), 0);
  EXPECT_EQ(Entries(m_dir.Path()), (std::set<std::string>{"data", "etsproject.xml"}));
  EXPECT_EQ(Entries(m_dir.Path() / "data"), std::set<std::string>{"etsproject.xml"});
}

TEST_F(FileTest, ReplaceThroughARelativeLinkResolvesItAgainstTheLinksDirectory) {
  fs::create_directories(m_dir.Path() / "config" / "links");
  fs::create_directory(m_dir.Path() / "data");
  const fs::path target = m_dir.WriteFile("data/etsproject.xml", "old");
  const fs::path link = m_dir.Path() / "config" / "links" / "etsproject.xml";
  fs::create_symlink("../../data/etsproject.xml", link);
  // The working directory must play no part.
  const fs::path previous = fs::current_path();
  fs::current_path("/");
  const bool written = write_file(link, "new", WriteFileMode::Replace);
  fs::current_path(previous);
  ASSERT_TRUE(written);
  EXPECT_EQ(ReadWholeFile(target), "new");
  EXPECT_EQ(fs::read_symlink(link), "../../data/etsproject.xml");
}

TEST_F(FileTest, ReplaceFollowsAChainOfLinks) {
  fs::create_directory(m_dir.Path() / "a");
  fs::create_directory(m_dir.Path() / "b");
  const fs::path target = m_dir.WriteFile("b/real.xml", "old");
  fs::create_symlink("../b/real.xml", m_dir.Path() / "a" / "second");
  fs::create_symlink(m_dir.Path() / "a" / "second", m_dir.Path() / "first");
  ASSERT_TRUE(write_file(m_dir.Path() / "first", "new", WriteFileMode::Replace));
  EXPECT_EQ(ReadWholeFile(target), "new");
  EXPECT_TRUE(fs::is_symlink(m_dir.Path() / "first"));
  EXPECT_TRUE(fs::is_symlink(m_dir.Path() / "a" / "second"));
}

TEST_F(FileTest, ReplaceThroughADanglingLinkCreatesItsTarget) {
  fs::create_directory(m_dir.Path() / "data");
  const fs::path link = m_dir.Path() / "etsproject.xml";
  fs::create_symlink("data/new.xml", link);
  ASSERT_TRUE(write_file(link, "first", WriteFileMode::Replace));
  EXPECT_TRUE(fs::is_symlink(link));
  EXPECT_EQ(ReadWholeFile(m_dir.Path() / "data" / "new.xml"), "first");
}

TEST_F(FileTest, ReplaceThroughADanglingLinkIntoAMissingDirectoryFails) {
  const fs::path link = m_dir.Path() / "etsproject.xml";
  fs::create_symlink("missing/new.xml", link);
  EXPECT_EQ(WriteError(link), "open: No such file or directory");
  EXPECT_EQ(Entries(m_dir.Path()), std::set<std::string>{"etsproject.xml"});
}

TEST_F(FileTest, ReplaceThroughALinkLoopFailsWithoutWriting) {
  fs::create_symlink("two", m_dir.Path() / "one");
  fs::create_symlink("one", m_dir.Path() / "two");
  EXPECT_EQ(WriteError(m_dir.Path() / "one"), "readlink: Too many levels of symbolic links");
  EXPECT_EQ(Entries(m_dir.Path()), (std::set<std::string>{"one", "two"}));
  EXPECT_TRUE(g_fake.openedPaths.empty());
}

TEST_F(FileTest, ReplaceFollowsAsManyLinksAsTheKernelWould) {
  const fs::path target = m_dir.WriteFile("real.xml", "old");
  std::string next = "real.xml";
  for (int i = 0; i < 40; ++i) {
    const std::string name = "link" + std::to_string(i);
    fs::create_symlink(next, m_dir.Path() / name);
    next = name;
  }
  ASSERT_TRUE(write_file(m_dir.Path() / next, "new", WriteFileMode::Replace));
  EXPECT_EQ(ReadWholeFile(target), "new");
  fs::create_symlink(next, m_dir.Path() / "one-too-many");
  EXPECT_EQ(WriteError(m_dir.Path() / "one-too-many"),
            "readlink: Too many levels of symbolic links");
}

TEST_F(FileTest, ReplaceRemovesStaleTemporariesBesideTheLinksTarget) {
  fs::create_directory(m_dir.Path() / "data");
  const fs::path target = m_dir.WriteFile("data/real.xml", "old");
  m_dir.WriteFile("data/.real.xml.tmp-abcdefgh", "<etsproject half written");
  fs::create_symlink("data/real.xml", m_dir.Path() / "etsproject.xml");
  ASSERT_TRUE(write_file(m_dir.Path() / "etsproject.xml", "new", WriteFileMode::Replace));
  EXPECT_EQ(Entries(m_dir.Path() / "data"), std::set<std::string>{"real.xml"});
}

// ---- two writers ----

// Whether another open file description can take an exclusive lock on path now.
bool Lockable(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  const bool locked = ::flock(fd, LOCK_EX | LOCK_NB) == 0;
  ::close(fd);
  return locked;
}

std::vector<bool> g_lockableDuringReplace;

ssize_t WriteCheckingTheLock(int fd, const void* data, std::size_t size) {
  g_lockableDuringReplace.push_back(Lockable(g_fake.openedPaths.back()));
  return FakeWrite(fd, data, size);
}

int RenameCheckingTheLock(const char* from, const char* to) {
  g_lockableDuringReplace.push_back(Lockable(from));
  return FakeRename(from, to);
}

TEST_F(FileTest, AWriterHoldsALockOnItsTemporaryUntilItIsRenamed) {
  g_lockableDuringReplace.clear();
  SetFileSystemOps({FakeOpen, WriteCheckingTheLock, FakeRead, FakeFsync, FakeClose,
                    RenameCheckingTheLock, FakeFsyncDirectory, FakeUnlink});
  const fs::path target = m_dir.WriteFile("etsproject.xml", "old");
  ASSERT_TRUE(write_file(target, "new", WriteFileMode::Replace));
  // At the write, and at the rename after the data descriptor was closed.
  EXPECT_EQ(g_lockableDuringReplace, (std::vector<bool>{false, false}));
  EXPECT_EQ(ReadWholeFile(target), "new");
}

TEST_F(FileTest, ReplaceLeavesATemporaryAnotherWriterHoldsAlone) {
  const fs::path target = m_dir.WriteFile("etsproject.xml", "old");
  const fs::path busy = m_dir.WriteFile(".etsproject.xml.tmp-busybusy", "<etsproject being wri");
  const int holder = ::open(busy.c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(holder, 0);
  ASSERT_EQ(::flock(holder, LOCK_EX | LOCK_NB), 0);

  ASSERT_TRUE(write_file(target, "new", WriteFileMode::Replace));
  EXPECT_EQ(ReadWholeFile(target), "new");
  EXPECT_EQ(ReadWholeFile(busy), "<etsproject being wri");
  EXPECT_EQ(IndexOf("unlink"), -1);

  // Once its writer is gone, the temporary is stale and the next replace removes it.
  ::close(holder);
  ASSERT_TRUE(write_file(target, "newer", WriteFileMode::Replace));
  EXPECT_EQ(Entries(m_dir.Path()), std::set<std::string>{"etsproject.xml"});
}

TEST_F(FileTest, TwoProcessesReplacingOneFileNeverRemoveEachOthersTemporaries) {
  const fs::path target = m_dir.WriteFile("etsproject.xml", "start");
  constexpr int kWriters = 3;
  constexpr int kWritesEach = 150;
  std::vector<pid_t> children;
  for (int writer = 0; writer < kWriters; ++writer) {
    const pid_t pid = ::fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      // The real calls: the fakes' bookkeeping belongs to the parent.
      SetFileSystemOps(DefaultFileSystemOps());
      const std::string content = "document of writer " + std::to_string(writer);
      int failures = 0;
      for (int i = 0; i < kWritesEach; ++i) {
        if (!write_file(target, content, WriteFileMode::Replace)) ++failures;
      }
      ::_exit(failures > 255 ? 255 : failures);
    }
    children.push_back(pid);
  }
  for (const pid_t pid : children) {
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0) << "failed replaces of one writer";
  }
  const std::string content = ReadWholeFile(target);
  EXPECT_EQ(content.rfind("document of writer ", 0), 0u) << content;
  EXPECT_EQ(Entries(m_dir.Path()), std::set<std::string>{"etsproject.xml"});
}

// ---- the operations table ----

TEST(FileSystemOps, DefaultOperationsAreAllSet) {
  const FileSystemOps& ops = DefaultFileSystemOps();
  EXPECT_NE(ops.open, nullptr);
  EXPECT_NE(ops.write, nullptr);
  EXPECT_NE(ops.read, nullptr);
  EXPECT_NE(ops.fsync, nullptr);
  EXPECT_NE(ops.close, nullptr);
  EXPECT_NE(ops.rename, nullptr);
  EXPECT_NE(ops.fsyncDirectory, nullptr);
  EXPECT_NE(ops.unlink, nullptr);
}

TEST(FileSystemOps, UnsetOperationsFallBackToTheRealCalls) {
  const FileSystemOps previous = SetFileSystemOps(FileSystemOps{});
  TempDir dir;
  const fs::path target = dir.Path() / "real.txt";
  const bool written = write_file(target, "real", WriteFileMode::Replace);
  std::string read;
  const bool readBack = read_file(target, read);
  SetFileSystemOps(previous);
  EXPECT_TRUE(written);
  EXPECT_TRUE(readBack);
  EXPECT_EQ(read, "real");
}

TEST(FileSystemOps, SetReturnsTheOperationsItReplaced) {
  const FileSystemOps previous =
      SetFileSystemOps({FakeOpen, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr});
  const FileSystemOps replaced = SetFileSystemOps(previous);
  EXPECT_EQ(replaced.open, &FakeOpen);
  EXPECT_EQ(replaced.write, DefaultFileSystemOps().write);
}

}  // namespace
