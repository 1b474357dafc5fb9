#pragma once

#include <functional>
#include <string>

struct _xmlTextReader;

/// The present element of a pass through a document.
class XmlStreamElement {
 public:
  explicit XmlStreamElement(_xmlTextReader* reader) : reader_(reader) {}

  /// True for an element of that name at the depth; the root's depth is 0.
  bool isAt(int depth, const char* name) const;
  /// The value of the attribute; empty also when the element does not have it.
  std::string attribute(const char* name) const;
  /// The text in the element.
  std::string text() const;

 private:
  _xmlTextReader* reader_;
};

/// Calls `visit` at each element of the XML document in an open file, in constant memory. The
/// descriptor stays the caller's. False when the file is not well-formed; the elements before the
/// error have been visited then.
bool forEachXmlElement(int descriptor, const std::function<void(const XmlStreamElement&)>& visit);
