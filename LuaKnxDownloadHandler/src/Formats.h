#pragma once
// Uses of the shared formatter objects (PropertyAccess.h). Each object keeps the
// arguments fed to it until its text is taken, so every use goes through here.

#include <boost/format.hpp>

#include <mutex>
#include <string>

namespace Korvex::luaknxdownloadhandler::detail {

/// Held for each use of a shared formatter object: two downloads on two
/// threads would otherwise feed one formatter each other's arguments.
std::mutex& SharedFormatMutex() noexcept;

/// The text of a shared formatter fed with args. The formatter is cleared
/// first: a use that failed half way (out of memory) leaves its arguments
/// behind, and without the clear every later use would fail on them.
template <typename... Args>
std::string FormatShared(boost::format& format, const Args&... args) {
  const std::lock_guard<std::mutex> lock(SharedFormatMutex());
  format.clear();
  if constexpr (sizeof...(Args) > 0) {
    (format % ... % args);
  }
  return format.str();
}

}  // namespace Korvex::luaknxdownloadhandler::detail
