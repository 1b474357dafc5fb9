#include "sondrel/options.h"

#include <getopt.h>

#include "support.h"

namespace {

/// The configuration of a command line. getopt keeps its position in a global variable, which is
/// reset here.
config parse(std::vector<std::string> arguments, bool* complete = nullptr) {
  arguments.insert(arguments.begin(), "sondrel");
  std::vector<char*> argv;
  for (std::string& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);
  optind = 0;
  config parsed;
  const bool result = parse_options(static_cast<int>(arguments.size()), argv.data(), &parsed);
  if (complete) *complete = result;
  return parsed;
}

/// Every field except the action, in order.
std::string describe(const config& c) {
  std::ostringstream out;
  out << c.resellers << '|' << c.clients << '|' << c.domains << '|' << c.no_content << '|'
      << c.compression << '|' << c.host << '|' << c.port << '|' << c.login << '|' << c.agent_dir
      << '|' << c.agent_name << '|' << c.dumps_dir << '|' << c.session_path << '|'
      << c.selected_objects_file << '|' << c.no_check_space << '|' << c.no_encryption << '|'
      << c.sudo << '|' << c.verbose << '|' << c.only_mode << '|' << c.content_transport << '|'
      << c.server << '|' << c.admin_info << '|' << c.no_license;
  return out.str();
}

/// A configuration that passes every rule of an action that connects.
config valid(int action) {
  config c;
  c.action = action;
  c.host = "h";
  c.login = "l";
  c.password = Secret("p");
  if (action != SEND_SCOUT) {
    c.agent_dir = "d";
    c.agent_name = "a";
  }
  return c;
}

std::string complaint(const config& c) {
  return whatOf<Exc<&OptParsingError>>([&] { verify_options(&c); });
}

struct Row {
  std::vector<std::string> arguments;
  const char* fields;
};

}  // namespace

TEST(OptionsTest, StartWithNothingGiven) {
  EXPECT_EQ(parse({}).action, NO_ACTION);
  EXPECT_EQ(describe(parse({})), "|||0|0||0|||||||0|0|0|0|0||0|0|0");
}

TEST(OptionsTest, EachSetsItsOwnField) {
  const Row rows[] = {{{"--resellers=r"}, "r|||0|0||0|||||||0|0|0|0|0||0|0|0"},
                      {{"--clients=c"}, "|c||0|0||0|||||||0|0|0|0|0||0|0|0"},
                      {{"--domains", "d"}, "||d|0|0||0|||||||0|0|0|0|0||0|0|0"},
                      {{"--no-content"}, "|||1|0||0|||||||0|0|0|0|0||0|0|0"},
                      {{"--no-compress"}, "|||0|2||0|||||||0|0|0|0|0||0|0|0"},
                      {{"--host=h"}, "|||0|0|h|0|||||||0|0|0|0|0||0|0|0"},
                      {{"--ip=h"}, "|||0|0|h|0|||||||0|0|0|0|0||0|0|0"},
                      {{"--port=2222"}, "|||0|0||2222|||||||0|0|0|0|0||0|0|0"},
                      {{"--login=l"}, "|||0|0||0|l||||||0|0|0|0|0||0|0|0"},
                      {{"--agent-dir=d"}, "|||0|0||0||d|||||0|0|0|0|0||0|0|0"},
                      {{"--agent-name=n"}, "|||0|0||0|||n||||0|0|0|0|0||0|0|0"},
                      {{"--dumps-dir=d"}, "|||0|0||0||||d|||0|0|0|0|0||0|0|0"},
                      {{"--session-path=s"}, "|||0|0||0|||||s||0|0|0|0|0||0|0|0"},
                      {{"--selected-objects-file=f"}, "|||0|0||0||||||f|0|0|0|0|0||0|0|0"},
                      {{"--no-check-space"}, "|||0|0||0|||||||1|0|0|0|0||0|0|0"},
                      {{"--no-encryption"}, "|||0|0||0|||||||0|1|0|0|0||0|0|0"},
                      {{"--sudo-password"}, "|||0|0||0|||||||0|0|1|0|0||0|0|0"},
                      {{"--verbose"}, "|||0|0||0|||||||0|0|0|1|0||0|0|0"},
                      {{"--only-mail"}, "|||0|0||0|||||||0|0|0|0|1||0|0|0"},
                      {{"--only-hosting"}, "|||0|0||0|||||||0|0|0|0|2||0|0|0"},
                      {{"--only-hosting", "--only-mail"}, "|||0|0||0|||||||0|0|0|0|1||0|0|0"},
                      {{"--content-transport=t"}, "|||0|0||0|||||||0|0|0|0|0|t|0|0|0"},
                      {{"--server"}, "|||0|0||0|||||||0|0|0|0|0||1|0|0"},
                      {{"--admin-info"}, "|||0|0||0|||||||0|0|0|0|0||0|1|0"},
                      {{"--no-license"}, "|||0|0||0|||||||0|0|0|0|0||0|0|1"},
                      {{"--login=first", "--login=last"}, "|||0|0||0|last||||||0|0|0|0|0||0|0|0"},
                      {{"word", "--log=l", "another"}, "|||0|0||0|l||||||0|0|0|0|0||0|0|0"}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.arguments.front());
    EXPECT_EQ(describe(parse(row.arguments)), row.fields);
    EXPECT_EQ(parse(row.arguments).action, NO_ACTION);
  }
}

