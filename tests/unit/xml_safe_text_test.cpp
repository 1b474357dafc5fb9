#include "commons/xml_wrap.h"
#include "support.h"

namespace {

const std::string BAD = "\xEF\xBF\xBD";

/// `count` replacement characters.
std::string bad(int count) {
  std::string text;
  while (count-- > 0) text += BAD;
  return text;
}

std::string oneByte(int byte) {
  return std::string(1, static_cast<char>(byte));
}

/// Texts that XML cannot hold unchanged, and what they become.
const std::vector<std::pair<std::string, std::string>> BROKEN = {
    {"\xC3", bad(1)},  // a character that is cut off
    {"\xE2\x98", bad(2)},
    {"\xF0\x9F\x98", bad(3)},
    {"\xC3z", bad(1) + "z"},
    {"\xE2\x98z", bad(2) + "z"},
    {"\x98z", bad(1) + "z"},  // a continuation without a beginning
    {"\xC0\xAF", bad(2)},     // more bytes than the character needs
    {"\xC1\xBF", bad(2)},
    {"\xE0\x80\xAF", bad(3)},
    {"\xF0\x80\x80\xAF", bad(4)},
    {"\xED\xA0\x80", bad(3)},  // surrogates
    {"\xED\xBF\xBF", bad(3)},
    {"\xEF\xBF\xBE", bad(3)},  // U+FFFE and U+FFFF
    {"\xEF\xBF\xBF", bad(3)},
    {"\xF4\x90\x80\x80", bad(4)},      // above U+10FFFF
    {"\xF8\x88\x80\x80\x80", bad(5)},  // five bytes
    {"\xFE\xFF", bad(2)},
    {std::string("a\0b", 3), "a" + bad(1) + "b"},
    {"caf\xE9", "caf" + bad(1)},
};

const std::vector<std::string> SOUND = {"",
                                        "plain",
                                        "<&>\"'",
                                        " \t\n\r ",
                                        "\x7F",
                                        "\xC2\x80",
                                        "na\xC3\xAFve",
                                        "\xED\x9F\xBF",
                                        "\xEE\x80\x80",
                                        "\xEF\xBF\xBD",
                                        "\xF0\x90\x80\x80",
                                        "\xF4\x8F\xBF\xBF",
                                        "]]>"};

}  // namespace

TEST(XmlSafeTextTest, ReplacesEachByteThatXmlCannotHold) {
  for (int byte = 0; byte < 256; ++byte) {
    SCOPED_TRACE(byte);
    const bool sound =
        (byte >= 0x20 && byte < 0x80) || byte == '\t' || byte == '\n' || byte == '\r';
    EXPECT_EQ(toXmlSafeText(oneByte(byte)), sound ? oneByte(byte) : BAD);
  }
  for (const auto& [text, safe] : BROKEN) EXPECT_EQ(toXmlSafeText(text), safe);
  for (const std::string& text : SOUND) EXPECT_EQ(toXmlSafeText(text), text);
}

TEST(XmlSafeTextTest, IsWhatAParserReadsBackFromASavedDocument) {
  std::vector<std::string> texts = SOUND;
  for (int byte = 0; byte < 256; ++byte) texts.push_back("a" + oneByte(byte) + "z");
  for (const auto& pair : BROKEN) texts.push_back("a" + pair.first + "z");

  tXmlDtmDocument written;
  written.initNewDoc("root");
  for (const std::string& text : texts) {
    written.addAttribute(written.newTextChild(written.root(), "text", text), "a", text);
    if (!text.empty()) written.newCDataBlock(written.newChild(written.root(), "cdata"), text);
  }
  const ScopedTempDir dir;
  written.saveToFileAtomically(dir / "file");

  tXmlDtmDocument read((dir / "file").c_str());
  read.initFileDoc("root");
  const std::vector<XmlNodeRef> nodes = read.root().children();
  auto node = nodes.begin();
  for (const std::string& text : texts) {
    SCOPED_TRACE(testing::PrintToString(text));
    ASSERT_NE(node, nodes.end());
    EXPECT_EQ(read.getNodeText(*node), toXmlSafeText(text));
    EXPECT_EQ(read.getAttribute(*node, "a"), toXmlSafeText(text));
    ++node;
    if (text.empty()) continue;
    // A parser turns the line ends of a literal section into line feeds.
    if (text.find('\r') == std::string::npos) {
      EXPECT_EQ(read.getNodeText(*node), toXmlSafeText(text));
    }
    ++node;
  }
  EXPECT_EQ(node, nodes.end());
}
