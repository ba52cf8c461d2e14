#include <Helper/File.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>
#include <exception>
#include <memory>
#include <new>
#include <ostream>
#include <utility>
#include <vector>

namespace Helper::File {

namespace detail {

namespace {

int RealOpen(const char* path, int flags, mode_t mode) { return ::open(path, flags, mode); }
ssize_t RealWrite(int fd, const void* data, std::size_t size) { return ::write(fd, data, size); }
ssize_t RealRead(int fd, void* data, std::size_t size) { return ::read(fd, data, size); }
int RealFsync(int fd) { return ::fsync(fd); }
int RealClose(int fd) { return ::close(fd); }
int RealRename(const char* from, const char* to) { return ::rename(from, to); }
int RealUnlink(const char* path) { return ::unlink(path); }

int RealFsyncDirectory(const char* directory) {
  const int fd = ::open(directory, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return -1;
  const int result = ::fsync(fd);
  const int savedErrno = errno;
  ::close(fd);
  errno = savedErrno;
  return result;
}

constexpr FileSystemOps kDefaultOps{RealOpen,  RealWrite,  RealRead,           RealFsync,
                                    RealClose, RealRename, RealFsyncDirectory, RealUnlink};

FileSystemOps g_ops = kDefaultOps;

}  // namespace

const FileSystemOps& DefaultFileSystemOps() noexcept { return kDefaultOps; }

FileSystemOps SetFileSystemOps(const FileSystemOps& ops) noexcept {
  const FileSystemOps previous = g_ops;
  // A member left null keeps the real call, so a test replaces only what it fakes.
  g_ops.open = ops.open != nullptr ? ops.open : kDefaultOps.open;
  g_ops.write = ops.write != nullptr ? ops.write : kDefaultOps.write;
  g_ops.read = ops.read != nullptr ? ops.read : kDefaultOps.read;
  g_ops.fsync = ops.fsync != nullptr ? ops.fsync : kDefaultOps.fsync;
  g_ops.close = ops.close != nullptr ? ops.close : kDefaultOps.close;
  g_ops.rename = ops.rename != nullptr ? ops.rename : kDefaultOps.rename;
  g_ops.fsyncDirectory =
      ops.fsyncDirectory != nullptr ? ops.fsyncDirectory : kDefaultOps.fsyncDirectory;
  g_ops.unlink = ops.unlink != nullptr ? ops.unlink : kDefaultOps.unlink;
  return previous;
}

}  // namespace detail

namespace {

using detail::FileSystemOps;

constexpr mode_t kNewFileMode = S_IRUSR | S_IWUSR | S_IRGRP | S_IROTH;  // 0644 before umask
constexpr std::size_t kReadChunk = 64 * 1024;
// Bounded so a single write never exceeds what ssize_t can report back.
constexpr std::size_t kMaxWriteChunk = 1024 * 1024 * 1024;
constexpr int kTemporaryNameAttempts = 100;
constexpr std::size_t kMaxFileNameLength = NAME_MAX;
constexpr char kTemporaryMarker[] = ".tmp-";
constexpr std::size_t kSuffixLength = 8;
// The kernel's own limit on the links followed in one lookup.
constexpr int kMaxSymbolicLinks = 40;

FileError SystemError(const char* call, int number) noexcept {
  FileError error;
  error.call = call;
  error.number = number;
  return error;
}

FileError Failure(const char* call, const char* reason) noexcept {
  FileError error;
  error.call = call;
  error.reason = reason;
  return error;
}

// What a file that should be a regular one is instead.
const char* NotARegularFile(mode_t mode) noexcept {
  if (S_ISDIR(mode)) return "a directory, not a regular file";
  if (S_ISFIFO(mode)) return "a FIFO, not a regular file";
  if (S_ISCHR(mode)) return "a character device, not a regular file";
  if (S_ISBLK(mode)) return "a block device, not a regular file";
  if (S_ISSOCK(mode)) return "a socket, not a regular file";
  if (S_ISLNK(mode)) return "a symbolic link, not a regular file";
  return "not a regular file";
}

// strerror_r comes in a GNU flavour (returns the text) and an XSI one (fills the buffer).
[[maybe_unused]] const char* ErrorText(const char* text, const char*) noexcept { return text; }
[[maybe_unused]] const char* ErrorText(int result, const char* buffer) noexcept {
  return result == 0 ? buffer : "Unknown error";
}

// A path with an embedded zero byte would silently name a different file through the C API.
bool IsUsablePath(const boost::filesystem::path& path) {
  return !path.empty() && path.native().find('\0') == std::string::npos;
}

constexpr char kUnusablePath[] = "an empty path or one holding a zero byte";

bool WriteAll(const FileSystemOps& ops, int fd, std::string_view data, FileError& error) {
  const char* next = data.data();
  std::size_t remaining = data.size();
  while (remaining > 0) {
    const ssize_t written = ops.write(fd, next, std::min(remaining, kMaxWriteChunk));
    if (written < 0) {
      if (errno == EINTR) continue;
      error = SystemError("write", errno);
      return false;
    }
    // A write that makes no progress would otherwise loop for ever.
    if (written == 0) {
      error = Failure("write", "no byte written");
      return false;
    }
    if (static_cast<std::size_t>(written) > remaining) {
      error = Failure("write", "more bytes reported written than given");
      return false;
    }
    next += written;
    remaining -= static_cast<std::size_t>(written);
  }
  return true;
}

bool Fsync(const FileSystemOps& ops, int fd, FileError& error) {
  while (ops.fsync(fd) != 0) {
    if (errno != EINTR) {
      error = SystemError("fsync", errno);
      return false;
    }
  }
  return true;
}

// Closes on every path; close is not retried after EINTR because Linux has released the fd.
bool Close(const FileSystemOps& ops, int& fd, FileError& error) {
  const int result = ops.close(fd);
  fd = -1;
  if (result != 0) {
    error = SystemError("close", errno);
    return false;
  }
  return true;
}

int OpenRetryingInterrupts(const FileSystemOps& ops, const char* path, int flags, mode_t mode) {
  int fd = -1;
  do {
    fd = ops.open(path, flags, mode);
  } while (fd < 0 && errno == EINTR);
  return fd;
}

int FlockRetryingInterrupts(int fd, int operation) {
  int result = -1;
  do {
    result = ::flock(fd, operation);
  } while (result != 0 && errno == EINTR);
  return result;
}

std::string RandomSuffix() {
  static std::atomic<std::uint64_t> s_counter{0};
  std::uint64_t seed =
      static_cast<std::uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count());
  seed ^= static_cast<std::uint64_t>(::getpid()) << 32;
  seed += 0x9E3779B97F4A7C15ULL * (s_counter.fetch_add(1) + 1);
  // splitmix64 finaliser: spreads the clock, pid and counter over all bits.
  seed = (seed ^ (seed >> 30)) * 0xBF58476D1CE4E5B9ULL;
  seed = (seed ^ (seed >> 27)) * 0x94D049BB133111EBULL;
  seed ^= seed >> 31;
  static constexpr char kAlphabet[] = "0123456789abcdefghijklmnopqrstuvwxyz";
  std::string suffix(kSuffixLength, '0');
  for (auto& c : suffix) {
    c = kAlphabet[seed % 36];
    seed /= 36;
  }
  return suffix;
}

// The temporary names of target: "." + name + ".tmp-" + suffix, cut to fit NAME_MAX.
// truncated tells whether the name had to be cut.
std::string TemporaryStem(const std::string& targetName, bool& truncated) {
  std::string stem = "." + targetName;
  const std::size_t suffixLength = sizeof kTemporaryMarker - 1 + kSuffixLength;
  truncated = stem.size() + suffixLength > kMaxFileNameLength;
  // Keep the name within NAME_MAX even for a target whose own name is near the limit.
  if (truncated) stem.resize(kMaxFileNameLength - suffixLength);
  return stem;
}

bool IsSuffixCharacter(char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z'); }

// Removes the temporary at path if no writer holds it: a writer keeps an exclusive flock
// on its temporary from just after creating it until it is renamed or removed, so one
// that can be locked here was left by a writer that died.
void RemoveIfStale(const FileSystemOps& ops, const std::string& path) noexcept {
  const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY);
  if (fd < 0) return;  // gone already, or not a file this helper made
  struct stat opened {};
  struct stat named {};
  // The name must still lead to the locked file, or a live writer's new one would go.
  if (::fstat(fd, &opened) == 0 && S_ISREG(opened.st_mode) &&
      FlockRetryingInterrupts(fd, LOCK_EX | LOCK_NB) == 0 && ::lstat(path.c_str(), &named) == 0 &&
      named.st_dev == opened.st_dev && named.st_ino == opened.st_ino) {
    ops.unlink(path.c_str());
  }
  ::close(fd);  // releases the lock
}

// Removes what a crash between creating a temporary and renaming it left behind.
// Only names this helper itself produces for this target are touched, and of them only
// those no writer holds; every error is ignored, since the replace itself does not
// depend on the clean-up.
void RemoveStaleTemporaries(const FileSystemOps& ops, const boost::filesystem::path& directory,
                            const std::string& targetName) noexcept {
  try {
    bool truncated = false;
    const std::string prefix = TemporaryStem(targetName, truncated) + kTemporaryMarker;
    // A cut name may as well belong to another target sharing its first characters.
    if (truncated) return;
    std::vector<std::string> stale;
    {
      const std::unique_ptr<DIR, int (*)(DIR*)> listing(::opendir(directory.c_str()), ::closedir);
      if (!listing) return;
      while (const dirent* entry = ::readdir(listing.get())) {
        const std::string_view name(entry->d_name);
        if (name.size() == prefix.size() + kSuffixLength &&
            name.compare(0, prefix.size(), prefix) == 0 &&
            std::all_of(name.begin() + static_cast<std::ptrdiff_t>(prefix.size()), name.end(),
                        IsSuffixCharacter)) {
          stale.emplace_back(name);
        }
      }
    }
    for (const auto& name : stale) RemoveIfStale(ops, (directory / name).string());
  } catch (...) {
    // Out of memory while listing: the leftovers simply wait for the next replace.
  }
}

/// The temporary file of one replace; unlinks it unless the rename committed it. It is
/// locked (flock) from just after its creation until this object dies, so that another
/// writer's clean-up never takes it for a stale one.
class TemporaryFile {
 public:
  explicit TemporaryFile(const FileSystemOps& ops) : m_ops(ops) {}
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;
  ~TemporaryFile() {
    if (m_fd >= 0) m_ops.close(m_fd);
    if (!m_path.empty() && !m_committed) m_ops.unlink(m_path.c_str());
    // Last, so the name is gone (renamed or unlinked) before anyone may lock it.
    if (m_lockFd >= 0) ::close(m_lockFd);
  }

