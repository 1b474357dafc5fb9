#include <optional>

#include "commons/libxml.h"
#include "commons/xml_parse.h"
#include "commons/xml_wrap.h"
#include "support.h"

DECLARE_ERROR_TAG(OperatorError, "the operator failed on %1%");

namespace {

/// Two resellers with domains, and a third without.
class XPathTest : public testing::Test {
 protected:
  XPathTest() { document_.initFileDoc("root"); }

  tXPathExpr expr(const std::string& text, XmlNodeRef context = {}) const {
    return tXPathExpr(document_, text, context);
  }
  std::string nameOf(XmlNodeRef node) const { return document_.getAttribute(node, "name"); }

  tXmlDtmDocument document_{std::string(
      "<root><!-- comment -->text<reseller name='r1'><domain name='d1'/><domain "
      "name='d2'/></reseller>"
      "<reseller name='r2'><domain name='d3'/></reseller><reseller name='r3'/></root>")};
  XmlNodeRef secondReseller() const { return expr("/root/reseller[2]").getNode(); }
};

/// Records the names of the nodes; throws for one of them.
class NotingOperator : public tXmlOperator {
 public:
  enum Failure { NONE, OWN, FOREIGN };
  explicit NotingOperator(Failure failure = NONE) : failure_(failure) {}

  void operator()(XmlNodeRef node) override {
    const XmlText raw{xmlGetProp(node.get(), toXmlChar("name"))};
    names.push_back(fromXmlChar(raw.get()));
    if (names.back() != "d2") return;
    if (failure_ == OWN) throw Exc<&OperatorError>(HERE) % "d2";
    if (failure_ == FOREIGN) throw std::runtime_error("foreign");
  }

  std::vector<std::string> names;

 private:
  Failure failure_;
};

std::vector<std::string> absorbed;

void noteError(const ExTraceable& error) {
  absorbed.push_back(error.code() + ": " + error.what());
}

const char* const NO_RESULT =
    "The XML document is invalid for XPath exception.\nCan not evaluate result of expression '";

/// Expressions that can be evaluated and select nothing.
const char* const EMPTY[] = {"//none",          "//none/child",       "//domain[9]",
                             "//none/@name",    "//none | //nothing", "id('none')",
                             "//domain/text()", "/none/a/b[c]",       "//domain[9]/child"};

}  // namespace

TEST_F(XPathTest, FindsTheFirstNodeInDocumentOrder) {
  EXPECT_EQ(nameOf(expr("//domain").getNode()), "d1");
  EXPECT_EQ(nameOf(expr("//domain[@name='d3'] | //domain[@name='d2']").getNode()), "d2");
  EXPECT_EQ(nameOf(expr("//domain[last()]").getNode()), "d2");
  EXPECT_EQ(nameOf(expr("//domain[@name='d3']/preceding::domain").getNode()), "d1");
}

TEST_F(XPathTest, FindsNodesRelativeToTheContextNode) {
  const tXPathExpr expression = expr("domain", secondReseller());
  EXPECT_EQ(nameOf(expression.getNode()), "d3");
  EXPECT_EQ(expression.getXmlNode(), secondReseller());
  EXPECT_EQ(expr("//domain").getXmlNode(), XmlNodeRef());
  EXPECT_EQ(nameOf(expr("//domain", secondReseller()).getNode()), "d1");
}

TEST_F(XPathTest, GivesTheWholeNodeSet) {
  std::vector<std::string> names;
  for (const XmlNodeRef node : expr("//domain").getNodeSet()) names.push_back(nameOf(node));
  EXPECT_THAT(names, testing::ElementsAre("d1", "d2", "d3"));
}

TEST_F(XPathTest, RefusesNodesOfAResultThatHasNone) {
  for (const std::string text : {"count(//domain)", "string(//domain/@name)", "//domain = 'x'"}) {
    SCOPED_TRACE(text);
    const std::string expected = "The result of expression '" + text + "' is not a 'nodeset' type";
    const tXPathExpr expression = expr(text);
    NotingOperator notes;
    EXPECT_EQ(whatOf<Exc<&tError_XPath_TypesMismatch>>([&] { expression.getNode(); }), expected);
    EXPECT_EQ(whatOf<Exc<&tError_XPath_TypesMismatch>>([&] { expression.getNodeSet(); }), expected);
    absorbed.clear();
    EXPECT_EQ(whatOf<Exc<&tError_XPath_TypesMismatch>>(
                  [&] { foreach_xmlnode(expression, notes, noteError); }),
              expected);
    EXPECT_THAT(absorbed, testing::IsEmpty());
  }
}

TEST_F(XPathTest, NamesTheExpressionThatSelectsNothingAndThePathOfTheContext) {
  EXPECT_EQ(whatOf<Exc<&tError_XPath_CantEvaluate>>([&] { expr("//none").getNode(); }),
            std::string(NO_RESULT) + "//none'");
  EXPECT_EQ(
      whatOf<Exc<&tError_XPath_CantEvaluate>>([&] { expr("none", secondReseller()).getNode(); }),
      std::string(NO_RESULT) + "none at path '/root/reseller[2]''");
}

