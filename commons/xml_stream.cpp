#include "commons/xml_stream.h"

#include <libxml/xmlreader.h>

#include <memory>

#include "commons/libxml.h"

bool XmlStreamElement::isAt(int depth, const char* name) const {
  return xmlTextReaderDepth(reader_) == depth &&
         fromXmlChar(xmlTextReaderConstName(reader_)) == name;
}

std::string XmlStreamElement::attribute(const char* name) const {
  const XmlText value(xmlTextReaderGetAttribute(reader_, toXmlChar(name)));
  return fromXmlChar(value.get());
}

std::string XmlStreamElement::text() const {
  const XmlText text(xmlTextReaderReadString(reader_));
  return fromXmlChar(text.get());
}

bool forEachXmlElement(int descriptor, const std::function<void(const XmlStreamElement&)>& visit) {
  constexpr int OPTIONS = XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING;
  const std::unique_ptr<xmlTextReader, void (*)(xmlTextReaderPtr)> reader(
      xmlReaderForFd(descriptor, nullptr, nullptr, OPTIONS), xmlFreeTextReader);
  const XmlStreamElement element(reader.get());
  int found = reader ? xmlTextReaderRead(reader.get()) : -1;
  for (; found == 1; found = xmlTextReaderRead(reader.get())) {
    if (xmlTextReaderNodeType(reader.get()) == XML_READER_TYPE_ELEMENT) visit(element);
  }
  return found == 0;
}
