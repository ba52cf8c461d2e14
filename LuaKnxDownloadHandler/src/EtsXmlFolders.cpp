#include <LuaKnxDownloadHandler/EtsXml.h>
#include <LuaKnxDownloadHandler/EtsXmlParameter.h>

#include "EtsXmlTree.h"
#include "Formats.h"

namespace Korvex::luaknxdownloadhandler {

void EtsXml::CreateFolders(pugi::xml_node& root) {
  detail::DocumentBytes(m_documentBytes, m_maxDocumentBytes).Element("elements");
  pugi::xml_node elements = detail::AppendElement(root, "elements");
  const unsigned int folderCount =
      GetUInt8WithId(m_propertyIds["NumberOfFolders"], m_interfaceObjects).value_or(0);
  for (unsigned int folderIndex = 0; folderIndex < folderCount; ++folderIndex) {
    CreateFolder(elements, folderIndex);
  }
  // Static data follows the last folder in the same list, folders or not.
  CreateRootStaticData(elements);
}

void EtsXml::CreateFolder(pugi::xml_node& elements, unsigned int folderIndex) {
  detail::DocumentBytes size(m_documentBytes, m_maxDocumentBytes);
  size.Element("element");
  pugi::xml_node element = detail::AppendElement(elements, "element");
  // Numbered from 0 on purpose: the device counts folders that way.
  std::string defaultName = detail::FormatShared(s_folderFormat, folderIndex);
  const std::string name = GetStringFromArrayWithIdFromMemory(
      m_propertyIds["FolderNameOffset"], m_maxNameCharCount, folderIndex, m_interfaceObjects,
      &m_memory, std::move(defaultName));
  size.Attribute("name", name);
  detail::AppendAttribute(element, "name", name.c_str());
  size.Attribute("type", "location");
  detail::AppendAttribute(element, "type", "location");

  size.Element("parameters");
  pugi::xml_node parameters = detail::AppendElement(element, "parameters");
  const unsigned short icon =
      GetUInt16FromArrayWithId(m_propertyIds["FolderIcon"], folderIndex, m_interfaceObjects)
          .value_or(0);
  size.Parameter("IconId", 1);
  AddParameter<unsigned short>(parameters, "IconId", icon);

  // Written by pugixml's bool conversion: the device reads this flag in lower
  // case, unlike every other boolean of the document.
  const bool showOnHome =
      GetBoolFromArrayWithId(m_propertyIds["FolderShowOnHome"], folderIndex, m_interfaceObjects)
          .value_or(false);
  size.Parameter("ShowOnHomeScreen", 4);
  pugi::xml_node showOnHomeParameter = detail::AppendElement(parameters, "parameter");
  detail::AppendAttribute(showOnHomeParameter, "key", "ShowOnHomeScreen");
  detail::AppendAttribute(showOnHomeParameter, "value", showOnHome);

  CreateFunctions(element, folderIndex);
}

void EtsXml::CreateFunctions(pugi::xml_node& folderElement, unsigned int folderIndex) {
  detail::DocumentBytes(m_documentBytes, m_maxDocumentBytes).Element("elements");
  pugi::xml_node elements = detail::AppendElement(folderElement, "elements");
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
