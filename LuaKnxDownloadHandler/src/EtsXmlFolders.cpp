#include <LuaKnxDownloadHandler/EtsXml.h>
#include <LuaKnxDownloadHandler/EtsXmlParameter.h>

namespace Korvex::luaknxdownloadhandler {

void EtsXml::CreateFolders(pugi::xml_node& root) {
  pugi::xml_node elements = root.append_child("elements");
  const unsigned int folderCount =
      GetUInt8WithId(m_propertyIds["NumberOfFolders"], m_interfaceObjects).value_or(0);
  for (unsigned int folderIndex = 0; folderIndex < folderCount; ++folderIndex) {
    CreateFolder(elements, folderIndex);
  }
  // Static data follows the last folder in the same list, folders or not.
  CreateRootStaticData(elements);
}

void EtsXml::CreateFolder(pugi::xml_node& elements, unsigned int folderIndex) {
  pugi::xml_node element = elements.append_child("element");
  // Numbered from 0 on purpose: the device counts folders that way.
  std::string defaultName = (s_folderFormat % folderIndex).str();
  const std::string name = GetStringFromArrayWithIdFromMemory(
      m_propertyIds["FolderNameOffset"], m_maxNameCharCount, folderIndex, m_interfaceObjects,
      &m_memory, std::move(defaultName));
  element.append_attribute("name") = name.c_str();
  element.append_attribute("type") = "location";

  pugi::xml_node parameters = element.append_child("parameters");
  const unsigned short icon =
      GetUInt16FromArrayWithId(m_propertyIds["FolderIcon"], folderIndex, m_interfaceObjects)
          .value_or(0);
  AddParameter<unsigned short>(parameters, "IconId", icon);

  // Written by pugixml's bool conversion: the device reads this flag in lower
  // case, unlike every other boolean of the document.
  const bool showOnHome =
      GetBoolFromArrayWithId(m_propertyIds["FolderShowOnHome"], folderIndex, m_interfaceObjects)
          .value_or(false);
  pugi::xml_node showOnHomeParameter = parameters.append_child("parameter");
  showOnHomeParameter.append_attribute("key") = "ShowOnHomeScreen";
  showOnHomeParameter.append_attribute("value") = showOnHome;

  CreateFunctions(element, folderIndex);
}

void EtsXml::CreateFunctions(pugi::xml_node& folderElement, unsigned int folderIndex) {
  pugi::xml_node elements = folderElement.append_child("elements");
  const unsigned int functionCount =
      GetUInt8FromArrayWithId(m_propertyIds["NumberFuncPerFolder"], folderIndex, m_interfaceObjects)
          .value_or(0);
  const unsigned int slotsPerFolder = m_maxFunctionPerFolder;
  // The count is not bounded by the limit: the download decides.
  for (unsigned int position = 0; position < functionCount; ++position) {
    CreateFunction(elements, folderIndex * slotsPerFolder + position);
  }
}

}  // namespace Korvex::luaknxdownloadhandler
