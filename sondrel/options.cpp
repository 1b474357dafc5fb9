#include "sondrel/options.h"

#include <getopt.h>

#include <boost/algorithm/string/trim.hpp>
#include <cstdlib>
#include <iostream>

#include "hostlib/env_password.h"
#include "hostlib/qrv_conf.h"

namespace {

constexpr const char* SUDO_PASSWORD_VARIABLE = "QRV_SUDO_PASSWORD";
constexpr const char* KEY_PASSWORD_VARIABLE = "QRV_KEY_PASSWORD";
constexpr long LARGEST_PORT = 65535;

/// Codes of the options that are no actions; actions have their ids. 17 is not
/// assigned.
enum OptionCode {
  OPT_NO_CONTENT = 9,
  OPT_NO_COMPRESS = 10,
  OPT_HOST = 11,
  OPT_PORT = 12,
  OPT_LOGIN = 13,
  OPT_AGENT_DIR = 14,
  OPT_AGENT_NAME = 15,
  OPT_DUMPS_DIR = 16,
  OPT_NO_CHECK_SPACE = 18,
  OPT_NO_ENCRYPTION = 19,
  OPT_SUDO_PASSWORD = 20,
  OPT_SELECTED_OBJECTS_FILE = 21,
  OPT_SESSION_PATH = 22,
  OPT_VERBOSE = 23,
  OPT_RESELLERS = 24,
  OPT_CLIENTS = 25,
  OPT_DOMAINS = 26,
  OPT_ONLY_MAIL = 27,
  OPT_ONLY_HOSTING = 28,
  OPT_CONTENT_TRANSPORT = 29,
  OPT_SERVER = 30,
  OPT_ADMIN_INFO = 31,
  OPT_NO_LICENSE = 32
};

const char* const SHORT_OPTIONS = "h";

const option LONG_OPTIONS[] = {
    {"send-scout", no_argument, nullptr, SEND_SCOUT},
    {"deploy-agent", no_argument, nullptr, DEPLOY_AGENT},
    {"get-dumping-status", no_argument, nullptr, GET_DUMPING_STATUS},
    {"dump-selected", no_argument, nullptr, DUMP_SELECTED},
    {"dump-all", no_argument, nullptr, DUMP_ALL},
    {"get-content", no_argument, nullptr, GET_CONTENT},
    {"remove-agent", no_argument, nullptr, REMOVE_AGENT},
    {"remove-dumping-status", no_argument, nullptr, REMOVE_DUMPING_STATUS},
    {"help", no_argument, nullptr, HELP},
    {"no-content", no_argument, nullptr, OPT_NO_CONTENT},
    {"no-compress", no_argument, nullptr, OPT_NO_COMPRESS},
    {"ip", required_argument, nullptr, OPT_HOST},
    {"host", required_argument, nullptr, OPT_HOST},
    {"port", required_argument, nullptr, OPT_PORT},
    {"login", required_argument, nullptr, OPT_LOGIN},
    {"agent-dir", required_argument, nullptr, OPT_AGENT_DIR},
    {"agent-name", required_argument, nullptr, OPT_AGENT_NAME},
    {"dumps-dir", required_argument, nullptr, OPT_DUMPS_DIR},
    {"no-check-space", no_argument, nullptr, OPT_NO_CHECK_SPACE},
    {"no-encryption", no_argument, nullptr, OPT_NO_ENCRYPTION},
    {"sudo-password", no_argument, nullptr, OPT_SUDO_PASSWORD},
    {"resellers", required_argument, nullptr, OPT_RESELLERS},
    {"clients", required_argument, nullptr, OPT_CLIENTS},
    {"domains", required_argument, nullptr, OPT_DOMAINS},
    {"selected-objects-file", required_argument, nullptr, OPT_SELECTED_OBJECTS_FILE},
    {"session-path", required_argument, nullptr, OPT_SESSION_PATH},
    {"verbose", no_argument, nullptr, OPT_VERBOSE},
    {"only-mail", no_argument, nullptr, OPT_ONLY_MAIL},
    {"only-hosting", no_argument, nullptr, OPT_ONLY_HOSTING},
    {"content-transport", required_argument, nullptr, OPT_CONTENT_TRANSPORT},
    {"server", no_argument, nullptr, OPT_SERVER},
    {"admin-info", no_argument, nullptr, OPT_ADMIN_INFO},
    {"no-license", no_argument, nullptr, OPT_NO_LICENSE},
    {nullptr, 0, nullptr, 0}};

const char* const USAGE =
    "Usage: [QRV_PASSWORD=<password> | QRV_SUDO_PASSWORD = <sudo_password>] sondrel \n"
    "          --host=<hostname or IP address> (obsolete alias is --ip)\n"
    "          [--port=<port>] (defaults to 22)\n"
    "          --login=<username>\n"
    "          [--sudo-password]\n"
    "          --agent-dir=<dir> (relative path on the remote side)\n"
    "          ( --send-scout\n"
    "          | --deploy-agent --session-path <dir> --agent-name <agent>\n"
    "          | --get-dumping-status --session-path <dir>\n"
    "          | ( --dump-selected [--selected-objects-file=<file-path>]\n"
    "                [--resellers=-|<reseller1>[,<reseller2>...]] "
    "[--clients=-|<client1>[,<client2>...]] [--domains=-|<domain1>[,<domain2>...]]\n"
    "             | --dump-all ) \n"
    "                [--server] [--admin-info] [--no-license]\n"
    "                 --session-path <dir> --agent-name <agent>\n"
    "                [--no-content] [--no-compress]\n"
    "                [--only-mail]\n"
    "                [--only-hosting]\n"
    "          | --get-content --session-path <dir> --agent-name <agent>\n"
    "                [--no-check-space] [--no-encryption (not implemented)] "
    "[--dumps-dir=<dir-on-destination-host>]\n"
    "          | --remove-agent --session-path <dir> --agent-name <agent>\n"
    "          | --remove-dumping-status --session-path <dir>\n"
    "          | --help | -h)\n";

/// The number at the beginning of `text` if it is a port number, else BAD_PORT. Text behind the
/// number is ignored.
int parsePort(const char* text) {
  const long number = std::strtol(text, nullptr, 10);
  return number < 1 || number > LARGEST_PORT ? BAD_PORT : static_cast<int>(number);
}

void storeAction(int action, config* config) {
  config->action = config->action == NO_ACTION ? action : MORE_THAN_ONE_ACTION;
}

void storeSudoPassword(config* config) {
  config->sudo = true;
  if (!is_sudo_password_provided()) return;
  config->sudo_password_provided = true;
  config->sudo_password = Secret(get_sudo_password());
}

/// A variable that is set but empty overrides the host's configuration: the login uses no key.
std::string chosenIdentity() {
  if (const char* const value = getenv("SONDREL_IDENTITY")) return value;
  const char* const configured = qrvConfGet("SSH_IDENTITY_F");
  return configured ? boost::trim_right_copy(std::string(configured)) : "";
}

/// Takes the passwords out of the environment.
void storePasswords(config* config) {
  config->password = Secret(get_env_noncrypted_password());
  wipe_env_variable(SUDO_PASSWORD_VARIABLE);
  if (const char* const value = getenv(KEY_PASSWORD_VARIABLE)) config->key_password = Secret(value);
  wipe_env_variable(KEY_PASSWORD_VARIABLE);
}

void storeOption(int code, const char* argument, config* config) {
  switch (code) {
    case OPT_NO_CONTENT: config->no_content = true; break;
    case OPT_NO_COMPRESS: config->compression = NO_COMPRESSION; break;
    case OPT_HOST: config->host = argument; break;
    case OPT_PORT: config->port = parsePort(argument); break;
    case OPT_LOGIN: config->login = argument; break;
    case OPT_AGENT_DIR: config->agent_dir = argument; break;
    case OPT_AGENT_NAME: config->agent_name = argument; break;
    case OPT_DUMPS_DIR: config->dumps_dir = argument; break;
    case OPT_NO_CHECK_SPACE: config->no_check_space = true; break;
    case OPT_NO_ENCRYPTION: config->no_encryption = true; break;
    case OPT_SUDO_PASSWORD: storeSudoPassword(config); break;
    case OPT_SELECTED_OBJECTS_FILE: config->selected_objects_file = argument; break;
    case OPT_SESSION_PATH: config->session_path = argument; break;
    case OPT_VERBOSE: config->verbose = true; break;
    case OPT_RESELLERS: config->resellers = argument; break;
    case OPT_CLIENTS: config->clients = argument; break;
    case OPT_DOMAINS: config->domains = argument; break;
    case OPT_ONLY_MAIL: config->only_mode = ONLY_MAIL; break;
    case OPT_ONLY_HOSTING: config->only_mode = ONLY_HOSTING; break;
    case OPT_CONTENT_TRANSPORT: config->content_transport = argument; break;
    case OPT_SERVER: config->server = true; break;
    case OPT_ADMIN_INFO: config->admin_info = true; break;
    case OPT_NO_LICENSE: config->no_license = true; break;
    default: break;
  }
}

void verifyContentOptions(const config& config) {
  if (config.action != GET_CONTENT) {
    if (config.no_check_space) extra_option("no-check-space", "get-content");
    if (config.no_encryption) extra_option("no-encryption", "get-content");
  }
  const bool dumps = config.action == DUMP_SELECTED || config.action == DUMP_ALL;
  if (config.no_content && !dumps) extra_option("no-content", "dump-*");
}

/// Refuses the options of a connection for actions that need none. The password counts as one
/// although no option gives it: a caller that sets it expects a connection.
void verifyNoConnection(const config& config) {
  if (!config.host.empty()) invalid_option("host");
  if (config.port != PORT_NOT_GIVEN) invalid_option("port");
  if (!config.login.empty()) invalid_option("login");
  if (!config.password.isEmpty()) invalid_option("password");
  if (!config.agent_dir.empty()) invalid_option("agent directory");
  if (!config.agent_name.empty()) invalid_option("agent name");
  if (config.sudo) invalid_option("sudo parameters");
}

void verifyConnection(const config& config) {
  if (config.host.empty()) req_action_argument_missed("host");
  if (config.port == BAD_PORT) {
    throw Exc<&OptParsingError>(FRONT_END_HERE) % "port should be a number in [1, 65535] range";
  }
  if (config.login.empty()) req_action_argument_missed("login");
  if (config.password.isEmpty() && config.identity.empty()) req_action_argument_missed("password");
  if (config.sudo && !config.sudo_password_provided) {
    throw Exc<&OptParsingError>(FRONT_END_HERE) %
        "QRV_SUDO_PASSWORD environment variable is not provided with --sudo-password\n";
  }
}

void verifyAgent(const config& config) {
  if (config.action == SEND_SCOUT) {
    // The other actions' errors have the same wording, on purpose.
    if (!config.agent_dir.empty()) invalid_option("agent directory");
    if (!config.agent_name.empty()) invalid_option("agent name");
    return;
  }
  if (config.agent_dir.empty()) req_action_argument_missed("agent directory");
  if (config.agent_name.empty()) req_action_argument_missed("agent name");
}

/// False when getopt has complained.
bool parseArguments(int argc, char** argv, config* config) {
  int code;
  while ((code = getopt_long(argc, argv, SHORT_OPTIONS, LONG_OPTIONS, nullptr)) != -1) {
    if (code == ':' || code == '?') return false;
    if (code == 'h') code = HELP;
    if (isAction(code)) {
      storeAction(code, config);
    } else {
      storeOption(code, optarg, config);
    }
  }
  return true;
}

}  // namespace

