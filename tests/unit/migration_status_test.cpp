#include <unistd.h>

#include "commons/commons.h"
#include "commons/formats.h"
#include "commons/session.h"
#include "support.h"

namespace {

using Status = MigrationStatus;

class MigrationStatusTest : public testing::Test {
 protected:
  /// The saved document must have this content after its "pid".
  void expectSaved(const std::string& content, const std::string& rootAttributes = "") {
    status_->saveFile();
    EXPECT_EQ(readFile(dir_ / "session/migration.status"),
              savedXml("<migration-status" + rootAttributes + "><pid>" + std::to_string(getpid()) +
                       "</pid>" + content + "</migration-status>"));
  }

  ScopedTempDir dir_;
  SessionLifetimeController session_{dir_ / "session"};
  std::unique_ptr<Status> status_{createMigrationStatusFile()};
};

std::string transfer(const std::string& files) {
  return "<transfer><host>host</host>" + files + "</transfer>";
}

}  // namespace

TEST_F(MigrationStatusTest, IsIdleAtFirst) {
  expectSaved("<idle/>");
  status_->setTranslate();
  status_->setIdle();
  expectSaved("<idle/>");
}

TEST_F(MigrationStatusTest, ShowsTheOperationOfTheAgent) {
  status_->setAgentParams("host");
  expectSaved("<idle/>");
  status_->setAgentOperation(Status::DEPLOY_AGENT);
  expectSaved("<agent action=\"deploy\"><host>host</host></agent>");
  status_->setAgentOperation(Status::WAIT_FOR_AGENT);
  expectSaved("<agent action=\"wait\"><host>host</host></agent>");
}

TEST_F(MigrationStatusTest, HasAHostAlsoWhenNoneIsKnown) {
  status_->setTransferDump();
  expectSaved("<transfer><host></host><dumpfile/></transfer>");
}

TEST_F(MigrationStatusTest, ShowsTheTransferOfTheDump) {
  status_->setAgentParams("host");
  status_->setTransferDump();
  expectSaved(transfer("<dumpfile/>"));
  status_->setTransferSpeed("1024");
  expectSaved("<transfer speed=\"1024\"><host>host</host><dumpfile/></transfer>");
}

TEST_F(MigrationStatusTest, ShowsTheTransferOfFiles) {
  status_->setAgentParams("host");
  status_->setTransferTotals("3", "100");
  expectSaved(transfer("<files total=\"3\" left=\"3\" size-total=\"100\" size-left=\"100\"/>"));
  status_->setTransferFilesLeft("2");
  expectSaved(transfer("<files total=\"3\" left=\"2\" size-total=\"100\" size-left=\"100\"/>"));
  status_->setTransferSizeLeft("60");
  expectSaved(transfer("<files total=\"3\" left=\"2\" size-total=\"100\" size-left=\"60\"/>"));
  status_->setCurrentFile("a b", "40");
  expectSaved(
      transfer("<files total=\"3\" left=\"2\" size-total=\"100\" size-left=\"60\">"
               "<current-file size=\"40\" size-left=\"40\">a b</current-file></files>"));
  status_->setTransferCurrentFileSizeLeft("15");
  status_->setTransferSpeed("7");
  expectSaved(
      "<transfer speed=\"7\"><host>host</host>"
      "<files total=\"3\" left=\"2\" size-total=\"100\" size-left=\"60\">"
      "<current-file size=\"40\" size-left=\"15\">a b</current-file></files></transfer>");
}

TEST_F(MigrationStatusTest, ShowsWhatIsListedWhereItWasAskedFor) {
  status_->setAgentParams("host");
  status_->setTransferTotals("3", "100");
  status_->setListedSizes("40", "30");
  expectSaved(
      transfer("<files total=\"3\" left=\"3\" size-total=\"100\" size-left=\"100\" "
               "listed-total=\"40\" listed-left=\"30\"/>"));
}

TEST_F(MigrationStatusTest, LeavesOutSizesThatAreNotBothKnown) {
  status_->setAgentParams("host");
  status_->setTransferTotals("3", "100");
  status_->setTransferSizeLeft("");
  expectSaved(transfer("<files total=\"3\" left=\"3\"/>"));
  status_->setTransferTotals("3", "");
  status_->setTransferSizeLeft("60");
  expectSaved(transfer("<files total=\"3\" left=\"3\"/>"));
  status_->setCurrentFile("name", "");
  status_->setTransferCurrentFileSizeLeft("15");
  expectSaved(transfer("<files total=\"3\" left=\"3\"><current-file>name</current-file></files>"));
}

TEST_F(MigrationStatusTest, NamesNoCurrentFileWithoutAName) {
  status_->setAgentParams("host");
  status_->setTransferTotals("", "");
  status_->setCurrentFile("", "40");
  expectSaved(transfer("<files total=\"\" left=\"\"/>"));
}

