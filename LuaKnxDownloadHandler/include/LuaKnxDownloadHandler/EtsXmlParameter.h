#pragma once
// Writers of "parameter" elements and of a function element's attributes.

#include <pugixml.hpp>

#include <string>

namespace Korvex::luaknxdownloadhandler {

/// Appends <parameter key="key" value="..."/> to parent. Only the members
/// declared below exist: a bool, float or double must be rendered by the caller.
template <typename T>
void AddParameter(pugi::xml_node& parent, const char* key, const T& value);

template <>
void AddParameter<const char*>(pugi::xml_node& parent, const char* key, const char* const& value);
template <>
void AddParameter<std::string>(pugi::xml_node& parent, const char* key, const std::string& value);
template <>
void AddParameter<unsigned char>(pugi::xml_node& parent, const char* key,
                                 const unsigned char& value);
template <>
void AddParameter<signed char>(pugi::xml_node& parent, const char* key, const signed char& value);
template <>
void AddParameter<unsigned short>(pugi::xml_node& parent, const char* key,
                                  const unsigned short& value);
template <>
void AddParameter<short>(pugi::xml_node& parent, const char* key, const short& value);
template <>
void AddParameter<int>(pugi::xml_node& parent, const char* key, const int& value);
template <>
void AddParameter<unsigned int>(pugi::xml_node& parent, const char* key, const unsigned int& value);

/// Puts the function attributes on element itself, in their fixed order;
/// "luaTemplateIndex" only when not empty.
void AddFunctionParameter(pugi::xml_node& element, const std::string& name, const std::string& type,
                          unsigned int functionId, const std::string& functionUrn,
                          const std::string& channelTypeUrn, const std::string& luaTemplateIndex);

}  // namespace Korvex::luaknxdownloadhandler
