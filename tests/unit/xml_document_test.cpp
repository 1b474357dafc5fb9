#include "commons/xml_wrap.h"

#include <libxml/xmlerror.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <optional>

#include "commons/libxml.h"
#include "support.h"
#include "xml_support.h"

namespace {

std::string savedToFile(const tXmlDocument& document) {
  const ScopedTempDir dir;
  document.saveToFile((dir / "file").c_str());
  return readFile(dir / "file");
}

std::string parseFailureOf(const std::string& fileName) {
  return "The XML file " + fileName + " was not parsed successfully with the following errors:\n";
}

}  // namespace

// --- Parsing ---

TEST(XmlDocumentTest, IsParsedFromAFileAndFromText) {
  const ScopedTempDir dir;
  writeFile(dir / "file", "<root><child/></root>");
  EXPECT_EQ(savedToFile(tXmlDocument((dir / "file").c_str())), savedXml("<root><child/></root>"));
  EXPECT_EQ(savedToFile(tXmlDocument(std::string("<other>text</other>"))),
            savedXml("<other>text</other>"));
}

TEST(XmlDocumentTest, IsReadFromStandardInputForTheNameOfADash) {
  const ScopedTempDir dir;
  writeFile(dir / "good", "<root/>");
  writeFile(dir / "bad", "<root>");
  inChild([&] {
    ASSERT_NE(std::freopen((dir / "good").c_str(), "r", stdin), nullptr);
    EXPECT_EQ(savedToFile(tXmlDocument("-")), savedXml("<root/>"));
    ASSERT_NE(std::freopen((dir / "bad").c_str(), "r", stdin), nullptr);
    EXPECT_THAT(whatOf<Exc<&tError_ParseFile>>([] { tXmlDocument("-"); }),
                testing::StartsWith(parseFailureOf("-")));
  });
}

TEST(XmlDocumentTest, RefusesNoNameAndNoText) {
  tXmlDocument document;
  EXPECT_EQ(whatOf<Exc<&AssertionFailed>>([&] { document.readFromFile(NO_NAME); }),
            "Assertion failed: filename != NULL");
  EXPECT_EQ(whatOf<Exc<&AssertionFailed>>([&] { document.readFromFile(""); }),
            "Assertion failed: *filename != 0");
  EXPECT_EQ(whatOf<Exc<&AssertionFailed>>([] { tXmlDocument{NO_NAME}; }),
            "Assertion failed: filename != NULL");
  EXPECT_EQ(whatOf<Exc<&AssertionFailed>>([] { tXmlDocument{std::string()}; }),
            "Assertion failed: content.size()");
}

TEST(XmlDocumentTest, RefusesWhatIsNoRegularFile) {
  const ScopedTempDir dir;
  ASSERT_EQ(mkfifo((dir / "fifo").c_str(), 0600), 0);
  for (const char* name : {"missing", "fifo", "."}) {
    SCOPED_TRACE(name);
    const std::string path = dir / name;
    EXPECT_EQ(
        whatOf<Exc<&tError_WrongInputFile>>([&] { tXmlDocument(path.c_str()); }),
        "The XML file does not exist or is not a regular file. Check the file '" + path + "'");
  }
}

TEST(XmlDocumentTest, ReportsEachSyntaxErrorInOrderAndPrintsNone) {
  const ScopedTempDir dir;
  const std::string text = "<root>\n<a></b>\n&undefined;\n</root>";
  const std::string path = dir / "file";
  writeFile(path, text);
  const CapturedStream console(STDERR_FILENO);
  const auto bothErrors = [](const std::string& name) {
    return testing::AllOf(testing::StartsWith(parseFailureOf(name)),
                          testing::ContainsRegex("2: parser error : [^\n]* mismatch: a (.|\n)*"
                                                 "3: parser error : [^\n]*'undefined'"));
  };
  EXPECT_THAT(whatOf<Exc<&tError_ParseFile>>([&] { tXmlDocument(path.c_str()); }),
              bothErrors(path));
  EXPECT_THAT(whatOf<Exc<&tError_ParseFile>>([&] { tXmlDocument{text}; }), bothErrors("-"));
  EXPECT_EQ(console.text(), "");
}

