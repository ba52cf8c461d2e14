#pragma once
// Changes to the document tree that cannot fail unnoticed, and the running size
// of the document. pugixml reports an allocation that failed only through an
// empty handle or a false result; these helpers turn it into an exception, so
// that a download fails as a whole instead of saving a document with an element
// or an attribute missing.

#include <pugixml.hpp>

#include <cstddef>
#include <ostream>
#include <stdexcept>
#include <string_view>

namespace Korvex::luaknxdownloadhandler::detail {

/// The document would be larger than its size limit.
class DocumentTooLarge : public std::runtime_error {
 public:
  explicit DocumentTooLarge(std::size_t limit);
};

/// Appends a child element; throws when parent can hold one but pugixml had no
/// memory for it. A parent that cannot hold elements (an empty handle) gets
/// none and an empty handle comes back, as with pugixml itself.
pugi::xml_node AppendElement(pugi::xml_node& parent, const char* name);
/// The same for the XML declaration, a child of the document.
pugi::xml_node AppendDeclaration(pugi::xml_node& document);

/// Appends an attribute without a value yet; throws when pugixml had no memory
/// for it. A node that cannot hold attributes gets none (an empty handle).
pugi::xml_attribute AppendAttribute(pugi::xml_node& node, const char* name);
/// Appends an attribute with its value; throws when pugixml had no memory for
/// either. Nothing happens on a node that cannot hold attributes.
void AppendAttribute(pugi::xml_node& node, const char* name, const char* value);
void AppendAttribute(pugi::xml_node& node, const char* name, int value);
void AppendAttribute(pugi::xml_node& node, const char* name, unsigned int value);
void AppendAttribute(pugi::xml_node& node, const char* name, bool value);
/// Sets the value of an attribute pugixml has just appended; throws when it had
/// no memory for the text.
void SetAttributeValue(pugi::xml_attribute& attribute, const char* value);
void SetAttributeValue(pugi::xml_attribute& attribute, int value);
void SetAttributeValue(pugi::xml_attribute& attribute, unsigned int value);

/// A lower bound of the serialised size of what the builder has put into the
/// tree so far: every element is at least its name and five bytes of markup,
/// every attribute its name, its value and four. Counted before each addition,
/// so that a document too large for the limit fails before it takes the memory.
class DocumentBytes {
 public:
  DocumentBytes(std::size_t& used, std::size_t limit) noexcept : m_used(used), m_limit(limit) {}

  void Element(std::string_view name) { Add(name.size() + 5); }
  void Attribute(std::string_view name, std::string_view value) {
    Add(name.size() + 4);
    Add(value.size());
  }
  /// A "parameter" element with its key and a value of at least valueBytes.
  void Parameter(std::string_view key, std::size_t valueBytes) {
    Element("parameter");
    Attribute("key", key);
    Add(valueBytes + 9);  // ' value=""'
  }

 private:
  void Add(std::size_t bytes);

  std::size_t& m_used;
  std::size_t m_limit;
};

/// Serialises document with the builder's format into stream; throws
/// DocumentTooLarge when the text would exceed limit bytes (nothing more is
/// written then), and std::bad_alloc when the stream could not take the text.
void SaveDocument(const pugi::xml_document& document, std::ostream& stream, std::size_t limit);

}  // namespace Korvex::luaknxdownloadhandler::detail
