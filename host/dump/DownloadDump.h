#pragma once
// A download as the device's host would receive it from ETS, read from a JSON
// "download dump" so that the plug-in can be fed without a KNX bus.

#include "DumpFormat.h"

#include <KnxStack/BinaryData.h>
#include <KnxStack/InterfaceObject.h>
#include <Korvex/IKnxDownloadHandler.h>

#include <cstddef>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace lkdh::host {

/// A dump that cannot be used. Location is the JSON pointer of the offending
/// value ("" for the document itself or for problems with the file).
class DumpError : public std::runtime_error {
 public:
  DumpError(std::string location, std::string message);

  const std::string& Location() const noexcept { return m_location; }
  const std::string& Message() const noexcept { return m_message; }

 private:
  std::string m_location;
  std::string m_message;
};

/// Everything one download hands to the plug-in. The map points into objects,
/// so a dump may be moved but not copied.
struct DownloadDump {
  std::vector<std::unique_ptr<KnxStack::InterfaceObject>> objects;
  Korvex::InterfaceObjectMap interfaceObjects;
  KnxStack::BinaryData memory;
  Korvex::CoDescriptorDataMap coDescriptors;

  DownloadDump() = default;
  DownloadDump(DownloadDump&&) = default;
  DownloadDump& operator=(DownloadDump&&) = default;
  DownloadDump(const DownloadDump&) = delete;
  DownloadDump& operator=(const DownloadDump&) = delete;
  ~DownloadDump() = default;
};

/// Parses the JSON text of a dump; throws DumpError.
DownloadDump ParseDownloadDump(std::string_view json);

/// Reads and parses a dump file; throws DumpError.
DownloadDump LoadDownloadDump(const std::string& path);

/// Appends reference token to a JSON pointer, escaping "~" and "/"; a
/// backslash is doubled and a control byte written as \u00XX, so that the
/// location prints as one readable line.
std::string AppendPointer(const std::string& pointer, std::string_view token);

}  // namespace lkdh::host
