#pragma once
// The floor's work: an element tree built again from strings already at hand,
// the least any builder of the same document has to do.

#include <pugixml.hpp>

namespace lkdh::bench {

/// Appends a copy of every child of from (elements, declarations, attributes) to to.
inline void CopyTree(const pugi::xml_node& from, pugi::xml_node to) {
  for (const auto& child : from.children()) {
    pugi::xml_node copy = to.append_child(child.type());
    if (child.type() == pugi::node_element || child.type() == pugi::node_declaration) {
      copy.set_name(child.name());
    }
    for (const auto& attribute : child.attributes()) {
      copy.append_attribute(attribute.name()).set_value(attribute.value());
    }
    CopyTree(child, copy);
  }
}

}  // namespace lkdh::bench
