#include "sondrel/dump_selection.h"

#include <libxml/parser.h>

#include <memory>

#include "support.h"

using testing::ElementsAre;

namespace {

/// Everything that a selected-objects file can select.
struct Selection {
  std::string domains;
  std::string clients;
  std::string resellers;
  int only_mode = ALL_DATA;
  int compression = DEFAULT_COMPRESSION;
  bool server = false;
  bool admin_info = false;
  bool no_license = false;

  void parse(const std::string& path) {
    parseSelectedObjectsFile(path, domains, clients, resellers, only_mode, compression, server,
                             admin_info, no_license);
  }
  void merge(const config& config) {
    getSelectedObjectsFromConfig(config, domains, clients, resellers, only_mode, compression,
                                 server, admin_info, no_license);
  }
};

Selection parsed(const std::string& root) {
  const ScopedTempDir dir;
  writeFile(dir / "selected.xml", root);
  Selection selection;
  selection.parse(dir / "selected.xml");
  return selection;
}

/// The agent's arguments, followed by its standard input in brackets.
std::vector<std::string> prepared(config& config, const std::string& root = "") {
  const ScopedTempDir dir;
  if (!root.empty()) {
    config.selected_objects_file = dir / "selected.xml";
    writeFile(config.selected_objects_file, root);
  }
  std::vector<std::string> arguments;
  std::string input;
  prepareDumpOptions(config, arguments, input);
  arguments.push_back("[" + input + "]");
  return arguments;
}

std::vector<std::string> prepared(config&& temporary, const std::string& root = "") {
  return prepared(temporary, root);
}

config withNames(const std::string& domains, const std::string& clients,
                 const std::string& resellers) {
  config config;
  config.domains = domains;
  config.clients = clients;
  config.resellers = resellers;
  return config;
}

const char* const ALWAYS = "--include-app-distrib";

}  // namespace

TEST(SelectedObjectsFileTest, NamesStandAtAnyDepthAndAreJoinedByCommas) {
  const Selection selection = parsed(
      "<x><domain><name>a.test</name></domain>"
      "<in><deep><domain><name>b.test</name></domain></deep></in>"
      "<client><name>c</name><domain><name>d.test</name></domain></client>"
      "<reseller><name>r</name></reseller><reseller><name>s</name></reseller></x>");
  EXPECT_EQ(selection.domains, "a.test,b.test,d.test");
  EXPECT_EQ(selection.clients, "c");
  EXPECT_EQ(selection.resellers, "r,s");
}

TEST(SelectedObjectsFileTest, OnlyDirectNamesCount) {
  const Selection selection = parsed(
      "<x><name>no</name><domain><of><name>no</name></of></domain>"
      "<client name='no'/><reseller>no</reseller></x>");
  EXPECT_EQ(selection.domains + selection.clients + selection.resellers, "");
}

TEST(SelectedObjectsFileTest, EmptyNamesLeaveNoCommaBehind) {
  EXPECT_EQ(parsed("<x><domain><name/></domain><domain><name>a</name></domain>"
                   "<domain><name></name></domain><domain><name>b</name></domain></x>")
                .domains,
            "a,b");
  EXPECT_EQ(parsed("<x><domain><name/></domain></x>").domains, "");
}

TEST(SelectedObjectsFileTest, NamesStayAsTheyAre) {
  EXPECT_EQ(parsed("<x><client><name> a b,c&amp;&lt; </name></client></x>").clients, " a b,c&< ");
}

TEST(SelectedObjectsFileTest, ElementsSetTheFlagsAtAnyDepth) {
  const Selection nothing = parsed("<x><license/><admin/></x>");
  EXPECT_FALSE(nothing.server || nothing.no_license || nothing.admin_info);
  const Selection server = parsed("<x><deep><server/></deep></x>");
  EXPECT_TRUE(server.server && !server.no_license && !server.admin_info);
  const Selection license = parsed("<server><license/></server>");
  EXPECT_TRUE(license.server && license.no_license && !license.admin_info);
  const Selection adminInfo = parsed("<x><admin-info/></x>");
  EXPECT_TRUE(!adminInfo.server && !adminInfo.no_license && adminInfo.admin_info);
}

