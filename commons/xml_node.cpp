#include "commons/xml_node.h"

#include "commons/libxml.h"

std::string XmlNodeRef::name() const {
  return fromXmlChar(node_->name);
}

std::string XmlNodeRef::content() const {
  return fromXmlChar(XmlText{xmlNodeGetContent(node_)}.get());
}

XmlNodeRef XmlNodeRef::parentElement() const {
  xmlNodePtr parent = node_->parent;
  return XmlNodeRef(parent && parent->type == XML_ELEMENT_NODE ? parent : nullptr);
}

std::vector<XmlNodeRef> XmlNodeRef::children() const {
  std::vector<XmlNodeRef> children;
  for (xmlNodePtr child = node_->children; child; child = child->next) children.emplace_back(child);
  return children;
}

std::vector<XmlNodeRef> XmlNodeRef::elements() const {
  std::vector<XmlNodeRef> elements;
  for (xmlNodePtr child = node_->children; child; child = child->next) {
    if (child->type == XML_ELEMENT_NODE) elements.emplace_back(child);
  }
  return elements;
}

void XmlNodeRef::remove() {
  xmlUnlinkNode(node_);
  xmlFreeNode(node_);
  node_ = nullptr;
}
