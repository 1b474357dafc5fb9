#include "hostlib/qrv_conf.h"

#include <sys/stat.h>
#include <unistd.h>

#include "support.h"

namespace {

const std::string CONFIGURATION_FILE = "/etc/qrv/qrv.conf";

/// The configuration file, with this text while the object lives. Values that were read from it
/// stay in the process, so tests use it in a fresh process.
class ScopedQrvConf : public ScopedFile {
 public:
  explicit ScopedQrvConf(const std::string& text) : ScopedFile(CONFIGURATION_FILE, text) {}
};

std::string get(const char* name) {
  const char* value = qrvConfGet(name);
  return value ? value : "(null)";
}

std::string getByIndex(int index) {
  const char* value = qrvConfGetByIndex(index);
  return value ? value : "(null)";
}

std::string getDefaultByIndex(int index) {
  const char* value = qrvConfGetDefaultByIndex(index);
  return value ? value : "(null)";
}

const std::map<int, std::string> DEFAULTS = {{1, "/var/qmail/mailnames"},
                                             {12, "/var/lib/mailman"},
                                             {13, "/usr/lib/mailman"},
                                             {15, "/usr/lib/postgresql/9.1/bin"},
                                             {16, "/usr/bin"},
                                             {27, "/var/www/vhosts"},
                                             {28, "/opt/qrv"}};

const std::string UNREADABLE = "unable to open configuration file /etc/qrv/qrv.conf: ";

}  // namespace

TEST(QrvConfTest, ReadsKeysAndValues) {
  IN_FRESH_PROCESS();
  const std::string longValue(100000, 'x');
  const ScopedQrvConf file(
      "ONE_BLANK value\n"
      "THREE_BLANKS   /srv/sites\n"
      "TABS\t\t/srv/tabs\n"
      "\n"
      "   \t \n"
      "# COMMENT value\n"
      "   #INDENTED value\n"
      "#\n"
      " \tINDENTED_KEY value\n"
      "INNER_BLANKS two  words # and no comment\n"
      "TRAILING_BLANKS value \t\n"
      "CARRIAGE_RETURN value\r\n"
      "NO_VALUE \n"
      "lower_Case_9 value\n"
      "_ value\n"
      "42 value\n"
      "TWICE first\n"
      "TWICE second\n"
      "LONG " +
      longValue +
      "\n"
      "NO_LINE_END value");
  SystemLog systemLog;
  const std::pair<const char*, std::string> expected[] = {
      {"ONE_BLANK", "value"},
      {"THREE_BLANKS", "/srv/sites"},
      {"TABS", "/srv/tabs"},
      {"COMMENT", "(null)"},
      {"INDENTED", "(null)"},
      {"#INDENTED", "(null)"},
      {"INDENTED_KEY", "value"},
      {"INNER_BLANKS", "two  words # and no comment"},
      {"TRAILING_BLANKS", "value \t"},
      {"CARRIAGE_RETURN", "value\r"},
      {"NO_VALUE", ""},
      {"lower_Case_9", "value"},
      {"LOWER_CASE_9", "(null)"},
      {"_", "value"},
      {"42", "value"},
      {"TWICE", "second"},
      {"LONG", longValue},
      {"NO_LINE_END", "value"},
      {"", "(null)"},
  };
  for (const auto& [name, value] : expected) {
    SCOPED_TRACE(name);
    EXPECT_EQ(get(name), value);
  }
  EXPECT_THAT(systemLog.lines(), testing::IsEmpty());
}

TEST(QrvConfTest, ReportsMalformedLinesAndSkipsThem) {
  IN_FRESH_PROCESS();
  const std::vector<std::string> malformed = {"KEY=value", "KEY-1 value",      "KEY",
                                              "- value",   "K\xC3\x84Y value", "KEY: value"};
  std::string text = "FIRST 1\n";
  for (const std::string& line : malformed) text += line + "\n";
  const ScopedQrvConf file(text + "LAST 2\n");
  SystemLog systemLog;
  EXPECT_EQ(get("FIRST"), "1");
  EXPECT_EQ(get("LAST"), "2");
  EXPECT_EQ(get("KEY"), "(null)");
  EXPECT_TRUE(qrvConfIsMalformed("KEY"));
  EXPECT_FALSE(qrvConfIsMalformed("FIRST"));
  EXPECT_FALSE(qrvConfIsMalformed("NONE"));
  const std::vector<std::string> lines = systemLog.lines();
  ASSERT_EQ(lines.size(), malformed.size());
  for (std::size_t i = 0; i < lines.size(); ++i) {
    EXPECT_THAT(lines[i], testing::HasSubstr(CONFIGURATION_FILE));
    EXPECT_THAT(lines[i], testing::EndsWith(malformed[i]));
  }
}

