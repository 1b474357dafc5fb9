#include "sondrel/retrieve_dump.h"

#include <sstream>
#include <utility>

#include "commons/session.h"
#include "sondrel/result_file.h"

RetrieveDumpAction::RetrieveDumpAction(bool createStatus, std::vector<std::string> agentArguments,
                                       std::string agentInput)
    : Action(createStatus),
      agentArguments_(std::move(agentArguments)),
      agentInput_(std::move(agentInput)) {}

void RetrieveDumpAction::execute() {
  status()->setAgentParams(getConfig().host);
  status()->setAgentOperation(MigrationStatus::WAIT_FOR_AGENT);
  status()->saveFile();
  try {
    const std::string command = agentCommandLine();
    const AlarmSignalGuard holdAlarmBack;
    runAgent(command);
    fetchDump();
    writeSessionFile("dump-name", theSession->getDumpFileName());
  } catch (const ExTraceable& e) {
    throw Exc<&CantRetrieveDump>(e, HERE);
  }
}

std::string RetrieveDumpAction::agentCommandLine() const {
  ArgsBuilder line = agentCommand();
  for (const std::string& argument : agentArguments_) line << argument;
  if (getConfig().no_content) line << "--no-content";
  return line.str();
}

void RetrieveDumpAction::runAgent(const std::string& command) {
  const DumpProgress progress(theSession->getDumpingStatusFileName());
  const auto display = showProgress([&] { return progress.describe(); });
  const StatusRefreshGuard refresh(this);
  CollectedText out;
  CollectedText err;
  std::istringstream input(agentInput_);
  const int exitStatus = agentInput_.empty() ? execRoot(command, out, err, false)
                                             : execRoot(command, input, out, err, false, false);
  if (exitStatus != 0) throw Exc<&CantRetrieveDumpFile>(HERE) % errorTextOf(err);
}

void RetrieveDumpAction::fetchDump() {
  const std::string remotePath = remotePathOf("dump.xml");
  takeFile(remotePath);
  ResultFile dump(theSession->getDumpFileName());
  CollectedText err;
  if (getSsh().get(dump, err, remotePath, Ssh::null_counter) != 0) {
    throw Exc<&CantRetrieveDumpFile>(HERE) % errorTextOf(err);
  }
  dump.finish();
}

// --- GetDumpingStatusAction ---
