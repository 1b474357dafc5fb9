#include "commons/secrets.h"

#include "commons/xml_wrap.h"
#include "support.h"

TEST(SecretsTest, AreMaskedByEightAsterisksWhereverTheyStand) {
  IN_FRESH_PROCESS();
  rememberSecret("p%1%.*[s");
  rememberSecret("another password");
  const std::pair<std::string, std::string> texts[] = {
      {"", ""},
      {"no secret", "no secret"},
      {"p%1%.*[s", "********"},
      {"p%1%.*[sp%1%.*[s", "****************"},
      {"sudo: 'another password'\np%1%.*[s!\n", "sudo: '********'\n********!\n"},
      {"P%1%.*[S another  password", "P%1%.*[S another  password"},
      {std::string("\0p%1%.*[s\0", 10), std::string("\0********\0", 10)},
  };
  for (const auto& [text, masked] : texts) {
    SCOPED_TRACE(text);
    EXPECT_EQ(maskSecrets(text), masked);
  }
}

TEST(SecretsTest, OfFewerThanEightCharactersAreLeftAlone) {
  IN_FRESH_PROCESS();
  rememberSecret("");
  rememberSecret("1234567");
  EXPECT_EQ(maskSecrets("1234567"), "1234567");
  rememberSecret("12345678");
  EXPECT_EQ(maskSecrets("1234567 12345678"), "1234567 ********");
}

TEST(SecretsTest, AreMaskedWholeWhenOneIsTheBeginningOfTheOther) {
  IN_FRESH_PROCESS();
  rememberSecret("password");
  rememberSecret("password and more");
  EXPECT_EQ(maskSecrets("password and more, password"), "********, ********");
}

TEST(SecretsTest, AreMaskedInWhatAParserQuotesOfARemoteText) {
  IN_FRESH_PROCESS();
  rememberSecret("open sesame");
  const std::string failure =
      whatOf<Exc<&tError_ParseFile>>([] { tXmlDocument(std::string("<open sesame")); });
  EXPECT_THAT(failure, testing::HasSubstr("<********"));
  EXPECT_THAT(failure, testing::Not(testing::HasSubstr("open sesame")));
}
