#pragma once
// A fresh directory per test, removed with everything in it afterwards.

#include <boost/filesystem/path.hpp>

#include <string>

namespace lkdh::test {

class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const boost::filesystem::path& Path() const noexcept { return m_path; }
  /// Writes content to name inside the directory and returns the full path.
  boost::filesystem::path WriteFile(const std::string& name, const std::string& content) const;

 private:
  boost::filesystem::path m_path;
};

/// The whole content of a file; throws std::runtime_error when unreadable.
std::string ReadWholeFile(const boost::filesystem::path& path);

}  // namespace lkdh::test
