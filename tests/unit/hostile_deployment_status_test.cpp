#include "commons/XmlAgentDeploymentStatusDocument.h"
#include "support.h"

namespace {

/// The status file's name in a document with these definitions, where `name` stands for the name;
/// the code of the error when there is none.
std::string statusFileIn(const std::string& definitions, const std::string& name) {
  const ScopedTempDir dir;
  writeFile(dir / "file", "<!DOCTYPE agentstatus " + definitions + "><agentstatus><statusfile>" +
                              name + "</statusfile></agentstatus>");
  try {
    return XmlAgentDeploymentStatusDocument(dir / "file").getAgentDeploymentStatusFileName();
  } catch (const ExTraceable& e) {
    return e.code();
  }
}

std::string codeOf(const std::string& content) {
  const ScopedTempDir dir;
  writeFile(dir / "file", content);
  try {
    XmlAgentDeploymentStatusDocument document(dir / "file");
  } catch (const ExTraceable& e) {
    return e.code();
  }
  return "";
}

std::string repeated(const std::string& text, int times) {
  std::string result;
  while (times-- > 0) result += text;
  return result;
}

}  // namespace

TEST(HostileDeploymentStatusTest, FetchesNothingThatLiesElsewhere) {
  const ScopedTempDir dir;
  writeFile(dir / "secret", "secret");
  writeFile(dir / "definitions", "<!ENTITY e 'secret'>");
  const std::string secret = "\"file://" + (dir / "secret") + "\"";
  const std::string definitions = "\"file://" + (dir / "definitions") + "\"";
  EXPECT_EQ(statusFileIn("[<!ENTITY e SYSTEM " + secret + ">]", "&e;"), "");
  for (const std::string& external :
       {"[<!ENTITY % p SYSTEM " + definitions + "> %p;]", "SYSTEM " + definitions,
        "PUBLIC \"-//Test//EN\" " + definitions}) {
    SCOPED_TRACE(external);
    EXPECT_THAT(statusFileIn(external, "&e;"), testing::AnyOf("", "tError_ParseFile"));
  }
}

TEST(HostileDeploymentStatusTest, RefusesEntitiesThatGrowWithoutMeasure) {
  const std::string large = "<!ENTITY e '" + std::string(60000, 'a') + "'>";
  EXPECT_EQ(statusFileIn("[<!ENTITY e '&f;'><!ENTITY f '&e;'>]", "&e;"), "tError_ParseFile");
  EXPECT_EQ(statusFileIn("[" + large + "]", repeated("&e;", 8000)), "tError_ParseFile");
  EXPECT_EQ(statusFileIn("[" + large + "<!ENTITY f '" + repeated("&e;", 100) + "'>]",
                         repeated("&f;", 100)),
            "tError_ParseFile");
}

TEST(HostileDeploymentStatusTest, RefusesWhatIsNoDocumentOfItsKind) {
  const std::string sound = "<agentstatus><statusfile>a</statusfile></agentstatus>";
  EXPECT_EQ(codeOf(sound), "");
  EXPECT_EQ(codeOf(std::string(1, '\0') + sound), "tError_ParseFile");
  EXPECT_EQ(codeOf("<agentstatus>\xFF</agentstatus>"), "tError_ParseFile");
  EXPECT_EQ(codeOf("<agentstatus>&#0;</agentstatus>"), "tError_ParseFile");
  EXPECT_EQ(codeOf(sound + sound), "tError_ParseFile");
  EXPECT_EQ(codeOf(repeated("<agentstatus>", 100000)), "tError_ParseFile");
  EXPECT_EQ(codeOf("<AgentStatus/>"), "tError_WrongDoc");
  EXPECT_EQ(codeOf("<agentstatus a='" + std::string(11000000, 'a') + "'/>"), "tError_ParseFile");
}