TEST(SelectedObjectsFileTest, FilterHasTwoValuesThatCount) {
  const auto mode = [](const std::string& value) {
    return parsed("<x><parameters filter='" + value + "'/></x>").only_mode;
  };
  EXPECT_EQ(mode("only-mail"), ONLY_MAIL);
  EXPECT_EQ(mode("only-phosting"), ONLY_HOSTING);
  for (const char* other : {"only-hosting", "", "Only-mail", " only-mail", "all"}) {
    EXPECT_EQ(mode(other), ALL_DATA) << other;
  }
}

TEST(SelectedObjectsFileTest, CompressionLevelHasTwoValuesThatCount) {
  const auto level = [](const std::string& value) {
    return parsed("<x><parameters compression-level='" + value + "'/></x>").compression;
  };
  EXPECT_EQ(level("do-not-compress"), NO_COMPRESSION);
  EXPECT_EQ(level("standard"), STANDARD_COMPRESSION);
  for (const char* other : {"", "none", "STANDARD"}) EXPECT_EQ(level(other), DEFAULT_COMPRESSION);
}

TEST(SelectedObjectsFileTest, ParametersCountOnlyBelowTheRoot) {
  EXPECT_EQ(parsed("<x><deep><parameters filter='only-mail'/></deep></x>").only_mode, ALL_DATA);
  EXPECT_EQ(parsed("<parameters filter='only-mail'/>").only_mode, ALL_DATA);
}

TEST(SelectedObjectsFileTest, WhatItDoesNotSayStays) {
  Selection selection;
  selection.domains = "before";
  selection.only_mode = ONLY_MAIL;
  selection.compression = NO_COMPRESSION;
  selection.server = selection.admin_info = selection.no_license = true;
  const ScopedTempDir dir;
  writeFile(dir / "selected.xml", "<x><parameters filter='odd'/></x>");
  selection.parse(dir / "selected.xml");
  EXPECT_EQ(selection.domains, "before");
  EXPECT_EQ(selection.only_mode, ONLY_MAIL);
  EXPECT_EQ(selection.compression, NO_COMPRESSION);
  EXPECT_TRUE(selection.server && selection.admin_info && selection.no_license);
}

TEST(SelectedObjectsFromConfigTest, NamesAreAddedBehindThoseOfTheFile) {
  Selection selection;
  selection.domains = "a";
  selection.merge(withNames("b,c", "-", ""));
  EXPECT_EQ(selection.domains, "a,b,c");
  EXPECT_EQ(selection.clients, "-");
  EXPECT_EQ(selection.resellers, "");
}

TEST(SelectedObjectsFromConfigTest, ModesReplaceThoseOfTheFileOnlyWhenGiven) {
  Selection selection;
  selection.only_mode = ONLY_HOSTING;
  selection.compression = STANDARD_COMPRESSION;
  config config;
  selection.merge(config);
  EXPECT_EQ(selection.only_mode, ONLY_HOSTING);
  EXPECT_EQ(selection.compression, STANDARD_COMPRESSION);
  config.only_mode = ONLY_MAIL;
  config.compression = NO_COMPRESSION;
  selection.merge(config);
  EXPECT_EQ(selection.only_mode, ONLY_MAIL);
  EXPECT_EQ(selection.compression, NO_COMPRESSION);
}

TEST(SelectedObjectsFromConfigTest, FlagsReplaceThoseOfTheFileInAnyCase) {
  Selection selection;
  selection.server = selection.admin_info = selection.no_license = true;
  selection.merge(config());
  EXPECT_FALSE(selection.server || selection.admin_info || selection.no_license);
  config config;
  config.server = config.admin_info = config.no_license = true;
  selection.merge(config);
  EXPECT_TRUE(selection.server && selection.admin_info && selection.no_license);
}

TEST(DumpOptionsTest, NoSelectionLeavesOneArgument) {
  EXPECT_THAT(prepared(config()), ElementsAre(ALWAYS, "[]"));
}

