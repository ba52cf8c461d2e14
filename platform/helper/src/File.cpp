#include <Helper/File.h>

#include <dirent.h>
#include <fcntl.h>
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

// A path with an embedded zero byte would silently name a different file through the C API.
bool IsUsablePath(const boost::filesystem::path& path) {
  return !path.empty() && path.native().find('\0') == std::string::npos;
}

bool WriteAll(const FileSystemOps& ops, int fd, std::string_view data) {
  const char* next = data.data();
  std::size_t remaining = data.size();
  while (remaining > 0) {
    const ssize_t written = ops.write(fd, next, std::min(remaining, kMaxWriteChunk));
    if (written < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    // A write that makes no progress would otherwise loop for ever.
    if (written == 0 || static_cast<std::size_t>(written) > remaining) return false;
    next += written;
    remaining -= static_cast<std::size_t>(written);
  }
  return true;
}

bool Fsync(const FileSystemOps& ops, int fd) {
  while (ops.fsync(fd) != 0) {
    if (errno != EINTR) return false;
  }
  return true;
}

// Closes on every path; close is not retried after EINTR because Linux has released the fd.
bool Close(const FileSystemOps& ops, int& fd) {
  const int result = ops.close(fd);
  fd = -1;
  return result == 0;
}

int OpenRetryingInterrupts(const FileSystemOps& ops, const char* path, int flags, mode_t mode) {
  int fd = -1;
  do {
    fd = ops.open(path, flags, mode);
  } while (fd < 0 && errno == EINTR);
  return fd;
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

// Removes what a crash between creating a temporary and renaming it left behind.
// Only names this helper itself produces for this target are touched; every error is
// ignored, since the replace itself does not depend on the clean-up. One writer per
// target is assumed: a concurrent writer's temporary would be taken for a stale one.
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
    for (const auto& name : stale) ops.unlink((directory / name).c_str());
  } catch (...) {
    // Out of memory while listing: the leftovers simply wait for the next replace.
  }
}

/// The temporary file of one replace; unlinks it unless the rename committed it.
class TemporaryFile {
 public:
  explicit TemporaryFile(const FileSystemOps& ops) : m_ops(ops) {}
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;
  ~TemporaryFile() {
    if (m_fd >= 0) m_ops.close(m_fd);
    if (!m_path.empty() && !m_committed) m_ops.unlink(m_path.c_str());
  }

  bool Create(const boost::filesystem::path& directory, const std::string& targetName) {
    bool truncated = false;
    const std::string stem = TemporaryStem(targetName, truncated);
    for (int attempt = 0; attempt < kTemporaryNameAttempts; ++attempt) {
      std::string candidate = (directory / (stem + kTemporaryMarker + RandomSuffix())).string();
      const int fd = OpenRetryingInterrupts(m_ops, candidate.c_str(),
                                            O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW,
                                            kNewFileMode);
      if (fd >= 0) {
        m_path = std::move(candidate);  // cannot throw, so the fd below is never lost
        m_fd = fd;
        return true;
      }
      if (errno != EEXIST) return false;
    }
    return false;
  }

  int& Fd() noexcept { return m_fd; }
  const std::string& Path() const noexcept { return m_path; }
  void Commit() noexcept { m_committed = true; }

 private:
  const FileSystemOps& m_ops;
  int m_fd = -1;
  std::string m_path;
  bool m_committed = false;
};

bool ReplaceFile(const FileSystemOps& ops, const boost::filesystem::path& path,
                 std::string_view data) {
  const boost::filesystem::path name = path.filename();
  if (name.empty() || name == "." || name == "..") return false;
  boost::filesystem::path directory = path.parent_path();
  if (directory.empty()) directory = ".";

  RemoveStaleTemporaries(ops, directory, name.string());
  TemporaryFile temporary(ops);
  if (!temporary.Create(directory, name.string())) return false;
  if (!WriteAll(ops, temporary.Fd(), data)) return false;
  if (!Fsync(ops, temporary.Fd())) return false;
  if (!Close(ops, temporary.Fd())) return false;
  if (ops.rename(temporary.Path().c_str(), path.c_str()) != 0) return false;
  temporary.Commit();
  // Best effort: the new content is already in place, and some file systems cannot
  // fsync a directory at all; failing here would only hide a write that happened.
  ops.fsyncDirectory(directory.c_str());
  return true;
}

bool AppendToFile(const FileSystemOps& ops, const boost::filesystem::path& path,
                  std::string_view data) {
  int fd = OpenRetryingInterrupts(ops, path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC,
                                  kNewFileMode);
  if (fd < 0) return false;
  const bool written = WriteAll(ops, fd, data) && Fsync(ops, fd);
  const bool closed = Close(ops, fd);
  return written && closed;
}

}  // namespace

bool read_file(const boost::filesystem::path& path, std::string& content) {
  try {
    if (!IsUsablePath(path)) return false;
    const FileSystemOps ops = detail::g_ops;
    int fd = OpenRetryingInterrupts(ops, path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY, 0);
    if (fd < 0) return false;
    std::string result;
    bool ok = true;
    try {
      for (;;) {
        const std::size_t used = result.size();
        result.resize(used + kReadChunk);
        const ssize_t got = ops.read(fd, result.data() + used, kReadChunk);
        if (got < 0) {
          result.resize(used);
          if (errno == EINTR) continue;
          ok = false;  // a directory ends here with EISDIR
          break;
        }
        if (static_cast<std::size_t>(got) > kReadChunk) {
          ok = false;
          break;
        }
        result.resize(used + static_cast<std::size_t>(got));
        if (got == 0) break;
      }
    } catch (...) {
      ops.close(fd);
      throw;
    }
    // A read-only descriptor has nothing left to flush, so a failing close loses no data.
    ops.close(fd);
    if (!ok) return false;
    content.swap(result);
    return true;
  } catch (...) {
    return false;
  }
}

bool write_file(const boost::filesystem::path& path, std::string_view data, WriteFileMode mode) {
  try {
    if (!IsUsablePath(path)) return false;
    const FileSystemOps ops = detail::g_ops;
    switch (mode) {
      case WriteFileMode::Replace:
        return ReplaceFile(ops, path, data);
      case WriteFileMode::Append:
        return AppendToFile(ops, path, data);
    }
    return false;
  } catch (...) {
    return false;
  }
}

}  // namespace Helper::File
