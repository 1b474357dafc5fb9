#include "commons/xml_parse.h"

#include <libxml/xmlerror.h>
#include <libxml/xpathInternals.h>

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
  // The first pass uses its list up.
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

tXPathExpr::tXPathExpr(xmlDocPtr document, const std::string& expression, xmlNodePtr contextNode)
    : expression_(std::make_shared<const std::string>(expression)), contextNode_(contextNode) {
  evalExpression(document);
}

void tXPathExpr::evalExpression(xmlDocPtr document) {
  // Complaints about an expression are not for the console; what is missing shows
  // in the result.
  const LibxmlErrorCollector complaints;
  context_.reset(xmlXPathNewContext(document), [](xmlXPathContextPtr context) {
    if (context) xmlXPathFreeContext(context);
  });
  if (!context_) throw Exc<&AssertionFailed>(HERE) % "xpathCtx_.get() != NULL";
  if (contextNode_) context_->node = contextNode_;
  result_.reset(xmlXPathEvalExpression(toXmlChar(*expression_), context_.get()),
                [](xmlXPathObjectPtr object) {
                  if (object) xmlXPathFreeObject(object);
                });
}

xmlNodeSetPtr tXPathExpr::getNodeSet() const {
  if (!result_) return nullptr;
  if (result_->type != XPATH_NODESET) {
    throw Exc<&tError_XPath_TypesMismatch>(HERE) % expression() % "nodeset";
  }
  return result_->nodesetval;
}

xmlNodePtr tXPathExpr::getNode() const {
  const xmlNodeSetPtr nodes = getNodeSet();
  if (nodes && nodes->nodeNr > 0) {
    xmlXPathNodeSetSort(nodes);
    return nodes->nodeTab[0];
  }
  std::string where;
  if (contextNode_) {
    if (const XmlText path{xmlGetNodePath(contextNode_)}) {
      where = " at path '" + fromXmlChar(path.get()) + "'";
    }
  }
  throw Exc<&tError_XPath_CantEvaluate>(HERE) % (expression() + where);
}

bool tXPathExpr::toBool() const {
  return result_ && xmlXPathCastToBoolean(result_.get()) == 1;
}

bool testXPathExpr(xmlDocPtr document, const std::string& expression, xmlNodePtr contextNode) {
  return tXPathExpr(document, expression, contextNode).toBool();
}

int foreach_xmlnode(const tXPathExpr& expression, tXmlOperator& xmlOperator, tErrorFunc errorFunc) {
  const xmlNodeSetPtr nodes = expression.getNodeSet();
  if (!expression.isEvaluated()) {
    errorFunc(Exc<&tError_XmlInternal>(HERE) %
              ("Can not evaluate XPath expression: " + expression.expression()));
    return 0;
  }
  const int count = nodes ? nodes->nodeNr : 0;
  for (int i = 0; i < count; ++i) {
    try {
      xmlOperator(nodes->nodeTab[i]);
    } catch (const ExTraceable& e) {
      errorFunc(e);
    }
  }
  return 1;
}

std::vector<xmlNodePtr> xmlElementsOf(xmlNodePtr node) {
  std::vector<xmlNodePtr> elements;
  for (xmlNodePtr child = node->children; child; child = child->next) {
    if (child->type == XML_ELEMENT_NODE) elements.push_back(child);
  }
  return elements;
}

xmlNodePtr getXmlChild(xmlNodePtr node, const std::string& name) {
  if (!node) throw Exc<&AssertionFailed>(HERE) % "node != NULL";
  for (xmlNodePtr child = node->children; child; child = child->next) {
    if (fromXmlChar(child->name) == name) return child;
  }
  return nullptr;
}

bool is_xml_attr_set(const XmlText& value) {
  return value && *value != '\0';
}