TEST(DumpOptionsTest, ListsAreLinesOfInputInAFixedOrderWithoutALineEnd) {
  EXPECT_THAT(prepared(withNames("", "x", "")), ElementsAre("--dump-clients=-", ALWAYS, "[x]"));
  EXPECT_THAT(prepared(withNames("d", "", "r")),
              ElementsAre("--dump-domains=-", "--dump-resellers=-", ALWAYS, "[d\nr]"));
  EXPECT_THAT(prepared(withNames("d", "c,c", "r")),
              ElementsAre("--dump-domains=-", "--dump-clients=-", "--dump-resellers=-", ALWAYS,
                          "[d\nc,c\nr]"));
}

TEST(DumpOptionsTest, EveryOptionHasItsPlace) {
  config config = withNames("d", "", "");
  config.only_mode = ONLY_HOSTING;
  config.compression = NO_COMPRESSION;
  config.server = config.admin_info = config.no_license = true;
  EXPECT_THAT(prepared(config),
              ElementsAre("--dump-domains=-", "--only-hosting", "--no-compress", ALWAYS, "--server",
                          "--admin-info", "--no-license", "[d]"));
  config.only_mode = ONLY_MAIL;
  config.compression = STANDARD_COMPRESSION;
  config.server = config.no_license = false;
  EXPECT_THAT(prepared(config),
              ElementsAre("--dump-domains=-", "--only-mail", ALWAYS, "--admin-info", "[d]"));
}

TEST(DumpOptionsTest, FileAndCommandLineAreMerged) {
  EXPECT_THAT(prepared(withNames("c.test", "", ""),
                       "<x><domain><name>a.test</name></domain>"
                       "<domain><name>b.test</name></domain></x>"),
              ElementsAre("--dump-domains=-", ALWAYS, "[a.test,b.test,c.test]"));
}

TEST(DumpOptionsTest, FlagsOfTheFileHaveNoEffect) {
  EXPECT_THAT(prepared(config(), "<x><server><license/></server><admin-info/></x>"),
              ElementsAre(ALWAYS, "[]"));
}

TEST(DumpOptionsTest, ModesOfTheFileHoldUntilTheCommandLineGivesOthers) {
  const std::string file =
      "<x><parameters filter='only-phosting' compression-level='do-not-compress'/></x>";
  EXPECT_THAT(prepared(config(), file),
              ElementsAre("--only-hosting", "--no-compress", ALWAYS, "[]"));
  config config;
  config.only_mode = ONLY_MAIL;
  EXPECT_THAT(prepared(config, file), ElementsAre("--only-mail", "--no-compress", ALWAYS, "[]"));
}

TEST(DumpOptionsTest, AppendsToWhatIsThere) {
  std::vector<std::string> arguments = {"--migration-mode"};
  std::string input = "connection\n";
  prepareDumpOptions(withNames("d", "", ""), arguments, input);
  EXPECT_THAT(arguments, ElementsAre("--migration-mode", "--dump-domains=-", ALWAYS));
  EXPECT_EQ(input, "connection\nd");
}

TEST(DumpOptionsTest, UnusableFileLeavesArgumentsAndInputAlone) {
  const ScopedTempDir dir;
  writeFile(dir / "broken.xml", "<x><domain>");
  for (const std::string& path : {dir / "absent.xml", dir / "broken.xml", dir.path()}) {
    SCOPED_TRACE(path);
    config config = withNames("d", "", "");
    config.selected_objects_file = path;
    std::vector<std::string> arguments = {"--migration-mode"};
    std::string input = "connection\n";
    EXPECT_THROW(prepareDumpOptions(config, arguments, input), ExTraceable);
    EXPECT_THAT(arguments, ElementsAre("--migration-mode"));
    EXPECT_EQ(input, "connection\n");
  }
}

TEST(PeriodSeparatedListOperatorTest, PutsACommaBetweenNodesAndNoneAheadOfTheFirst) {
  const tXmlDocument document(std::string("<x><a>1</a><a/><a>2</a></x>"));
  // No comma after the old content of the list: the operator counts its own nodes only.
  std::string list = "0";
  tPeriodSeparatedListOperator append(list);
  for (const XmlNodeRef node : document.rootElement().children()) {
    append(node);
  }
  EXPECT_EQ(list, "01,2");
}
