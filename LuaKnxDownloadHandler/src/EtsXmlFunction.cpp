#include <LuaKnxDownloadHandler/EtsXml.h>
#include <LuaKnxDownloadHandler/EtsXmlParameter.h>

#include "EtsXmlTree.h"
#include "EtsXmlValueTypes.h"
#include "Formats.h"

#include <fmt/format.h>

#include <string>

namespace Korvex::luaknxdownloadhandler {

std::string EtsXml::SlotName(unsigned int index) const {
  // The slot as its folder and its position there, with the functionId the document gives it.
  if (m_maxFunctionPerFolder == 0) return fmt::format("function slot {}", index);
  return fmt::format("folder {}/function {} (functionId {})", index / m_maxFunctionPerFolder,
                     index % m_maxFunctionPerFolder, index + 1);
}

void EtsXml::CreateFunction(pugi::xml_node& parent, unsigned int index) {
  const unsigned char channelType =
      GetUInt8FromArrayWithId(m_propertyIds["ChannelType"], index, m_interfaceObjects).value_or(0);
  if (channelType == 0) {
    return;  // an unused slot leaves no trace
  }
  const std::uint32_t typeId = channelType;
  if (m_diagnostics != nullptr) m_diagnostics->Enter(SlotName(index));

  detail::DocumentBytes size(m_documentBytes, m_maxDocumentBytes);
  size.Element("element");
  pugi::xml_node element = detail::AppendElement(parent, "element");

  std::string functionUrn;
  std::string channelTypeUrn;
  std::string luaTemplateIndex;
  if (!m_luxHelper->IsThereUrnsByPropertyIndex(typeId)) {
    functionUrn = m_luxHelper->GetFunctionUrnByTypeId(typeId).value_or("Unsupported");
    channelTypeUrn = m_luxHelper->GetChannelUrnByTypeId(typeId).value_or("Unsupported");
  } else {
    // A further property of the slot selects among the type's URNs.
    const PropertyInfo selectorProperty = m_luxHelper->GetPropertyIndexForUrns(typeId);
    const std::uint32_t selector =
        GetUInt8FromArrayWithId(selectorProperty, index, m_interfaceObjects).value_or(0);
    functionUrn = m_luxHelper->GetFunctionUrnByTypeIdAndPropertyIndex(typeId, selector)
                      .value_or("Unsupported");
    channelTypeUrn = m_luxHelper->GetChannelUrnByTypeIdAndPropertyIndex(typeId, selector)
                         .value_or("Unsupported");
    luaTemplateIndex =
        m_luxHelper->GetLuaTemplateIndexByTypeIdAndPropertyIndex(typeId, selector).value_or("");
  }

  // Read with an empty fallback, which comes back exactly when the default is due:
  // the default is formatted only for a slot whose memory holds no name.
  std::string name =
      GetStringFromArrayWithIdFromMemory(m_propertyIds["FunctionNameOffset"], m_maxNameCharCount,
                                         index, m_interfaceObjects, &m_memory, std::string());
  // The default name counts from 0 while functionId counts from 1; both are
  // what the device expects.
  if (name.empty()) name = detail::FormatShared(s_functionFormat, index);
  // The script's texts may be of any length: counted before they are copied.
  size.Attribute("name", name);
  size.Attribute("type", "function");
  size.Attribute("functionId", "1");
  size.Attribute("functionUrn", functionUrn);
  size.Attribute("channelTypeUrn", channelTypeUrn);
  if (!luaTemplateIndex.empty()) size.Attribute("luaTemplateIndex", luaTemplateIndex);
  AddFunctionParameter(element, name, "function", index + 1, functionUrn, channelTypeUrn,
                       luaTemplateIndex);

  size.Element("parameters");
  pugi::xml_node parameters = detail::AppendElement(element, "parameters");
  const detail::ValueSource source = detail::ValueSource::ArrayElement(
      m_interfaceObjects, m_memory, {m_maxNameCharCount, m_maxTextCharCount, m_maxUrlCharCount},
      index);
  // The text of "%s %d" put together directly: asked for every Name parameter,
  // also when its memory holds a name, so it must cost little.
  const std::string number = " " + std::to_string(index);
  const detail::NameDefault nameDefault = [&number](const LuaParameter& parameter) {
    std::string text;
    text.reserve(parameter.key.size() + number.size());
    text += parameter.key;
    text += number;
    return text;
  };
  for (const LuaParameter& parameter : m_luxHelper->GetParametersFromChannelTypeId(typeId)) {
    if (detail::IsParameterShown(parameter, source, *m_luxHelper, m_diagnostics)) {
      detail::WriteParameter(parameters, parameter, source, nameDefault, size, m_diagnostics);
    }
  }
}

}  // namespace Korvex::luaknxdownloadhandler
