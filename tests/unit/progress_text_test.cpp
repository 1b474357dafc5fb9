#include "commons/progress_text.h"

#include <limits>

#include "commons/human_readable.h"
#include "support.h"

namespace {

TransferFigures usual() {
  TransferFigures figures;
  figures.filesTotal = 10;
  figures.filesLeft = 7;
  figures.bytesTotal = 4000000;
  figures.bytesLeft = 3000000;
  figures.bytesReceived = 1000;
  figures.rate = 500000;
  figures.file = "content/a";
  return figures;
}

std::string transferIn(const std::string& document) {
  return describeTransfer(tXmlDtmDocument(document));
}

std::string dumpIn(const std::string& document) {
  return describeDump(tXmlDtmDocument(document));
}

}  // namespace

TEST(DescribeTransferTest, TellsFilesBytesRateTimeLeftAndTheFile) {
  EXPECT_EQ(describeTransfer(usual()),
            "7 of 10 files left, 1.0 MB of 4.0 MB (25 %), 500.0 kB/s, 0:06 left, content/a");
}

TEST(DescribeTransferTest, TellsNoTimeLeftForAStall) {
  TransferFigures figures = usual();
  figures.rate = 0;
  EXPECT_EQ(describeTransfer(figures),
            "7 of 10 files left, 1.0 MB of 4.0 MB (25 %), 0 B/s, content/a");
}

TEST(DescribeTransferTest, LeavesOutWhatIsNotKnown) {
  EXPECT_EQ(describeTransfer(TransferFigures()), "");
  TransferFigures figures = usual();
  figures.rate.reset();
  figures.filesLeft.reset();
  figures.bytesLeft.reset();
  EXPECT_EQ(describeTransfer(figures), "1.0 kB, content/a");
}

TEST(DescribeTransferTest, TakesNoFiguresThatDoNotFitEachOther) {
  constexpr std::int64_t MOST = std::numeric_limits<std::int64_t>::max();
  constexpr std::int64_t LEAST = std::numeric_limits<std::int64_t>::min();
  TransferFigures figures = usual();
  for (const std::int64_t left : {std::int64_t{-1}, std::int64_t{4000001}, LEAST}) {
    figures.bytesLeft = left;
    const std::string text = describeTransfer(figures);
    EXPECT_EQ(text.find(" of 4.0 MB"), std::string::npos) << text;
  }
  figures.bytesTotal = MOST;
  figures.bytesLeft = 0;
  EXPECT_EQ(describeTransfer(figures),
            "7 of 10 files left, 9223.4 PB of 9223.4 PB (100 %), 500.0 kB/s, 0:00 left, "
            "content/a");
}

TEST(DescribeTransferTest, ReadsThemFromAMigrationStatus) {
  const std::string files =
      "<files total='10' left='7' size-total='9001000' size-left='9000000' "
      "listed-total='4000000' listed-left='3000000'>"
      "<current-file size='9' size-left='9'>content/a</current-file></files>";
  EXPECT_EQ(transferIn("<migration-status><pid>1</pid><transfer speed='500000'><host>h</host>" +
                       files + "</transfer></migration-status>"),
            describeTransfer(usual()));
  // The unpacked size does not show how much is still to be transferred.
  EXPECT_EQ(transferIn("<migration-status><transfer speed='500000'><files total='10' left='7' "
                       "size-total='9001000' size-left='9000000'/></transfer></migration-status>"),
            "7 of 10 files left, 1.0 kB, 500.0 kB/s");
  EXPECT_EQ(transferIn("<migration-status><transfer><files total='10' left='7' "
                       "size-total='9223372036854775807' size-left='-9223372036854775808'/>"
                       "</transfer></migration-status>"),
            "7 of 10 files left");
  EXPECT_EQ(transferIn("<migration-status><transfer speed='0'><files total='2' left='2'/>"
                       "</transfer></migration-status>"),
            "2 of 2 files left");
  EXPECT_EQ(transferIn("<migration-status><agent action='wait'/></migration-status>"), "");
}

TEST(DescribeDumpTest, TellsWhatTheStatusOfAgentsHaveInCommon) {
  EXPECT_EQ(dumpIn("<dumping-status version='1' stage='content' done='2' total='5' "
                   "bytes='123456' object='a.test'/>"),
            "content, 2 of 5 done, 123.5 kB read, a.test");
  EXPECT_EQ(dumpIn("<dumping-status stage='inventory' done='many' total='5' bytes='0'/>"),
            "inventory");
  EXPECT_EQ(dumpIn("<another/>"), "");
}

TEST(ReadDocumentTest, ReadsWhatIsThereAndNew) {
  const ScopedTempDir directory;
  const std::string path = directory / "status";
  EXPECT_FALSE(readDocument(path, ""));
  writeFile(path, "<a/>");
  EXPECT_TRUE(readDocument(path, ""));
  EXPECT_TRUE(readDocument(path, formatTime(std::time(nullptr) - 60)));
  EXPECT_FALSE(readDocument(path, formatTime(std::time(nullptr) + 60)));
}

TEST(ReadDocumentTest, TakesNothingThatIsNoDocumentToBeShown) {
  const ScopedTempDir directory;
  const std::string path = directory / "status";
  for (const std::string& text : {std::string("<a>"), std::string(), std::string("text"),
                                  "<a>" + std::string(1 << 20, ' ') + "</a>"}) {
    writeFile(path, text);
    EXPECT_FALSE(readDocument(path, "")) << text.size();
  }
  EXPECT_FALSE(readDocument(directory.path(), ""));
}
