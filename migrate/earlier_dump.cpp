#include "migrate/earlier_dump.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <vector>

#include "commons/atomic_replacement.h"
#include "commons/xml_wrap.h"
#include "migrate/documents.h"
#include "migrate/errors.h"

namespace migrate {

namespace {

const char* const REFUSAL = "Another dump is still running";

}  // namespace

bool isBlockedByEarlierDump(const std::string& session, Step step, const RunOutcome& outcome) {
  if (outcome.kind != RunOutcome::FAILED || outcome.exitCode != EXIT_OF_FAILED_ACTION) return false;
  const std::vector<std::string> causes = readCauses(session, step);
  return std::any_of(causes.begin(), causes.end(), [](const std::string& cause) {
    return cause.find(REFUSAL) != std::string::npos;
  });
}

void EarlierDump::note(const std::string& status, Clock::time_point now) {
  if (status == status_) return;
  status_ = status;
  lastChange_ = now;
}

bool EarlierDump::saysItsEnd() const {
  try {
    const tXmlDtmDocument document(status_);
    const XmlNodeRef root = document.rootElement();
    const std::string stage = root ? document.getAttribute(root, "stage") : "";
    return stage == "finished" || stage == "failed";
  } catch (const ExTraceable&) {
    // There is no status, or not one that this program knows: then `isSilent` decides.
    return false;
  }
}

void EarlierDump::publish(const std::string& session) const {
  if (status_.empty()) return;
  AtomicReplacement replacement(dumpingStatusIn(session), Durability::CHEAP);
  std::ofstream file(replacement.temporaryName(), std::ios::binary);
  if (!(file << status_ << std::flush)) {
    throw Exc<&MigrateImpossible>(HERE) %
        (replacement.temporaryName() + ": " + std::strerror(errno));
  }
  replacement.commit();
}

}  // namespace migrate