  bool Create(const boost::filesystem::path& directory, const std::string& targetName,
              FileError& error) {
    bool truncated = false;
    const std::string stem = TemporaryStem(targetName, truncated);
    for (int attempt = 0; attempt < kTemporaryNameAttempts; ++attempt) {
      std::string candidate = (directory / (stem + kTemporaryMarker + RandomSuffix())).string();
      const int fd = OpenRetryingInterrupts(m_ops, candidate.c_str(),
                                            O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW,
                                            kNewFileMode);
      if (fd < 0) {
        if (errno == EEXIST) continue;
        error = SystemError("open", errno);
        return false;
      }
      m_path = std::move(candidate);  // cannot throw, so the fd below is never lost
      m_fd = fd;
      switch (Lock(error)) {
        case LockResult::Locked:
          return true;
        case LockResult::Failed:
          return false;
        case LockResult::NameLost:
          // A clean-up took the name between our open and our lock; the file is unlinked.
          m_ops.close(m_fd);
          m_fd = -1;
          m_path.clear();
          continue;
      }
    }
    error = SystemError("open", EEXIST);
    return false;
  }

  int& Fd() noexcept { return m_fd; }
  const std::string& Path() const noexcept { return m_path; }
  void Commit() noexcept { m_committed = true; }

 private:
  enum class LockResult { Locked, Failed, NameLost };