TEST(XmlDocumentTest, IsRefusedWhenTheFileIsEmpty) {
  const ScopedTempDir dir;
  writeFile(dir / "file", "");
  EXPECT_THAT(whatOf<Exc<&tError_ParseFile>>([&] { tXmlDocument((dir / "file").c_str()); }),
              testing::StartsWith(parseFailureOf(dir / "file")));
}

TEST(XmlDocumentTest, DoesNotLoadExternalEntitiesAndDefinitions) {
  const ScopedTempDir dir;
  writeFile(dir / "secret", "secret");
  writeFile(dir / "dtd", "<!ELEMENT root ANY><!ATTLIST root given CDATA \"secret\">");
  tXmlDtmDocument document("<!DOCTYPE root SYSTEM \"file://" + (dir / "dtd") +
                           "\" [<!ENTITY e SYSTEM \"file://" + (dir / "secret") +
                           "\">]><root>[&e;]</root>");
  document.initFileDoc("root");
  EXPECT_EQ(document.getNodeText(document.root()), "[]");
  EXPECT_THROW(document.getAttribute(document.root(), "given"), Exc<&NoSuchAttribute>);
}

TEST(XmlDocumentTest, RefusesEntitiesThatGrowWithoutMeasure) {
  std::string text = "<!DOCTYPE root [<!ENTITY e0 \"0123456789\">";
  for (int i = 1; i <= 12; ++i) {
    std::string references;
    for (int j = 0; j < 10; ++j) references += "&e" + std::to_string(i - 1) + ";";
    text += "<!ENTITY e" + std::to_string(i) + " \"" + references + "\">";
  }
  text += "]><root>&e12;</root>";
  EXPECT_THAT(whatOf<Exc<&tError_ParseFile>>([&] { tXmlDocument{text}; }),
              testing::StartsWith(parseFailureOf("-")));
}

TEST(XmlDocumentTest, RefusesMoreThanAMebibyteOfEntitiesThatTheLibraryAccepts) {
  const auto documentWith = [](int references) {
    std::string text = "<!DOCTYPE root [<!ENTITY e \"" + std::string(300000, 'x') + "\">]><root>";
    for (int i = 0; i < references; ++i) text += "&e;";
    return text + "</root>";
  };
  tXmlDocument{documentWith(3)};
  EXPECT_EQ(whatOf<Exc<&tError_ParseFile>>([&] { tXmlDocument{documentWith(5)}; }),
            parseFailureOf("-") + "its entities grow without measure\n");
}

TEST(LibxmlErrorCollectorTest, GivesTheErrorFunctionBackAlsoAfterAFailure) {
  std::string mine;
  const xmlGenericErrorFunc oldFunction = xmlGenericError;
  void* const oldContext = xmlGenericErrorContext;
  xmlSetGenericErrorFunc(&mine, libxmlErrorHandler);
  EXPECT_THROW(tXmlDocument(std::string("<root>")), Exc<&tError_ParseFile>);
  EXPECT_THROW(tXmlDocument().saveToFile("/mnt/missing/file"), Exc<&tError_SaveFile>);
  testXPathExpr(tXmlDocument(std::string("<root/>")), "//[");
  EXPECT_EQ(xmlGenericError, libxmlErrorHandler);
  EXPECT_EQ(xmlGenericErrorContext, &mine);
  EXPECT_EQ(mine, "");
  xmlSetGenericErrorFunc(oldContext, oldFunction);
}

TEST(LibxmlErrorHandlerTest, AppendsMessagesOfAnyLengthFormatted) {
  std::string text;
  const std::string longText(100000, 'x');
  libxmlErrorHandler(&text, "%s:%d: ", "file", 3);
  libxmlErrorHandler(&text, "%s\n", longText.c_str());
  libxmlErrorHandler(&text, "%s", "");
  EXPECT_EQ(text, "file:3: " + longText + "\n");
}

// --- The root ---

TEST(XmlDtmDocumentTest, BindsToTheExpectedRoot) {
  tXmlDtmDocument document(std::string("<!-- first --><root><child/></root>"));
  EXPECT_EQ(document.initFileDoc("root"), 1);
  EXPECT_EQ(document.root().name(), "root");
}