bool isAction(int id) {
  return static_cast<unsigned int>(id) <= HELP;
}

bool parse_options(int argc, char** argv, config* config) {
  const bool isUnderstood = parseArguments(argc, argv, config);
  // Also after a wrong argument: this process may take time to end, and /proc shows its
  // environment.
  storePasswords(config);
  if (!isUnderstood) return false;
  config->identity = chosenIdentity();
  if (const char* const jump = getenv("SONDREL_JUMP")) config->jump = jump;
  return true;
}

void verify_options(const config* config) {
  if (config->action == NO_ACTION) {
    throw Exc<&OptParsingError>(FRONT_END_HERE) % "No action given";
  }
  if (config->action == MORE_THAN_ONE_ACTION) {
    throw Exc<&OptParsingError>(FRONT_END_HERE) % "More than one action is given";
  }
  verifyContentOptions(*config);
  if (config->action == REMOVE_DUMPING_STATUS || config->action == HELP) {
    verifyNoConnection(*config);
    return;
  }
  verifyConnection(*config);
  verifyAgent(*config);
}

void usage() {
  std::cout << USAGE;
}

bool is_sudo_password_provided() {
  return getenv(SUDO_PASSWORD_VARIABLE) != nullptr;
}

std::string get_sudo_password() {
  const char* value = getenv(SUDO_PASSWORD_VARIABLE);
  return value ? value : "";
}

void req_action_argument_missed(const std::string& what) {
  throw Exc<&OptParsingError>(FRONT_END_HERE) %
      (boost::format("%s is required unless --help or -h requested\n") % what).str();
}

void invalid_option(const std::string& what) {
  throw Exc<&OptParsingError>(FRONT_END_HERE) %
      (boost::format("%1% is not allowed with --help or -h\n") % what).str();
}

void extra_option(const std::string& option, const std::string& action) {
  throw Exc<&OptParsingError>(FRONT_END_HERE) %
      (boost::format("'--%1%' only may be specified when '--%2%' is requested") % option % action)
          .str();
}

void no_action_option(const std::string& option, const std::string& action) {
  throw Exc<&OptParsingError>(FRONT_END_HERE) %
      (boost::format("'--%1%' is required when '--%2%' action is requested") % option % action)
          .str();
}
