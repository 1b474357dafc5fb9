#pragma once

#include <libxml/tree.h>
#include <libxml/xpath.h>

#include <memory>
#include <string>

/// Helpers for libxml2. Only files of commons may include this header.

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

/// While it lives, libxml2's messages are collected here instead of being printed to standard
/// error. The destructor restores the former error function: libxml2 keeps the pointer to the text,
/// which must not be used afterwards.
class LibxmlErrorCollector {
 public:
  LibxmlErrorCollector();
  ~LibxmlErrorCollector();
  LibxmlErrorCollector(const LibxmlErrorCollector&) = delete;
  LibxmlErrorCollector& operator=(const LibxmlErrorCollector&) = delete;

  /// All messages so far, in order.
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