TEST(OptionsTest, ActionsHaveTheirIdsAndMoreThanOneIsAMark) {
  const char* const actions[] = {
      "--send-scout",  "--deploy-agent", "--get-dumping-status",    "--dump-selected", "--dump-all",
      "--get-content", "--remove-agent", "--remove-dumping-status", "--help"};
  for (int id = 0; id <= HELP; ++id) {
    SCOPED_TRACE(actions[id]);
    EXPECT_EQ(parse({actions[id]}).action, id);
    EXPECT_EQ(parse({actions[id], "--dump-all"}).action, MORE_THAN_ONE_ACTION);
    EXPECT_EQ(parse({actions[id], "--dump-all", "-h"}).action, MORE_THAN_ONE_ACTION);
  }
  EXPECT_EQ(parse({"-h"}).action, HELP);
  EXPECT_EQ(parse({"-h", "-h"}).action, MORE_THAN_ONE_ACTION);
}

TEST(OptionsTest, OnlyIdsFromZeroToEightAreActions) {
  for (int id = 0; id <= HELP; ++id) EXPECT_TRUE(isAction(id)) << id;
  for (const int id : {-2, -1, 9, 17, 32}) EXPECT_FALSE(isAction(id)) << id;
}

TEST(OptionsTest, PortIsReadAsANumberWithWhateverBehind) {
  const std::pair<const char*, int> ports[] = {{"1", 1},
                                               {"65535", 65535},
                                               {"22abc", 22},
                                               {" 22", 22},
                                               {"0022", 22},
                                               {"+22", 22},
                                               {"0", -1},
                                               {"abc", -1},
                                               {"", -1},
                                               {"-5", -1},
                                               {"65536", -1},
                                               {"0x16", -1},
                                               {"99999999999999999999", -1}};
  for (const auto& [text, port] : ports) {
    EXPECT_EQ(parse({std::string("--port=") + text}).port, port) << text;
  }
}

TEST(OptionsTest, ParserComplainsItselfOfWhatItDoesNotKnow) {
  for (const char* argument : {"--nonsense", "--login", "--no-c", "-x"}) {
    SCOPED_TRACE(argument);
    bool complete = true;
    const CapturedStream errors(STDERR_FILENO);
    parse({argument}, &complete);
    EXPECT_FALSE(complete);
    EXPECT_THAT(errors.text(), testing::StartsWith("sondrel: "));
  }
}

TEST(OptionsTest, SudoPasswordMayBeEmptyAndLeavesTheEnvironment) {
  IN_FRESH_PROCESS("QRV_PASSWORD=login's", "QRV_SUDO_PASSWORD=");
  EXPECT_TRUE(is_sudo_password_provided());
  const config given = parse({"--sudo-password"});
  EXPECT_TRUE(given.sudo && given.sudo_password_provided);
  EXPECT_EQ(given.sudo_password.reveal(), "");
  EXPECT_EQ(given.password.reveal(), "login's");
  EXPECT_EQ(getenv("QRV_PASSWORD"), nullptr);
  EXPECT_FALSE(is_sudo_password_provided());
  const config again = parse({"--sudo-password"});
  EXPECT_TRUE(again.sudo);
  EXPECT_FALSE(again.sudo_password_provided);
}

TEST(OptionsTest, PasswordsLeaveTheEnvironmentAlsoWhenAnArgumentIsWrong) {
  IN_FRESH_PROCESS("QRV_PASSWORD=login's", "QRV_SUDO_PASSWORD=root's", "QRV_KEY_PASSWORD=key's");
  const CapturedStream errors(STDERR_FILENO);
  bool complete = true;
  parse({"--no-such-option"}, &complete);
  EXPECT_FALSE(complete);
  for (const char* const name : {"QRV_PASSWORD", "QRV_SUDO_PASSWORD", "QRV_KEY_PASSWORD"}) {
    EXPECT_EQ(getenv(name), nullptr) << name;
  }
}

TEST(OptionsTest, SudoPasswordIsTakenOnlyWhenAskedForAndWipedInAnyCase) {
  IN_FRESH_PROCESS("QRV_SUDO_PASSWORD=root's");
  EXPECT_EQ(get_sudo_password(), "root's");
  const config parsed = parse({});
  EXPECT_FALSE(parsed.sudo || parsed.sudo_password_provided);
  EXPECT_EQ(parsed.sudo_password.reveal(), "");
  EXPECT_EQ(get_sudo_password(), "");
}

