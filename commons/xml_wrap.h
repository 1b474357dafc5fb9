#pragma once

#include <memory>
#include <optional>
#include <ostream>
#include <string>

#include "commons/exceptions.h"
#include "commons/xml_node.h"
#include "commons/xml_parse.h"

struct _xmlDoc;
struct _xmlOutputBuffer;

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

/// `text` with U+FFFD in place of each byte that XML cannot hold: control characters and what is
/// not UTF-8. File names from other hosts may have any bytes; unchanged, they would silently drop a
/// text or make a saved document unreadable.
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
  void saveToBuffer(_xmlOutputBuffer* buffer) const;
  void saveToStream(std::ostream& stream) const;
  /// Replaces `target` in one step, so that other programs can read it: its owner becomes the
  /// service account. Throws what AtomicReplacement and saveToFile throw.
  void saveToFileAtomically(const std::string& target) const;
  /// The same, without saveToFile, for documents that are saved thousands of times in a run: see
  /// Durability::CHEAP.
  void saveOftenAtomically(const std::string& target) const;

  /// The root element; none in an empty document.
  XmlNodeRef rootElement() const;

 protected:
  _xmlDoc* document() const { return document_.get(); }

 private:
  friend class tXPathExpr;

  void adopt(_xmlDoc* document);
  void refuseBomb(const char* fileName) const;
  bool saveToDescriptor(int fd) const;

  std::shared_ptr<_xmlDoc> document_;
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

  XmlNodeRef root() const { return root_; }
  /// Throws tError_WrongContent when the root has no such child.
  XmlNodeRef getRootNodeChild(const std::string& name) const;

  XmlNodeRef newChild(XmlNodeRef parent, const std::string& name);
  XmlNodeRef newTextChild(XmlNodeRef parent, const std::string& name, const std::string& text);
  XmlNodeRef newCDataBlock(XmlNodeRef parent, const std::string& text);
  /// Adds or replaces an attribute.
  void addAttribute(XmlNodeRef node, const std::string& name, const std::string& value);
  /// Throws NoSuchAttribute; an empty value is a value.
  std::string getAttribute(XmlNodeRef node, const std::string& name) const;
  /// Nothing when the node does not have it; an empty value is a value.
  std::optional<std::string> findAttribute(XmlNodeRef node, const std::string& name) const;
  /// The node's text; empty when there is none.
  std::string getNodeText(XmlNodeRef node) const;

 private:
  XmlNodeRef root_;
};

/// One element of a document with its subtree.
class XmlNode {
 public:
  XmlNode(const tXmlDocument& document, XmlNodeRef node) : document_(document), node_(node) {}

  /// Writes the element as a file of its own, replaced in one step as
  /// tXmlDocument::saveToFileAtomically does.
  void saveToFileAtomically(const std::string& target) const;

 private:
  /// This copy keeps the node alive.
  tXmlDocument document_;
  XmlNodeRef node_;
};
