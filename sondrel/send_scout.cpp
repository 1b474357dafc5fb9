#include "sondrel/send_scout.h"

#include <fstream>

#include "commons/files.h"
#include "commons/session.h"
#include "sondrel/result_file.h"

void SendScoutAction::execute() {
  status()->setAgentParams(getConfig().host);
  status()->setAgentOperation(MigrationStatus::DEPLOY_AGENT);
  status()->saveFile();
  std::ifstream script(files::getScoutFileName(), std::ios::binary);
  // The missing argument of this error ends the process on purpose: an installation without a scout
  // is broken.
  if (!script) throw Exc<&UnableToOpenScoutFile>(HERE);
  ResultFile result(theSession->getScoutResultFileName());
  CollectedText err;
  const int exitStatus = execRoot("perl", script, result.stream(), err, false, true);
  result.finish();
  if (exitStatus != 0) throw Exc<&FailedToExecuteScout>(HERE) % exitStatus % errorTextOf(err);
  status()->setAgentOperation(MigrationStatus::WAIT_FOR_AGENT);
  status()->saveFile();
}

// --- RetrieveDumpAction ---
