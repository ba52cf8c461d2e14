#include "TempDir.h"

#include <boost/filesystem/operations.hpp>

#include <fstream>
#include <sstream>
#include <stdexcept>

namespace fs = boost::filesystem;

namespace lkdh::test {

TempDir::TempDir() {
  m_path = fs::temp_directory_path() / fs::unique_path("lkdh-test-%%%%-%%%%-%%%%");
  fs::create_directories(m_path);
}

TempDir::~TempDir() {
  boost::system::error_code ignored;
  // Restore permissions a test may have taken away so removal succeeds.
  fs::permissions(m_path, fs::owner_all, ignored);
  fs::remove_all(m_path, ignored);
}

fs::path TempDir::WriteFile(const std::string& name, const std::string& content) const {
  const fs::path path = m_path / name;
  std::ofstream out(path.string(), std::ios::binary | std::ios::trunc);
  out << content;
  if (!out) throw std::runtime_error("cannot write " + path.string());
  return path;
}

std::string ReadWholeFile(const fs::path& path) {
  std::ifstream in(path.string(), std::ios::binary);
  if (!in) throw std::runtime_error("cannot read " + path.string());
  std::ostringstream content;
  content << in.rdbuf();
  return content.str();
}

}  // namespace lkdh::test
