#pragma once
// Reads values out of a download dump with the plug-in's own header-only
// readers (PropertyAccess.h): only the first object under an index counts, an
// array element is decoded from the whole array read at once, and texts in the
// memory image are found through an address property.

#include "DownloadDump.h"

#include <KnxStack/BinaryData.h>
#include <KnxStack/IInterfaceObject.h>

#include <cstdint>
#include <optional>
#include <string>

namespace lkdh::host {

/// One KNX property as the script names it.
struct PropertyAddress {
  std::uint32_t object = 0;    // "InterfaceObjectId"
  std::uint32_t property = 0;  // "PropertyId", 0..255 as the plug-in keeps it
};

/// Which value is read: the whole property (static data, settings) or one
/// element of an array property (function slots, folders).
using Element = std::optional<std::uint32_t>;

class DumpAccess {
 public:
  explicit DumpAccess(const DownloadDump& dump) : m_dump(dump) {}

  /// Empty when the dump holds the property; otherwise why it does not.
  std::string WhyMissing(PropertyAddress address) const;

  std::optional<std::uint32_t> ElementCount(PropertyAddress address) const;

  std::optional<std::uint8_t> UInt8(PropertyAddress address, Element element) const;
  std::optional<std::uint16_t> UInt16(PropertyAddress address, Element element) const;
  std::optional<std::uint32_t> UInt32(PropertyAddress address, Element element) const;
  std::optional<bool> Bool(PropertyAddress address, Element element) const;
  std::optional<float> Float32(PropertyAddress address, Element element) const;
  /// The KNX 2-octet float, decoded as the plug-in decodes it.
  std::optional<float> Float16(PropertyAddress address, Element element) const;

  /// A text held in the property value itself (GENERIC_20); fallback when unreadable.
  std::string PropertyText(PropertyAddress address, Element element,
                           const std::string& fallback) const;
  /// A text in the memory image at the address the property holds: at most
  /// limit bytes, up to a zero byte, trimmed; fallback when empty, and the
  /// plug-in's wrong-property-id text when the address cannot be read.
  std::string MemoryText(PropertyAddress address, Element element, std::uint8_t limit,
                         const std::string& fallback) const;

 private:
  const KnxStack::IProperty* Find(PropertyAddress address) const;

  const DownloadDump& m_dump;
};

}  // namespace lkdh::host
