#include "commons/ExecCmd.h"
#include "commons/agent_spec.h"
#include "commons/atomic_replacement.h"
#include "commons/checksum.h"
#include "commons/commons.h"
#include "commons/log.h"
#include "commons/session.h"
#include "commons/xml_wrap.h"
#include "support.h"

namespace {

struct Tag {
  const char* code;
  const char* format;
  const char* expectedCode;
  const char* expectedFormat;
};

#define TAG(tag, expectedFormat) \
  { ErrorTagTraits<&tag>::code(), ErrorTagTraits<&tag>::format(), #tag, expectedFormat }

const Tag TAGS[] = {
    TAG(Agent::ParseFailed, "Unable to parse spec file: %1%"),
    TAG(AgentNotFound, "Agent %1% was not found or does not contain proper spec file"),
    TAG(AssertionFailed, "Assertion failed: %1%"),
    TAG(CantCreateTempFile, "Can not create temporary file with the template '%1%': %2%."),
    TAG(CantRenameFile, "Cannot rename %1% to %2%: %3%"),
    TAG(CantStatFS, "Cannot stat filesystem containing %1%: %2%"),
    TAG(CantTakeFileOwnership, "Cannot take ownership of %1%: %2%"),
    TAG(ExecCmd::ExFailed, "Execution of %1% failed with return code %2%.\n%3%%4%%5%"),
    TAG(NoParentNode, "No parent node on requested XML element"),
    TAG(NoSuchAttribute, "Node %1% does not have attribute %2%"),
    TAG(StreamRead, "Cannot read data from the stream"),
    TAG(UnableToCreateSession, "Unable to create session: %1%"),
    TAG(tError_EmptyDoc, "The document is empty. Can not find root element <%1%>"),
    TAG(tError_ParseFile,
        "The XML file %1% was not parsed successfully with the following errors:\n%2%"),
    TAG(tError_SaveFile, "Can not save the XML document to file '%1%'"),
    TAG(tError_WrongContent, "%1%"),
    TAG(tError_WrongDoc,
        "The document has the wrong type, root node is <%2%>, but <%1%> was expected"),
    TAG(tError_WrongInputFile,
        "The XML file does not exist or is not a regular file. Check the file '%1%'"),
    TAG(tError_XPath_CantEvaluate,
        "The XML document is invalid for XPath exception.\n"
        "Can not evaluate result of expression '%1%'"),
    TAG(tError_XPath_TypesMismatch, "The result of expression '%1%' is not a '%2%' type"),
    TAG(tError_XmlInternal, "%1%"),
};

/// The text form of the error that `body` raises, without what comes before its message: a regular
/// expression would stop at the zero byte of the id.
std::string textOf(const std::function<void()>& body) {
  try {
    body();
  } catch (const ExTraceable& e) {
    const std::string text = formatPlainTextMessage(e);
    return text.substr(text.find("]: "));
  }
  return "no error";
}

}  // namespace

TEST(ErrorTagTest, HasItsCodeAndItsMessageFormat) {
  for (const Tag& tag : TAGS) {
    EXPECT_STREQ(tag.code, tag.expectedCode);
    EXPECT_STREQ(tag.format, tag.expectedFormat) << tag.code;
  }
}

TEST(ErrorTest, NamesTheSourceFileThatRaisedItAndTheFunction) {
  const ScopedTempDir dir;
  writeFile(dir / "spec", "broken");
  struct Example {
    std::function<void()> raise;
    const char* file;
    const char* function;
  };
  const Example examples[] = {
      {[] { SessionFiles("/dev/null"); }, "session.cpp", "SessionFiles::SessionFiles("},
      {[&] { Agent::parse(dir / "spec"); }, "agent_spec.cpp", "parseLine("},
      {[] { AgentsFactory().getAgent("missing"); }, "agent_spec.cpp", "AgentsFactory::getAgent("},
      {[] { getFreeSpace("/mnt/missing"); }, "commons.cpp", "getFreeSpace("},
      {[] { DTM_getTempFileName("/mnt/missing", ""); }, "commons.cpp", "DTM_getTempFileName("},
      {[] { ExecCmd("false", {"false"}).exec(); }, "ExecCmd.cpp", "ExecCmd::reportError("},
      {[] { tXmlDocument{std::string("<")}; }, "xml_wrap.cpp", "tXmlDocument::tXmlDocument("},
      {[] { tXmlDocument("/mnt/missing"); }, "xml_wrap.cpp", "tXmlDocument::readFromFile("},
      {[] { tXmlDocument(""); }, "xml_wrap.cpp", "tXmlDocument::readFromFile("},
      {[] { getXmlChild(XmlNodeRef(), ""); }, "xml_parse.cpp", "getXmlChild("},
  };
  for (const Example& example : examples) {
    SCOPED_TRACE(example.function);
    const std::string text = textOf(example.raise);
    EXPECT_THAT(text,
                testing::ContainsRegex(std::string(" \\[") + example.file + ":[1-9][0-9]*\\]\n"));
    EXPECT_THAT(text.substr(text.rfind('\n')), testing::HasSubstr(example.function));
    EXPECT_THAT(text, testing::Not(testing::HasSubstr("/commons/")));
  }
}