TEST_F(XPathTest, VisitsNoNodeOfAnExpressionThatSelectsNothing) {
  for (const char* text : EMPTY) {
    SCOPED_TRACE(text);
    NotingOperator notes;
    absorbed.clear();
    EXPECT_EQ(foreach_xmlnode(expr(text), notes, noteError), 1);
    EXPECT_THAT(notes.names, testing::IsEmpty());
    EXPECT_THAT(absorbed, testing::IsEmpty());
    EXPECT_THROW(expr(text).getNode(), Exc<&tError_XPath_CantEvaluate>);
  }
}

TEST_F(XPathTest, ReportsAnExpressionThatCannotBeEvaluatedWithoutAWordOnTheConsole) {
  const CapturedStream console(STDERR_FILENO);
  for (const std::string text : {"//[", "", "prefix:name", "no-such-function()"}) {
    SCOPED_TRACE(text);
    const tXPathExpr expression = expr(text);
    NotingOperator notes;
    absorbed.clear();
    EXPECT_EQ(foreach_xmlnode(expression, notes, noteError), 0);
    EXPECT_THAT(absorbed, testing::ElementsAre(
                              "tError_XmlInternal: Can not evaluate XPath expression: " + text));
    EXPECT_FALSE(expression.isEvaluated());
    EXPECT_THAT(expression.getNodeSet(), testing::IsEmpty());
    EXPECT_EQ(whatOf<Exc<&tError_XPath_CantEvaluate>>([&] { expression.getNode(); }),
              NO_RESULT + text + "'");
  }
  EXPECT_EQ(console.text(), "");
}

TEST_F(XPathTest, VisitsEachNodeInOrder) {
  NotingOperator notes;
  absorbed.clear();
  EXPECT_EQ(foreach_xmlnode(expr("//domain"), notes, noteError), 1);
  EXPECT_THAT(notes.names, testing::ElementsAre("d1", "d2", "d3"));
  EXPECT_THAT(absorbed, testing::IsEmpty());
}

TEST_F(XPathTest, GoesOnAfterANodeThatFails) {
  NotingOperator notes(NotingOperator::OWN);
  absorbed.clear();
  EXPECT_EQ(foreach_xmlnode(expr("//domain"), notes, noteError), 1);
  EXPECT_THAT(notes.names, testing::ElementsAre("d1", "d2", "d3"));
  EXPECT_THAT(absorbed, testing::ElementsAre("OperatorError: the operator failed on d2"));
}

TEST_F(XPathTest, LetsForeignExceptionsEndTheVisit) {
  NotingOperator notes(NotingOperator::FOREIGN);
  absorbed.clear();
  EXPECT_EQ(
      whatOf<std::runtime_error>([&] { foreach_xmlnode(expr("//domain"), notes, noteError); }),
      "foreign");
  EXPECT_THAT(notes.names, testing::ElementsAre("d1", "d2"));
  EXPECT_THAT(absorbed, testing::IsEmpty());
}

TEST_F(XPathTest, GivesTheResultAsABoolean) {
  const std::pair<const char*, bool> results[] = {{"//domain", true},
                                                  {"//none", false},
                                                  {"count(//domain) = 3", true},
                                                  {"0", false},
                                                  {"string(//none)", false},
                                                  {"'x'", true},
                                                  {"//[", false},
                                                  {"3", true}};
  for (const auto& [text, result] : results) {
    SCOPED_TRACE(text);
    EXPECT_EQ(testXPathExpr(document_, text), result);
    EXPECT_EQ(expr(text).toBool(), result);
  }
  EXPECT_TRUE(testXPathExpr(document_, "@name = 'r2'", secondReseller()));
  EXPECT_FALSE(testXPathExpr(document_, "@name = 'r1'", secondReseller()));
}

TEST_F(XPathTest, SharesItsResultWithItsCopies) {
  std::optional<tXPathExpr> original(expr("//domain"));
  const tXPathExpr copy = *original;
  EXPECT_EQ(copy.getNodeSet(), original->getNodeSet());
  original.reset();
  EXPECT_EQ(nameOf(copy.getNode()), "d1");
  EXPECT_EQ(copy.expression(), "//domain");
}

TEST_F(XPathTest, FindsChildrenByNameWhateverTheirKind) {
  const XmlNodeRef root = document_.root();
  EXPECT_EQ(nameOf(getXmlChild(root, "reseller")), "r1");
  EXPECT_EQ(getXmlChild(root, "text").get()->type, XML_TEXT_NODE);
  EXPECT_EQ(getXmlChild(root, "comment").get()->type, XML_COMMENT_NODE);
  EXPECT_EQ(getXmlChild(root, "domain"), XmlNodeRef());
  EXPECT_EQ(getXmlChild(root, "Reseller"), XmlNodeRef());
  EXPECT_EQ(whatOf<Exc<&AssertionFailed>>([] { getXmlChild({}, "x"); }),
            "Assertion failed: node != NULL");
}

TEST(XmlAttributeTest, IsSetWhenItHasAValue) {
  EXPECT_FALSE(is_xml_attr_set(XmlText{}));
  EXPECT_FALSE(is_xml_attr_set(XmlText{xmlStrdup(toXmlChar(""))}));
  EXPECT_TRUE(is_xml_attr_set(XmlText{xmlStrdup(toXmlChar("x"))}));
}
