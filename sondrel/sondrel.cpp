#include "sondrel/sondrel.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iostream>
#include <vector>

#include "commons/ProgramTerminatedException.h"
#include "commons/log.h"
#include "commons/secrets.h"
#include "commons/session.h"
#include "hostlib/qrv_conf.h"
#include "sondrel/dump_selection.h"
#include "sondrel/dumping_status.h"
#include "sondrel/host_policy.h"
#include "sondrel/remove_agent.h"
#include "sondrel/retrieve_content.h"
#include "sondrel/retrieve_dump.h"
#include "sondrel/send_agent.h"
#include "sondrel/send_scout.h"

namespace {

/// The exit codes of the program; callers decide by them whether to try again.
enum ExitCode {
  EXIT_DONE = 0,
  EXIT_USAGE = 1,
  EXIT_ACTION_FAILED = 2,
  EXIT_CONNECTION_REFUSED = 11,
  EXIT_CONNECTION_TIMED_OUT = 12,
  EXIT_NETWORK_UNREACHABLE = 13,
  EXIT_HOST_UNREACHABLE = 14,
  EXIT_CONNECTION_FAULT = 15,
  EXIT_HOST_NOT_FOUND = 16,
  EXIT_INVALID_CREDENTIALS = 17,
  EXIT_SSH_FAULT = 18
};

int printUsage() {
  usage();
  if (std::cout.flush()) return EXIT_DONE;
  std::cerr << "Unable to write the usage text\n";
  return EXIT_USAGE;
}

int complain(const char* text) {
  std::cerr << text;
  return EXIT_USAGE;
}

/// Reads the list of names that is given as "-" from standard input; there is at most one. An input
/// that ends at once is an empty list. Throws CantReadNames when it cannot be read to the end of
/// its line.
void readNamesFromStandardInput(config& config) {
  for (std::string* names : {&config.resellers, &config.clients, &config.domains}) {
    if (*names != "-") continue;
    errno = 0;
    std::getline(std::cin, *names);
    const int error = errno;
    // std::cin takes a read error for the end of the input, so ask stdio.
    if (std::ferror(stdin) != 0) throw Exc<&CantReadNames>(HERE) % std::strerror(error);
    return;
  }
}

int reportFailure(const ExTraceable& error, ExitCode exitCode) {
  theDebugLog->log(error);
  theLog->log(error);
  std::cerr << error.what() << std::flush;
  return exitCode;
}

/// A stop by an operator is no failure.
int reportTermination(const MigrationTerminatedException& termination) {
  theLog->setSuccess(true);
  theDebugLog->log(std::string(termination.what()));
  std::cout << termination.what() << std::flush;
  return EXIT_DONE;
}

/// The agent's arguments for a dump, and its standard input.
struct DumpRequest {
  std::vector<std::string> arguments;
  std::string input;
};

DumpRequest buildDumpRequest(const config& config) {
  DumpRequest request;
  if (config.content_transport == "rsync") {
    // The port as it was given: 0 stands for none here.
    request.input = config.host + "\n" + config.login + "\n" + config.password.reveal() + "\n" +
                    std::to_string(config.port) + "\n";
    request.arguments.push_back("--content-transport=rsync");
  }
  request.arguments.push_back("--migration-mode");
  if (isAskedFor("SONDREL_DUMP_INCREMENTS")) request.arguments.push_back("--increments");
  if (config.action == DUMP_ALL) {
    request.arguments.push_back("--dump-all");
  } else {
    prepareDumpOptions(config, request.arguments, request.input);
  }
  return request;
}

Action* newDumpAction(const config& config) {
  DumpRequest request = buildDumpRequest(config);
  return new RetrieveDumpAction(true, std::move(request.arguments), std::move(request.input));
}

int runWithLogs(config& config, StartStopLogger& record) {
  try {
    verify_options(&config);
  } catch (const Exc<&OptParsingError>& e) {
    theDebugLog->log(e);
    record.setExitCode(EXIT_USAGE);
    return EXIT_USAGE;
  }
  const int exitCode = do_actions(config);
  record.setExitCode(exitCode);
  return exitCode;
}

}  // namespace