TEST(VerifyOptionsTest, AcceptsEveryActionThatHasWhatItNeeds) {
  for (int action = SEND_SCOUT; action <= REMOVE_AGENT; ++action) {
    EXPECT_EQ(complaint(valid(action)), "no exception") << action;
  }
  config removal;
  removal.action = REMOVE_DUMPING_STATUS;
  EXPECT_EQ(complaint(removal), "no exception");
  config help;
  help.action = HELP;
  EXPECT_EQ(complaint(help), "no exception");
}

TEST(VerifyOptionsTest, NamesTheFirstBrokenRule) {
  using Change = void (*)(config&);
  const struct {
    int action;
    Change change;
    const char* text;
  } rules[] = {{NO_ACTION, [](config&) {}, "No action given"},
               {MORE_THAN_ONE_ACTION, [](config&) {}, "More than one action is given"},
               {DUMP_ALL, [](config& c) { c.no_check_space = c.no_encryption = true; },
                "'--no-check-space' only may be specified when '--get-content' is requested"},
               {DUMP_ALL, [](config& c) { c.no_encryption = true; },
                "'--no-encryption' only may be specified when '--get-content' is requested"},
               {GET_CONTENT, [](config& c) { c.no_content = c.no_encryption = true; },
                "'--no-content' only may be specified when 'dump-*' is requested"},
               {SEND_SCOUT, [](config& c) { c.host.clear(), c.port = -1; },
                "host is required unless --help or -h requested\n"},
               {SEND_SCOUT, [](config& c) { c.port = -1, c.login.clear(); },
                "port should be a number in [1, 65535] range"},
               {SEND_SCOUT, [](config& c) { c.login.clear(), c.password.wipe(); },
                "login is required unless --help or -h requested\n"},
               {SEND_SCOUT, [](config& c) { c.password.wipe(), c.sudo = true; },
                "password is required unless --help or -h requested\n"},
               {SEND_SCOUT, [](config& c) { c.sudo = true, c.agent_dir = "d"; },
                "QRV_SUDO_PASSWORD environment variable is not provided with --sudo-password\n"},
               {SEND_SCOUT, [](config& c) { c.agent_dir = c.agent_name = "x"; },
                "agent directory is not allowed with --help or -h\n"},
               {SEND_SCOUT, [](config& c) { c.agent_name = "x"; },
                "agent name is not allowed with --help or -h\n"},
               {REMOVE_AGENT, [](config& c) { c.agent_dir.clear(), c.agent_name.clear(); },
                "agent directory is required unless --help or -h requested\n"},
               {REMOVE_AGENT, [](config& c) { c.agent_name.clear(); },
                "agent name is required unless --help or -h requested\n"}};
  for (const auto& rule : rules) {
    config c = valid(rule.action);
    rule.change(c);
    std::string text = rule.text;
    // The message format has the two dashes of a quoted option; its argument must not repeat them.
    if (rule.action == GET_CONTENT) {
      text = "'--no-content' only may be specified when '--dump-*' is requested";
    }
    EXPECT_EQ(complaint(c), "Unable to parse command line: " + text);
  }
}

TEST(VerifyOptionsTest, AllowsNoConnectionSettingsWhereNobodyIsConnectedTo) {
  using Change = void (*)(config&);
  const std::pair<Change, const char*> rules[] = {
      {[](config& c) { c.host = "h", c.port = 1; }, "host"},
      {[](config& c) { c.port = -1, c.login = "l"; }, "port"},
      {[](config& c) { c.login = "l", c.password = Secret("p"); }, "login"},
      {[](config& c) { c.password = Secret("p"), c.agent_dir = "d"; }, "password"},
      {[](config& c) { c.agent_dir = "d", c.agent_name = "n"; }, "agent directory"},
      {[](config& c) { c.agent_name = "n", c.sudo = true; }, "agent name"},
      {[](config& c) { c.sudo = true; }, "sudo parameters"}};
  for (const int action : {REMOVE_DUMPING_STATUS, HELP}) {
    for (const auto& [change, what] : rules) {
      config c;
      c.action = action;
      change(c);
      EXPECT_EQ(complaint(c), std::string("Unable to parse command line: ") + what +
                                  " is not allowed with --help or -h\n");
    }
  }
}

TEST(OptionErrorTest, IsRaisedInTheFrontEndsFileByTheFunctionItself) {
  try {
    no_action_option("agent-dir", "dump-all");
  } catch (const Exc<&OptParsingError>& e) {
    EXPECT_STREQ(e.what(),
                 "Unable to parse command line: "
                 "'--agent-dir' is required when '--dump-all' action is requested");
    const std::string text = formatPlainTextMessage(e);
    EXPECT_THAT(text, testing::StartsWith("OptParsingError["));
    EXPECT_THAT(text, testing::HasSubstr(" [./sondrel.cpp:"));
    EXPECT_THAT(
        text, testing::EndsWith("\nvoid no_action_option(const std::string&, const std::string&)"));
  }
}
