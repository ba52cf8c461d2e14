// A download-handler plug-in for support: the host loads it in place of the
// real plug-in. It keeps each download it receives as a download dump, then
// hands the download on, unchanged, to the real plug-in, which it loads itself.
// Keeping a dump never fails a download: what goes wrong is logged and skipped.
//
// Read from the environment when the host creates the handler:
//   LKDH_CAPTURE_PLUGIN     the real plug-in (default: libLuaKnxDownloadHandler.so beside this
//   library) LKDH_CAPTURE_DIR        where dumps are kept (default: download-captures beside the
//   etsproject file) LKDH_CAPTURE_MAX_FILES  how many dumps are kept, the oldest removed first
//   (default 5) LKDH_CAPTURE_MAX_BYTES  the largest dump that is kept (default 8 MiB)

#include "CaptureStore.h"
#include "DownloadDumpWriter.h"

#include <KnxStack/BinaryData.h>
#include <Korvex/IKnxDownloadHandler.h>

#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>

#include <dlfcn.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#define LKDH_EXPORT __attribute__((visibility("default")))

namespace lkdh::capture {

namespace {

namespace fs = std::filesystem;

constexpr std::size_t kDefaultMaxFiles = 5;
constexpr std::size_t kDefaultMaxBytes = 8U * 1024U * 1024U;
constexpr const char* kPluginFileName = "libLuaKnxDownloadHandler.so";
constexpr const char* kDefaultFolder = "download-captures";

log4cplus::Logger& Logger() {
  static log4cplus::Logger logger = log4cplus::Logger::getInstance("KnxDownloadCapture");
  return logger;
}

struct Settings {
  std::string plugin;
  fs::path directory;
  std::size_t maxFiles = kDefaultMaxFiles;
  std::size_t maxBytes = kDefaultMaxBytes;
};

std::optional<std::size_t> ParseDecimal(const std::string& text) {
  if (text.empty() || text.size() > 12) return std::nullopt;
  std::size_t value = 0;
  for (const char c : text) {
    if (c < '0' || c > '9') return std::nullopt;
    value = value * 10 + static_cast<std::size_t>(c - '0');
  }
  return value;
}

std::string Environment(const char* name) {
  const char* value = std::getenv(name);
  return value != nullptr ? value : "";
}

std::size_t SizeSetting(const char* name, std::size_t fallback) {
  const std::string text = Environment(name);
  if (text.empty()) return fallback;
  if (const auto value = ParseDecimal(text)) return *value;
  LOG4CPLUS_WARN(Logger(), name << " '" << text << "' is not a decimal number; using " << fallback);
  return fallback;
}

// This library's own file, found through the address of one of its objects.
fs::path ThisLibrary() {
  static const char marker = 0;
  Dl_info info{};
  if (dladdr(&marker, &info) == 0 || info.dli_fname == nullptr) return {};
  return info.dli_fname;
}

Settings ReadSettings(const std::string& configuration) {
  Settings settings;
  settings.plugin = Environment("LKDH_CAPTURE_PLUGIN");
  if (settings.plugin.empty()) {
    settings.plugin = (ThisLibrary().parent_path() / kPluginFileName).string();
  }
  const std::string directory = Environment("LKDH_CAPTURE_DIR");
  if (!directory.empty()) {
    settings.directory = directory;
  } else {
    // Beside the etsproject file, the one place the host has said it may write.
    const fs::path project = configuration.substr(0, configuration.find(';'));
    const fs::path parent = project.parent_path();
    settings.directory = (parent.empty() ? fs::path(".") : parent) / kDefaultFolder;
  }
  settings.maxFiles = SizeSetting("LKDH_CAPTURE_MAX_FILES", kDefaultMaxFiles);
  settings.maxBytes = SizeSetting("LKDH_CAPTURE_MAX_BYTES", kDefaultMaxBytes);
  return settings;
}

class CaptureHandler final : public Korvex::IKnxDownloadHandler {
 public:
  CaptureHandler(Settings settings, void* library, Korvex::IKnxDownloadHandler* real,
                 Korvex::DeleteHandlerFunction deleteReal)
      : m_settings(std::move(settings)),
        m_store(m_settings.directory, m_settings.maxFiles),
        m_library(library),
        m_real(real),
        m_deleteReal(deleteReal) {}

  ~CaptureHandler() override {
    if (m_real != nullptr) m_deleteReal(m_real);
    if (m_library != nullptr) dlclose(m_library);
  }
  CaptureHandler(const CaptureHandler&) = delete;
  CaptureHandler& operator=(const CaptureHandler&) = delete;

