#pragma once

#include <string>
#include <vector>

struct _xmlNode;

/// A node of a document, or none. It belongs to its document and must not be used after it.
class XmlNodeRef {
 public:
  XmlNodeRef() = default;
  /// For commons alone, as `get`: other layers do not know the XML library.
  explicit XmlNodeRef(_xmlNode* node) : node_(node) {}
  _xmlNode* get() const { return node_; }

  explicit operator bool() const { return node_ != nullptr; }
  bool operator==(const XmlNodeRef& other) const { return node_ == other.node_; }
  bool operator!=(const XmlNodeRef& other) const { return node_ != other.node_; }

  // There must be a node for these.

  /// The name of the element; for other nodes what the XML library calls them, as "text".
  std::string name() const;
  /// All text in the node and below it.
  std::string content() const;
  /// The element around the node; none for the root.
  XmlNodeRef parentElement() const;
  /// All children in order, of whatever kind.
  std::vector<XmlNodeRef> children() const;
  /// The elements among the children, in order.
  std::vector<XmlNodeRef> elements() const;
  /// Takes the node with all below it out of the document; it must not be used any more.
  void remove();

 private:
  _xmlNode* node_ = nullptr;
};
