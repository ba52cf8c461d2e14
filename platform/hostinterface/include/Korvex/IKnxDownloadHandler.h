#pragma once
// The interface a download-handler plug-in offers the device's host application.

#include <Korvex/KnxAppPrg/CoDescriptorData.h>

#include <KnxStack/BinaryData.h>
#include <KnxStack/IInterfaceObject.h>

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace Korvex {

/// Interface objects of a download by object index; only the first object of
/// each vector is consulted. Owned by the host.
using InterfaceObjectMap = std::map<std::uint32_t, std::vector<KnxStack::IInterfaceObject*>>;

/// Communication-object descriptors by object number. Owned by the host.
using CoDescriptorDataMap = std::map<std::uint16_t, KnxAppPrg::CoDescriptorData>;

class IKnxDownloadHandler {
 public:
  /// Extra information about a download; 32 bits wide on every target.
  enum AppData : std::uint32_t {
    AppData_None = 0,
    AppData_ForceWrite = 1,  // write the project file without comparing it
  };

  virtual ~IKnxDownloadHandler() = default;

  /// Whether the handler can produce documents (its script loaded).
  virtual bool Loaded() = 0;

  /// Handles one ETS download; true when a new file was written and the
  /// reset callback ran.
  virtual bool CreateFileWithKnxData(const InterfaceObjectMap& interfaceObjects,
                                     const KnxStack::BinaryData& memory,
                                     std::function<void()> resetUserData, AppData appData,
                                     const CoDescriptorDataMap& coDescriptors) = 0;
};

/// The plug-in's entry points as the host resolves them with dlsym.
using CreateHandlerFunction = IKnxDownloadHandler* (*)(const std::string& configuration);
using DeleteHandlerFunction = void (*)(IKnxDownloadHandler*& handler);

inline constexpr const char* kCreateHandlerSymbol = "CreateHandler";
inline constexpr const char* kDeleteHandlerSymbol = "DeleteHandler";

}  // namespace Korvex
