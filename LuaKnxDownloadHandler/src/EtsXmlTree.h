#pragma once
// Changes to the document tree that cannot fail unnoticed, and the running size
// of the document. pugixml reports an allocation that failed only through an
// empty handle or a false result; these helpers turn it into an exception, so
// that a download fails as a whole instead of saving a document with an element
// or an attribute missing.

#include <pugixml.hpp>

#include <cstddef>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

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

/// Appends the placeholder comment that marks where the folders' text goes;
/// throws when pugixml had no memory for it.
void AppendFolderMark(pugi::xml_node& elements);
/// The printed tree of node split at the placeholder's line: the text before
/// it and the text after it.
std::pair<std::string, std::string> SplitAtFolderMark(const pugi::xml_node& document,
                                                      std::size_t limit);

/// The document text, written piece by piece as parts of the tree are complete.
/// Never throws from write(), since pugixml does not expect its writer to: a
/// text over the limit or without memory stops taking bytes, and Check() tells
/// after the last piece. The buffer grows to an expected size given by the
/// builder, else by an eighth, so that it is never twice the text.
class DocumentText final : public pugi::xml_writer {
 public:
  explicit DocumentText(std::size_t limit) noexcept : m_limit(limit) {}

  void write(const void* data, std::size_t size) override;
  /// Makes room for about totalBytes of text at once (never beyond the limit).
  void Expect(std::size_t totalBytes) noexcept;
  /// Appends node, printed at depth with the builder's format.
  void Print(const pugi::xml_node& node, unsigned int depth);
  std::size_t Size() const noexcept { return m_written; }
  std::size_t Capacity() const noexcept { return m_text.capacity(); }
  /// Throws DocumentTooLarge or std::bad_alloc when the text is not whole.
  void Check() const;
  std::string Take() noexcept { return std::move(m_text); }

 private:
  bool Reserve(std::size_t bytes) noexcept;

  std::string m_text;
  std::size_t m_limit;
  std::size_t m_written = 0;
  bool m_exceeded = false;
  bool m_failed = false;
};

}  // namespace Korvex::luaknxdownloadhandler::detail
