#include <LuaKnxDownloadHandler/EtsXml.h>

#include "EtsXmlTree.h"
#include "EtsXmlValueTypes.h"
#include "Formats.h"

namespace Korvex::luaknxdownloadhandler {

void EtsXml::CreateRootStaticData(pugi::xml_node& elements) {
  const std::vector<LuxStaticData> records = m_luxHelper->GetStaticData();
  for (const LuxStaticData& record : records) {
    CreateStaticData(record, elements);
  }
}

void EtsXml::CreateStaticData(const LuxStaticData& data, pugi::xml_node& parent) {
  // Only a record that names an enabling property can be switched off, and an
  // unreadable one switches it off together with its nested records.
  if (data.enabledProperty &&
      !GetBoolWithId(*data.enabledProperty, m_interfaceObjects).value_or(false)) {
    return;
  }

  detail::DocumentBytes size(m_documentBytes, m_maxDocumentBytes);
  size.Element("element");
  pugi::xml_node element = detail::AppendElement(parent, "element");
  size.Attribute("name", data.name);
  detail::AppendAttribute(element, "name", data.name.c_str());
  size.Attribute("type", data.type);
  detail::AppendAttribute(element, "type", data.type.c_str());

  size.Element("parameters");
  pugi::xml_node parameters = detail::AppendElement(element, "parameters");
  const detail::ValueSource source = detail::ValueSource::WholeProperty(
      m_interfaceObjects, m_memory, {m_maxNameCharCount, m_maxTextCharCount, m_maxUrlCharCount});
  // A name that cannot be read shows the wrong property id right in the document,
  // where whoever writes the script will see it.
  const detail::NameDefault nameDefault = [](const LuaParameter& parameter) {
    return detail::FormatShared(s_wrongPropertyIdFormat, parameter.property.PropertyId);
  };
  for (const LuaParameter& parameter : data.parameters) {
    if (detail::IsParameterShown(parameter, source, *m_luxHelper)) {
      detail::WriteParameter(parameters, parameter, source, nameDefault, size);
    }
  }

  if (!data.subData.empty()) {
    size.Element("elements");
    pugi::xml_node subElements = detail::AppendElement(element, "elements");
    for (const LuxStaticData& subData : data.subData) {
      CreateStaticData(subData, subElements);
    }
  }
}

}  // namespace Korvex::luaknxdownloadhandler
