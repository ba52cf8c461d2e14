#pragma once
// File helpers of the device's base platform library.

#include <boost/filesystem/path.hpp>

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace Helper::File {

enum class WriteFileMode : std::uint8_t {
  Append = 0,   // add data at the end, creating the file when missing
  Replace = 1,  // atomically replace the whole content
};

/// Reads the whole file into content; false on any failure, content then undefined.
bool read_file(const boost::filesystem::path& path, std::string& content);

/// Writes data to path. Replace writes a temporary file beside the target,
/// flushes and fsyncs it, renames it over the target and fsyncs the directory:
/// a crash leaves either the old file or the new one, and a failure leaves the
/// old file as it was and no temporary behind.
bool write_file(const boost::filesystem::path& path, std::string_view data, WriteFileMode mode);

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

}  // namespace Helper::File
