#include "commons/xml_wrap.h"

#include <fcntl.h>
#include <libxml/encoding.h>
#include <libxml/parser.h>
#include <libxml/xmlIO.h>

#include <climits>
#include <cstdio>
#include <cstring>

#include "commons/atomic_replacement.h"
#include "commons/commons.h"
#include "commons/libxml.h"
#include "commons/output_file.h"
#include "commons/secrets.h"
#include "commons/utf8.h"
#include "commons/xml_entities.h"

namespace {

constexpr const char* REPLACEMENT_CHARACTER = "\xEF\xBF\xBD";
/// The most text that entities may add to a document. Legitimate documents use no entities.
constexpr std::size_t ENTITY_TEXT_LIMIT = 1 << 20;
constexpr mode_t NEW_FILE_MODE = 0666;

bool isXmlCharacter(unsigned int c) {
  return c == '\t' || c == '\n' || c == '\r' || (c >= 0x20 && c <= 0xD7FF) ||
         (c >= 0xE000 && c <= 0xFFFD) || (c >= 0x10000 && c <= 0x10FFFF);
}

void requireFileName(const char* fileName, const char* function, int line) {
  const char* failed = !fileName ? "filename != NULL" : *fileName == '\0' ? "*filename != 0" : "";
  if (*failed != '\0') {
    throw Exc<&AssertionFailed>(function, sourceFileName(__FILE__), line) % failed;
  }
}

}  // namespace

std::string toXmlSafeText(const std::string& text) {
  std::string safe;
  safe.reserve(text.size());
  for (std::size_t i = 0; i < text.size();) {
    const Utf8Character character = decodeUtf8(text, i);
    if (character.length > 0 && isXmlCharacter(character.code)) {
      safe.append(text, i, character.length);
      i += character.length;
    } else {
      safe += REPLACEMENT_CHARACTER;
      ++i;
    }
  }
  return safe;
}

tXmlDocument::tXmlDocument() {
  createNewDoc();
}

tXmlDocument::tXmlDocument(const char* fileName) {
  readFromFile(fileName);
}

tXmlDocument::tXmlDocument(const std::string& content) {
  if (content.empty()) throw Exc<&AssertionFailed>(HERE) % "content.size()";
  // libxml2 takes the size as int, so a larger text cannot be passed.
  if (content.size() > INT_MAX) {
    throw Exc<&tError_ParseFile>(HERE) % "-" % "the text is larger than 2 GiB";
  }
  const LibxmlErrorCollector complaints;
  adopt(xmlParseMemory(content.data(), static_cast<int>(content.size())));
  // The messages quote the text, which a remote command may have printed.
  if (!document_) throw Exc<&tError_ParseFile>(HERE) % "-" % maskSecrets(complaints.text());
  refuseBomb("-");
}

void tXmlDocument::adopt(xmlDocPtr document) {
  document_.reset(document, [](xmlDocPtr doc) {
    if (doc) xmlFreeDoc(doc);
  });
}

void tXmlDocument::createNewDoc() {
  adopt(xmlNewDoc(toXmlChar("1.0")));
  if (!document_) {
    throw Exc<&tError_XmlInternal>(HERE) % "#0001: Can not create new XML document.";
  }
}

void tXmlDocument::readFromFile(const char* fileName) {
  requireFileName(fileName, __PRETTY_FUNCTION__, __LINE__);
  if (std::strcmp(fileName, "-") != 0 && !check_input_file(fileName)) {
    throw Exc<&tError_WrongInputFile>(HERE) % fileName;
  }
  const LibxmlErrorCollector complaints;
  adopt(xmlParseFile(fileName));
  if (!document_) throw Exc<&tError_ParseFile>(HERE) % fileName % complaints.text();
  refuseBomb(fileName);
}

void tXmlDocument::refuseBomb(const char* fileName) const {
  if (entitiesStayBelow(document(), ENTITY_TEXT_LIMIT)) return;
  throw Exc<&tError_ParseFile>(HERE) % fileName % "its entities grow without measure\n";
}

void tXmlDocument::saveToBuffer(xmlOutputBufferPtr buffer) const {
  if (!buffer) throw Exc<&AssertionFailed>(HERE) % "buffer != 0";
  const LibxmlErrorCollector complaints;
  if (xmlSaveFileTo(buffer, document(), nullptr) < 0) {
    throw Exc<&tError_SaveFile>(HERE) % "in-memory buffer";
  }
}

namespace {

/// libxml2's write callback for a std::ostream. Nothing may be thrown through C
/// frames: a stream set to throw shows its failure by its state as well.
int writeToStream(void* context, const char* bytes, int size) {
  auto& stream = *static_cast<std::ostream*>(context);
  try {
    stream.write(bytes, size);
  } catch (const std::exception&) {
    return -1;
  }
  return stream ? size : -1;
}

int closeNothing(void* /*context*/) {
  return 0;
}

}  // namespace

void tXmlDocument::saveToStream(std::ostream& stream) const {
  saveToBuffer(xmlOutputBufferCreateIO(writeToStream, closeNothing, &stream,
                                       xmlFindCharEncodingHandler("UTF-8")));
}