TEST(QrvConfTest, NamesLinesThatMeanAKeyOfItsOwnAndSetNothing) {
  IN_FRESH_PROCESS();
  const std::vector<std::string> meant = {"product_root_d /srv", "export DUMP_TMP_D=/srv",
                                          "set Content_Verify yes"};
  const std::vector<std::string> malformed = {"\"SSH_HOST_KEY_POLICY\" strict",
                                              "ssh_known_hosts_f=/srv/known"};
  std::string text;
  for (const auto& lines : {meant, malformed}) {
    for (const std::string& line : lines) text += line + "\n";
  }
  const ScopedQrvConf file(text + "MY_PRODUCT_ROOT_D x\nother content_verify_too\n");
  SystemLog systemLog;
  for (const char* key : {"PRODUCT_ROOT_D", "DUMP_TMP_D", "CONTENT_VERIFY", "SSH_HOST_KEY_POLICY",
                          "SSH_KNOWN_HOSTS_F"}) {
    EXPECT_EQ(get(key), "(null)");
    EXPECT_TRUE(qrvConfIsMalformed(key)) << key;
  }
  EXPECT_FALSE(qrvConfIsMalformed("HTTPD_VHOSTS_D"));
  const std::string notSet = "line in configuration file " + CONFIGURATION_FILE + " does not set ";
  const std::string skipped = "malformed line in configuration file " + CONFIGURATION_FILE + ": ";
  EXPECT_THAT(systemLog.lines(),
              testing::ElementsAre(notSet + "PRODUCT_ROOT_D: " + meant[0],
                                   notSet + "DUMP_TMP_D: " + meant[1],
                                   notSet + "CONTENT_VERIFY: " + meant[2], skipped + malformed[0],
                                   skipped + malformed[1]));
}

TEST(QrvConfTest, NamesValuesThatAreOutOfRange) {
  IN_FRESH_PROCESS();
  const ScopedQrvConf file(
      "PRODUCT_ROOT_D = /srv\n"
      "DUMP_TMP_D \n"
      "CONTENT_VERIFY maybe\n"
      "SSH_HOST_KEY_POLICY Strict\n"
      "SSH_KNOWN_HOSTS_F ~/known\n"
      "SSH_IDENTITY_F agents\n"
      "HTTPD_VHOSTS_D /srv/sites\n"
      "OTHER maybe\n");
  SystemLog systemLog;
  EXPECT_EQ(get("PRODUCT_ROOT_D"), "= /srv");
  const std::string begin = "value in configuration file " + CONFIGURATION_FILE + " is ";
  EXPECT_THAT(
      systemLog.lines(),
      testing::UnorderedElementsAre(
          begin + "no absolute path: PRODUCT_ROOT_D = /srv",
          begin + "no absolute path: DUMP_TMP_D ", begin + "none of yes no: CONTENT_VERIFY maybe",
          begin + "none of ignore accept-new strict: SSH_HOST_KEY_POLICY Strict",
          begin + "no absolute path: SSH_KNOWN_HOSTS_F ~/known",
          begin + "none of agent, and no absolute path: SSH_IDENTITY_F agents"));
}

TEST(QrvConfTest, FindsNothingWrongWithBlanksBehindAWord) {
  IN_FRESH_PROCESS();
  const ScopedQrvConf file(
      "CONTENT_VERIFY yes \t\r\nSSH_HOST_KEY_POLICY strict\r\nSSH_IDENTITY_F agent \n");
  SystemLog systemLog;
  EXPECT_EQ(get("CONTENT_VERIFY"), "yes \t\r");
  EXPECT_THAT(systemLog.lines(), testing::IsEmpty());
}

TEST(QrvConfTest, IsUnreadableWhenItIsThereAndCannotBeRead) {
  IN_FRESH_PROCESS();
  const ScopedQrvConf file("");
  ASSERT_EQ(unlink(CONFIGURATION_FILE.c_str()), 0);
  EXPECT_FALSE(qrvConfIsUnreadable());
  ASSERT_EQ(symlink("missing", CONFIGURATION_FILE.c_str()), 0);
  EXPECT_TRUE(qrvConfIsUnreadable());
  ASSERT_EQ(unlink(CONFIGURATION_FILE.c_str()), 0);
  ASSERT_EQ(mkdir(CONFIGURATION_FILE.c_str(), 0755), 0);
  EXPECT_TRUE(qrvConfIsUnreadable());
  ASSERT_EQ(rmdir(CONFIGURATION_FILE.c_str()), 0);
  EXPECT_FALSE(qrvConfIsUnreadable());
  writeFile(CONFIGURATION_FILE, "KEY value\n");
  EXPECT_FALSE(qrvConfIsUnreadable());
}

