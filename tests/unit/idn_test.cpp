#include "commons/idn.h"

#include "support.h"

namespace {

/// The error code of `convert`; 0 when it succeeds.
int failureCode(std::string (*convert)(const std::string&), const std::string& name) {
  try {
    convert(name);
  } catch (const idn::IdnaError& e) {
    EXPECT_STREQ(e.what(), idn::idn_strerror(e.code()));
    return e.code();
  }
  return 0;
}

const std::string OVERLONG_LABEL(64, 'a');

}  // namespace

TEST(IdnTest, ConvertsInternationalNamesToAsciiAndBack) {
  const std::pair<std::string, std::string> names[] = {
      {"example.com", "example.com"},
      {"b\xC3\xBC"
       "cher.example",
       "xn--bcher-kva.example"},
      {"\xD0\xBF\xD1\x80\xD0\xB8\xD0\xBC\xD0\xB5\xD1\x80.example", "xn--e1afmkfd.example"},
      {"", ""},
  };
  for (const auto& [utf8, ascii] : names) {
    SCOPED_TRACE(ascii);
    EXPECT_EQ(idn::toAscii(utf8), ascii);
    EXPECT_EQ(idn::toUtf8(ascii), utf8);
  }
}

TEST(IdnTest, RaisesTheCodeOfTheLibraryForANameThatCannotBeConverted) {
  EXPECT_EQ(failureCode(idn::toAscii, "a..b"), 5);
  EXPECT_EQ(failureCode(idn::toAscii, OVERLONG_LABEL + ".example"), 5);
  EXPECT_EQ(failureCode(idn::toAscii, "\xFF\xFE.example"), 9);
  EXPECT_EQ(failureCode(idn::toUtf8, "\xFF\xFE.example"), 9);
}

TEST(IdnTest, AcceptsALabelOf63Bytes) {
  const std::string name = OVERLONG_LABEL.substr(1) + ".example";
  EXPECT_EQ(idn::toAscii(name), name);
}

TEST(IdnTest, ConvertsTheDomainOfAnEmailAddress) {
  EXPECT_EQ(idn::emailToAscii("m\xC3\xA4x@b\xC3\xBC"
                              "cher.example"),
            "m\xC3\xA4x@xn--bcher-kva.example");
  EXPECT_EQ(idn::emailToAscii("max"), "max");
  EXPECT_EQ(failureCode(idn::emailToAscii, "max@a..b"), 5);
}

TEST(IdnTest, HasATextForEachCode) {
  const std::pair<int, std::string> texts[] = {{0, "Success"},
                                               {1, "Stringprep error"},
                                               {2, "Punycode error"},
                                               {3, "Contains non-LDH characters"},
                                               {4, "Contains minus"},
                                               {5, "Invalid length"},
                                               {6, "ACE prefix not found"},
                                               {7, "Verify error"},
                                               {8, "ACE prefix found"},
                                               {9, "Iconv error"},
                                               {201, "Cannot allocate buffer"},
                                               {10, "Unknown error"},
                                               {200, "Unknown error"},
                                               {202, "Unknown error"},
                                               {-1, "Unknown error"}};
  for (const auto& [code, text] : texts) {
    SCOPED_TRACE(code);
    EXPECT_EQ(idn::idn_strerror(code), text);
    EXPECT_EQ(idn::IdnaError(code).what(), text);
    EXPECT_EQ(idn::IdnaError(code).code(), code);
  }
}
