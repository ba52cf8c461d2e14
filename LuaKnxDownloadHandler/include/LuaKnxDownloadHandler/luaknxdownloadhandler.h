#pragma once
// The download-handler plug-in: entry points, handler and content hash.

#include <LuaKnxDownloadHandler/LuxHelper.h>

#include <Korvex/IKnxDownloadHandler.h>

#include <log4cplus/logger.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace Korvex {

/// The library's logger, "KnxDownloadHandler".
extern log4cplus::Logger s_logger;

/// SHA-1 of the bytes of text (embedded zeros included) as its five digest
/// words h0..h4.
std::vector<std::uint32_t> CreateHash(const std::string& text);

class LuaKnxDownloadHandler : public IKnxDownloadHandler {
 public:
  /// configuration: "<etsproject path>;<description script>".
  explicit LuaKnxDownloadHandler(const std::string& configuration);
  ~LuaKnxDownloadHandler() override = default;

  bool Loaded() override;
  bool CreateFileWithKnxData(const InterfaceObjectMap& interfaceObjects,
                             const KnxStack::BinaryData& memory,
                             std::function<void()> resetUserData, AppData appData,
                             const CoDescriptorDataMap& coDescriptors) override;

  /// The etsproject file this handler writes (diagnostics and tests).
  const std::string& GetEtsProjectPath() const noexcept { return m_etsProjectPath; }
  /// Bytes the script's interpreter holds now (diagnostics and tests).
  std::size_t ScriptMemoryInUse() const { return m_luxHelper.MemoryInUse(); }
  /// Bytes it holds after a full collection: what the script really keeps.
  std::size_t ScriptMemoryAfterCollection() { return m_luxHelper.CollectGarbage(); }

 private:
  bool m_loaded = false;
  std::string m_etsProjectPath;
  luaknxdownloadhandler::LuxHelper m_luxHelper;
  std::size_t m_maxDocumentBytes = 0;  // from the handler's limits, read at creation
};

}  // namespace Korvex

extern "C" {
/// Never returns null: a handler whose script failed to load reports it
/// through Loaded().
Korvex::IKnxDownloadHandler* CreateHandler(const std::string& configuration);
/// Destroys the handler and nulls the caller's pointer; null does nothing.
void DeleteHandler(Korvex::IKnxDownloadHandler*& handler);
}