/// False when any byte may be missing. The stream is needed because libxml2's own output to a
/// descriptor takes a short write for a complete one.
bool tXmlDocument::saveToDescriptor(int fd) const {
  FdStreamBuf file(fd);
  std::ostream stream(&file);
  const xmlOutputBufferPtr buffer =
      xmlOutputBufferCreateIO(writeToStream, closeNothing, &stream, nullptr);
  const LibxmlErrorCollector complaints;
  return xmlSaveFileTo(buffer, document(), nullptr) >= 0;
}

void tXmlDocument::saveToFile(const char* fileName) const {
  requireFileName(fileName, __PRETTY_FUNCTION__, __LINE__);
  // Opened here, because libxml2 takes a name for a URI and reads "%41" in it as "A".
  UniqueFd file(open(fileName, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, NEW_FILE_MODE));
  const bool saved = file && saveToDescriptor(file.get());
  if (file.close() != 0 || !saved) throw Exc<&tError_SaveFile>(HERE) % fileName;
}

void tXmlDocument::saveToFileAtomically(const std::string& target) const {
  AtomicReplacement replacement(target);
  saveToFile(replacement.temporaryName().c_str());
  replacement.commit();
}

void tXmlDocument::saveOftenAtomically(const std::string& target) const {
  AtomicReplacement replacement(target, Durability::CHEAP);
  if (!saveToDescriptor(replacement.descriptor()) || !replacement.close()) {
    throw Exc<&tError_SaveFile>(HERE) % replacement.temporaryName();
  }
  replacement.commit();
}

XmlNodeRef tXmlDocument::rootElement() const {
  return XmlNodeRef(xmlDocGetRootElement(document()));
}

int tXmlDtmDocument::initFileDoc(const std::string& rootName) {
  const XmlNodeRef found = rootElement();
  if (!found) throw Exc<&tError_EmptyDoc>(HERE) % rootName;
  const std::string foundName = found.name();
  if (foundName != rootName) throw Exc<&tError_WrongDoc>(HERE) % rootName % foundName;
  root_ = found;
  return 1;
}

void tXmlDtmDocument::initNewDoc(const std::string& rootName) {
  root_ = XmlNodeRef(xmlNewDocNode(document(), nullptr, toXmlChar(rootName), nullptr));
  if (!root_) throw Exc<&tError_XmlInternal>(HERE) % "#0002: Can not create new node";
  xmlDocSetRootElement(document(), root_.get());
}

XmlNodeRef tXmlDtmDocument::getRootNodeChild(const std::string& name) const {
  const XmlNodeRef child = getXmlChild(root_, name);
  if (child) return child;
  throw Exc<&tError_WrongContent>(HERE) %
      ("Can not find '" + name + "' element in '" + root_.name() + "' element.");
}

XmlNodeRef tXmlDtmDocument::newChild(XmlNodeRef parent, const std::string& name) {
  return XmlNodeRef(
      xmlAddChild(parent.get(), xmlNewDocNode(document(), nullptr, toXmlChar(name), nullptr)));
}

XmlNodeRef tXmlDtmDocument::newTextChild(XmlNodeRef parent, const std::string& name,
                                         const std::string& text) {
  return XmlNodeRef(
      xmlNewTextChild(parent.get(), nullptr, toXmlChar(name), toXmlChar(toXmlSafeText(text))));
}

XmlNodeRef tXmlDtmDocument::newCDataBlock(XmlNodeRef parent, const std::string& text) {
  const std::string safe = toXmlSafeText(text);
  return XmlNodeRef(xmlAddChild(
      parent.get(), xmlNewCDataBlock(document(), toXmlChar(safe), static_cast<int>(safe.size()))));
}

void tXmlDtmDocument::addAttribute(XmlNodeRef node, const std::string& name,
                                   const std::string& value) {
  xmlSetProp(node.get(), toXmlChar(name), toXmlChar(toXmlSafeText(value)));
}

std::string tXmlDtmDocument::getAttribute(XmlNodeRef node, const std::string& name) const {
  const std::optional<std::string> value = findAttribute(node, name);
  if (!value) throw Exc<&NoSuchAttribute>(HERE) % node.name() % name;
  return *value;
}

std::optional<std::string> tXmlDtmDocument::findAttribute(XmlNodeRef node,
                                                          const std::string& name) const {
  const XmlText value{xmlGetProp(node.get(), toXmlChar(name))};
  if (!value) return std::nullopt;
  return fromXmlChar(value.get());
}

std::string tXmlDtmDocument::getNodeText(XmlNodeRef node) const {
  return fromXmlChar(XmlText{xmlNodeListGetString(document(), node.get()->children, 1)}.get());
}

namespace {

/// Writes the element to the file; false when any byte may be missing.
bool dumpElement(const std::string& fileName, XmlNodeRef node) {
  const LibxmlErrorCollector complaints;
  std::FILE* file = std::fopen(fileName.c_str(), "we");
  if (!file) return false;
  // xmlElemDump returns no status; the state of the FILE shows errors.
  xmlElemDump(file, node.get()->doc, node.get());
  const bool written = std::fflush(file) == 0 && std::ferror(file) == 0;
  return std::fclose(file) == 0 && written;
}

}  // namespace

void XmlNode::saveToFileAtomically(const std::string& target) const {
  AtomicReplacement replacement(target);
  const std::string& fileName = replacement.temporaryName();
  if (!dumpElement(fileName, node_)) {
    throw Exc<&tError_SaveFile>(HERE) % fileName;
  }
  replacement.commit();
}
