// Whole downloads against real file systems and real special files instead of
// injected failures: a tmpfs that fills up, a tmpfs remounted read-only, a huge
// sparse saved file, and the project path as a symbolic link (to a file, and
// dangling). Mounting needs root (CAP_SYS_ADMIN); without it those tests skip.

#include <DownloadDump.h>
#include <LuaKnxDownloadHandler/luaknxdownloadhandler.h>

#include <Helper/File.h>

#include <CapturingAppender.h>
#include <TempDir.h>

#include <gtest/gtest.h>
#include <log4cplus/loglevel.h>
#include <boost/filesystem/operations.hpp>

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <set>
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

// The demo download, or the same with one folder renamed (a document of the same size).
const lkdh::host::DownloadDump& Download(bool alternative) {
  static const auto first = lkdh::host::ParseDownloadDump(ReadWholeFile(kDemoDump));
  static const auto second = [] {
    std::string text = ReadWholeFile(kDemoDump);
    const auto folder = text.find("\"Living room\"");
    if (folder == std::string::npos) throw std::runtime_error("demo dump without 'Living room'");
    text.replace(folder, 13, "\"Living area\"");
    return lkdh::host::ParseDownloadDump(text);
  }();
  return alternative ? second : first;
}

struct Outcome {
  bool result = false;
  int callbacks = 0;
  std::vector<lkdh::test::LogLine> lines;  // the handler's lines at INFO and above
};

Outcome RunDownload(Korvex::LuaKnxDownloadHandler& handler, bool alternative,
                    IKnxDownloadHandler::AppData appData = IKnxDownloadHandler::AppData_None) {
  Outcome outcome;
  LogCapture capture;
  const auto& download = Download(alternative);
  outcome.result = handler.CreateFileWithKnxData(
      download.interfaceObjects, download.memory, [&outcome] { ++outcome.callbacks; }, appData,
      download.coDescriptors);
  for (const auto& line : capture.Lines()) {
    if (line.logger == kLogger && line.level >= log4cplus::INFO_LOG_LEVEL) {
      outcome.lines.push_back(line);
    }
  }
  return outcome;
}

// Records the line that says why, for the reliability report.
void RecordReasonLine(const Outcome& outcome) {
  ::testing::Test::RecordProperty(
      "reason_line", outcome.lines.empty() ? std::string("(none)") : outcome.lines.back().message);
}

lkdh::test::LogLine Line(int level, const std::string& message) {
  return {level, kLogger, message};
}

std::set<std::string> Entries(const fs::path& directory) {
  std::set<std::string> names;
  for (const auto& entry : fs::directory_iterator(directory)) {
    names.insert(entry.path().filename().string());
  }
  return names;
}

// The documents both downloads produce, written once into a scratch directory.
const std::string& Document(bool alternative) {
  static const std::vector<std::string> documents = [] {
    TempDir dir;
    std::vector<std::string> texts;
    for (const bool which : {false, true}) {
      const fs::path path = dir.Path() / (which ? "b.xml" : "a.xml");
      Korvex::LuaKnxDownloadHandler handler(path.string() + ";" + kScript);
      if (!RunDownload(handler, which).result)
        throw std::runtime_error("reference download failed");
      texts.push_back(ReadWholeFile(path));
    }
    return texts;
  }();
  return documents[alternative ? 1 : 0];
}

// ---- a tmpfs of its own, unmounted whatever happens ----

// Mounts made by this process stay out of the machine's mount table where the kernel
// lets the process have a mount namespace of its own.
void EnterPrivateMountNamespaceOnce() {
  static const bool entered = [] {
    if (::unshare(CLONE_NEWNS) != 0) return false;  // e.g. several threads (qemu-user)
    return ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
  }();
  (void)entered;
}

class TmpfsMount {
 public:
  TmpfsMount(const fs::path& where, const std::string& options) : m_path(where) {
    if (::geteuid() != 0) {
      m_whyNot = "mounting a tmpfs needs root";
      return;
    }
    EnterPrivateMountNamespaceOnce();
    fs::create_directory(m_path);
    if (::mount("tmpfs", m_path.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, options.c_str()) != 0) {
      m_whyNot = std::string("mount -t tmpfs refused: ") + std::strerror(errno);
      return;
    }
    m_mounted = true;
  }
  ~TmpfsMount() {
    // Lazily, so that an fd a failed test left open cannot keep the mount.
    if (m_mounted) ::umount2(m_path.c_str(), MNT_DETACH);
  }
  TmpfsMount(const TmpfsMount&) = delete;
  TmpfsMount& operator=(const TmpfsMount&) = delete;

