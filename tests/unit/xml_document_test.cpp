#include <libxml/xmlIO.h>
#include <libxml/xmlerror.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <optional>
#include <sstream>

#include "commons/atomic_replacement.h"
#include "commons/commons.h"
#include "commons/libxml.h"
#include "commons/xml_wrap.h"
#include "support.h"

namespace {

const char* const NO_NAME = nullptr;

std::string savedToFile(const tXmlDocument& document) {
  const ScopedTempDir dir;
  document.saveToFile((dir / "file").c_str());
  return readFile(dir / "file");
}

/// A document with one child of the root.
tXmlDtmDocument makeDocument(const std::string& text) {
  tXmlDtmDocument document;
  document.initNewDoc("root");
  document.newTextChild(document.root(), "child", text);
  return document;
}

std::string parseFailureOf(const std::string& fileName) {
  return "The XML file " + fileName + " was not parsed successfully with the following errors:\n";
}

/// Fails on every write; throws from within when it is set to.
class FullStream : public std::ostream {
 public:
  explicit FullStream(std::ios::iostate throwsFor) : std::ostream(&buffer_) {
    exceptions(throwsFor);
  }

 private:
  class Buffer : public std::streambuf {};
  Buffer buffer_;
};

/// Notes the names it is saved to.
class NotingDocument : public tXmlDtmDocument {
 public:
  explicit NotingDocument(std::vector<std::string>& names) : names_(names) { initNewDoc("noted"); }
  void saveToFile(const char* fileName) const override {
    names_.push_back(fileName);
    tXmlDtmDocument::saveToFile(fileName);
  }

 private:
  std::vector<std::string>& names_;
};

/// While it lives, libxml2 gets no memory.
class NoXmlMemory {
 public:
  NoXmlMemory() : old_(xmlMalloc) {
    xmlMalloc = [](std::size_t) -> void* { return nullptr; };
  }
  ~NoXmlMemory() { xmlMalloc = old_; }

