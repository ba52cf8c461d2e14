#include <LuaKnxDownloadHandler/EtsXmlParameter.h>

namespace Korvex::luaknxdownloadhandler {

namespace {

// A null text is written as an empty one rather than handed to pugixml.
const char* TextOrEmpty(const char* text) { return text != nullptr ? text : ""; }

pugi::xml_attribute AppendParameter(pugi::xml_node& parent, const char* key) {
  pugi::xml_node parameter = parent.append_child("parameter");
  parameter.append_attribute("key") = TextOrEmpty(key);
  return parameter.append_attribute("value");
}

}  // namespace

template <>
void AddParameter<const char*>(pugi::xml_node& parent, const char* key, const char* const& value) {
  AppendParameter(parent, key) = TextOrEmpty(value);
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
  AppendParameter(parent, key) = static_cast<int>(value);
}

template <>
void AddParameter<signed char>(pugi::xml_node& parent, const char* key, const signed char& value) {
  AppendParameter(parent, key) = static_cast<int>(value);
}

template <>
void AddParameter<unsigned short>(pugi::xml_node& parent, const char* key,
                                  const unsigned short& value) {
  AppendParameter(parent, key) = static_cast<int>(value);
}

template <>
void AddParameter<short>(pugi::xml_node& parent, const char* key, const short& value) {
  AppendParameter(parent, key) = static_cast<int>(value);
}

template <>
void AddParameter<int>(pugi::xml_node& parent, const char* key, const int& value) {
  AppendParameter(parent, key) = value;
}

template <>
void AddParameter<unsigned int>(pugi::xml_node& parent, const char* key,
                                const unsigned int& value) {
  AppendParameter(parent, key) = value;
}

void AddFunctionParameter(pugi::xml_node& element, const std::string& name, const std::string& type,
                          unsigned int functionId, const std::string& functionUrn,
                          const std::string& channelTypeUrn, const std::string& luaTemplateIndex) {
  element.append_attribute("name") = name.c_str();
  element.append_attribute("type") = type.c_str();
  element.append_attribute("functionId") = functionId;
  element.append_attribute("functionUrn") = functionUrn.c_str();
  element.append_attribute("channelTypeUrn") = channelTypeUrn.c_str();
  if (!luaTemplateIndex.empty()) {
    element.append_attribute("luaTemplateIndex") = luaTemplateIndex.c_str();
  }
}

}  // namespace Korvex::luaknxdownloadhandler
