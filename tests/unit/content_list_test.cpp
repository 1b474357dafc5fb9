#include <boost/lexical_cast.hpp>
#include <limits>

#include "commons/formats.h"
#include "support.h"

namespace {

constexpr std::int64_t LARGEST = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t SMALLEST = std::numeric_limits<std::int64_t>::min();

std::unique_ptr<AgentFileList> parse(const std::string& text) {
  return std::unique_ptr<AgentFileList>(getFileList(text));
}

std::vector<std::string> entriesIn(const std::string& content) {
  std::vector<std::string> entries;
  const auto list = parse("<contentlist>" + content + "</contentlist>");
  for (const DumpFile& file : list->getFileList()) {
    entries.push_back(file.name + "|" + std::to_string(file.size) + "|" + file.md5);
  }
  return entries;
}

const std::pair<const char*, std::int64_t> NUMBERS[] = {{"0", 0},
                                                        {"+5", 5},
                                                        {"-7", -7},
                                                        {"007", 7},
                                                        {"5000000000", 5000000000},
                                                        {"9223372036854775807", LARGEST},
                                                        {"-9223372036854775808", SMALLEST}};

const char* const NO_NUMBERS[] = {"",
                                  " 12",
                                  "12 ",
                                  "0x10",
                                  "1e3",
                                  "1.5",
                                  "abc",
                                  "1 2",
                                  "-",
                                  "--1",
                                  "9223372036854775808",
                                  "-9223372036854775809"};

}  // namespace

TEST(ContentListTest, HoldsItsFilesInDocumentOrderAndItsSizes) {
  const auto list = parse(
      "<?xml version=\"1.0\"?>\n<contentlist size=\"30\" unpacked=\"4096\">\n"
      " <file size=\"10\" md5sum=\"aa\">b/first</file>\n"
      " <file size=\"20\" md5sum=\"bb\">a second</file>\n</contentlist>\n");
  EXPECT_EQ(list->getTotalSize(), 30);
  EXPECT_EQ(list->getUnpackedSize(), 4096);
  ASSERT_EQ(list->getFileList().size(), 2u);
  EXPECT_EQ(list->getFileList()[0].name, "b/first");
  EXPECT_EQ(list->getFileList()[0].size, 10);
  EXPECT_EQ(list->getFileList()[0].md5, "aa");
  EXPECT_EQ(list->getFileList()[1].name, "a second");
}

TEST(ContentListTest, SkipsWhatIsNoFileElement) {
  EXPECT_THAT(entriesIn("text<!-- <file>x</file> --><File>x</File><dir><file>nested</file></dir>"
                        "<?file x?><file size='1' md5sum='a'>name</file><![CDATA[<file/>]]>"),
              testing::ElementsAre("name|1|a"));
}

TEST(ContentListTest, TakesTheTextOfAnElementAsTheNameByteForByte) {
  EXPECT_THAT(entriesIn("<file> a\n b </file><file>&lt;&amp;&#10;&#xE4;</file>"
                        "<file><![CDATA[<&]]></file><file/>"),
              testing::ElementsAre(" a\n b |0|", "<&\n\xC3\xA4|0|", "<&|0|", "|0|"));
}

TEST(ContentListTest, HasDefaultsForMissingAttributes) {
  EXPECT_THAT(entriesIn("<file>a</file><file size='3'>b</file><file md5sum=''>c</file>"),
              testing::ElementsAre("a|0|", "b|3|", "c|0|"));
  const auto list = parse("<contentlist/>");
  EXPECT_EQ(list->getTotalSize(), 0);
  EXPECT_EQ(list->getUnpackedSize(), 0);
}

TEST(ContentListTest, KnowsWhichSizesItHasNot) {
  const auto list = parse("<contentlist><file>a</file><file size='0'>b</file></contentlist>");
  EXPECT_FALSE(list->getFileList()[0].sizeIsListed);
  EXPECT_TRUE(list->getFileList()[1].sizeIsListed);
}

TEST(ContentListTest, WithoutFilesStillHasATotal) {
  const auto list = parse("<contentlist size=\"12\" unpacked=\"34\"/>");
  EXPECT_THAT(list->getFileList(), testing::IsEmpty());
  EXPECT_EQ(list->getTotalSize(), 12);
  EXPECT_EQ(list->getUnpackedSize(), 34);
}

TEST(ContentListTest, ReadsNumbersOf64Bits) {
  for (const auto& [text, number] : NUMBERS) {
    SCOPED_TRACE(text);
    const std::string value = text;
    EXPECT_THAT(entriesIn("<file size='" + value + "'>a</file>"),
                testing::ElementsAre("a|" + std::to_string(number) + "|"));
    EXPECT_EQ(parse("<contentlist size='" + value + "'/>")->getTotalSize(), number);
    EXPECT_EQ(parse("<contentlist unpacked='" + value + "'/>")->getUnpackedSize(), number);
  }
}

TEST(ContentListTest, RefusesWhatIsNoNumber) {
  for (const char* text : NO_NUMBERS) {
    SCOPED_TRACE(text);
    const std::string value = text;
    EXPECT_THROW(entriesIn("<file size='" + value + "'>a</file>"), boost::bad_lexical_cast);
    const auto list = parse("<contentlist size='" + value + "' unpacked='" + value + "'/>");
    EXPECT_THROW(list->getTotalSize(), boost::bad_lexical_cast);
    EXPECT_THROW(list->getUnpackedSize(), boost::bad_lexical_cast);
  }
}

TEST(ContentListTest, IsRefusedWhenItIsNoContentList) {
  EXPECT_EQ(whatOf<Exc<&tError_WrongDoc>>([] { parse("<list/>"); }),
            "The document has the wrong type, root node is <list>, but <contentlist> was expected");
  EXPECT_EQ(whatOf<Exc<&AssertionFailed>>([] { parse(""); }), "Assertion failed: content.size()");
  EXPECT_THROW(parse("<contentlist>"), Exc<&tError_ParseFile>);
}
