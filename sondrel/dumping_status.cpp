#include "sondrel/dumping_status.h"

#include <unistd.h>

#include <iostream>
#include <log4cpp/Category.hh>

#include "commons/files.h"
#include "transport/ssh_channel.h"

namespace {

log4cpp::Category& actionLog = log4cpp::Category::getInstance("k.Action");

}  // namespace

void GetDumpingStatusAction::execute() {
  try {
    printStatus();
  } catch (const Exc<&DumpStatusError>&) {
    throw;
  } catch (const ExTraceable& e) {
    throw Exc<&DumpStatusError>(e, HERE);
  }
}

void GetDumpingStatusAction::printStatus() {
  const std::string path = remotePathOf(files::getRemoteDumpingStatusFileName());
  takeFile(path);
  const int exitStatus = getSsh().get(std::cout, path);
  if (!std::cout.flush()) throw Exc<&StreamWrite>(HERE);
  // A smaller exit status is that of cat: the agent may not have written the file yet.
  if (exitStatus >= libssh2pp::Channel::FIRST_SIGNAL_STATUS) {
    actionLog.error("Reading " + path + " ended with status " + std::to_string(exitStatus));
    throw Exc<&DumpStatusError>(HERE);
  }
}

// --- RemoveDumpingStatusAction ---

void RemoveDumpingStatusAction::execute() {
  // On this host, despite the name. It is no error when there is none.
  unlink(remotePathOf(files::getRemoteDumpingStatusFileName()).c_str());
}

// --- RetrieveContentAction ---
