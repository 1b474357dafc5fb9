#include "commons/xml_parse.h"

#include <libxml/xpathInternals.h>

#include "commons/libxml.h"
#include "commons/xml_wrap.h"

tXPathExpr::tXPathExpr(const tXmlDocument& document, const std::string& expression,
                       XmlNodeRef contextNode)
    : expression_(std::make_shared<const std::string>(expression)), contextNode_(contextNode) {
  evalExpression(document);
}

void tXPathExpr::evalExpression(const tXmlDocument& document) {
  // Keeps messages about the expression off the console; a failure shows in the result.
  const LibxmlErrorCollector complaints;
  context_.reset(xmlXPathNewContext(document.document()), [](xmlXPathContextPtr context) {
    if (context) xmlXPathFreeContext(context);
  });
  if (!context_) throw Exc<&AssertionFailed>(HERE) % "xpathCtx_.get() != NULL";
  if (contextNode_) context_->node = contextNode_.get();
  result_.reset(xmlXPathEvalExpression(toXmlChar(*expression_), context_.get()),
                [](xmlXPathObjectPtr object) {
                  if (object) xmlXPathFreeObject(object);
                });
}

std::vector<XmlNodeRef> tXPathExpr::getNodeSet() const {
  if (!result_) return {};
  if (result_->type != XPATH_NODESET) {
    throw Exc<&tError_XPath_TypesMismatch>(HERE) % expression() % "nodeset";
  }
  std::vector<XmlNodeRef> nodes;
  const xmlNodeSetPtr found = result_->nodesetval;
  for (int i = 0; found && i < found->nodeNr; ++i) nodes.emplace_back(found->nodeTab[i]);
  return nodes;
}

XmlNodeRef tXPathExpr::getNode() const {
  if (!getNodeSet().empty()) {
    xmlXPathNodeSetSort(result_->nodesetval);
    return getNodeSet().front();
  }
  std::string where;
  if (contextNode_) {
    if (const XmlText path{xmlGetNodePath(contextNode_.get())}) {
      where = " at path '" + fromXmlChar(path.get()) + "'";
    }
  }
  throw Exc<&tError_XPath_CantEvaluate>(HERE) % (expression() + where);
}

bool tXPathExpr::toBool() const {
  return result_ && xmlXPathCastToBoolean(result_.get()) == 1;
}

bool testXPathExpr(const tXmlDocument& document, const std::string& expression,
                   XmlNodeRef contextNode) {
  return tXPathExpr(document, expression, contextNode).toBool();
}

int foreach_xmlnode(const tXPathExpr& expression, tXmlOperator& visitor, tErrorFunc errorFunc) {
  const std::vector<XmlNodeRef> nodes = expression.getNodeSet();
  if (!expression.isEvaluated()) {
    errorFunc(Exc<&tError_XmlInternal>(HERE) %
              ("Can not evaluate XPath expression: " + expression.expression()));
    return 0;
  }
  for (const XmlNodeRef node : nodes) {
    try {
      visitor(node);
    } catch (const ExTraceable& e) {
      errorFunc(e);
    }
  }
  return 1;
}

XmlNodeRef getXmlChild(XmlNodeRef node, const std::string& name) {
  if (!node) throw Exc<&AssertionFailed>(HERE) % "node != NULL";
  for (xmlNodePtr child = node.get()->children; child; child = child->next) {
    if (fromXmlChar(child->name) == name) return XmlNodeRef(child);
  }
  return {};
}
