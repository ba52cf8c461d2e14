#include "PluginLoader.h"

#include <dlfcn.h>

#include <filesystem>
#include <system_error>

namespace lkdh::host {

namespace {

std::string LastDlError() {
  const char* error = dlerror();
  return error != nullptr ? error : "unknown error";
}

}  // namespace

std::string InstalledPluginPath() {
  std::error_code error;
  const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe", error);
  if (error) {
    throw PluginError("cannot locate the installed plug-in: /proc/self/exe: " + error.message() +
                      " (use --plugin)");
  }
  return (self.parent_path() / ".." / LKDH_INSTALL_LIBDIR / "libLuaKnxDownloadHandler.so")
      .lexically_normal()
      .string();
}

PluginLibrary::PluginLibrary(const std::string& path) {
  dlerror();
  m_handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (m_handle == nullptr) throw PluginError("cannot load the plug-in: " + LastDlError());
}

PluginLibrary::~PluginLibrary() {
  if (m_handle != nullptr) dlclose(m_handle);
}

void* PluginLibrary::Symbol(const char* name) const {
  // A symbol may legitimately be null, so dlerror() rather than the result tells failure.
  dlerror();
  void* address = dlsym(m_handle, name);
  const char* error = dlerror();
  if (error != nullptr) {
    throw PluginError(std::string("the plug-in has no entry point '") + name + "': " + error);
  }
  if (address == nullptr) {
    throw PluginError(std::string("the plug-in's entry point '") + name + "' is null");
  }
  return address;
}

void* PluginLibrary::OptionalSymbol(const char* name) const noexcept {
  return dlsym(m_handle, name);
}

Korvex::CreateHandlerFunction PluginLibrary::CreateHandler() const {
  // POSIX guarantees that dlsym's object pointer converts to the function's type.
  return reinterpret_cast<Korvex::CreateHandlerFunction>(Symbol(Korvex::kCreateHandlerSymbol));
}

Korvex::DeleteHandlerFunction PluginLibrary::DeleteHandler() const {
  return reinterpret_cast<Korvex::DeleteHandlerFunction>(Symbol(Korvex::kDeleteHandlerSymbol));
}

}  // namespace lkdh::host