int real_main(int argc, char** argv) {
  autoprepend();
  std::srand(static_cast<unsigned int>(std::time(nullptr)));
  config config;
  if (!parse_options(argc, argv, &config)) return EXIT_USAGE;
  rememberSecret(config.password.reveal());
  rememberSecret(config.sudo_password.reveal());
  rememberSecret(config.key_password.reveal());
  if (config.action == HELP) return printUsage();
  if (config.action == NO_ACTION) return complain("Action required. See --help\n");
  if (config.session_path.empty()) return complain("--session-path is required.\n");
  const SessionLifetimeController session(config.session_path);
  const DebugLogLifetimeController debugLog(false, config.verbose);
  StartStopLogger record("Sondrel", argc, argv);
  return runWithLogs(config, record);
}

int do_actions(config& config) {
  const LogLifetimeController log(getLogName(config));
  try {
    readNamesFromStandardInput(config);
    const std::unique_ptr<Action> action = getActionById(config);
    action->execute();
    theLog->setSuccess(true);
    return EXIT_DONE;
  } catch (const Exc<&ConnectionRefused>& e) {
    return reportFailure(e, EXIT_CONNECTION_REFUSED);
  } catch (const Exc<&ConnectionTimedOut>& e) {
    return reportFailure(e, EXIT_CONNECTION_TIMED_OUT);
  } catch (const Exc<&NetworkUnreachable>& e) {
    return reportFailure(e, EXIT_NETWORK_UNREACHABLE);
  } catch (const Exc<&HostUnreachable>& e) {
    return reportFailure(e, EXIT_HOST_UNREACHABLE);
  } catch (const Exc<&ConnectionFault>& e) {
    return reportFailure(e, EXIT_CONNECTION_FAULT);
  } catch (const Exc<&HostNotFound>& e) {
    return reportFailure(e, EXIT_HOST_NOT_FOUND);
  } catch (const Exc<&SshInvalidCredentials>& e) {
    return reportFailure(e, EXIT_INVALID_CREDENTIALS);
  } catch (const Exc<&SshIdentityRejected>& e) {
    return reportFailure(e, EXIT_INVALID_CREDENTIALS);
  } catch (const Exc<&SshConnectionFault>& e) {
    return reportFailure(e, EXIT_SSH_FAULT);
  } catch (const Exc<&SshHostKeyRejected>& e) {
    return reportFailure(e, EXIT_SSH_FAULT);
  } catch (const ExTraceable& e) {
    return reportFailure(e, EXIT_ACTION_FAILED);
  } catch (const MigrationTerminatedException& e) {
    return reportTermination(e);
  }
}

std::unique_ptr<Action> getActionById(const config& config) {
  std::unique_ptr<Action> action(getActionByIdInternal(config));
  action->setConfig(&config);
  return action;
}

Action* getActionByIdInternal(const config& config) {
  switch (config.action) {
    case SEND_SCOUT: return new SendScoutAction(true);
    case DEPLOY_AGENT: return new SendAgentAction(true);
    case GET_DUMPING_STATUS: return new GetDumpingStatusAction(true);
    case DUMP_SELECTED:
    case DUMP_ALL: return newDumpAction(config);
    case GET_CONTENT: return new RetrieveContentAction(true);
    // Without a status: removing the agent is no step of a migration to report.
    case REMOVE_AGENT: return new RemoveAgentAction(false);
    case REMOVE_DUMPING_STATUS: return new RemoveDumpingStatusAction(true);
    default: throw Exc<&UnknownAction>(FRONT_END_HERE);
  }
}

std::string getLogName(const config& config) {
  return config.action == GET_CONTENT ? "transfer.result" : "";
}