  bool Loaded() override { return m_real != nullptr && m_real->Loaded(); }

  bool CreateFileWithKnxData(const Korvex::InterfaceObjectMap& interfaceObjects,
                             const KnxStack::BinaryData& memory,
                             std::function<void()> resetUserData, AppData appData,
                             const Korvex::CoDescriptorDataMap& coDescriptors) override {
    // Kept before the real plug-in runs, so that a download that brings it down is kept too.
    Keep(interfaceObjects, memory, coDescriptors);
    if (m_real == nullptr) return false;
    return m_real->CreateFileWithKnxData(interfaceObjects, memory, std::move(resetUserData),
                                         appData, coDescriptors);
  }

 private:
  void Keep(const Korvex::InterfaceObjectMap& interfaceObjects, const KnxStack::BinaryData& memory,
            const Korvex::CoDescriptorDataMap& coDescriptors) const noexcept {
    try {
      if (m_settings.maxFiles == 0) return;
      const std::string text =
          lkdh::host::WriteDownloadDump(interfaceObjects, memory, coDescriptors);
      if (text.size() > m_settings.maxBytes) {
        LOG4CPLUS_WARN(Logger(), "download not kept: its dump of "
                                     << text.size()
                                     << " bytes is larger than LKDH_CAPTURE_MAX_BYTES ("
                                     << m_settings.maxBytes << ")");
        return;
      }
      const fs::path path = m_store.Keep(text);
      LOG4CPLUS_INFO(Logger(), "download kept in " << path.string());
    } catch (const std::exception& error) {
      LOG4CPLUS_WARN(Logger(), "download not kept: " << error.what());
    } catch (...) {
      LOG4CPLUS_WARN(Logger(), "download not kept: unknown error");
    }
  }

  Settings m_settings;
  CaptureStore m_store;
  void* m_library;
  Korvex::IKnxDownloadHandler* m_real;
  Korvex::DeleteHandlerFunction m_deleteReal;
};

void* LoadedSymbol(void* library, const char* name, const std::string& plugin) {
  dlerror();
  void* address = dlsym(library, name);
  const char* error = dlerror();
  if (error != nullptr || address == nullptr) {
    LOG4CPLUS_ERROR(Logger(), "the plug-in " << plugin << " has no entry point '" << name
                                             << "': " << (error != nullptr ? error : "null"));
    return nullptr;
  }
  return address;
}

}  // namespace

}  // namespace lkdh::capture

extern "C" LKDH_EXPORT Korvex::IKnxDownloadHandler* CreateHandler(
    const std::string& configuration) {
  using namespace lkdh::capture;
  Settings settings = ReadSettings(configuration);
  const std::string plugin = settings.plugin;
  dlerror();
  void* library = dlopen(plugin.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) {
    const char* error = dlerror();
    LOG4CPLUS_ERROR(
        Logger(), "cannot load the plug-in " << plugin << ": " << (error != nullptr ? error : ""));
    return new CaptureHandler(std::move(settings), nullptr, nullptr, nullptr);
  }
  const auto create = reinterpret_cast<Korvex::CreateHandlerFunction>(
      LoadedSymbol(library, Korvex::kCreateHandlerSymbol, plugin));
  const auto destroy = reinterpret_cast<Korvex::DeleteHandlerFunction>(
      LoadedSymbol(library, Korvex::kDeleteHandlerSymbol, plugin));
  if (create == nullptr || destroy == nullptr) {
    dlclose(library);
    return new CaptureHandler(std::move(settings), nullptr, nullptr, nullptr);
  }
  LOG4CPLUS_INFO(Logger(), "downloads are kept in " << settings.directory.string() << " (at most "
                                                    << settings.maxFiles << " files of at most "
                                                    << settings.maxBytes << " bytes) and handed to "
                                                    << plugin);
  Korvex::IKnxDownloadHandler* real = nullptr;
  try {
    real = create(configuration);
    return new CaptureHandler(std::move(settings), library, real, destroy);
  } catch (...) {
    if (real != nullptr) destroy(real);
    dlclose(library);
    throw;
  }
}

extern "C" LKDH_EXPORT void DeleteHandler(Korvex::IKnxDownloadHandler*& handler) {
  delete handler;
  handler = nullptr;
}

extern "C" LKDH_EXPORT const char* LuaKnxDownloadHandlerVersion() { return LKDH_VERSION; }
