#pragma once
// The folder where captured downloads are kept: numbered dump files, written
// whole or not at all, the oldest removed beyond a number of files.

#include <cstddef>
#include <filesystem>
#include <string>

namespace lkdh::capture {

class CaptureStore {
 public:
  /// Files are named download-NNNNNNNN.json in directory; at most maxFiles are kept.
  CaptureStore(std::filesystem::path directory, std::size_t maxFiles);

  /// Writes text as the next file (through a temporary renamed into place),
  /// then removes the oldest files beyond the limit and stale temporaries.
  /// Returns the new file's path; throws std::exception on any failure, leaving
  /// no partial file behind.
  std::filesystem::path Keep(const std::string& text) const;

  const std::filesystem::path& Directory() const noexcept { return m_directory; }

 private:
  std::filesystem::path m_directory;
  std::size_t m_maxFiles;
};

/// The number of a capture file's name, or 0 when the name is not one.
unsigned long CaptureNumber(const std::string& fileName);

}  // namespace lkdh::capture