  bool Mounted() const { return m_mounted; }
  const std::string& WhyNot() const { return m_whyNot; }
  const fs::path& Path() const { return m_path; }

  void Remount(unsigned long flags) const {
    if (::mount(nullptr, m_path.c_str(), nullptr, MS_REMOUNT | MS_NOSUID | MS_NODEV | flags,
                nullptr) != 0) {
      throw std::runtime_error(std::string("remount failed: ") + std::strerror(errno));
    }
  }

 private:
  fs::path m_path;
  bool m_mounted = false;
  std::string m_whyNot;
};

#define SKIP_UNLESS_MOUNTED(mount)                            \
  do {                                                        \
    if (!(mount).Mounted()) GTEST_SKIP() << (mount).WhyNot(); \
  } while (false)

// Fills the file system under directory to the last byte; returns the filler's path.
fs::path FillUp(const fs::path& directory) {
  const fs::path filler = directory / "filler";
  const int fd = ::open(filler.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) throw std::runtime_error("cannot create the filler");
  const std::string block(4096, 'f');
  for (;;) {
    const ssize_t written = ::write(fd, block.data(), block.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) break;
  }
  ::close(fd);
  return filler;
}

class FsRealFaultTest : public ::testing::Test {
 protected:
  TempDir m_dir;
};

TEST_F(FsRealFaultTest, FullDiskKeepsTheSavedFileAndSaysWhy) {
  TmpfsMount mount(m_dir.Path() / "small", "size=64k,mode=0755");
  SKIP_UNLESS_MOUNTED(mount);
  const fs::path target = mount.Path() / "etsproject.xml";
  Korvex::LuaKnxDownloadHandler handler(target.string() + ";" + kScript);
  ASSERT_TRUE(handler.Loaded());
  ASSERT_TRUE(RunDownload(handler, false).result);
  const fs::path filler = FillUp(mount.Path());

  const Outcome full = RunDownload(handler, true);
  RecordReasonLine(full);

  EXPECT_FALSE(full.result);
  EXPECT_EQ(full.callbacks, 0);
  EXPECT_EQ(full.lines,
            (std::vector<lkdh::test::LogLine>{
                Line(log4cplus::INFO_LOG_LEVEL, "save new etsproject. Path: " + target.string()),
                Line(log4cplus::ERROR_LOG_LEVEL, "Failed to write file '" + target.string() + "'."),
                Line(log4cplus::ERROR_LOG_LEVEL, "write: No space left on device")}));
  EXPECT_EQ(ReadWholeFile(target), Document(false));
  EXPECT_EQ(Entries(mount.Path()), (std::set<std::string>{"etsproject.xml", "filler"}));
  RecordProperty("fault", "a 64 KiB tmpfs filled up (ENOSPC), old file kept");

  // With room again the same download goes through.
  fs::remove(filler);
  const Outcome recovered = RunDownload(handler, true);
  EXPECT_TRUE(recovered.result);
  EXPECT_EQ(recovered.callbacks, 1);
  EXPECT_EQ(ReadWholeFile(target), Document(true));
  EXPECT_EQ(Entries(mount.Path()), std::set<std::string>{"etsproject.xml"});
}

TEST_F(FsRealFaultTest, FullDiskOnTheFirstDownloadCreatesNothing) {
  TmpfsMount mount(m_dir.Path() / "small", "size=64k,mode=0755");
  SKIP_UNLESS_MOUNTED(mount);
  const fs::path target = mount.Path() / "etsproject.xml";
  FillUp(mount.Path());
  Korvex::LuaKnxDownloadHandler handler(target.string() + ";" + kScript);
  ASSERT_TRUE(handler.Loaded());

  const Outcome full = RunDownload(handler, false);
  RecordReasonLine(full);

  EXPECT_FALSE(full.result);
  EXPECT_EQ(full.callbacks, 0);
  ASSERT_EQ(full.lines.size(), 3u);
  EXPECT_EQ(full.lines[1].message, "Failed to write file '" + target.string() + "'.");
  EXPECT_EQ(full.lines[2], Line(log4cplus::ERROR_LOG_LEVEL, "write: No space left on device"));
  EXPECT_EQ(Entries(mount.Path()), std::set<std::string>{"filler"});
  RecordProperty("fault", "a full 64 KiB tmpfs at the first download (ENOSPC), nothing created");
}

