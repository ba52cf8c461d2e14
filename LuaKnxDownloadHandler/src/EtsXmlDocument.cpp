#include <LuaKnxDownloadHandler/EtsXml.h>
#include <LuaKnxDownloadHandler/EtsXmlParameter.h>

#include "EtsXmlValueTypes.h"

#include <log4cplus/loggingmacros.h>

#include <sstream>
#include <string>

namespace Korvex::luaknxdownloadhandler {

namespace {

// Writes one boolean device setting as "True"/"False"; unreadable counts as false.
bool AddBoolSetting(pugi::xml_node& parameters, const char* name,
                    std::map<std::string, PropertyInfo>& propertyIds,
                    const InterfaceObjectMap& interfaceObjects) {
  const bool value = GetBoolWithId(propertyIds[name], interfaceObjects).value_or(false);
  const char* text = detail::BoolText(value);
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

  std::ostringstream stream;
  {
    pugi::xml_document document;
    pugi::xml_node declaration = document.append_child(pugi::node_declaration);
    declaration.append_attribute("version") = "1.0";
    declaration.append_attribute("encoding") = "utf-8";

    std::string version = "1.0";
    std::string deviceName = "Korvex T5";
    CreateXmlRoot(document, version, deviceName);

    document.save(stream, "  ", pugi::format_indent, pugi::encoding_utf8);
  }  // the tree is freed here, before the text is copied out of the stream
  return stream.str();
}

void EtsXml::CreateXmlRoot(pugi::xml_node& parent, std::string& version, std::string& deviceName) {
  pugi::xml_node root = parent.append_child("etsproject");
  root.append_attribute("version") = version.c_str();
  pugi::xml_node device = root.append_child("device");
  device.append_attribute("name") = deviceName.c_str();
  pugi::xml_node parameters = device.append_child("parameters");

  AddBoolSetting(parameters, "ShowRootFolder", m_propertyIds, m_interfaceObjects);
  AddBoolSetting(parameters, "ShowOutdoorTemp", m_propertyIds, m_interfaceObjects);
  AddBoolSetting(parameters, "ShowIndoorTemp", m_propertyIds, m_interfaceObjects);
  AddBoolSetting(parameters, "ShowDateTime", m_propertyIds, m_interfaceObjects);
  AddBoolSetting(parameters, "UseTVK", m_propertyIds, m_interfaceObjects);

  const unsigned char dcsType =
      GetUInt8WithId(m_propertyIds["DcsType"], m_interfaceObjects).value_or(0);
  AddParameter<unsigned char>(parameters, "DcsType", dcsType);

  std::uint32_t effectiveDcsType = dcsType;
  if (AddBoolSetting(parameters, "UseDcsFloorcall", m_propertyIds, m_interfaceObjects)) {
    const std::string name =
        GetStringWithIdFromMemory(m_propertyIds["DcsFloorCallNameOffset"], m_maxNameCharCount,
                                  m_interfaceObjects, &m_memory, s_floorCallButtonFormat.str());
    AddParameter<std::string>(parameters, "DcsFloorCallName", name);
    const unsigned char melody =
        GetUInt8WithId(m_propertyIds["DcsFloorCallMelody"], m_interfaceObjects).value_or(0);
    AddParameter<unsigned char>(parameters, "DcsFloorCallMelody", melody);
    // A floor call needs a door-communication type: the script gets 10 for an
    // unset one, while the document keeps the value as downloaded.
    if (effectiveDcsType == 0) {
      effectiveDcsType = 10;
    }
  }
  m_luxHelper->HandleDcsType(effectiveDcsType);

  AddBoolSetting(parameters, "UseWeather", m_propertyIds, m_interfaceObjects);
  AddBoolSetting(parameters, "UseTimers", m_propertyIds, m_interfaceObjects);
  AddBoolSetting(parameters, "UseHeatingTimers", m_propertyIds, m_interfaceObjects);
  AddBoolSetting(parameters, "ResetUserData", m_propertyIds, m_interfaceObjects);

  CreateFolders(root);

  pugi::xml_node enabledCos = root.append_child("enabledCOs");
  for (const auto& [number, descriptor] : m_coDescriptors) {
    if (descriptor.communicationEnabled) {
      enabledCos.append_child("co").append_attribute("nr") = static_cast<int>(number);
    }
  }
}

}  // namespace Korvex::luaknxdownloadhandler
