#pragma once
// The etsproject document builder: one per download.

#include <LuaKnxDownloadHandler/Diagnostics.h>
#include <LuaKnxDownloadHandler/LuxHelperBase.h>
#include <LuaKnxDownloadHandler/PropertyAccess.h>

#include <KnxStack/BinaryData.h>

#include <log4cplus/logger.h>
#include <boost/optional.hpp>
#include <pugixml.hpp>

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

namespace Korvex::luaknxdownloadhandler {

namespace detail {
class DocumentText;
}

class EtsXml {
 public:
  /// All five arguments must outlive the builder; luxHelper must not be null.
  EtsXml(const InterfaceObjectMap& interfaceObjects, const KnxStack::BinaryData& memory,
         const CoDescriptorDataMap& coDescriptors, const log4cplus::Logger* logger,
         LuxHelperBase* luxHelper);

  /// The serialised document, or nothing when a required limit is missing.
  /// Throws when the document cannot be built whole: pugixml without memory,
  /// or a document larger than the size limit.
  boost::optional<std::string> Create();

  /// The largest document text Create() may produce, in bytes (default 256 MiB).
  void SetMaxDocumentBytes(std::size_t bytes) noexcept { m_maxDocumentBytes = bytes; }

  /// Where the builder tells what it leaves out and why; null (the default): no one.
  void SetDiagnostics(Diagnostics* diagnostics) noexcept { m_diagnostics = diagnostics; }

  /// The boolean setting the property table names; false when unreadable.
  boost::optional<bool> ProperyValueByName(const std::string& name);

  void CreateXmlRoot(pugi::xml_node& parent, std::string& version, std::string& deviceName);
  void CreateFolders(pugi::xml_node& root);
  void CreateFolder(pugi::xml_node& elements, unsigned int folderIndex);
  void CreateFunctions(pugi::xml_node& folderElement, unsigned int folderIndex);
  void CreateFunction(pugi::xml_node& parent, unsigned int index);
  void CreateRootStaticData(pugi::xml_node& elements);
  void CreateStaticData(const LuxStaticData& data, pugi::xml_node& parent);

 private:
  void InitMaxValues();
  std::string SlotName(unsigned int index) const;
  void ReportDisabled(const LuxStaticData& data, bool readable);

  const InterfaceObjectMap& m_interfaceObjects;
  LuxHelperBase* m_luxHelper;
  const KnxStack::BinaryData& m_memory;
  const log4cplus::Logger* m_logger;
  std::map<std::string, PropertyInfo> m_propertyIds;
  CoDescriptorDataMap m_coDescriptors;
  std::uint8_t m_maxFunctionPerFolder = 0;
  std::uint8_t m_maxNameCharCount = 0;
  std::uint8_t m_maxTextCharCount = 0;
  std::uint8_t m_maxUrlCharCount = 0;
  std::size_t m_maxDocumentBytes;
  std::size_t m_documentBytes = 0;         // a lower bound of the text built so far
  detail::DocumentText* m_text = nullptr;  // set while Create() runs: folders are written ahead
  Diagnostics* m_diagnostics = nullptr;
  std::string m_staticPath;  // of the static-data record being written, with diagnostics only
};

}  // namespace Korvex::luaknxdownloadhandler
