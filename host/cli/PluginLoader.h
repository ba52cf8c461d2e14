#pragma once
// Loads a download-handler plug-in the way the device's host does: dlopen and
// the two entry points resolved by name.

#include <Korvex/IKnxDownloadHandler.h>

#include <stdexcept>
#include <string>

namespace lkdh::host {

/// The plug-in or one of its entry points could not be loaded; the message
/// carries dlerror()'s text.
class PluginError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// The installed plug-in: PREFIX/lib/libLuaKnxDownloadHandler.so beside
/// PREFIX/bin, where the running command lives; throws PluginError.
std::string InstalledPluginPath();

/// A dlopen'ed library, closed again on destruction.
class PluginLibrary {
 public:
  /// Opens path with RTLD_NOW | RTLD_LOCAL; throws PluginError.
  explicit PluginLibrary(const std::string& path);
  ~PluginLibrary();
  PluginLibrary(const PluginLibrary&) = delete;
  PluginLibrary& operator=(const PluginLibrary&) = delete;

  /// The address of an exported symbol; throws PluginError when it is missing.
  void* Symbol(const char* name) const;

  /// The address of an exported symbol, or null when the library has none.
  void* OptionalSymbol(const char* name) const noexcept;

  Korvex::CreateHandlerFunction CreateHandler() const;
  Korvex::DeleteHandlerFunction DeleteHandler() const;

 private:
  void* m_handle = nullptr;
};

/// A handler created by the plug-in and destroyed through its DeleteHandler;
/// must not outlive the library it came from.
class HandlerOwner {
 public:
  HandlerOwner(Korvex::IKnxDownloadHandler* handler, Korvex::DeleteHandlerFunction deleter) noexcept
      : m_handler(handler), m_delete(deleter) {}
  ~HandlerOwner() {
    if (m_handler != nullptr) m_delete(m_handler);
  }
  HandlerOwner(const HandlerOwner&) = delete;
  HandlerOwner& operator=(const HandlerOwner&) = delete;

  Korvex::IKnxDownloadHandler* Get() const noexcept { return m_handler; }
  Korvex::IKnxDownloadHandler* operator->() const noexcept { return m_handler; }

 private:
  Korvex::IKnxDownloadHandler* m_handler;
  Korvex::DeleteHandlerFunction m_delete;
};

}  // namespace lkdh::host
