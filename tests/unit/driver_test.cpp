#include "sondrel/sondrel.h"

#include <typeinfo>

#include "commons/session.h"
#include "sondrel/dumping_status.h"
#include "sondrel/remove_agent.h"
#include "sondrel/retrieve_content.h"
#include "sondrel/retrieve_dump.h"
#include "sondrel/send_agent.h"
#include "sondrel/send_scout.h"
#include "support.h"

namespace {

class DriverTest : public testing::Test {
 protected:
  std::string statusFile() const { return dir_ / "session/migration.status"; }

  config configFor(int action) const {
    config c;
    c.action = action;
    return c;
  }

 private:
  ScopedTempDir dir_;
  SessionLifetimeController session_{dir_ / "session"};
};

}  // namespace

TEST_F(DriverTest, MakesTheActionThatWasAskedFor) {
  const std::type_info* const classes[] = {
      &typeid(SendScoutAction),        &typeid(SendAgentAction),
      &typeid(GetDumpingStatusAction), &typeid(RetrieveDumpAction),
      &typeid(RetrieveDumpAction),     &typeid(RetrieveContentAction),
      &typeid(RemoveAgentAction),      &typeid(RemoveDumpingStatusAction)};
  for (int id = SEND_SCOUT; id <= REMOVE_DUMPING_STATUS; ++id) {
    SCOPED_TRACE(id);
    std::remove(statusFile().c_str());
    const config c = configFor(id);
    const std::unique_ptr<Action> action(getActionByIdInternal(c));
    EXPECT_EQ(typeid(*action), *classes[id]);
    // Removing an agent is no step of a migration to report.
    EXPECT_EQ(exists(statusFile()), id != REMOVE_AGENT);
  }
}

TEST_F(DriverTest, KnowsNoOtherAction) {
  for (const int id : {-2, -1, 8, 9}) {
    SCOPED_TRACE(id);
    try {
      const config c = configFor(id);
      getActionById(c);
      ADD_FAILURE() << "no exception";
    } catch (const Exc<&UnknownAction>& e) {
      EXPECT_STREQ(e.what(),
                   "Unknown action passed to the function. Probably bug in the options parser");
      EXPECT_THAT(formatPlainTextMessage(e), testing::HasSubstr(" [./sondrel.cpp:"));
    }
  }
}

TEST_F(DriverTest, OnlyContentHasAResultLogOfItsOwn) {
  for (int id = SEND_SCOUT; id <= HELP; ++id) {
    EXPECT_EQ(getLogName(configFor(id)), id == GET_CONTENT ? "transfer.result" : "") << id;
  }
}