TEST_F(FsRealFaultTest, NoFreeInodeKeepsTheSavedFileAndSaysWhy) {
  // The root directory, the saved file and nothing more.
  TmpfsMount mount(m_dir.Path() / "few-inodes", "size=1m,nr_inodes=2,mode=0755");
  SKIP_UNLESS_MOUNTED(mount);
  const fs::path target = mount.Path() / "etsproject.xml";
  Korvex::LuaKnxDownloadHandler handler(target.string() + ";" + kScript);
  ASSERT_TRUE(handler.Loaded());
  ASSERT_TRUE(RunDownload(handler, false).result);

  const Outcome full = RunDownload(handler, true);
  RecordReasonLine(full);

  EXPECT_FALSE(full.result);
  EXPECT_EQ(full.callbacks, 0);
  ASSERT_EQ(full.lines.size(), 3u);
  EXPECT_EQ(full.lines[1].message, "Failed to write file '" + target.string() + "'.");
  EXPECT_EQ(full.lines[2], Line(log4cplus::ERROR_LOG_LEVEL, "open: No space left on device"));
  EXPECT_EQ(ReadWholeFile(target), Document(false));
  EXPECT_EQ(Entries(mount.Path()), std::set<std::string>{"etsproject.xml"});
  RecordProperty("fault", "a tmpfs without a free inode (ENOSPC at open), old file kept");
}

TEST_F(FsRealFaultTest, ReadOnlyFileSystemKeepsTheSavedFileAndSaysWhy) {
  TmpfsMount mount(m_dir.Path() / "read-only", "size=1m,mode=0755");
  SKIP_UNLESS_MOUNTED(mount);
  const fs::path target = mount.Path() / "etsproject.xml";
  Korvex::LuaKnxDownloadHandler handler(target.string() + ";" + kScript);
  ASSERT_TRUE(handler.Loaded());
  ASSERT_TRUE(RunDownload(handler, false).result);
  mount.Remount(MS_RDONLY);

  const Outcome readOnly = RunDownload(handler, true);
  RecordReasonLine(readOnly);

  EXPECT_FALSE(readOnly.result);
  EXPECT_EQ(readOnly.callbacks, 0);
  EXPECT_EQ(readOnly.lines,
            (std::vector<lkdh::test::LogLine>{
                Line(log4cplus::INFO_LOG_LEVEL, "save new etsproject. Path: " + target.string()),
                Line(log4cplus::ERROR_LOG_LEVEL, "Failed to write file '" + target.string() + "'."),
                Line(log4cplus::ERROR_LOG_LEVEL, "open: Read-only file system")}));
  EXPECT_EQ(ReadWholeFile(target), Document(false));
  EXPECT_EQ(Entries(mount.Path()), std::set<std::string>{"etsproject.xml"});
  // An unchanged download only reads, which a read-only file system allows.
  const Outcome same = RunDownload(handler, false);
  EXPECT_FALSE(same.result);
  EXPECT_TRUE(same.lines.empty());
  RecordProperty("fault", "a tmpfs remounted read-only (EROFS), old file kept");

  mount.Remount(0);
  const Outcome recovered = RunDownload(handler, true);
  EXPECT_TRUE(recovered.result);
  EXPECT_EQ(recovered.callbacks, 1);
  EXPECT_EQ(ReadWholeFile(target), Document(true));
}

// ---- a huge saved file ----

int g_reads = 0;

ssize_t CountingRead(int fd, void* data, std::size_t size) {
  ++g_reads;
  return DefaultFileSystemOps().read(fd, data, size);
}

