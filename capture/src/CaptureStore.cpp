#include "CaptureStore.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <system_error>
#include <utility>
#include <vector>

namespace lkdh::capture {

namespace fs = std::filesystem;

namespace {

constexpr const char* kPrefix = "download-";
constexpr const char* kSuffix = ".json";
constexpr const char* kTemporarySuffix = ".json.tmp";
constexpr std::size_t kDigits = 8;

std::string FileName(unsigned long number) {
  char digits[32];
  std::snprintf(digits, sizeof digits, "%08lu", number);
  return std::string(kPrefix) + digits + kSuffix;
}

bool EndsWith(const std::string& text, const std::string& suffix) {
  return text.size() >= suffix.size() &&
         text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

[[noreturn]] void ThrowErrno(const std::string& what, const fs::path& path) {
  throw std::system_error(errno, std::generic_category(), what + " " + path.string());
}

void WriteWhole(const fs::path& path, const std::string& text) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) ThrowErrno("cannot create", path);
  std::size_t written = 0;
  while (written < text.size()) {
    const ssize_t count = ::write(fd, text.data() + written, text.size() - written);
    if (count < 0) {
      if (errno == EINTR) continue;
      const int error = errno;
      ::close(fd);
      errno = error;
      ThrowErrno("cannot write", path);
    }
    written += static_cast<std::size_t>(count);
  }
  if (::fsync(fd) != 0) {
    const int error = errno;
    ::close(fd);
    errno = error;
    ThrowErrno("cannot sync", path);
  }
  if (::close(fd) != 0) ThrowErrno("cannot close", path);
}

}  // namespace

unsigned long CaptureNumber(const std::string& fileName) {
  const std::string prefix = kPrefix;
  if (fileName.size() != prefix.size() + kDigits + std::strlen(kSuffix)) return 0;
  if (fileName.compare(0, prefix.size(), prefix) != 0 || !EndsWith(fileName, kSuffix)) return 0;
  unsigned long number = 0;
  for (std::size_t i = prefix.size(); i < prefix.size() + kDigits; ++i) {
    const char c = fileName[i];
    if (c < '0' || c > '9') return 0;
    number = number * 10 + static_cast<unsigned long>(c - '0');
  }
  return number;
}

CaptureStore::CaptureStore(fs::path directory, std::size_t maxFiles)
    : m_directory(std::move(directory)), m_maxFiles(maxFiles) {}

fs::path CaptureStore::Keep(const std::string& text) const {
  fs::create_directories(m_directory);

  // Numbered after the newest file, so that names sort by age.
  std::map<unsigned long, fs::path> kept;
  for (const fs::directory_entry& entry : fs::directory_iterator(m_directory)) {
    const std::string name = entry.path().filename().string();
    if (const unsigned long number = CaptureNumber(name); number != 0) {
      kept.emplace(number, entry.path());
    } else if (name.rfind(kPrefix, 0) == 0 && EndsWith(name, kTemporarySuffix)) {
      // Left by a write that did not finish.
      std::error_code ignored;
      fs::remove(entry.path(), ignored);
    }
  }
  const unsigned long newest = kept.empty() ? 0 : kept.rbegin()->first;
  // Eight digits run out after 99,999,999 downloads; numbering then starts again.
  const unsigned long number = newest >= 99'999'999UL ? 1 : newest + 1;

  const fs::path target = m_directory / FileName(number);
  const fs::path temporary = m_directory / (FileName(number) + ".tmp");
  try {
    WriteWhole(temporary, text);
    fs::rename(temporary, target);
  } catch (...) {
    std::error_code ignored;
    fs::remove(temporary, ignored);
    throw;
  }
  kept.erase(number);
  kept.emplace(number, target);

  // The oldest go first; a restart of the numbering makes the old high numbers oldest.
  std::vector<fs::path> byAge;
  for (const auto& [n, path] : kept) {
    if (n > number) byAge.push_back(path);
  }
  for (const auto& [n, path] : kept) {
    if (n <= number) byAge.push_back(path);
  }
  for (std::size_t i = 0; i + m_maxFiles < byAge.size(); ++i) {
    std::error_code ignored;
    fs::remove(byAge[i], ignored);
  }
  return target;
}

}  // namespace lkdh::capture
