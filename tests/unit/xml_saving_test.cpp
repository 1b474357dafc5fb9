#include <libxml/xmlIO.h>
#include <sys/stat.h>
#include <unistd.h>

#include <iostream>
#include <sstream>

#include "commons/atomic_replacement.h"
#include "commons/commons.h"
#include "commons/libxml.h"
#include "commons/xml_wrap.h"
#include "support.h"
#include "xml_support.h"

namespace {

/// Fails on every write; throws then if `throwsFor` says so.
class FullStream : public std::ostream {
 public:
  explicit FullStream(std::ios::iostate throwsFor) : std::ostream(&buffer_) {
    exceptions(throwsFor);
  }

 private:
  class Buffer : public std::streambuf {};
  Buffer buffer_;
};

/// Records the names under which it is saved.
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
