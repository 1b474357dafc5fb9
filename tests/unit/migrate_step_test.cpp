#include "migrate/step.h"
#include "support.h"

TEST(MigrateStepTest, NamesLeadBackToTheirSteps) {
  for (const migrate::Step step : migrate::ALL_STEPS) {
    EXPECT_EQ(migrate::stepNamed(nameOf(step)), step);
  }
  EXPECT_EQ(migrate::stepNamed("Dump"), std::nullopt);
}
