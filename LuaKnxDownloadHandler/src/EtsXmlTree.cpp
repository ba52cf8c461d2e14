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

// Writes the text into the stream until the limit; never throws, since pugixml
// does not expect its writer to: the outcome is asked for after the save.
class LimitedStreamWriter final : public pugi::xml_writer {
 public:
  LimitedStreamWriter(std::ostream& stream, std::size_t limit) : m_stream(stream), m_limit(limit) {}

  void write(const void* data, std::size_t size) override {
    if (m_exceeded || m_failed) return;
    if (size > m_limit - m_written) {
      m_exceeded = true;
      return;
    }
    try {
      m_stream.write(static_cast<const char*>(data), static_cast<std::streamsize>(size));
    } catch (...) {
      m_failed = true;
    }
    if (!m_stream) m_failed = true;
    m_written += size;
  }

  bool Exceeded() const noexcept { return m_exceeded; }
  bool Failed() const noexcept { return m_failed; }

 private:
  std::ostream& m_stream;
  std::size_t m_limit;
  std::size_t m_written = 0;
  bool m_exceeded = false;
  bool m_failed = false;
};

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

void SaveDocument(const pugi::xml_document& document, std::ostream& stream, std::size_t limit) {
  LimitedStreamWriter writer(stream, limit);
  document.save(writer, "  ", pugi::format_indent, pugi::encoding_utf8);
  if (writer.Exceeded()) throw DocumentTooLarge(limit);
  if (writer.Failed() || !stream) throw std::bad_alloc();
}

}  // namespace Korvex::luaknxdownloadhandler::detail