TEST(QrvConfTest, IsUnreadableWhenItsDirectoryLeadsNowhereOrIsClosed) {
  IN_FRESH_PROCESS();
  ASSERT_EQ(rename("/etc/qrv", "/etc/qrv.kept"), 0);
  EXPECT_FALSE(qrvConfIsUnreadable());
  ASSERT_EQ(symlink("missing", "/etc/qrv"), 0);
  EXPECT_TRUE(qrvConfIsUnreadable());
  ASSERT_EQ(unlink("/etc/qrv"), 0);
  ASSERT_EQ(rename("/etc/qrv.kept", "/etc/qrv"), 0);
  ASSERT_EQ(chmod("/etc/qrv", 0700), 0);
  inChild([] {
    becomePlainUser();
    EXPECT_TRUE(qrvConfIsUnreadable());
  });
  ASSERT_EQ(chmod("/etc/qrv", 0755), 0);
}

TEST(QrvConfTest, IsReadOnce) {
  IN_FRESH_PROCESS();
  const ScopedQrvConf file("KEY old\n");
  EXPECT_TRUE(autoprepend());
  writeFile(CONFIGURATION_FILE, "KEY new\nOTHER new\n");
  EXPECT_EQ(get("KEY"), "old");
  ASSERT_EQ(unlink(CONFIGURATION_FILE.c_str()), 0);
  EXPECT_TRUE(autoprepend());
  EXPECT_EQ(get("KEY"), "old");
  EXPECT_EQ(get("OTHER"), "(null)");
}

TEST(QrvConfTest, MissingGivesDefaultsAndIsLookedForAndReportedEachTime) {
  IN_FRESH_PROCESS();
  const ScopedQrvConf file("");
  ASSERT_EQ(unlink(CONFIGURATION_FILE.c_str()), 0);
  SystemLog systemLog;
  EXPECT_FALSE(autoprepend());
  EXPECT_EQ(get("DUMP_TMP_D"), "(null)");
  EXPECT_EQ(getByIndex(PRODUCT_ROOT_D), "(null)");
  for (const auto& [index, value] : DEFAULTS) EXPECT_EQ(getDefaultByIndex(index), value);
  EXPECT_THAT(systemLog.lines(),
              testing::AllOf(testing::SizeIs(3 + DEFAULTS.size()),
                             testing::Each(UNREADABLE + "No such file or directory")));

  writeFile(CONFIGURATION_FILE, "DUMP_TMP_D /dumps\nPRODUCT_ROOT_D /srv/qrv\n");
  EXPECT_EQ(get("DUMP_TMP_D"), "/dumps");
  EXPECT_EQ(getDefaultByIndex(PRODUCT_ROOT_D), "/srv/qrv");
  EXPECT_THAT(systemLog.lines(), testing::IsEmpty());
}

TEST(QrvConfTest, IsReportedAsUnreadableWhenADirectoryIsInItsPlace) {
  IN_FRESH_PROCESS();
  const ScopedQrvConf file("");
  ASSERT_EQ(unlink(CONFIGURATION_FILE.c_str()), 0);
  ASSERT_EQ(mkdir(CONFIGURATION_FILE.c_str(), 0755), 0);
  SystemLog systemLog;
  EXPECT_EQ(get("KEY"), "(null)");
  EXPECT_THAT(systemLog.lines(), testing::ElementsAre(UNREADABLE + "Is a directory"));
}

TEST(QrvConfTest, GivesTheDefaultOfEachSlotThatTheFileDoesNotSet) {
  IN_FRESH_PROCESS();
  const ScopedQrvConf file("HTTPD_VHOSTS_D   /srv/sites\n");
  for (int index = -2; index <= 31; ++index) {
    SCOPED_TRACE(index);
    const auto found = DEFAULTS.find(index);
    const std::string standard = found == DEFAULTS.end() ? "(null)" : found->second;
    EXPECT_EQ(getByIndex(index), index == 27 ? "/srv/sites" : "(null)");
    EXPECT_EQ(getDefaultByIndex(index), index == 27 ? "/srv/sites" : standard);
  }
}

TEST(QrvConfTest, HasASlotForEachVariable) {
  IN_FRESH_PROCESS();
  const std::map<int, std::string> names = {
      {1, "KORVO_MAILNAMES_D"}, {12, "MAILMAN_VAR_D"},  {13, "MAILMAN_ROOT_D"}, {15, "PGSQL_BIN_D"},
      {16, "MYSQL_BIN_D"},      {27, "HTTPD_VHOSTS_D"}, {28, "PRODUCT_ROOT_D"}};
  std::string text = "_MIN_POSSIBLE_QRV_CONF_VAR_NAME min\n_MAX_POSSIBLE_QRV_CONF_VAR_NAME max\n";
  for (const auto& [index, name] : names) text += name + " value " + std::to_string(index) + "\n";
  const ScopedQrvConf file(text);
  for (int index = 0; index <= 29; ++index) {
    SCOPED_TRACE(index);
    const std::string expected = names.count(index) ? "value " + std::to_string(index) : "(null)";
    EXPECT_EQ(getByIndex(index), expected);
    EXPECT_EQ(getByIndex(index), expected);
    EXPECT_EQ(getDefaultByIndex(index), expected);
  }
}
