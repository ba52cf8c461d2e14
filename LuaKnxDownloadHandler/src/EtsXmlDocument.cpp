#include <LuaKnxDownloadHandler/EtsXml.h>
#include <LuaKnxDownloadHandler/EtsXmlParameter.h>
#include <LuaKnxDownloadHandler/Rules.h>

#include "EtsXmlTree.h"
#include "EtsXmlValueTypes.h"
#include "Formats.h"

#include <log4cplus/loggingmacros.h>

#include <string>

namespace Korvex::luaknxdownloadhandler {

namespace {

// Writes one boolean device setting as "True"/"False"; unreadable counts as false.
bool AddBoolSetting(pugi::xml_node& parameters, const char* name,
                    std::map<std::string, PropertyInfo>& propertyIds,
                    const InterfaceObjectMap& interfaceObjects, detail::DocumentBytes& size) {
  const bool value = GetBoolWithId(propertyIds[name], interfaceObjects).value_or(false);
  const char* text = detail::BoolText(value);
  size.Parameter(name, std::char_traits<char>::length(text));
  AddParameter<const char*>(parameters, name, text);
  return value;
}

}  // namespace

boost::optional<std::string> EtsXml::Create() {
  // Without folders the function limit is never used, so only then may it be 0.
  if (m_maxFunctionPerFolder == 0) {
    const auto folderCount = GetUInt8WithId(m_propertyIds["NumberOfFolders"], m_interfaceObjects);
    if (folderCount && *folderCount != 0) {
      if (m_logger != nullptr) {
        LOG4CPLUS_ERROR(*m_logger, "Max function per folder not set. PropertyId: "
                                       << m_propertyIds["MaxFunctionPerFolder"].PropertyId);
      }
      return boost::none;
    }
  }
  if (m_maxNameCharCount == 0) {
    if (m_logger != nullptr) {
      LOG4CPLUS_ERROR(*m_logger, "Max name char count not set. PropertyId: "
                                     << m_propertyIds["MaxNameCharCount"].PropertyId);
    }
    return boost::none;
  }
  if (m_maxTextCharCount == 0) {
    if (m_logger != nullptr) {
      LOG4CPLUS_ERROR(*m_logger, "Max text char count not set. PropertyId: "
                                     << m_propertyIds["MaxTextCharCount"].PropertyId);
    }
    return boost::none;
  }
  // A URL limit of 0 is accepted: URL parameters then read as empty texts.

  m_documentBytes = 0;
  detail::DocumentBytes size(m_documentBytes, m_maxDocumentBytes);
  detail::DocumentText text(m_maxDocumentBytes);
  m_text = &text;
  struct Detach {
    EtsXml& xml;
    ~Detach() { xml.m_text = nullptr; }
  } detach{*this};
  {
    pugi::xml_document document;
    size.Element("xml");
    pugi::xml_node declaration = detail::AppendDeclaration(document);
    size.Attribute("version", "1.0");
    detail::AppendAttribute(declaration, "version", "1.0");
    size.Attribute("encoding", "utf-8");
    detail::AppendAttribute(declaration, "encoding", "utf-8");

    std::string version = "1.0";
    std::string deviceName = "Korvex T5";
    CreateXmlRoot(document, version, deviceName);

    // Bounded by the same limit: the count above is only a lower bound.
    if (text.Size() == 0) {
      document.save(text, "  ", pugi::format_indent, pugi::encoding_utf8);
    } else {
      // The folders are written: what follows them comes after the mark.
      const std::string rest = detail::SplitAtFolderMark(document, m_maxDocumentBytes).second;
      text.write(rest.data(), rest.size());
    }
  }  // the tree is freed here
  text.Check();
  return text.Take();
}

void EtsXml::CreateXmlRoot(pugi::xml_node& parent, std::string& version, std::string& deviceName) {
  detail::DocumentBytes size(m_documentBytes, m_maxDocumentBytes);
  size.Element("etsproject");
  pugi::xml_node root = detail::AppendElement(parent, "etsproject");
  size.Attribute("version", version);
  detail::AppendAttribute(root, "version", version.c_str());
  size.Element("device");
  pugi::xml_node device = detail::AppendElement(root, "device");
  size.Attribute("name", deviceName);
  detail::AppendAttribute(device, "name", deviceName.c_str());
  size.Element("parameters");
  pugi::xml_node parameters = detail::AppendElement(device, "parameters");

  AddBoolSetting(parameters, "ShowRootFolder", m_propertyIds, m_interfaceObjects, size);
  AddBoolSetting(parameters, "ShowOutdoorTemp", m_propertyIds, m_interfaceObjects, size);
  AddBoolSetting(parameters, "ShowIndoorTemp", m_propertyIds, m_interfaceObjects, size);
  AddBoolSetting(parameters, "ShowDateTime", m_propertyIds, m_interfaceObjects, size);
  AddBoolSetting(parameters, "UseTVK", m_propertyIds, m_interfaceObjects, size);

  const unsigned char dcsType =
      GetUInt8WithId(m_propertyIds["DcsType"], m_interfaceObjects).value_or(0);
  size.Parameter("DcsType", 1);
  AddParameter<unsigned char>(parameters, "DcsType", dcsType);

  const bool useFloorCall =
      AddBoolSetting(parameters, "UseDcsFloorcall", m_propertyIds, m_interfaceObjects, size);
  if (useFloorCall) {
    const std::string name = GetStringWithIdFromMemory(
        m_propertyIds["DcsFloorCallNameOffset"], m_maxNameCharCount, m_interfaceObjects, &m_memory,
        detail::FormatShared(s_floorCallButtonFormat));
    size.Parameter("DcsFloorCallName", name.size());
    AddParameter<std::string>(parameters, "DcsFloorCallName", name);
    const unsigned char melody =
        GetUInt8WithId(m_propertyIds["DcsFloorCallMelody"], m_interfaceObjects).value_or(0);
    size.Parameter("DcsFloorCallMelody", 1);
    AddParameter<unsigned char>(parameters, "DcsFloorCallMelody", melody);
  }
  m_luxHelper->HandleDcsType(ScriptDcsType(dcsType, useFloorCall));

  AddBoolSetting(parameters, "UseWeather", m_propertyIds, m_interfaceObjects, size);
  AddBoolSetting(parameters, "UseTimers", m_propertyIds, m_interfaceObjects, size);
  AddBoolSetting(parameters, "UseHeatingTimers", m_propertyIds, m_interfaceObjects, size);
  AddBoolSetting(parameters, "ResetUserData", m_propertyIds, m_interfaceObjects, size);

  CreateFolders(root);

  size.Element("enabledCOs");
  pugi::xml_node enabledCos = detail::AppendElement(root, "enabledCOs");
  for (const auto& [number, descriptor] : m_coDescriptors) {
    if (descriptor.communicationEnabled) {
      size.Element("co");
      pugi::xml_node co = detail::AppendElement(enabledCos, "co");
      size.Attribute("nr", "0");
      detail::AppendAttribute(co, "nr", static_cast<int>(number));
    }
  }
}

}  // namespace Korvex::luaknxdownloadhandler
