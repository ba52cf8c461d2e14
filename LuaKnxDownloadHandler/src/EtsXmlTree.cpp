#include "EtsXmlTree.h"

#include <new>
#include <string>

namespace Korvex::luaknxdownloadhandler::detail {

namespace {

bool CanHoldElements(const pugi::xml_node& node) {
  return node.type() == pugi::node_element || node.type() == pugi::node_document;
}

bool CanHoldAttributes(const pugi::xml_node& node) {
  return node.type() == pugi::node_element || node.type() == pugi::node_declaration;
}

// pugixml appends the node first and names it after: when it has no memory for
// the name, the node stays, nameless (it would be written "<:anonymous>").
bool Unnamed(const char* given, const char* stored) { return *given != '\0' && *stored == '\0'; }

[[noreturn]] void ThrowNotAdded(const char* what, const char* name) {
  throw std::runtime_error(std::string("not enough memory to add the ") + what + " \"" + name +
                           "\" to the etsproject document");
}

// No other comment is ever written, and '<' in a value is escaped: the mark is unique.
constexpr std::string_view kFolderMark = "<!---->";

}  // namespace

DocumentTooLarge::DocumentTooLarge(std::size_t limit)
    : std::runtime_error("etsproject exceeds the document size limit of " + std::to_string(limit) +
                         " bytes.") {}

pugi::xml_node AppendElement(pugi::xml_node& parent, const char* name) {
  pugi::xml_node element = parent.append_child(name);
  if (!element) {
    if (CanHoldElements(parent)) ThrowNotAdded("element", name);
  } else if (Unnamed(name, element.name())) {
    ThrowNotAdded("element", name);
  }
  return element;
}

pugi::xml_node AppendDeclaration(pugi::xml_node& document) {
  pugi::xml_node declaration = document.append_child(pugi::node_declaration);
  if (!declaration) {
    if (document.type() == pugi::node_document) ThrowNotAdded("declaration", "xml");
  } else if (Unnamed("xml", declaration.name())) {
    ThrowNotAdded("declaration", "xml");
  }
  return declaration;
}

pugi::xml_attribute AppendAttribute(pugi::xml_node& node, const char* name) {
  pugi::xml_attribute attribute = node.append_attribute(name);
  if (!attribute) {
    if (CanHoldAttributes(node)) ThrowNotAdded("attribute", name);
  } else if (Unnamed(name, attribute.name())) {
    ThrowNotAdded("attribute", name);
  }
  return attribute;
}

void SetAttributeValue(pugi::xml_attribute& attribute, const char* value) {
  if (!attribute.set_value(value) && attribute)
    ThrowNotAdded("value of the attribute", attribute.name());
}

void SetAttributeValue(pugi::xml_attribute& attribute, int value) {
  if (!attribute.set_value(value) && attribute)
    ThrowNotAdded("value of the attribute", attribute.name());
}

void SetAttributeValue(pugi::xml_attribute& attribute, unsigned int value) {
  if (!attribute.set_value(value) && attribute)
    ThrowNotAdded("value of the attribute", attribute.name());
}

void AppendAttribute(pugi::xml_node& node, const char* name, const char* value) {
  pugi::xml_attribute attribute = AppendAttribute(node, name);
  SetAttributeValue(attribute, value);
}

void AppendAttribute(pugi::xml_node& node, const char* name, int value) {
  pugi::xml_attribute attribute = AppendAttribute(node, name);
  SetAttributeValue(attribute, value);
}

void AppendAttribute(pugi::xml_node& node, const char* name, unsigned int value) {
  pugi::xml_attribute attribute = AppendAttribute(node, name);
  SetAttributeValue(attribute, value);
}

void AppendAttribute(pugi::xml_node& node, const char* name, bool value) {
  pugi::xml_attribute attribute = AppendAttribute(node, name);
  // pugixml's bool conversion: "true" or "false".
  if (!attribute.set_value(value) && attribute) ThrowNotAdded("value of the attribute", name);
}

void DocumentBytes::Add(std::size_t bytes) {
  if (bytes > m_limit - m_used) throw DocumentTooLarge(m_limit);
  m_used += bytes;
}

void DocumentText::write(const void* data, std::size_t size) {
  if (m_exceeded || m_failed) return;
  if (size > m_limit - m_written) {
    m_exceeded = true;
    return;
  }
  if (m_text.size() + size > m_text.capacity()) {
    const std::size_t needed = m_text.size() + size;
    if (!Reserve(needed + needed / 8) && !Reserve(needed)) {
      m_failed = true;
      return;
    }
  }
  m_text.append(static_cast<const char*>(data), size);
  m_written += size;
}

void DocumentText::Expect(std::size_t totalBytes) noexcept {
  if (m_exceeded || m_failed || totalBytes <= m_text.capacity()) return;
  Reserve(totalBytes);  // only a hint: without the memory, write() grows as needed
}

bool DocumentText::Reserve(std::size_t bytes) noexcept {
  try {
    // reserve() on a string would round a growth of less than double up to
    // double: a new, empty string takes exactly what it is asked for.
    std::string grown;
    grown.reserve(bytes < m_limit ? bytes : m_limit);
    grown.append(m_text);
    m_text.swap(grown);
    return true;
  } catch (...) {
    return false;
  }
}

void DocumentText::Print(const pugi::xml_node& node, unsigned int depth) {
  node.print(*this, "  ", pugi::format_indent, pugi::encoding_utf8, depth);
}

void DocumentText::Check() const {
  if (m_exceeded) throw DocumentTooLarge(m_limit);
  if (m_failed) throw std::bad_alloc();
}

void AppendFolderMark(pugi::xml_node& elements) {
  if (!elements.append_child(pugi::node_comment)) ThrowNotAdded("element", "comment");
}

std::pair<std::string, std::string> SplitAtFolderMark(const pugi::xml_node& document,
                                                      std::size_t limit) {
  DocumentText whole(limit);
  whole.Print(document, 0);
  whole.Check();
  std::string text = whole.Take();
  const std::size_t mark = text.find(kFolderMark);
  if (mark == std::string::npos) throw std::logic_error("etsproject folder mark missing");
  const std::size_t lineStart = text.rfind('\n', mark) + 1;
  const std::size_t lineEnd = mark + kFolderMark.size() + 1;
  return {text.substr(0, lineStart), text.substr(lineEnd)};
}

}  // namespace Korvex::luaknxdownloadhandler::detail
