#pragma once

#include <libxml/tree.h>
#include <libxml/xpath.h>

#include <memory>
#include <string>
#include <vector>

#include "commons/exceptions.h"

DECLARE_ERROR_TAG(tError_XPath_TypesMismatch, "The result of expression '%1%' is not a '%2%' type");
DECLARE_ERROR_TAG(tError_XPath_CantEvaluate,
                  "The XML document is invalid for XPath exception.\n"
                  "Can not evaluate result of expression '%1%'");
DECLARE_ERROR_TAG(tError_XmlInternal, "%1%");

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

/// One XPath expression evaluated against a document, at once. Copies share the
/// result. The document must outlive them.
class tXPathExpr {
 public:
  /// With a context node, relative expressions start there. Throws AssertionFailed
  /// when there is no memory for the context.
  tXPathExpr(xmlDocPtr document, const std::string& expression, xmlNodePtr contextNode = nullptr);

  /// False when the expression could not be evaluated.
  bool isEvaluated() const { return result_ != nullptr; }
  /// The node set of the result; null when the expression could not be evaluated,
  /// and often when it selects nothing. Throws tError_XPath_TypesMismatch when the result is of
  /// another type.
  xmlNodeSetPtr getNodeSet() const;
  /// The first node in document order. Throws as getNodeSet, and
  /// tError_XPath_CantEvaluate when there is none.
  xmlNodePtr getNode() const;
  /// The context node given at construction, or null.
  xmlNodePtr getXmlNode() const { return contextNode_; }
  /// The result as XPath's boolean() sees it; false when there is no result.
  bool toBool() const;

  const std::string& expression() const { return *expression_; }

 private:
  void evalExpression(xmlDocPtr document);

  std::shared_ptr<xmlXPathContext> context_;
  std::shared_ptr<xmlXPathObject> result_;
  std::shared_ptr<const std::string> expression_;
  xmlNodePtr contextNode_;
};

/// The result of `expression` as a boolean.
bool testXPathExpr(xmlDocPtr document, const std::string& expression,
                   xmlNodePtr contextNode = nullptr);

/// What foreach_xmlnode does with each node.
class tXmlOperator {
 public:
  virtual ~tXmlOperator() = default;
  virtual void operator()(xmlNodePtr node) = 0;
};

/// Told of each failure that foreach_xmlnode absorbs.
using tErrorFunc = void (*)(const ExTraceable& error);

/// Calls the operator on each node of the result, in order. An ExTraceable thrown
/// by it goes to `errorFunc` and the next node follows; other exceptions propagate.
/// Returns 1 when there was a node set, empty or not; 0, with an error to
/// `errorFunc`, when there was none. Throws tError_XPath_TypesMismatch.
int foreach_xmlnode(const tXPathExpr& expression, tXmlOperator& xmlOperator, tErrorFunc errorFunc);

/// The elements among the children of `node`, in order.
std::vector<xmlNodePtr> xmlElementsOf(xmlNodePtr node);

/// The first child of `node`, of whatever kind, with that name; null if none.
/// Throws AssertionFailed for a null node.
xmlNodePtr getXmlChild(xmlNodePtr node, const std::string& name);

/// True when the value exists and is not empty.
bool is_xml_attr_set(const XmlText& value);
