#include <LuaKnxDownloadHandler/EtsXmlParameter.h>

#include "EtsXmlTree.h"

namespace Korvex::luaknxdownloadhandler {

namespace {

// A null text is written as an empty one rather than handed to pugixml.
const char* TextOrEmpty(const char* text) { return text != nullptr ? text : ""; }

// Everything but the value's text, which each member sets by its type. Like
// pugixml, an empty parent takes nothing; unlike it, a lack of memory throws.
pugi::xml_attribute AppendParameter(pugi::xml_node& parent, const char* key) {
  pugi::xml_node parameter = detail::AppendElement(parent, "parameter");
  detail::AppendAttribute(parameter, "key", TextOrEmpty(key));
  return detail::AppendAttribute(parameter, "value");
}

template <typename Value>
void SetValue(pugi::xml_node& parent, const char* key, Value value) {
  pugi::xml_attribute attribute = AppendParameter(parent, key);
  detail::SetAttributeValue(attribute, value);
}

}  // namespace

template <>
void AddParameter<const char*>(pugi::xml_node& parent, const char* key, const char* const& value) {
  SetValue(parent, key, TextOrEmpty(value));
}

template <>
void AddParameter<std::string>(pugi::xml_node& parent, const char* key, const std::string& value) {
  const char* text = value.c_str();
  AddParameter<const char*>(parent, key, text);
}

// The integer members go through pugixml's int and unsigned conversions, so a
// byte is always written as a number, never as a character.
template <>
void AddParameter<unsigned char>(pugi::xml_node& parent, const char* key,
                                 const unsigned char& value) {
  SetValue(parent, key, static_cast<int>(value));
}

template <>
void AddParameter<signed char>(pugi::xml_node& parent, const char* key, const signed char& value) {
  SetValue(parent, key, static_cast<int>(value));
}

template <>
void AddParameter<unsigned short>(pugi::xml_node& parent, const char* key,
                                  const unsigned short& value) {
  SetValue(parent, key, static_cast<int>(value));
}

template <>
void AddParameter<short>(pugi::xml_node& parent, const char* key, const short& value) {
  SetValue(parent, key, static_cast<int>(value));
}

template <>
void AddParameter<int>(pugi::xml_node& parent, const char* key, const int& value) {
  SetValue(parent, key, value);
}

template <>
void AddParameter<unsigned int>(pugi::xml_node& parent, const char* key,
                                const unsigned int& value) {
  SetValue(parent, key, value);
}

void AddFunctionParameter(pugi::xml_node& element, const std::string& name, const std::string& type,
                          unsigned int functionId, const std::string& functionUrn,
                          const std::string& channelTypeUrn, const std::string& luaTemplateIndex) {
  detail::AppendAttribute(element, "name", name.c_str());
  detail::AppendAttribute(element, "type", type.c_str());
  detail::AppendAttribute(element, "functionId", functionId);
  detail::AppendAttribute(element, "functionUrn", functionUrn.c_str());
  detail::AppendAttribute(element, "channelTypeUrn", channelTypeUrn.c_str());
  if (!luaTemplateIndex.empty()) {
    detail::AppendAttribute(element, "luaTemplateIndex", luaTemplateIndex.c_str());
  }
}

}  // namespace Korvex::luaknxdownloadhandler
