#include <LuaKnxDownloadHandler/EtsXml.h>

#include "HandlerLimits.h"

#include <log4cplus/loggingmacros.h>

namespace Korvex::luaknxdownloadhandler {

EtsXml::EtsXml(const InterfaceObjectMap& interfaceObjects, const KnxStack::BinaryData& memory,
               const CoDescriptorDataMap& coDescriptors, const log4cplus::Logger* logger,
               LuxHelperBase* luxHelper)
    : m_interfaceObjects(interfaceObjects),
      m_luxHelper(luxHelper),
      m_memory(memory),
      m_logger(logger),
      m_coDescriptors(coDescriptors),
      m_maxDocumentBytes(kDefaultMaxDocumentBytes) {
  // The count covers every descriptor, whatever its flag; the wording is historic.
  if (m_logger != nullptr && m_logger->isEnabledFor(log4cplus::DEBUG_LOG_LEVEL)) {
    LOG4CPLUS_DEBUG(*m_logger,
                    "CO count with enabled communication flag: " << coDescriptors.size());
  }
  InitMaxValues();
}

void EtsXml::InitMaxValues() {
  m_propertyIds = m_luxHelper->GetPropertyIds();
  // A missing name reads the zero address; Create() reports a limit left at 0.
  m_maxFunctionPerFolder =
      GetUInt8WithId(m_propertyIds["MaxFunctionPerFolder"], m_interfaceObjects).value_or(0);
  m_maxNameCharCount =
      GetUInt8WithId(m_propertyIds["MaxNameCharCount"], m_interfaceObjects).value_or(0);
  m_maxTextCharCount =
      GetUInt8WithId(m_propertyIds["MaxTextCharCount"], m_interfaceObjects).value_or(0);
  m_maxUrlCharCount =
      GetUInt8WithId(m_propertyIds["MaxUrlCharCount"], m_interfaceObjects).value_or(0);
}

boost::optional<bool> EtsXml::ProperyValueByName(const std::string& name) {
  return GetBoolWithId(m_propertyIds[name], m_interfaceObjects).value_or(false);
}

}  // namespace Korvex::luaknxdownloadhandler
