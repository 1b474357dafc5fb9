#pragma once

#include <memory>
#include <string>
#include <vector>

#include "commons/exceptions.h"
#include "commons/xml_node.h"

struct _xmlXPathContext;
struct _xmlXPathObject;

DECLARE_ERROR_TAG(tError_XPath_TypesMismatch, "The result of expression '%1%' is not a '%2%' type");
DECLARE_ERROR_TAG(tError_XPath_CantEvaluate,
                  "The XML document is invalid for XPath exception.\n"
                  "Can not evaluate result of expression '%1%'");
DECLARE_ERROR_TAG(tError_XmlInternal, "%1%");

class tXmlDocument;

/// One XPath expression, evaluated against a document by the constructor. Copies share the result.
/// The document must outlive them.
class tXPathExpr {
 public:
  /// With a context node, relative expressions start there. Throws AssertionFailed
  /// when there is no memory for the context.
  tXPathExpr(const tXmlDocument& document, const std::string& expression,
             XmlNodeRef contextNode = {});

  /// False when the expression could not be evaluated.
  bool isEvaluated() const { return result_ != nullptr; }
  /// The nodes of the result; empty also when the expression could not be evaluated. Throws
  /// tError_XPath_TypesMismatch when the result is of another type.
  std::vector<XmlNodeRef> getNodeSet() const;
  /// The first node in document order. Throws as getNodeSet, and
  /// tError_XPath_CantEvaluate when there is none.
  XmlNodeRef getNode() const;
  /// The context node given at construction, or none.
  XmlNodeRef getXmlNode() const { return contextNode_; }
  /// The result as XPath's boolean() sees it; false when there is no result.
  bool toBool() const;

  const std::string& expression() const { return *expression_; }

 private:
  void evalExpression(const tXmlDocument& document);

  std::shared_ptr<_xmlXPathContext> context_;
  std::shared_ptr<_xmlXPathObject> result_;
  std::shared_ptr<const std::string> expression_;
  XmlNodeRef contextNode_;
};

/// The result of `expression` as a boolean.
bool testXPathExpr(const tXmlDocument& document, const std::string& expression,
                   XmlNodeRef contextNode = {});

/// What foreach_xmlnode does with each node.
class tXmlOperator {
 public:
  virtual ~tXmlOperator() = default;
  virtual void operator()(XmlNodeRef node) = 0;
};

/// Called with each error that foreach_xmlnode catches.
using tErrorFunc = void (*)(const ExTraceable& error);

/// Calls the operator on each node of the result, in order. An ExTraceable thrown
/// by it goes to `errorFunc` and the next node follows; other exceptions propagate.
/// Returns 1 when there was a node set, empty or not; 0, with an error to
/// `errorFunc`, when there was none. Throws tError_XPath_TypesMismatch.
int foreach_xmlnode(const tXPathExpr& expression, tXmlOperator& visitor, tErrorFunc errorFunc);

/// The first child of `node`, of any kind, with that name; none if there is none. Throws
/// AssertionFailed when `node` is none.
XmlNodeRef getXmlChild(XmlNodeRef node, const std::string& name);
