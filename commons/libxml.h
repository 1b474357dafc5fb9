#pragma once

#include <libxml/tree.h>
#include <libxml/xpath.h>

#include <memory>
#include <string>

/// The XML library as the files of commons use it; for them alone.

/// Frees text that libxml2 returned.
void dtmFreeXmlChar(xmlChar* text) noexcept;

struct XmlCharDeleter {
  void operator()(xmlChar* text) const noexcept { dtmFreeXmlChar(text); }
};
/// Owns text that libxml2 returned; may be null.
using XmlText = std::unique_ptr<xmlChar, XmlCharDeleter>;

/// Text for libxml2's functions, and back. Null becomes the empty string.
inline const xmlChar* toXmlChar(const std::string& text) {
  return reinterpret_cast<const xmlChar*>(text.c_str());
}
inline std::string fromXmlChar(const xmlChar* text) {
  return text ? reinterpret_cast<const char*>(text) : "";
}

/// True when the value exists and is not empty.
bool is_xml_attr_set(const XmlText& value);

/// While it lives, libxml2's complaints are collected here instead of being printed
/// to standard error. The former error function comes back afterwards: the library
/// keeps the pointer, and it must not point to a text that is gone.
class LibxmlErrorCollector {
 public:
  LibxmlErrorCollector();
  ~LibxmlErrorCollector();
  LibxmlErrorCollector(const LibxmlErrorCollector&) = delete;
  LibxmlErrorCollector& operator=(const LibxmlErrorCollector&) = delete;

  /// Everything so far, in the order of the complaints.
  const std::string& text() const { return text_; }

 private:
  std::string text_;
  xmlGenericErrorFunc oldFunction_;
  void* oldContext_;
};

/// libxml2's generic error callback: appends the formatted message to the
/// std::string that is the context.
void libxmlErrorHandler(void* context, const char* format, ...)
    __attribute__((format(printf, 2, 3)));