TEST_F(MigrationStatusTest, ShowsTheTranslation) {
  status_->setAgentParams("host");
  status_->setTranslate();
  expectSaved("<translate/>");
}

TEST_F(MigrationStatusTest, ShowsTheDeploymentAndItsFigures) {
  status_->setDeployTotals("5", "9");
  expectSaved("",
              " total-accounts=\"5\" total-domains=\"9\" completed-accounts=\"\""
              " completed-domains=\"\"");
  const std::string figures =
      " total-accounts=\"5\" total-domains=\"9\" completed-accounts=\"1\" completed-domains=\"2\"";
  status_->setDeploy("1", "2");
  expectSaved("", figures);
  status_->setCurrentObject("joe", Status::ACCOUNT);
  expectSaved("<current-object type=\"account\">joe</current-object>", figures);
  status_->setCurrentObject("joe.example", Status::DOMAIN_OBJECT);
  expectSaved("<current-object type=\"domain\">joe.example</current-object>", figures);
}

TEST_F(MigrationStatusTest, KeepsTheFiguresOfTheDeploymentInOtherStates) {
  status_->setDeployTotals("5", "9");
  status_->setDeploy("1", "2");
  status_->setCurrentObject("joe", Status::ACCOUNT);
  status_->saveFile();
  status_->setIdle();
  expectSaved("<idle/>",
              " total-accounts=\"5\" total-domains=\"9\" completed-accounts=\"1\""
              " completed-domains=\"2\"");
}

TEST_F(MigrationStatusTest, ChangesItsStateWithSomeOfTheSettersOnly) {
  const std::string files = "<transfer><host></host><files total=\"\" left=\"\"/></transfer>";
  struct Example {
    const char* name;
    std::function<void(Status&)> set;
    std::string content;
  };
  const Example examples[] = {
      {"setAgentParams", [](Status& s) { s.setAgentParams(""); }, "<translate/>"},
      {"setTransferSpeed", [](Status& s) { s.setTransferSpeed(""); }, "<translate/>"},
      {"setCurrentFile", [](Status& s) { s.setCurrentFile("", ""); }, "<translate/>"},
      {"setCurrentObject", [](Status& s) { s.setCurrentObject("", Status::ACCOUNT); },
       "<translate/>"},
      {"setTransferTotals", [](Status& s) { s.setTransferTotals("", ""); }, files},
      {"setTransferFilesLeft", [](Status& s) { s.setTransferFilesLeft(""); }, files},
      {"setTransferSizeLeft", [](Status& s) { s.setTransferSizeLeft(""); }, files},
      {"setTransferCurrentFileSizeLeft", [](Status& s) { s.setTransferCurrentFileSizeLeft(""); },
       files},
  };
  for (const Example& example : examples) {
    SCOPED_TRACE(example.name);
    status_.reset(createMigrationStatusFile());
    status_->setTranslate();
    example.set(*status_);
    expectSaved(example.content);
  }
}

TEST_F(MigrationStatusTest, IsDeployingAfterBothSettersOfTheDeployment) {
  const std::string figures =
      " total-accounts=\"\" total-domains=\"\" completed-accounts=\"\""
      " completed-domains=\"\"";
  status_->setDeployTotals("", "");
  expectSaved("", figures);
  status_.reset(createMigrationStatusFile());
  status_->setDeploy("", "");
  expectSaved("", figures);
}

TEST_F(MigrationStatusTest, IsPublishedBySavingOnlyAndInOneStep) {
  status_->setTranslate();
  EXPECT_FALSE(exists(dir_ / "session/migration.status"));
  status_->saveFile();
  EXPECT_EQ(ownerAndMode(dir_ / "session/migration.status"), "20000:20000 600");
  const std::string old = readFile(dir_ / "session/migration.status");
  status_->setIdle();
  EXPECT_EQ(readFile(dir_ / "session/migration.status"), old);
  status_->saveFile();
  EXPECT_THAT(entriesOf(dir_ / "session"), testing::ElementsAre("archives", "migration.status"));
}

TEST_F(MigrationStatusTest, HoldsThePidOfTheProcessThatSavesIt) {
  inChild([&] { expectSaved("<idle/>"); });
  expectSaved("<idle/>");
}

TEST_F(MigrationStatusTest, HoldsNamesOfAnyBytes) {
  status_->setAgentParams("host");
  status_->setTransferTotals("1", "1");
  status_->setCurrentFile("<a&b>\n\xFF", "1");
  expectSaved(
      transfer("<files total=\"1\" left=\"1\" size-total=\"1\" size-left=\"1\"><current-file"
               " size=\"1\" size-left=\"1\">&lt;a&amp;b&gt;\n&#xFFFD;</current-file></files>"));
}

TEST_F(MigrationStatusTest, SaysSoWhenItCannotBeSaved) {
  SessionFiles(dir_ / "session").remove();
  EXPECT_THROW(status_->saveFile(), Exc<&CantCreateTempFile>);
}
