#include "commons/xml_wrap.h"
#include "migrate/settings.h"
#include "migrate/sondrel_command.h"
#include "support.h"

using migrate::Settings;
using migrate::Step;
namespace setting = migrate::setting;

namespace {

Settings settingsOf(const std::map<std::string, std::string>& values) {
  Settings settings;
  for (const auto& [name, value] : values) settings.set(name, value);
  return settings;
}

std::string complaint(const std::function<void()>& body) {
  return whatOf<Exc<&MigrateBadSettings>>(body);
}

}  // namespace

TEST(MigrateSettingsTest, ASwitchIsOnUnlessItSaysNo) {
  EXPECT_TRUE(settingsOf({{"sudo", ""}}).isOn(setting::SUDO));
  EXPECT_TRUE(settingsOf({{"sudo", "yes"}}).isOn(setting::SUDO));
  EXPECT_FALSE(settingsOf({{"sudo", "no"}}).isOn(setting::SUDO));
  EXPECT_FALSE(Settings().isOn(setting::SUDO));
}

TEST(MigrateSettingsTest, RefusesWhatNoSettingIs) {
  EXPECT_EQ(complaint([] { Settings().set("password", "x"); }), "no such setting: password");
  EXPECT_EQ(complaint([] { Settings().set("host", ""); }), "--host needs a value");
  for (const char* const port : {"0", "65536", "22a", "-1", " 22", "000022"}) {
    EXPECT_EQ(complaint([&] { Settings().set("port", port); }),
              "--port must be a number from 1 to 65535")
        << port;
  }
}

TEST(MigrateSettingsTest, TakesEveryValueThatAPortCanHave) {
  for (const char* const port : {"1", "22", "65535"}) {
    EXPECT_EQ(settingsOf({{"port", port}}).get(setting::PORT), port);
  }
}

TEST(MigrateSettingsTest, RefusesDirectoriesThatAShellOrARemovalWouldMistake) {
  for (const char* const directory :
       {"agent", "/a b", "/a;b", "/$HOME", "/a/..", "/../a", "/{a,b}", "/a*", "/caf\xC3\xA9"}) {
    EXPECT_NE(complaint([&] { Settings().set("agent-parent", directory); }), "no exception")
        << directory;
  }
  for (const char* const directory : {"/root", "/home/a.b-c_d", "/", "/a..b", "/srv/"}) {
    EXPECT_EQ(settingsOf({{"agent-parent", directory}}).get(setting::AGENT_PARENT), directory);
  }
}

TEST(MigrateSettingsTest, AnAgentHasOneNameHoweverAShellCompletesIt) {
  EXPECT_EQ(settingsOf({{"agent-name", "sample/"}}).get(setting::AGENT_NAME), "sample");
  EXPECT_EQ(settingsOf({{"agent-name", "/"}}).get(setting::AGENT_NAME), "/");
}

TEST(MigrateSettingsTest, TakesTheValuesOfTheNewerOnes) {
  Settings settings = settingsOf({{"host", "a"}, {"login", "l"}});
  settings.overrideBy(settingsOf({{"host", "b"}, {"port", "1"}}));
  EXPECT_EQ(settings.values(),
            (std::map<std::string, std::string>{{"host", "b"}, {"login", "l"}, {"port", "1"}}));
}

TEST(MigrateSettingsTest, ReadsAFileWithCommentsBlanksAndEqualSigns) {
  const ScopedTempDir directory;
  writeFile(directory / "settings",
            "# c\n\n  host =  a=b  \r\nsudo\nlogin=jo\n  # d\nverbose = no");
  EXPECT_EQ(migrate::readSettingsFile(directory / "settings").values(),
            (std::map<std::string, std::string>{
                {"host", "a=b"}, {"sudo", "yes"}, {"login", "jo"}, {"verbose", "no"}}));
}

TEST(MigrateSettingsTest, ComplainsOfADirectoryInPlaceOfAFile) {
  const ScopedTempDir directory;
  EXPECT_EQ(complaint([&] { migrate::readSettingsFile(directory.path()); }),
            directory.path() + " cannot be read: Is a directory");
}

TEST(MigrateSettingsTest, MayChangeWhatNoFinishedStepWasShapedBy) {
  const Settings older = settingsOf({{"host", "a"}, {"port", "1"}, {"domains", "d"}});
  const Settings newer = settingsOf({{"host", "a"}, {"port", "2"}, {"domains", "e"}});
  EXPECT_FALSE(migrate::findForbiddenChange(older, newer, {}));
  EXPECT_FALSE(migrate::findForbiddenChange(older, newer, {Step::SCOUT, Step::DEPLOY}));
  const auto found = migrate::findForbiddenChange(older, newer, {Step::SCOUT, Step::DUMP});
  ASSERT_TRUE(found);
  EXPECT_STREQ(found->text, "domains");
}

TEST(MigrateSettingsTest, EveryKindHasANameOfItsOwnAndAHelp) {
  std::set<std::string> names;
  for (const migrate::SettingKind& kind : migrate::settingKinds()) {
    EXPECT_TRUE(names.insert(kind.name.text).second) << kind.name.text;
    EXPECT_STRNE(kind.help, "");
  }
}

TEST(MigrateCommandTest, QuotesNothingSinceNoShellReadsIt) {
  const Settings settings = settingsOf(
      {{"host", "h"}, {"login", "a b"}, {"domains", "$(x),'y'"}, {"agent-name", "linux"}});
  EXPECT_EQ(
      migrate::commandOf(Step::DUMP, settings, {"/s p", "/root/a"}),
      (ArgList{"sondrel", "--session-path=/s p", "--host=h", "--login=a b", "--agent-dir=/root/a",
               "--agent-name=linux", "--dump-selected", "--domains=$(x),'y'"}));
}

TEST(MigrateCommandTest, EachActionTakesTheCommandLineOfItsStep) {
  const std::map<Step, std::string> actions = {{Step::SCOUT, "--send-scout"},
                                               {Step::DEPLOY, "--deploy-agent"},
                                               {Step::DUMP, "--dump-all"},
                                               {Step::CONTENT, "--get-content"},
                                               {Step::REMOVE, "--remove-agent"}};
  const Settings settings = settingsOf({{"host", "h"}, {"login", "l"}, {"dump-all", ""}});
  for (const auto& [step, action] : actions) {
    const ArgList line = migrate::commandOf(step, settings, {"/s", "/root/a"});
    EXPECT_EQ(line.back(), action);
    EXPECT_EQ(line.size(), step == Step::SCOUT ? 5U : 7U);
  }
}
