#pragma once

#include <string>

#include "commons/exceptions.h"
#include "hostlib/secret.h"

DECLARE_ERROR_TAG(OptParsingError, "Unable to parse command line: %1%");

/// The position arguments of Exc for everything that the front end raises. Callers
/// know it under this name, whichever file it is in.
#define FRONT_END_HERE __PRETTY_FUNCTION__, "./sondrel.cpp", __LINE__

/// The action of a run.
enum ActionId {
  MORE_THAN_ONE_ACTION = -2,
  NO_ACTION = -1,
  SEND_SCOUT = 0,
  DEPLOY_AGENT = 1,
  GET_DUMPING_STATUS = 2,
  DUMP_SELECTED = 3,
  DUMP_ALL = 4,
  GET_CONTENT = 5,
  REMOVE_AGENT = 6,
  REMOVE_DUMPING_STATUS = 7,
  HELP = 8
};

/// True for the ids of actions; false for the two special values.
bool isAction(int id);

enum OnlyMode { ALL_DATA = 0, ONLY_MAIL = 1, ONLY_HOSTING = 2 };
enum Compression { DEFAULT_COMPRESSION = 0, STANDARD_COMPRESSION = 1, NO_COMPRESSION = 2 };

/// Special values of `config::port`: no port was given, or the value was not a port number.
enum PortMark { PORT_NOT_GIVEN = 0, BAD_PORT = -1 };

/// The run configuration: filled once from the command line and the environment, then only read.
struct config {
  int action = NO_ACTION;
  std::string resellers;
  std::string clients;
  std::string domains;
  bool no_content = false;
  int compression = DEFAULT_COMPRESSION;
  std::string host;
  int port = PORT_NOT_GIVEN;
  std::string login;
  Secret password;
  /// A private key file, or "agent"; empty for a login by password.
  std::string identity;
  Secret key_password;
  /// The jump host, as "[login@]host[:port]"; empty for none.
  std::string jump;
  std::string agent_dir;
  std::string agent_name;
  std::string dumps_dir;
  std::string session_path;
  std::string selected_objects_file;
  bool no_check_space = false;
  bool no_encryption = false;
  bool sudo = false;
  bool sudo_password_provided = false;
  Secret sudo_password;
  bool verbose = false;
  int only_mode = ALL_DATA;
  std::string content_transport;
  bool server = false;
  bool admin_info = false;
  bool no_license = false;

  /// The path of a file of the agent's directory on the source host.
  std::string remotePathOf(const std::string& name) const { return agent_dir + "/" + name; }
};

/// Reads the command line and the passwords of the environment; takes the key to log in by from the
/// environment, else from the host's configuration. No password is left in the environment,
/// whatever the result. False when getopt has reported an error on standard error.
bool parse_options(int argc, char** argv, config* config);

/// Throws OptParsingError for the first rule of the chosen action that is broken.
void verify_options(const config* config);

/// Writes the usage text to standard output.
void usage();

/// True when QRV_SUDO_PASSWORD is in the environment; it may be empty.
bool is_sudo_password_provided();
/// The value of QRV_SUDO_PASSWORD; empty when there is none.
std::string get_sudo_password();

/// The errors of the rules; each throws OptParsingError.
[[noreturn]] void req_action_argument_missed(const std::string& what);
[[noreturn]] void invalid_option(const std::string& what);
[[noreturn]] void extra_option(const std::string& option, const std::string& action);
[[noreturn]] void no_action_option(const std::string& option, const std::string& action);
