#include <LuaKnxDownloadHandler/EtsXml.h>

#include "EtsXmlValueTypes.h"

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

  pugi::xml_node element = parent.append_child("element");
  element.append_attribute("name") = data.name.c_str();
  element.append_attribute("type") = data.type.c_str();

  pugi::xml_node parameters = element.append_child("parameters");
  const detail::ValueSource source = detail::ValueSource::WholeProperty(
      m_interfaceObjects, m_memory, {m_maxNameCharCount, m_maxTextCharCount, m_maxUrlCharCount});
  // A name that cannot be read shows the wrong property id right in the document,
  // where whoever writes the script will see it.
  const detail::NameDefault nameDefault = [](const LuaParameter& parameter) {
    return (s_wrongPropertyIdFormat % parameter.property.PropertyId).str();
  };
  for (const LuaParameter& parameter : data.parameters) {
    if (detail::IsParameterShown(parameter, source, *m_luxHelper)) {
      detail::WriteParameter(parameters, parameter, source, nameDefault);
    }
  }

  if (!data.subData.empty()) {
    pugi::xml_node subElements = element.append_child("elements");
    for (const LuxStaticData& subData : data.subData) {
      CreateStaticData(subData, subElements);
    }
  }
}

}  // namespace Korvex::luaknxdownloadhandler
