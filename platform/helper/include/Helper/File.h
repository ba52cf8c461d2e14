#pragma once
// File helpers of the device's base platform library.

#include <boost/filesystem/path.hpp>

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <string>
#include <string_view>

namespace Helper::File {

enum class WriteFileMode : std::uint8_t {
  Append = 0,   // add data at the end, creating the file when missing
  Replace = 1,  // atomically replace the whole content
};

/// Why a file operation failed: the call that failed and its errno, or the call and a
/// reason the helper found itself (a FIFO where a file was expected). Holds no heap
/// memory, so it can be filled in even when memory has run out.
struct FileError {
  const char* call = nullptr;  // "open", "write", "rename", ...; null while nothing failed
  int number = 0;              // errno of call; 0 when reason says what was wrong
  const char* reason = "";     // static text, used when number is 0

  bool Failed() const noexcept { return call != nullptr; }
  /// "write: No space left on device", "fstat: a FIFO, not a regular file".
  std::string Describe() const;
};

/// Writes error.Describe() to os.
std::ostream& operator<<(std::ostream& os, const FileError& error);

/// Reads the whole file into content; false on any failure, content then undefined.
/// Only a regular file is read: a FIFO, a device, a socket or a directory fails at once.
bool read_file(const boost::filesystem::path& path, std::string& content);
/// The same, telling in error why it failed.
bool read_file(const boost::filesystem::path& path, std::string& content, FileError& error);

/// Writes data to path. Replace writes a temporary file beside the target,
/// flushes and fsyncs it, renames it over the target and fsyncs the directory:
/// a crash leaves either the old file or the new one, and a failure leaves the
/// old file as it was and no temporary behind. When path is a symbolic link,
/// Replace writes the file at the end of its chain of links (a dangling link's
/// target is created) and keeps the links; an existing target that is not a
/// regular file (a directory, a FIFO, a device) is refused. Temporaries a
/// crashed writer left behind are removed; those of a writer still at work
/// (it holds an advisory lock on its temporary) are not. Append, too, writes
/// only to a regular file and never waits on a FIFO.
bool write_file(const boost::filesystem::path& path, std::string_view data, WriteFileMode mode);
/// The same, telling in error why it failed.
bool write_file(const boost::filesystem::path& path, std::string_view data, WriteFileMode mode,
                FileError& error);

namespace detail {

/// The system calls the helpers go through, replaceable so that tests can
/// simulate a full disk, a failed fsync or a failed rename.
struct FileSystemOps {
  int (*open)(const char* path, int flags, mode_t mode);
  ssize_t (*write)(int fd, const void* data, std::size_t size);
  ssize_t (*read)(int fd, void* data, std::size_t size);
  int (*fsync)(int fd);
  int (*close)(int fd);
  int (*rename)(const char* from, const char* to);
  int (*fsyncDirectory)(const char* directory);
  int (*unlink)(const char* path);
};

/// The real operations.
const FileSystemOps& DefaultFileSystemOps() noexcept;

/// Replaces the operations (tests only); returns the previous ones.
FileSystemOps SetFileSystemOps(const FileSystemOps& ops) noexcept;

}  // namespace detail

/// A regular file read piece by piece into the caller's buffer, so that its size never
/// decides how much memory reading it takes. Closes the file when destroyed.
class FileReader {
 public:
  FileReader() = default;
  ~FileReader();
  FileReader(const FileReader&) = delete;
  FileReader& operator=(const FileReader&) = delete;

  /// Opens path for reading. Never blocks (a FIFO without writer cannot stall the caller)
  /// and accepts only a regular file; anything else fails with its type as the reason.
  bool Open(const boost::filesystem::path& path, FileError& error);
  /// The file's size when it was opened.
  std::uint64_t Size() const noexcept { return m_size; }
  /// Reads the next at most capacity bytes into buffer; got is 0 at the end of the file.
  bool Read(char* buffer, std::size_t capacity, std::size_t& got, FileError& error);
  void Close() noexcept;

 private:
  detail::FileSystemOps m_ops{};  // the calls in force when the file was opened
  int m_fd = -1;
  std::uint64_t m_size = 0;
};

}  // namespace Helper::File
