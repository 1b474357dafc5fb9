#include "commons/atomic_replacement.h"
#include "commons/commons.h"
#include "commons/formats.h"
#include "commons/log.h"
#include "commons/session.h"
#include "support.h"

/// Compares examples in docs/formats with what the classes write: those of states that no action
/// ever has, but that other programs may read.

namespace {

std::string example(const std::string& name) {
  return readFile(std::string(FORMAT_EXAMPLES) + "/" + name + ".xml");
}

/// The text with `replacement` between the first `begin` and the `end` after it.
std::string withBetween(const std::string& begin, const std::string& end,
                        const std::string& replacement, const std::string& text) {
  const std::size_t start = text.find(begin) + begin.size();
  return text.substr(0, start) + replacement + text.substr(text.find(end, start));
}

std::string withoutPid(const std::string& text) {
  return withBetween("<pid>", "</pid>", "", text);
}

std::string withoutId(const std::string& text) {
  return withBetween(" id=\"", "\"", "", text);
}

class FormatsExamplesTest : public testing::Test {
 protected:
  std::string savedStatus() const {
    status_->saveFile();
    return withoutPid(readFile(dir_ / "session/migration.status"));
  }

  ScopedTempDir dir_;
  SessionLifetimeController session_{dir_ / "session"};
  std::unique_ptr<MigrationStatus> status_{createMigrationStatusFile()};
};

}  // namespace

TEST_F(FormatsExamplesTest, ShowATranslation) {
  status_->setTranslate();
  EXPECT_EQ(savedStatus(), withoutPid(example("migration-status.translate")));
}

TEST_F(FormatsExamplesTest, ShowADeployment) {
  status_->setDeployTotals("5", "9");
  status_->setDeploy("1", "2");
  status_->setCurrentObject("a.example", MigrationStatus::DOMAIN_OBJECT);
  EXPECT_EQ(savedStatus(), withoutPid(example("migration-status.deploy")));
}

TEST_F(FormatsExamplesTest, ShowAnErrorInAnObject) {
  {
    XmlLog log("");
    log.pushObject("alice", "client");
    log.pushObject("a.example", "domain");
    log.log(Exc<&CantRenameFile>(HERE) % "one" % "two" % "No space left on device");
  }
  EXPECT_EQ(withoutId(readFile(dir_ / "session/migration.result")),
            withoutId(example("execution-result.objects")));
}
