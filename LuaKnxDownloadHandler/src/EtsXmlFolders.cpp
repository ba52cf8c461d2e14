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
  // Each folder is written and taken out of the tree once complete, so that the
  // tree never holds more than one folder.
  const bool writeAhead = m_text != nullptr && folderCount != 0;
  std::size_t foldersStart = 0;
  if (writeAhead) {
    detail::AppendFolderMark(elements);
    const std::string before = detail::SplitAtFolderMark(elements.root(), m_maxDocumentBytes).first;
    m_text->write(before.data(), before.size());
    foldersStart = m_text->Size();
  }
  // Written ahead, a folder is built in a document of its own and dropped whole
  // once printed: its pages are freed at once instead of node by node.
  pugi::xml_document folderDocument;
  for (unsigned int folderIndex = 0; folderIndex < folderCount; ++folderIndex) {
    if (!writeAhead) {
      CreateFolder(elements, folderIndex);
      continue;
    }
    CreateFolder(folderDocument, folderIndex);
    m_text->Print(folderDocument.last_child(), 2);
    folderDocument.reset();
    // When the next folder of average size would not fit: room for the rest at
    // that average, growing at most eightfold in case the first were not typical.
    const std::size_t done = folderIndex + 1;
    const std::size_t size = m_text->Size();
    const std::size_t average = (size - foldersStart) / done;
    if (done < folderCount && size + average + average / 8 > m_text->Capacity()) {
      std::size_t expected = size + average * (folderCount - done);
      expected += expected / 32 + 65536;
      m_text->Expect(expected < size * 8 ? expected : size * 8);
    }
  }
  // Static data follows the last folder in the same list, folders or not.
  CreateRootStaticData(elements);
}

void EtsXml::CreateFolder(pugi::xml_node& elements, unsigned int folderIndex) {
  detail::DocumentBytes size(m_documentBytes, m_maxDocumentBytes);
  size.Element("element");
  pugi::xml_node element = detail::AppendElement(elements, "element");
  // An empty fallback comes back exactly when the default is due: formatted only then.
  std::string name =
      GetStringFromArrayWithIdFromMemory(m_propertyIds["FolderNameOffset"], m_maxNameCharCount,
                                         folderIndex, m_interfaceObjects, &m_memory, std::string());
  // Numbered from 0 on purpose: the device counts folders that way.
  if (name.empty()) name = detail::FormatShared(s_folderFormat, folderIndex);
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
