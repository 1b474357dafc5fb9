#include "sondrel/retrieve_content.h"

#include <ext/stdio_filebuf.h>

#include <cerrno>
#include <cstring>
#include <istream>

#include "commons/ProgramTerminatedException.h"
#include "commons/checksum.h"
#include "commons/commons.h"
#include "commons/files.h"
#include "commons/log.h"
#include "commons/session.h"
#include "commons/sh_quoting.h"
#include "sondrel/host_policy.h"
#include "sondrel/result_file.h"
#include "sondrel/retrieve_dump.h"

namespace {

/// Enough for more than a million entries.
constexpr std::size_t CONTENT_LIST_LIMIT = std::size_t{256} << 20;

}  // namespace

void RetrieveContentAction::execute() {
  try {
    retrieveContent();
  } catch (const ExTraceable& e) {
    throw Exc<&CantRetrieveDump>(e, HERE);
  }
}

void RetrieveContentAction::retrieveContent() {
  verify_ = isVerificationConfigured();
  batching_ = areBatchesWanted();
  createContentDir();
  status()->setAgentParams(getConfig().host);
  status()->setTransferDump();
  status()->saveFile();
  const std::unique_ptr<const AgentFileList> list = requestContentList();
  refuseUnsafeNames(*list);
  const std::vector<DumpFile>& entries = list->getFileList();
  if (!getConfig().no_check_space) checkFreeSpace(*list);
  ContentProgress shown(entries);
  const auto display = showProgress([&] { return shown.describe(RateMeter::Clock::now()); });
  FileRetrievalProgressUpdater progress(*status(), list->getUnpackedSize(),
                                        static_cast<int>(entries.size()), &shown,
                                        areListedSizesWanted());
  for (const DumpFile& file : entries) retrieveEntry(file, progress);
  retrieveBatch(progress);
  if (filesUnlikeTheList_ > 0) {
    throw Exc<&ContentVerificationFailed>(HERE) % filesUnlikeTheList_;
  }
  writeSessionFile("dump-name", targetDir() + "/dump.xml");
  writeSessionFile("migration-result-name", targetDir() + "/migration.result");
}

void RetrieveContentAction::createContentDir() {
  const std::string dir = theSession->getCidFilesDir();
  if (!makeContentDir(dir)) {
    throw Exc<&FileWrite>(HERE) % dir % std::strerror(errno);
  }
}

std::unique_ptr<AgentFileList> RetrieveContentAction::requestContentList() {
  ArgsBuilder line = agentCommand();
  line << "--get-content-list";
  CollectedText out(CONTENT_LIST_LIMIT, CollectedText::REFUSE);
  CollectedText err;
  if (execRoot(line.str(), out, err, false) != 0) {
    throw Exc<&CantRetrieveContentList>(HERE) % errorTextOf(err);
  }
  return std::unique_ptr<AgentFileList>(getFileList(out.str()));
}

/// The names come from another host, and root uses them here.
void RetrieveContentAction::refuseUnsafeNames(const AgentFileList& list) {
  for (const DumpFile& file : list.getFileList()) {
    const std::string reason = whyUnsafeName(file.name);
    if (reason.empty()) continue;
    throw download().failure({HERE}, file.name, reason);
  }
}

void RetrieveContentAction::checkFreeSpace(const AgentFileList& list) {
  const auto freeBytes = static_cast<std::int64_t>(getFreeSpace(targetDir()));
  const std::int64_t neededBytes = list.getUnpackedSize();
  if (freeBytes < neededBytes) throw Exc<&NotEnoughSpace>(HERE) % freeBytes % neededBytes;
}

void RetrieveContentAction::retrieveEntry(const DumpFile& file,
                                          FileRetrievalProgressUpdater& progress) {
  // An earlier entry has the same name: fetch its batch first, so that this one finds the file.
  if (batch_.has(file.name)) retrieveBatch(progress);
  progress.startFile(file);
  if (!checkMD5(file)) {
    if (batching_ && ContentBatch::isFor(file)) {
      if (!batch_.hasRoomFor(file)) retrieveBatch(progress);
      batch_.add(file);
      return;
    }
    retrieveAlone(file, progress);
  }
  progress.finishFile();
}

void RetrieveContentAction::retrieveAlone(const DumpFile& file, Ssh::Counter& counter) {
  if (isFetchedAsListed(file, counter)) {
    removeRemoteFile(file);
  } else {
    ++filesUnlikeTheList_;
  }
}

/// Fetches the file. True when its remote copy may be removed; false when it differs from the list.
bool RetrieveContentAction::isFetchedAsListed(const DumpFile& file, Ssh::Counter& counter) {
  // Some login shells expand braces, and would fetch and then remove other files.
  const bool isSummed = verify_ || hasBraceExpansion(file.name);
  const auto received = download().fetch(file, counter, isSummed);
  return !received || isAsListed(file, received->bytes, received->md5);
}

/// Compares what was received with the list; records each difference in the result log.
bool RetrieveContentAction::isAsListed(const DumpFile& file, std::int64_t receivedBytes,
                                       const std::string& sum) {
  if (!file.sizeIsListed && file.md5.empty() && hasBraceExpansion(file.name)) {
    theLog->log(Exc<&CantCompareFile>(HERE) % file.name);
    return false;
  }
  const bool sameSize = !file.sizeIsListed || receivedBytes == file.size;
  if (!sameSize) {
    theLog->log(Exc<&WrongFileSize>(HERE) % file.name % receivedBytes % file.size);
  }
  const bool sameSum = file.md5.empty() || sum == file.md5;
  if (!sameSum) theLog->log(Exc<&WrongMd5Sum>(HERE) % file.name % sum % file.md5);
  return sameSize && sameSum;
}

std::string RetrieveContentAction::targetDir() const {
  return getConfig().dumps_dir.empty() ? theSession->getCidFilesDir() : getConfig().dumps_dir;
}

ContentDownload& RetrieveContentAction::download() {
  if (!download_) download_.emplace(getSsh(), getConfig(), targetDir());
  return *download_;
}

/// The MD5 sum of the local file; empty when it is not there.
std::string RetrieveContentAction::localSum(const DumpFile& file) {
  constexpr std::size_t BUFFER_BYTES = 65536;
  UniqueFd fd = download().directory().openExisting(file.name);
  if (!fd) return {};
  __gnu_cxx::stdio_filebuf<char> buffer(fd.release(), std::ios::in | std::ios::binary,
                                        BUFFER_BYTES);
  std::istream stream(&buffer);
  // A large file takes minutes: keep the connection alive meanwhile.
  return countMd5Sum(stream, [this] { getSsh().keepAlive(); });
}

bool RetrieveContentAction::checkMD5(const DumpFile& file) {
  return !file.md5.empty() && localSum(file) == file.md5;
}

void RetrieveContentAction::checkFile(const DumpFile& file) {
  if (file.md5.empty()) return;
  const std::string sum = localSum(file);
  // The two sums are swapped in this record; its readers expect that.
  if (sum != file.md5) theLog->log(Exc<&WrongMd5Sum>(HERE) % file.name % file.md5 % sum);
}

// --- RemoveAgentAction ---