TEST_F(FsRealFaultTest, HugeSparseSavedFileIsReadInPiecesAndReplaced) {
  // 2 GiB that take no disk space; a device holding it whole in memory would run out.
  const fs::path target = m_dir.Path() / "etsproject.xml";
  constexpr off_t kSize = off_t{2} << 30;
  {
    const int fd = ::open(target.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    ASSERT_GE(fd, 0);
    const ssize_t written = ::pwrite(fd, "</etsproject>\n", 14, kSize - 14);
    ::close(fd);
    ASSERT_EQ(written, 14);
  }
  Korvex::LuaKnxDownloadHandler handler(target.string() + ";" + kScript);
  ASSERT_TRUE(handler.Loaded());
  FileSystemOps ops{};
  ops.read = CountingRead;
  g_reads = 0;
  const FileSystemOps previous = SetFileSystemOps(ops);
  const Outcome replaced = RunDownload(handler, false);
  const int readsOfTheHugeFile = g_reads;
  const Outcome same = RunDownload(handler, false);
  SetFileSystemOps(previous);

  EXPECT_TRUE(replaced.result);
  EXPECT_EQ(replaced.callbacks, 1);
  EXPECT_EQ(replaced.lines,
            (std::vector<lkdh::test::LogLine>{
                Line(log4cplus::INFO_LOG_LEVEL, "save new etsproject. Path: " + target.string())}));
  // Read to its end in pieces (2 GiB / 64 KiB, and the end), never hashed or held whole.
  EXPECT_EQ(readsOfTheHugeFile, 32769);
  EXPECT_EQ(ReadWholeFile(target), Document(false));
  // The next download compares with the new file as usual, reading it.
  EXPECT_FALSE(same.result);
  EXPECT_EQ(same.callbacks, 0);
  EXPECT_GT(g_reads, 0);
  EXPECT_EQ(Entries(m_dir.Path()), std::set<std::string>{"etsproject.xml"});
  RecordProperty("fault", "a 2 GiB sparse saved file, read in pieces and replaced");
}

// ---- the project path as a symbolic link ----

TEST_F(FsRealFaultTest, LinkedProjectFileIsReplacedAndTheLinkKept) {
  fs::create_directory(m_dir.Path() / "data");
  const fs::path real = m_dir.Path() / "data" / "project.xml";
  const fs::path link = m_dir.Path() / "etsproject.xml";
  fs::create_symlink("data/project.xml", link);
  Korvex::LuaKnxDownloadHandler handler(link.string() + ";" + kScript);
  ASSERT_TRUE(handler.Loaded());

  // Dangling at first: the download creates the link's target.
  const Outcome first = RunDownload(handler, false);
  EXPECT_TRUE(first.result);
  EXPECT_EQ(first.callbacks, 1);
  EXPECT_EQ(first.lines,
            (std::vector<lkdh::test::LogLine>{
                Line(log4cplus::INFO_LOG_LEVEL, "save new etsproject. Path: " + link.string())}));
  EXPECT_TRUE(fs::is_symlink(link));
  EXPECT_EQ(ReadWholeFile(real), Document(false));

  // A changed download replaces the target through the link.
  const Outcome changed = RunDownload(handler, true);
  EXPECT_TRUE(changed.result);
  EXPECT_EQ(changed.callbacks, 1);
  EXPECT_TRUE(fs::is_symlink(link));
  EXPECT_EQ(fs::read_symlink(link), "data/project.xml");
  EXPECT_EQ(ReadWholeFile(real), Document(true));

  // The comparison reads through the link too.
  const Outcome same = RunDownload(handler, true);
  EXPECT_FALSE(same.result);
  EXPECT_EQ(same.callbacks, 0);
  EXPECT_TRUE(same.lines.empty());

  EXPECT_EQ(Entries(m_dir.Path()), (std::set<std::string>{"data", "etsproject.xml"}));
  EXPECT_EQ(Entries(m_dir.Path() / "data"), std::set<std::string>{"project.xml"});
  RecordProperty("fault", "the path a symbolic link (dangling, then to a file): target written");
}

TEST_F(FsRealFaultTest, LinkIntoAFullFileSystemKeepsItsTargetAndSaysWhy) {
  TmpfsMount mount(m_dir.Path() / "small", "size=64k,mode=0755");
  SKIP_UNLESS_MOUNTED(mount);
  const fs::path real = mount.Path() / "etsproject.xml";
  const fs::path link = m_dir.Path() / "etsproject.xml";
  fs::create_symlink(real, link);
  Korvex::LuaKnxDownloadHandler handler(link.string() + ";" + kScript);
  ASSERT_TRUE(handler.Loaded());
  ASSERT_TRUE(RunDownload(handler, false).result);
  FillUp(mount.Path());

  const Outcome full = RunDownload(handler, true);
  RecordReasonLine(full);

  EXPECT_FALSE(full.result);
  EXPECT_EQ(full.callbacks, 0);
  ASSERT_EQ(full.lines.size(), 3u);
  EXPECT_EQ(full.lines[1].message, "Failed to write file '" + link.string() + "'.");
  EXPECT_EQ(full.lines[2].message, "write: No space left on device");
  EXPECT_TRUE(fs::is_symlink(link));
  EXPECT_EQ(ReadWholeFile(real), Document(false));
  EXPECT_EQ(Entries(mount.Path()), (std::set<std::string>{"etsproject.xml", "filler"}));
  RecordProperty("fault", "a link to a file on a full tmpfs (ENOSPC), target kept");
}

}  // namespace
