#include "commons/agent_spec.h"

#include <sys/stat.h>
#include <unistd.h>

#include <boost/filesystem.hpp>

#include "commons/files.h"
#include "support.h"

namespace {

namespace fs = boost::filesystem;

/// An agents directory of its own for each test.
class AgentSpecTest : public testing::Test {
 protected:
  AgentSpecTest() : agents_(files::agents::getDir()) { clear(); }
  ~AgentSpecTest() override { clear(); }

  void clear() {
    fs::remove_all(agents_);
    fs::create_directories(agents_);
  }
  std::string specOf(const std::string& name) const {
    return agents_ + "/" + name + "/control/spec";
  }
  /// Writes the spec file of an agent and returns its path.
  std::string writeSpec(const std::string& name, const std::string& text) const {
    fs::create_directories(agents_ + "/" + name + "/control");
    writeFile(specOf(name), text);
    return specOf(name);
  }
  std::string parseFailure(const std::string& text) const {
    const std::string spec = writeSpec("broken", text);
    return whatOf<Exc<&Agent::ParseFailed>>([&] { Agent::parse(spec); });
  }

  std::string agents_;
  AgentsFactory factory_;
  // Both classes log below the categories' common parent.
  CategoryRecorder log_{"k"};
};

std::vector<std::string> namesOf(const AgentsFactory::Agents& agents) {
  std::vector<std::string> names;
  for (const auto& entry : agents) names.push_back(entry.first);
  return names;
}

const char* const COMPLETE =
    "Description: Sample agent\n"
    "EntryPoint: sample.pl\n"
    "DocumentType: sample.dtd\n"
    "Stylesheet: sample.xsl\n"
    "Interpreter: python3\n";

}  // namespace

// --- The spec file ---

TEST_F(AgentSpecTest, HasFiveValuesInTheOrderOfTheirSlots) {
  EXPECT_THAT(
      Agent::parse(writeSpec("a", COMPLETE)),
      testing::ElementsAre("Sample agent", "sample.pl", "sample.dtd", "sample.xsl", "python3"));
  EXPECT_THAT(Agent::parse(writeSpec("a",
                                     "Interpreter: i\nStylesheet: s\nDocumentType: d\n"
                                     "EntryPoint: e\nDescription: x")),
              testing::ElementsAre("x", "e", "d", "s", "i"));
}

TEST_F(AgentSpecTest, HasEmptyValuesForWhatTheFileDoesNotName) {
  const Agent::SpecValues none;
  EXPECT_EQ(Agent::parse(writeSpec("a", "")), none);
  EXPECT_EQ(Agent::parse(writeSpec("a", "\n\n\n")), none);
  EXPECT_EQ(Agent::parse("/mnt/missing"), none);
  EXPECT_EQ(Agent::parse("/mnt"), none);
  EXPECT_EQ(Agent::parse("/dev/null"), none);
}

TEST_F(AgentSpecTest, TakesTheValueAfterTheFirstColonWithoutLeadingSpace) {
  const std::pair<const char*, const char*> lines[] = {
      {"EntryPoint:x", "x"},
      {"EntryPoint: x", "x"},
      {"EntryPoint: \t \v\f x", "x"},
      {"EntryPoint: x \t", "x \t"},
      {"EntryPoint: a b", "a b"},
      {"EntryPoint: c:/x: y", "c:/x: y"},
      {"EntryPoint::x", ":x"},
      {"EntryPoint:", ""},
      {"EntryPoint:  \t", ""},
      {"EntryPoint: x\r", "x\r"},
      {"EntryPoint: first\nEntryPoint: second", "second"},
      {"EntryPoint: first\nEntryPoint:", ""},
  };
  for (const auto& [line, value] : lines) {
    SCOPED_TRACE(line);
    EXPECT_EQ(Agent::parse(writeSpec("a", line))[1], value);
  }
}

TEST_F(AgentSpecTest, RefusesALineWithoutAColonNamingItsNumber) {
  const std::string spec = specOf("broken");
  const auto failure = [&](const std::string& number, const std::string& line) {
    return "Unable to parse spec file: " + spec + ":" + number +
           ": Expected '<token>: <value>', got '" + line + "'";
  };
  EXPECT_EQ(parseFailure("Description: x\n\nInterpreter\n"), failure("3", "Interpreter"));
  EXPECT_EQ(parseFailure(" "), failure("1", " "));
  EXPECT_EQ(parseFailure("# comment"), failure("1", "# comment"));
  EXPECT_EQ(parseFailure("Description: x\r\n\r\n"), failure("2", "\r"));
  EXPECT_EQ(parseFailure("100% %1%"), failure("1", "100% %1%"));
}

TEST_F(AgentSpecTest, RefusesAnUnknownKey) {
  for (const char* key : {"Interpreter ", " Interpreter", "interpreter", "Unknown", "",
                          "# Description", "\tEntryPoint"}) {
    SCOPED_TRACE(key);
    EXPECT_EQ(
        parseFailure(std::string(key) + ": value"),
        "Unable to parse spec file: Illegal parameter found in " + specOf("broken") + ": " + key);
  }
}

