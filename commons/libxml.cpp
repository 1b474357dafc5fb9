#include "commons/libxml.h"

#include <libxml/xmlerror.h>

#include <cstdarg>
#include <cstdio>
#include <vector>

void dtmFreeXmlChar(xmlChar* text) noexcept {
  xmlFree(text);
}

LibxmlErrorCollector::LibxmlErrorCollector()
    : oldFunction_(xmlGenericError), oldContext_(xmlGenericErrorContext) {
  xmlSetGenericErrorFunc(&text_, libxmlErrorHandler);
}

LibxmlErrorCollector::~LibxmlErrorCollector() {
  xmlSetGenericErrorFunc(oldContext_, oldFunction_);
}

void libxmlErrorHandler(void* context, const char* format, ...) {
  va_list measured;
  va_start(measured, format);
  va_list formatted;
  // The first vsnprintf uses up its list.
  va_copy(formatted, measured);
  const int length = std::vsnprintf(nullptr, 0, format, measured);
  va_end(measured);
  if (length >= 0) {
    std::vector<char> buffer(static_cast<std::size_t>(length) + 1);
    std::vsnprintf(buffer.data(), buffer.size(), format, formatted);
    static_cast<std::string*>(context)->append(buffer.data(), static_cast<std::size_t>(length));
  }
  va_end(formatted);
}

bool is_xml_attr_set(const XmlText& value) {
  return value && *value != '\0';
}
