#include "commons/XmlAgentDeploymentStatusDocument.h"
#include "support.h"

namespace {

/// The status file's name in a document with this text, or what went wrong.
std::string statusFileIn(const std::string& text) {
  const ScopedTempDir dir;
  writeFile(dir / "file", text);
  try {
    return XmlAgentDeploymentStatusDocument(dir / "file").getAgentDeploymentStatusFileName();
  } catch (const ExTraceable& e) {
    return e.code() + ": " + e.what();
  }
}

}  // namespace

TEST(AgentDeploymentStatusTest, HoldsTheNameOfTheStatusFile) {
  EXPECT_EQ(statusFileIn("<agentstatus><statusfile>a.xml</statusfile></agentstatus>"), "a.xml");
  EXPECT_EQ(
      statusFileIn("<agentstatus><x/>text<statusfile>a &amp; b</statusfile><x/></agentstatus>"),
      "a & b");
  EXPECT_EQ(statusFileIn("<agentstatus><statusfile/></agentstatus>"), "");
}

TEST(AgentDeploymentStatusTest, IsAnEmptyDocumentWhenTheAgentPrintedNothing) {
  EXPECT_EQ(statusFileIn(""),
            "tError_EmptyDoc: The document is empty. Can not find root element <agentstatus>");
}

TEST(AgentDeploymentStatusTest, IsRefusedWithAnotherRoot) {
  EXPECT_EQ(statusFileIn("<status><statusfile/></status>"),
            "tError_WrongDoc: The document has the wrong type, root node is <status>, but "
            "<agentstatus> was expected");
}

TEST(AgentDeploymentStatusTest, IsRefusedWithoutAStatusFile) {
  EXPECT_EQ(statusFileIn("<agentstatus><other/></agentstatus>"),
            "tError_WrongContent: Can not find 'statusfile' element in 'agentstatus' element.");
}

TEST(AgentDeploymentStatusTest, IsRefusedWhenItIsNoXmlOrNotThere) {
  EXPECT_THAT(statusFileIn("<agentstatus>"), testing::StartsWith("tError_ParseFile: "));
  EXPECT_THAT(statusFileIn("\n"), testing::StartsWith("tError_ParseFile: "));
  EXPECT_EQ(
      whatOf<Exc<&tError_WrongInputFile>>([] { XmlAgentDeploymentStatusDocument("/mnt/missing"); }),
      "The XML file does not exist or is not a regular file. Check the file '/mnt/missing'");
}