// --- The agent ---

TEST_F(AgentSpecTest, BecomesAnAgentWhichLogsItsContents) {
  const Agent agent("sample", fs::path(writeSpec("sample", COMPLETE)));
  EXPECT_EQ(agent.name(), "sample");
  EXPECT_EQ(agent.description(), "Sample agent");
  EXPECT_EQ(agent.entryPoint(), "sample.pl");
  EXPECT_EQ(agent.documentType(), "sample.dtd");
  EXPECT_EQ(agent.stylesheet(), "sample.xsl");
  EXPECT_EQ(agent.interpreter(), "python3");
  EXPECT_EQ(agent.effectiveInterpreter(), "python3");
  EXPECT_EQ(agent.documentTypePath(), agents_ + "/sample/control/sample.dtd");
  EXPECT_THAT(
      log_.lines(),
      testing::ElementsAre("INFO k.Agent: Agent sample", "INFO k.Agent: Description: Sample agent",
                           "INFO k.Agent: EntryPoint: sample.pl",
                           "INFO k.Agent: DocumentType: " + agents_ + "/sample/control/sample.dtd",
                           "INFO k.Agent: Interpreter: python3"));
}

TEST_F(AgentSpecTest, BecomesAnAgentThatRunsInPerlUnlessItSaysOtherwise) {
  const Agent agent("sample", writeSpec("sample", "\n\n"));
  EXPECT_EQ(agent.interpreter(), "");
  EXPECT_EQ(agent.effectiveInterpreter(), "perl");
  EXPECT_EQ(agent.documentTypePath(), "");
  // The constructor that takes a string logs the name without a blank.
  EXPECT_THAT(log_.lines(), testing::ElementsAre(
                                "INFO k.Agent: Agentsample",
                                "INFO k.Agent: Description: ", "INFO k.Agent: EntryPoint: ",
                                "INFO k.Agent: DocumentType: ", "INFO k.Agent: Interpreter: perl"));
}

TEST_F(AgentSpecTest, IsLoggedAsItIsAlsoWithPercentSigns) {
  const Agent agent("100%s", fs::path(writeSpec("a", "Description: %d%n%s\n")));
  EXPECT_THAT(log_.lines(),
              testing::IsSupersetOf({std::string("INFO k.Agent: Agent 100%s"),
                                     std::string("INFO k.Agent: Description: %d%n%s")}));
}

// --- The catalogue ---

TEST_F(AgentSpecTest, IsParsedByTheCatalogueUnderTheNameOfItsDirectory) {
  writeSpec("sample", "");
  EXPECT_TRUE(factory_.parseAgent("sample"));
  EXPECT_THAT(log_.lines(), testing::ElementsAre(
                                "INFO k.AgentsFactory: Parsing sample",
                                "INFO k.AgentsFactory: Parsing " + agents_ + "/sample",
                                "INFO k.Agent: Agent sample",
                                "INFO k.Agent: Description: ", "INFO k.Agent: EntryPoint: ",
                                "INFO k.Agent: DocumentType: ", "INFO k.Agent: Interpreter: perl"));
  EXPECT_TRUE(factory_.parseAgent("another name", agents_ + "/sample"));
  EXPECT_EQ(factory_.getAgent("sample")->name(), "sample");

  AgentsFactory other;
  EXPECT_TRUE(other.parseAgent("another name", agents_ + "/sample"));
  EXPECT_EQ(other.getAgent("sample")->name(), "another name");
}

TEST_F(AgentSpecTest, IsFoundByANameWithTheSlashThatAShellCompletes) {
  writeSpec("sample", "Description: text\n");
  EXPECT_EQ(factory_.getAgent("sample/")->name(), "sample");
  EXPECT_EQ(factory_.getAgent("sample//"), factory_.getAgent("sample"));
  EXPECT_EQ(whatOf<Exc<&AgentNotFound>>([&] { factory_.getAgent("other/"); }),
            "Agent other/ was not found or does not contain proper spec file");
  EXPECT_NE(whatOf<Exc<&AgentNotFound>>([&] { factory_.getAgent("/"); }), "no exception");
}

TEST_F(AgentSpecTest, IsKeptByTheCatalogueWhenItIsParsedAgain) {
  writeSpec("sample", "Description: first\n");
  EXPECT_TRUE(factory_.parseAgent("sample"));
  const auto first = factory_.getAgent("sample");
  writeSpec("sample", "Description: second\n");
  EXPECT_TRUE(factory_.parseAgent("sample"));
  EXPECT_EQ(factory_.getAgent("sample"), first);
  EXPECT_EQ(first->description(), "first");
}

