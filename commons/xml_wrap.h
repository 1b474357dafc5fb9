#pragma once

#include <libxml/tree.h>
#include <libxml/xmlIO.h>

#include <memory>
#include <optional>
#include <ostream>
#include <string>

#include "commons/exceptions.h"
#include "commons/xml_parse.h"

DECLARE_ERROR_TAG(tError_ParseFile,
                  "The XML file %1% was not parsed successfully with the following errors:\n%2%");
DECLARE_ERROR_TAG(tError_WrongInputFile,
                  "The XML file does not exist or is not a regular file. Check the file '%1%'");
DECLARE_ERROR_TAG(tError_SaveFile, "Can not save the XML document to file '%1%'");
DECLARE_ERROR_TAG(tError_EmptyDoc, "The document is empty. Can not find root element <%1%>");
DECLARE_ERROR_TAG(tError_WrongDoc,
                  "The document has the wrong type, root node is <%2%>, but <%1%> was expected");
DECLARE_ERROR_TAG(tError_WrongContent, "%1%");
DECLARE_ERROR_TAG(NoSuchAttribute, "Node %1% does not have attribute %2%");

/// `text` with U+FFFD in place of each byte that XML cannot hold: control characters
/// and what is not UTF-8. File names from other hosts may have any bytes; left as
/// they are they would make a text vanish or a saved document unreadable, silently.
std::string toXmlSafeText(const std::string& text);

/// An XML document, parsed or new. Copies share it.
class tXmlDocument {
 public:
  /// A new, empty document.
  tXmlDocument();
  /// Parses the file; see readFromFile.
  explicit tXmlDocument(const char* fileName);
  /// Parses XML text. Throws AssertionFailed for an empty text, tError_ParseFile
  /// with "-" as the file name.
  explicit tXmlDocument(const std::string& content);
  virtual ~tXmlDocument() = default;
  tXmlDocument(const tXmlDocument&) = default;
  tXmlDocument& operator=(const tXmlDocument&) = default;

  void createNewDoc();
  /// Parses a regular file, or standard input for "-". Throws AssertionFailed for a
  /// null or empty name, tError_WrongInputFile, tError_ParseFile.
  void readFromFile(const char* fileName);
  /// Throws AssertionFailed for a null or empty name, tError_SaveFile.
  virtual void saveToFile(const char* fileName) const;
  /// Writes to a buffer of libxml2, which frees it. Throws AssertionFailed for a
  /// null buffer, tError_SaveFile.
  void saveToBuffer(xmlOutputBufferPtr buffer) const;
  void saveToStream(std::ostream& stream) const;
  /// Replaces `target` in one step, for other programs to read: its owner becomes
  /// the service account. Throws what AtomicReplacement and saveToFile throw.
  void saveToFileAtomically(const std::string& target) const;
  /// The same, without saveToFile, for what is saved thousands of times in a run: see
  /// AtomicReplacement::CHEAP.
  void saveOftenAtomically(const std::string& target) const;

  xmlDocPtr document() const { return document_.get(); }

 private:
  void adopt(xmlDocPtr document);
  void refuseBomb(const char* fileName) const;
  bool saveToDescriptor(int fd) const;

  std::shared_ptr<xmlDoc> document_;
};

/// A document of one of the program's own formats: a fixed root element, and the
/// few operations that build and read such documents. All text that goes in is made
/// safe for XML. Nodes belong to the document.
class tXmlDtmDocument : public tXmlDocument {
 public:
  using tXmlDocument::tXmlDocument;

  /// Binds to the parsed document; returns 1. Throws tError_EmptyDoc,
  /// tError_WrongDoc.
  int initFileDoc(const std::string& rootName);
  /// Gives a new document its root element.
  void initNewDoc(const std::string& rootName);

  xmlNodePtr root() const { return root_; }
  /// Throws tError_WrongContent when the root has no such child.
  xmlNodePtr getRootNodeChild(const std::string& name) const;

  xmlNodePtr newChild(xmlNodePtr parent, const std::string& name);
  xmlNodePtr newTextChild(xmlNodePtr parent, const std::string& name, const std::string& text);
  xmlNodePtr newCDataBlock(xmlNodePtr parent, const std::string& text);
  /// Adds or replaces an attribute.
  void addAttribute(xmlNodePtr node, const std::string& name, const std::string& value);
  /// Throws NoSuchAttribute; an empty value is a value.
  std::string getAttribute(xmlNodePtr node, const std::string& name) const;
  /// Nothing when the node does not have it; an empty value is a value.
  std::optional<std::string> findAttribute(xmlNodePtr node, const std::string& name) const;
  /// The node's text; empty when there is none.
  std::string getNodeText(xmlNodePtr node) const;

 private:
  xmlNodePtr root_ = nullptr;
};

/// One element of a document with its subtree.
class XmlNode {
 public:
  XmlNode(const tXmlDocument& document, xmlNodePtr node) : document_(document), node_(node) {}

  /// Writes the element as a file of its own, replaced in one step as
  /// tXmlDocument::saveToFileAtomically does.
  void saveToFileAtomically(const std::string& target) const;

 private:
  tXmlDocument document_;
  xmlNodePtr node_;
};
