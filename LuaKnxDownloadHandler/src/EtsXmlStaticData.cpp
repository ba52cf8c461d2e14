#include <LuaKnxDownloadHandler/EtsXml.h>

#include "EtsXmlTree.h"
#include "EtsXmlValueTypes.h"
#include "Formats.h"

#include <fmt/format.h>

namespace Korvex::luaknxdownloadhandler {

void EtsXml::CreateRootStaticData(pugi::xml_node& elements) {
  if (m_diagnostics != nullptr) m_diagnostics->Enter("static data");
  const std::vector<LuxStaticData> records = m_luxHelper->GetStaticData();
  for (const LuxStaticData& record : records) {
    CreateStaticData(record, elements);
  }
}

void EtsXml::CreateStaticData(const LuxStaticData& data, pugi::xml_node& parent) {
  // Only a record that names an enabling property can be switched off, and an
  // unreadable one switches it off together with its nested records.
  if (data.enabledProperty) {
    const boost::optional<bool> enabled = GetBoolWithId(*data.enabledProperty, m_interfaceObjects);
    if (!enabled.value_or(false)) {
      if (m_diagnostics != nullptr) ReportDisabled(data, enabled.has_value());
      return;
    }
  }
  // With diagnostics, the record's path names the slot of what is reported below.
  const std::size_t parentPathSize = m_staticPath.size();
  if (m_diagnostics != nullptr) {
    if (parentPathSize != 0) m_staticPath += '/';
    m_staticPath += data.name;
    m_diagnostics->Enter("static data '" + m_staticPath + "'");
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
    if (detail::IsParameterShown(parameter, source, *m_luxHelper, m_diagnostics)) {
      detail::WriteParameter(parameters, parameter, source, nameDefault, size, m_diagnostics);
    }
  }

  if (!data.subData.empty()) {
    size.Element("elements");
    pugi::xml_node subElements = detail::AppendElement(element, "elements");
    for (const LuxStaticData& subData : data.subData) {
      CreateStaticData(subData, subElements);
    }
  }
  if (m_diagnostics != nullptr) m_staticPath.resize(parentPathSize);
}

void EtsXml::ReportDisabled(const LuxStaticData& data, bool readable) {
  const PropertyInfo property = *data.enabledProperty;
  const std::string detail = fmt::format(
      "its EnabledProperty (interface object {}, property {}) {}: the record and its nested "
      "records are not written",
      property.InterfaceObjectId, property.PropertyId, readable ? "reads false" : "cannot be read");
  m_diagnostics->Enter(m_staticPath.empty() ? "static data" : "static data '" + m_staticPath + "'");
  m_diagnostics->Report({SkipReason::RecordDisabled, "record", data.name, detail});
}

}  // namespace Korvex::luaknxdownloadhandler