TEST_F(AgentSpecTest, IsMissingWhenThereIsNoFileOrADirectoryInItsPlace) {
  fs::create_directories(agents_ + "/no-control");
  fs::create_directories(agents_ + "/no-spec/control");
  fs::create_directories(specOf("directory"));
  for (const std::string name : {"no-control", "no-spec", "directory"}) {
    SCOPED_TRACE(name);
    log_.lines();
    EXPECT_FALSE(factory_.parseAgent(name));
    EXPECT_THAT(
        log_.lines(),
        testing::ElementsAre("INFO k.AgentsFactory: Parsing " + name,
                             "INFO k.AgentsFactory: Parsing " + agents_ + "/" + name,
                             "WARN k.AgentsFactory: " + specOf(name) + " is not a regular file"));
  }
}

TEST_F(AgentSpecTest, MayBeAnyOtherKindOfFile) {
  fs::create_directories(agents_ + "/device/control");
  ASSERT_EQ(symlink("/dev/null", specOf("device").c_str()), 0);
  EXPECT_EQ(factory_.getAgent("device")->effectiveInterpreter(), "perl");
}

TEST_F(AgentSpecTest, ThatCannotBeParsedIsLoggedByTheCatalogue) {
  writeSpec("broken", "no colon");
  EXPECT_FALSE(factory_.parseAgent("broken"));
  EXPECT_THAT(log_.lines(),
              testing::ElementsAre(
                  "INFO k.AgentsFactory: Parsing broken",
                  "INFO k.AgentsFactory: Parsing " + agents_ + "/broken",
                  "WARN k.AgentsFactory: %1% is not a valid agent spec file" + specOf("broken")));
}

TEST_F(AgentSpecTest, IsNotLookedForWithoutADirectoryOfThatName) {
  writeFile(agents_ + "/file", "");
  for (const std::string name : {"missing", "file"}) {
    SCOPED_TRACE(name);
    EXPECT_FALSE(factory_.parseAgent(name));
    EXPECT_THAT(log_.lines(), testing::ElementsAre("INFO k.AgentsFactory: Parsing " + name));
  }
}

TEST_F(AgentSpecTest, IsLoadedOnceByName) {
  writeSpec("sample", "Description: first\n");
  const auto agent = factory_.getAgent("sample");
  log_.lines();
  fs::remove_all(agents_ + "/sample");
  EXPECT_EQ(factory_.getAgent("sample"), agent);
  EXPECT_THAT(log_.lines(), testing::IsEmpty());
}

TEST_F(AgentSpecTest, ThatIsNotUsableMakesAnAgentThatIsNotFoundUntilItIs) {
  writeSpec("broken", "no colon");
  for (const std::string name : {"missing", "broken", ""}) {
    SCOPED_TRACE(name);
    EXPECT_EQ(whatOf<Exc<&AgentNotFound>>([&] { factory_.getAgent(name); }),
              "Agent " + name + " was not found or does not contain proper spec file");
    // A failure is not remembered: the next call looks again.
    log_.lines();
    EXPECT_THROW(factory_.getAgent(name), Exc<&AgentNotFound>);
    EXPECT_THAT(log_.lines(), testing::Contains("INFO k.AgentsFactory: Parsing " + name));
  }
  writeSpec("broken", "Description: repaired\n");
  EXPECT_EQ(factory_.getAgent("broken")->description(), "repaired");
}

TEST_F(AgentSpecTest, IsFoundInEachDirectoryOfTheAgentsDirectory) {
  EXPECT_THAT(factory_.getAllAgents(), testing::IsEmpty());
  EXPECT_THAT(log_.lines(),
              testing::ElementsAre("INFO k.AgentsFactory: Parsing available agents info"));
  writeSpec("good", "");
  writeSpec("a b", "");
  writeSpec("broken", "no colon");
  fs::create_directories(agents_ + "/shared/lib");
  writeFile(agents_ + "/file", "");
  ASSERT_EQ(symlink("good", (agents_ + "/link").c_str()), 0);
  ASSERT_EQ(symlink("nothing", (agents_ + "/dangling").c_str()), 0);
  EXPECT_THAT(namesOf(factory_.getAllAgents()), testing::ElementsAre("a b", "good", "link"));
  const std::vector<std::string> lines = log_.lines();
  EXPECT_EQ(lines.front(), "INFO k.AgentsFactory: Parsing available agents info");
  EXPECT_THAT(lines, testing::Contains("INFO k.AgentsFactory: Parsing shared"));
  EXPECT_THAT(lines, testing::Not(testing::Contains(testing::HasSubstr("Parsing file"))));
}

TEST_F(AgentSpecTest, IsNotFoundWithoutAnAgentsDirectory) {
  fs::remove_all(agents_);
  EXPECT_THROW(factory_.getAllAgents(), fs::filesystem_error);
  EXPECT_THROW(factory_.getAgent("sample"), Exc<&AgentNotFound>);
}

TEST_F(AgentSpecTest, HasOneCatalogueInTheProcess) {
  EXPECT_EQ(&theAgentsFactory(), &theAgentsFactory());
}

TEST(AgentsDirTest, HasNamesWithAMeaning) {
  EXPECT_STREQ(AGENTS_SHARED_DIR, "shared");
  EXPECT_STREQ(AGENTS_CONTROL_DIR, "control");
}
