#include "sondrel/retrieval_progress.h"

#include <limits>

#include "support.h"

namespace {

/// Notes each call as a line.
class NotedStatus : public MigrationStatus {
 public:
  void setIdle() override { note("idle"); }
  void setAgentParams(const std::string& host) override { note("host " + host); }
  void setAgentOperation(agentOperation operation) override {
    note("operation " + std::to_string(operation));
  }
  void setTransferSpeed(const std::string& speed) override { note("speed " + speed); }
  void setTransferDump() override { note("dump"); }
  void setTransferTotals(const std::string& files, const std::string& size) override {
    note("totals " + files + " " + size);
  }
  void setTransferFilesLeft(const std::string& files) override { note("files " + files); }
  void setTransferSizeLeft(const std::string& size) override { note("size " + size); }
  void setListedSizes(const std::string& total, const std::string& left) override {
    note("listed " + total + " " + left);
  }
  void setCurrentFile(const std::string& name, const std::string& size) override {
    note("file " + name + " " + size);
  }
  void setTransferCurrentFileSizeLeft(const std::string& size) override { note("current " + size); }
  void setDeployTotals(const std::string&, const std::string&) override { note("deploy totals"); }
  void setDeploy(const std::string&, const std::string&) override { note("deploy"); }
  void setCurrentObject(const std::string&, ObjectType) override { note("object"); }
  void setTranslate() override { note("translate"); }
  void saveFile() override { note("save"); }

  /// The calls of setters since the last call of this function.
  std::vector<std::string> takeCalls() { return std::exchange(calls_, {}); }

 private:
  void note(const std::string& call) { calls_.push_back(call); }

  std::vector<std::string> calls_;
};

}  // namespace

TEST(ProgressTest, CountsDownFilesAndBytesPastTheEndOfInt) {
  using testing::ElementsAre;
  NotedStatus status;
  FileRetrievalProgressUpdater progress(status, 6000000000, 2);
  EXPECT_THAT(status.takeCalls(), ElementsAre("totals 2 6000000000"));
  progress.startFile({"big", 5000000000, ""});
  EXPECT_THAT(status.takeCalls(), ElementsAre("file big 5000000000", "save"));
  // In its first second there is no rate yet; on a slow machine that second may be over.
  progress(65536);
  EXPECT_THAT(status.takeCalls(), ElementsAre(testing::AnyOf("speed 0", "speed 65536"),
                                              "size 5999934464", "current 4999934464", "save"));
  progress.finishFile();
  EXPECT_THAT(status.takeCalls(), ElementsAre("files 1", "save"));
  progress.startFile({"next", 0, ""});
  EXPECT_THAT(status.takeCalls(), ElementsAre("file next 0", "save"));
  progress(1);
  const std::vector<std::string> calls = status.takeCalls();
  EXPECT_EQ(calls[1], "size 5999934463");
  // For a file that is larger than announced the number becomes negative.
  EXPECT_EQ(calls[2], "current -1");
}

TEST(ProgressTest, TellsWhatIsListedWhereItWasAskedFor) {
  using testing::Contains;
  NotedStatus status;
  ContentProgress listed({{"a", 100, ""}, {"b", 50, ""}});
  FileRetrievalProgressUpdater progress(status, 6000, 2, &listed, true);
  progress.startFile({"a", 100, ""});
  EXPECT_THAT(status.takeCalls(), Contains("listed 150 150"));
  progress(30);
  EXPECT_THAT(status.takeCalls(), Contains("listed 150 120"));
  progress.finishFile();
  EXPECT_THAT(status.takeCalls(), Contains("listed 150 50"));
  // This file is here already.
  progress.startFile({"b", 50, ""});
  progress.finishFile();
  EXPECT_THAT(status.takeCalls(), Contains("listed 150 0"));

  ContentProgress withoutSizes({{"a", 0, "", false}});
  FileRetrievalProgressUpdater unknown(status, 6000, 1, &withoutSizes, true);
  unknown.startFile({"a", 0, "", false});
  EXPECT_THAT(status.takeCalls(), testing::Each(testing::Not(testing::StartsWith("listed"))));
}

TEST(ProgressTest, StopsAtTheLeastNumberThereIs) {
  const std::int64_t least = std::numeric_limits<std::int64_t>::min();
  NotedStatus status;
  FileRetrievalProgressUpdater progress(status, least + 1, 1);
  progress.startFile({"file", least, ""});
  progress(1);
  progress(65536);
  EXPECT_THAT(status.takeCalls(),
              testing::IsSupersetOf({"size -9223372036854775808", "current -9223372036854775808"}));
}

TEST(ProgressTest, RateIsWholeBytesPerWholeSecond) {
  NotedStatus status;
  FileRetrievalProgressUpdater progress(status, 10, 1);
  std::int64_t received = 0;
  const std::time_t started = std::time(nullptr);
  ASSERT_TRUE(eventually([&] {
    const std::time_t before = std::time(nullptr);
    progress(3);
    received += 3;
    const std::string speed = status.takeCalls().front();
    // If a second ends between the two readings of the clock, two values are possible: try again.
    const std::time_t now = std::time(nullptr);
    if (before != now || now == started) return false;
    EXPECT_THAT(speed,
                testing::AnyOf("speed " + std::to_string(received / (now - started)), "speed 0"));
    return speed != "speed 0";
  }));
}