  LockResult Lock(FileError& error) {
    // Without flock on this file system the clean-up cannot lock either, so it removes
    // nothing here: unlocked is safe, only less tidy.
    if (FlockRetryingInterrupts(m_fd, LOCK_EX) != 0) return LockResult::Locked;
    struct stat info {};
    if (::fstat(m_fd, &info) != 0) {
      error = SystemError("fstat", errno);
      return LockResult::Failed;
    }
    if (info.st_nlink == 0) return LockResult::NameLost;
    // A second descriptor of the same open file keeps the lock after the data
    // descriptor is closed, until the rename has happened.
    m_lockFd = ::fcntl(m_fd, F_DUPFD_CLOEXEC, 0);
    if (m_lockFd < 0) {
      error = SystemError("fcntl", errno);
      return LockResult::Failed;
    }
    return LockResult::Locked;
  }

  const FileSystemOps& m_ops;
  int m_fd = -1;
  int m_lockFd = -1;
  std::string m_path;
  bool m_committed = false;
};

// The file a replace of path must write: path itself or, when path is a symbolic link,
// the end of its chain of links, relative links taken from the link's directory.
bool ResolveLinks(const boost::filesystem::path& path, boost::filesystem::path& target,
                  FileError& error) {
  target = path;
  for (int links = 0;; ++links) {
    struct stat info {};
    if (::lstat(target.c_str(), &info) != 0) {
      if (errno == ENOENT) return true;  // created by the replace, if its directory exists
      error = SystemError("lstat", errno);
      return false;
    }
    if (S_ISREG(info.st_mode)) return true;
    if (!S_ISLNK(info.st_mode)) {
      // Renaming over a directory, a FIFO or a device would destroy what is not ours.
      error = Failure("lstat", NotARegularFile(info.st_mode));
      return false;
    }
    if (links == kMaxSymbolicLinks) {
      error = SystemError("readlink", ELOOP);
      return false;
    }
    std::string text(PATH_MAX, '\0');
    const ssize_t length = ::readlink(target.c_str(), text.data(), text.size());
    if (length < 0) {
      error = SystemError("readlink", errno);
      return false;
    }
    if (static_cast<std::size_t>(length) >= text.size()) {
      error = SystemError("readlink", ENAMETOOLONG);
      return false;
    }
    text.resize(static_cast<std::size_t>(length));
    const boost::filesystem::path next(text);
    target = next.is_absolute() ? next : target.parent_path() / next;
  }
}

bool ReplaceFile(const FileSystemOps& ops, const boost::filesystem::path& requested,
                 std::string_view data, FileError& error) {
  boost::filesystem::path path;
  if (!ResolveLinks(requested, path, error)) return false;
  const boost::filesystem::path name = path.filename();
  if (name.empty() || name == "." || name == "..") {
    error = Failure("rename", "the path names no file");
    return false;
  }
  boost::filesystem::path directory = path.parent_path();
  if (directory.empty()) directory = ".";

  RemoveStaleTemporaries(ops, directory, name.string());
  TemporaryFile temporary(ops);
  if (!temporary.Create(directory, name.string(), error)) return false;
  if (!WriteAll(ops, temporary.Fd(), data, error)) return false;
  if (!Fsync(ops, temporary.Fd(), error)) return false;
  if (!Close(ops, temporary.Fd(), error)) return false;
  if (ops.rename(temporary.Path().c_str(), path.c_str()) != 0) {
    error = SystemError("rename", errno);
    return false;
  }
  temporary.Commit();
  // Best effort: the new content is already in place, and some file systems cannot
  // fsync a directory at all; failing here would only hide a write that happened.
  ops.fsyncDirectory(directory.c_str());
  return true;
}

bool AppendToFile(const FileSystemOps& ops, const boost::filesystem::path& path,
                  std::string_view data, FileError& error) {
  // O_NONBLOCK: a FIFO without reader fails the open (ENXIO) instead of stalling it.
  int fd = OpenRetryingInterrupts(ops, path.c_str(),
                                  O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOCTTY | O_NONBLOCK,
                                  kNewFileMode);
  if (fd < 0) {
    error = SystemError("open", errno);
    return false;
  }
  struct stat info {};
  if (::fstat(fd, &info) != 0) {
    error = SystemError("fstat", errno);
    ops.close(fd);
    return false;
  }
  if (!S_ISREG(info.st_mode)) {
    error = Failure("fstat", NotARegularFile(info.st_mode));
    ops.close(fd);
    return false;
  }
  const bool written = WriteAll(ops, fd, data, error) && Fsync(ops, fd, error);
  FileError closeError;
  const bool closed = Close(ops, fd, closeError);
  if (written && !closed) error = closeError;
  return written && closed;
}

}  // namespace

std::string FileError::Describe() const {
  if (call == nullptr) return "no error";
  std::string text = call;
  text += ": ";
  if (number == 0) {
    text += reason;
  } else {
    char buffer[128] = {};
    text += ErrorText(::strerror_r(number, buffer, sizeof buffer), buffer);
  }
  return text;
}

std::ostream& operator<<(std::ostream& os, const FileError& error) {
  return os << error.Describe();
}

FileReader::~FileReader() { Close(); }

void FileReader::Close() noexcept {
  if (m_fd >= 0) m_ops.close(m_fd);  // read-only: a failing close loses no data
  m_fd = -1;
  m_size = 0;
}

bool FileReader::Open(const boost::filesystem::path& path, FileError& error) {
  Close();
  if (!IsUsablePath(path)) {
    error = Failure("open", kUnusablePath);
    return false;
  }
  m_ops = detail::g_ops;
  // Looked at before opening, since opening a device can have effects of its own.
  struct stat info {};
  if (::stat(path.c_str(), &info) != 0) {
    error = SystemError("stat", errno);
    return false;
  }
  if (!S_ISREG(info.st_mode)) {
    error = Failure("stat", NotARegularFile(info.st_mode));
    return false;
  }
  // O_NONBLOCK: should a FIFO take the file's place after the look, the open still returns.
  const int fd =
      OpenRetryingInterrupts(m_ops, path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY, 0);
  if (fd < 0) {
    error = SystemError("open", errno);
    return false;
  }
  m_fd = fd;
  if (::fstat(fd, &info) != 0) {
    error = SystemError("fstat", errno);
    Close();
    return false;
  }
  if (!S_ISREG(info.st_mode)) {
    error = Failure("fstat", NotARegularFile(info.st_mode));
    Close();
    return false;
  }
  m_size = static_cast<std::uint64_t>(info.st_size);
  return true;
}

bool FileReader::Read(char* buffer, std::size_t capacity, std::size_t& got, FileError& error) {
  got = 0;
  if (m_fd < 0) {
    error = SystemError("read", EBADF);
    return false;
  }
  for (;;) {
    const ssize_t result = m_ops.read(m_fd, buffer, capacity);
    if (result < 0) {
      if (errno == EINTR) continue;
      error = SystemError("read", errno);
      return false;
    }
    if (static_cast<std::size_t>(result) > capacity) {
      error = Failure("read", "more bytes reported read than asked for");
      return false;
    }
    got = static_cast<std::size_t>(result);
    return true;
  }
}

bool read_file(const boost::filesystem::path& path, std::string& content) {
  FileError ignored;
  return read_file(path, content, ignored);
}

bool read_file(const boost::filesystem::path& path, std::string& content, FileError& error) {
  try {
    FileReader reader;
    if (!reader.Open(path, error)) return false;
    std::string result;
    for (;;) {
      const std::size_t used = result.size();
      result.resize(used + kReadChunk);
      std::size_t got = 0;
      if (!reader.Read(result.data() + used, kReadChunk, got, error)) return false;
      result.resize(used + got);
      if (got == 0) break;
    }
    reader.Close();
    content.swap(result);
    return true;
  } catch (const std::bad_alloc&) {
    error = SystemError("read_file", ENOMEM);
  } catch (...) {
    error = Failure("read_file", "unexpected exception");
  }
  return false;
}

bool write_file(const boost::filesystem::path& path, std::string_view data, WriteFileMode mode) {
  FileError ignored;
  return write_file(path, data, mode, ignored);
}

bool write_file(const boost::filesystem::path& path, std::string_view data, WriteFileMode mode,
                FileError& error) {
  try {
    if (!IsUsablePath(path)) {
      error = Failure("open", kUnusablePath);
      return false;
    }
    const FileSystemOps ops = detail::g_ops;
    switch (mode) {
      case WriteFileMode::Replace:
        return ReplaceFile(ops, path, data, error);
      case WriteFileMode::Append:
        return AppendToFile(ops, path, data, error);
    }
    error = Failure("write_file", "unknown write mode");
    return false;
  } catch (const std::bad_alloc&) {
    error = SystemError("write_file", ENOMEM);
  } catch (...) {
    error = Failure("write_file", "unexpected exception");
  }
  return false;
}

}  // namespace Helper::File
