#pragma once

#include <string>
#include <vector>

struct _xmlNode;

/// A node of a document, or none. It belongs to its document and must not be used after it.
class XmlNodeRef {
 public:
  XmlNodeRef() = default;
  /// This constructor and `get` are for commons alone: other layers do not know the XML library.
  explicit XmlNodeRef(_xmlNode* node) : node_(node) {}
  _xmlNode* get() const { return node_; }

  explicit operator bool() const { return node_ != nullptr; }
  bool operator==(const XmlNodeRef& other) const { return node_ == other.node_; }
  bool operator!=(const XmlNodeRef& other) const { return node_ != other.node_; }

  // The functions below need a node; calling them on none is a bug.

  /// The name of the element; for other nodes what the XML library calls them, as "text".
  std::string name() const;
  /// All text in the node and below it.
  std::string content() const;
  /// The element around the node; none for the root.
  XmlNodeRef parentElement() const;
  /// All children in order, of any kind.
  std::vector<XmlNodeRef> children() const;
  /// The elements among the children, in order.
  std::vector<XmlNodeRef> elements() const;
  /// Removes the node and everything below it from the document. It must not be used afterwards.
  void remove();

 private:
  _xmlNode* node_ = nullptr;
};