TEST(XmlDtmDocumentTest, NamesBothRootsWhenTheDocumentHasAnother) {
  tXmlDtmDocument document(std::string("<Root/>"));
  EXPECT_EQ(whatOf<Exc<&tError_WrongDoc>>([&] { document.initFileDoc("root"); }),
            "The document has the wrong type, root node is <Root>, but <root> was expected");
}

TEST(XmlDtmDocumentTest, NamesTheExpectedRootWhenTheDocumentHasNone) {
  tXmlDtmDocument document;
  EXPECT_EQ(whatOf<Exc<&tError_EmptyDoc>>([&] { document.initFileDoc("root"); }),
            "The document is empty. Can not find root element <root>");
}

TEST(XmlDtmDocumentTest, FindsTheFirstChildOfTheRootByName) {
  tXmlDtmDocument document(std::string("<root><a/><b>1</b><b>2</b></root>"));
  document.initFileDoc("root");
  EXPECT_EQ(document.getNodeText(document.getRootNodeChild("b")), "1");
  EXPECT_EQ(whatOf<Exc<&tError_WrongContent>>([&] { document.getRootNodeChild("c"); }),
            "Can not find 'c' element in 'root' element.");
}

// --- Nodes ---

TEST(XmlDtmDocumentTest, BuildsNodesAndAttributes) {
  tXmlDtmDocument document;
  document.initNewDoc("root");
  const XmlNodeRef empty = document.newChild(document.root(), "empty");
  document.addAttribute(empty, "b", "old");
  document.addAttribute(empty, "a", "<\"&'>");
  document.addAttribute(empty, "b", "new");
  document.newTextChild(empty, "text", "a < b && c > \"d\" &amp;");
  document.newCDataBlock(empty, "<raw>&]]></raw>");
  document.newTextChild(document.root(), "last", "");
  EXPECT_EQ(savedToFile(document),
            savedXml("<root><empty b=\"new\" a=\"&lt;&quot;&amp;'&gt;\">"
                     "<text>a &lt; b &amp;&amp; c &gt; \"d\" &amp;amp;</text>"
                     "<![CDATA[<raw>&]]]]><![CDATA[></raw>]]></empty><last></last></root>"));
}

TEST(XmlDtmDocumentTest, ReadsAttributes) {
  tXmlDtmDocument document(std::string("<root a=\"1 &lt; &#228;\" empty=\"\"/>"));
  document.initFileDoc("root");
  EXPECT_EQ(document.getAttribute(document.root(), "a"), "1 < \xC3\xA4");
  EXPECT_EQ(document.getAttribute(document.root(), "empty"), "");
  EXPECT_EQ(document.findAttribute(document.root(), "empty"), "");
  EXPECT_EQ(document.findAttribute(document.root(), "b"), std::nullopt);
  EXPECT_EQ(whatOf<Exc<&NoSuchAttribute>>([&] { document.getAttribute(document.root(), "b"); }),
            "Node root does not have attribute b");
}

TEST(XmlDtmDocumentTest, ReadsTheTextOfANode) {
  tXmlDtmDocument document(
      std::string("<!DOCTYPE root [<!ENTITY e \"value\">]><root><a>x &amp; &#9731; &e;</a>"
                  "<a><![CDATA[<raw>]]> and text</a><a> kept \n </a><a></a><a/></root>"));
  document.initFileDoc("root");
  std::vector<std::string> texts;
  for (const XmlNodeRef node : document.root().children()) {
    texts.push_back(document.getNodeText(node));
  }
  EXPECT_THAT(
      texts, testing::ElementsAre("x & \xE2\x98\x83 value", "<raw> and text", " kept \n ", "", ""));
}

TEST(XmlDocumentTest, IsSharedByItsCopiesUntilTheLastOneIsGone) {
  std::optional<tXmlDtmDocument> original(makeDocument("text"));
  tXmlDtmDocument copy = *original;
  copy.addAttribute(copy.root(), "a", "1");
  EXPECT_EQ(original->getAttribute(original->root(), "a"), "1");
  original.reset();
  EXPECT_EQ(savedToFile(copy), savedXml("<root a=\"1\"><child>text</child></root>"));
}