 private:
  xmlMallocFunc old_;
};

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

// --- Saving ---

TEST(XmlDocumentTest, RefusesToBeSavedToNoName) {
  const tXmlDocument document;
  EXPECT_EQ(whatOf<Exc<&AssertionFailed>>([&] { document.saveToFile(NO_NAME); }),
            "Assertion failed: filename != NULL");
  EXPECT_EQ(whatOf<Exc<&AssertionFailed>>([&] { document.saveToFile(""); }),
            "Assertion failed: *filename != 0");
  EXPECT_EQ(whatOf<Exc<&AssertionFailed>>([&] { document.saveToBuffer(nullptr); }),
            "Assertion failed: buffer != 0");
}

TEST(XmlDocumentTest, NamesTheFileThatCannotBeSaved) {
  const tXmlDocument document = makeDocument("text");
  const CapturedStream console(STDERR_FILENO);
  for (const char* name : {"/mnt/missing/file", "/dev/full", "/mnt"}) {
    EXPECT_EQ(whatOf<Exc<&tError_SaveFile>>([&] { document.saveToFile(name); }),
              std::string("Can not save the XML document to file '") + name + "'");
  }
  EXPECT_EQ(console.text(), "");
}

TEST(XmlDocumentTest, IsSavedUnderItsNameWhateverThatMeansInAUri) {
  const ScopedTempDir dir;
  ASSERT_EQ(mkdir((dir / "file:").c_str(), 0755), 0);
  inChild([&] {
    ASSERT_EQ(chdir(dir.path().c_str()), 0);
    for (const char* name : {"s%41", "file:/a", "100%", "a?b#c"}) {
      makeDocument("text").saveToFile(name);
      EXPECT_EQ(readFile(name), savedXml("<root><child>text</child></root>")) << name;
      makeDocument("atomic").saveToFileAtomically(name);
      EXPECT_EQ(readFile(name), savedXml("<root><child>atomic</child></root>")) << name;
    }
  });
  EXPECT_THAT(entriesOf(dir.path()),
              testing::UnorderedElementsAre("file:", "s%41", "100%", "a?b#c"));
}

TEST(XmlDocumentTest, IsSavedToABuffer) {
  std::string saved;
  const auto append = [](void* context, const char* bytes, int size) {
    static_cast<std::string*>(context)->append(bytes, static_cast<std::size_t>(size));
    return size;
  };
  makeDocument("text").saveToBuffer(xmlOutputBufferCreateIO(append, nullptr, &saved, nullptr));
  EXPECT_EQ(saved, savedXml("<root><child>text</child></root>"));
}

TEST(XmlDocumentTest, ReportsABufferThatCannotBeWritten) {
  const auto fail = [](void*, const char*, int) { return -1; };
  EXPECT_EQ(
      whatOf<Exc<&tError_SaveFile>>([&] {
        makeDocument("text").saveToBuffer(xmlOutputBufferCreateIO(fail, nullptr, nullptr, nullptr));
      }),
      "Can not save the XML document to file 'in-memory buffer'");
}

TEST(XmlDocumentTest, IsSavedToAStreamFromWhichAParserReadsTheSameText) {
  const std::string text = "na\xC3\xAFve \xE2\x98\x83 <&>";
  std::ostringstream stream;
  makeDocument(text).saveToStream(stream);
  tXmlDtmDocument document(stream.str());
  document.initFileDoc("root");
  EXPECT_EQ(document.getNodeText(document.getRootNodeChild("child")), text);
}

TEST(XmlDocumentTest, ReportsAStreamThatCannotBeWritten) {
  // libxml2 writes a small document in one piece at the end and a large one in many.
  for (const std::size_t size : {std::size_t{1}, std::size_t{1000000}}) {
    const tXmlDocument document = makeDocument(std::string(size, 'x'));
    for (const auto throwsFor : {std::ios::goodbit, std::ios::badbit}) {
      FullStream stream(throwsFor);
      EXPECT_EQ(whatOf<Exc<&tError_SaveFile>>([&] { document.saveToStream(stream); }),
                "Can not save the XML document to file 'in-memory buffer'");
    }
  }
}

TEST(XmlDocumentTest, IsSavedAtomicallyForTheServiceAccount) {
  const ScopedTempDir dir;
  writeFile(dir / "file", "old");
  std::vector<std::string> names;
  NotingDocument(names).saveToFileAtomically(dir / "file");
  EXPECT_EQ(readFile(dir / "file"), savedXml("<noted/>"));
  EXPECT_EQ(ownerAndMode(dir / "file"), "20000:20000 600");
  EXPECT_THAT(names, testing::ElementsAre(testing::AllOf(testing::StartsWith(dir / "file"),
                                                         testing::Ne(dir / "file"))));
  EXPECT_THAT(entriesOf(dir.path()), testing::ElementsAre("file"));
}

TEST(XmlDocumentTest, IsTheSameFileWhenItIsSavedOften) {
  const ScopedTempDir dir;
  tXmlDtmDocument document = makeDocument("caf\xC3\xA9 <&> \xF0\x9F\x98\x80");
  document.saveToFileAtomically(dir / "once");
  for (int i = 0; i < 3; ++i) document.saveOftenAtomically(dir / "often");
  EXPECT_EQ(readFile(dir / "often"), readFile(dir / "once"));
  EXPECT_EQ(ownerAndMode(dir / "often"), ownerAndMode(dir / "once"));
  EXPECT_THAT(entriesOf(dir.path()), testing::UnorderedElementsAre("often", "once"));
}

TEST(XmlDocumentTest, KeepsTheOldFileAndLeavesNoTemporaryOneOnAFullDisk) {
  const ScopedTempDir dir;
  const ScopedTmpfs fileSystem(dir.path(), 16384);
  writeFile(dir / "file", "old");
  tXmlDtmDocument document = makeDocument(std::string(100000, 'x'));
  const auto failure =
      testing::StartsWith("Can not save the XML document to file '" + (dir / "file"));
  EXPECT_THAT(whatOf<Exc<&tError_SaveFile>>([&] { document.saveToFileAtomically(dir / "file"); }),
              failure);
  EXPECT_THAT(whatOf<Exc<&tError_SaveFile>>([&] { document.saveOftenAtomically(dir / "file"); }),
              failure);
  EXPECT_THAT(whatOf<Exc<&tError_SaveFile>>(
                  [&] { XmlNode(document, document.root()).saveToFileAtomically(dir / "file"); }),
              failure);
  EXPECT_EQ(readFile(dir / "file"), "old");
  EXPECT_THAT(entriesOf(dir.path()), testing::ElementsAre("file"));
}

TEST(XmlDocumentTest, KeepsTheOldFileAndTheTemporaryOneWhenItCannotBeGivenAway) {
  const ScopedTempDir dir;
  writeFile(dir / "file", "old");
  inChild([&] {
    becomePlainUser();
    EXPECT_THROW(makeDocument("text").saveToFileAtomically(dir / "file"),
                 Exc<&CantTakeFileOwnership>);
  });
  EXPECT_EQ(readFile(dir / "file"), "old");
  EXPECT_THAT(entriesOf(dir.path()), testing::SizeIs(2));
}

TEST(XmlNodeTest, IsSavedAtomicallyWithItsSubtreeOnly) {
  const ScopedTempDir dir;
  writeFile(dir / "file", "old");
  tXmlDtmDocument document(std::string("<root><a x=\"1\">text<b/></a><c/></root>"));
  document.initFileDoc("root");
  XmlNode(document, document.getRootNodeChild("a")).saveToFileAtomically(dir / "file");
  EXPECT_EQ(readFile(dir / "file"), "<a x=\"1\">text<b/></a>");
  EXPECT_EQ(ownerAndMode(dir / "file"), "20000:20000 600");
  EXPECT_THAT(entriesOf(dir.path()), testing::ElementsAre("file"));
}

TEST(XmlNodeTest, ReportsWhyItCannotBeSaved) {
  const ScopedTempDir dir;
  ASSERT_EQ(mkdir((dir / "target").c_str(), 0755), 0);
  tXmlDtmDocument document = makeDocument("text");
  const XmlNode node(document, document.root());
  EXPECT_THAT(whatOf<Exc<&CantRenameFile>>([&] { node.saveToFileAtomically(dir / "target"); }),
              testing::EndsWith(" to " + (dir / "target") + ": Is a directory"));
  EXPECT_THROW(node.saveToFileAtomically(dir / "missing/target"), Exc<&CantCreateTempFile>);
  inChild([&] {
    becomePlainUser();
    EXPECT_THAT(
        whatOf<Exc<&CantTakeFileOwnership>>([&] { node.saveToFileAtomically(dir / "mine"); }),
        testing::MatchesRegex("Cannot take ownership of .*/mine......: "
                              "Operation not permitted"));
  });
}

TEST(XmlDocumentTest, SaysWhatCouldNotBeMadeWithoutMemory) {
  const CapturedStream console(STDERR_FILENO);
  tXmlDtmDocument document;
  const NoXmlMemory noMemory;
  EXPECT_EQ(whatOf<Exc<&tError_XmlInternal>>([] { tXmlDocument{}; }),
            "#0001: Can not create new XML document.");
  EXPECT_EQ(whatOf<Exc<&tError_XmlInternal>>([&] { document.initNewDoc("root"); }),
            "#0002: Can not create new node");
  EXPECT_EQ(whatOf<Exc<&AssertionFailed>>([&] { tXPathExpr(document, "/"); }),
            "Assertion failed: xpathCtx_.get() != NULL");
  EXPECT_EQ(whatOf<Exc<&AssertionFailed>>([&] { document.saveToStream(std::cerr); }),
            "Assertion failed: buffer != 0");
}
