#include "sondrel/retrieve_content.h"

#include <ext/stdio_filebuf.h>

#include <cerrno>
#include <cstring>
#include <istream>

#include "commons/ExSystemError.h"
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

constexpr mode_t CONTENT_DIR_MODE = 0755;
/// More than a million entries.
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
  if (!makeDir(dir)) {
    throw Exc<&FileWrite>(HERE) % dir % std::strerror(errno);
  }
}

/// Makes the directory with its owner, if it is not there. False, with `errno`, when it cannot.
bool RetrieveContentAction::makeDir(const std::string& dir) {
  const ServiceAccount& owner = serviceAccount();
  return make_content_dir(dir, owner.user, owner.group, CONTENT_DIR_MODE) == 0;
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

/// The names come from another host and are used by root here.
void RetrieveContentAction::refuseUnsafeNames(const AgentFileList& list) {
  for (const DumpFile& file : list.getFileList()) {
    const std::string reason = whyUnsafeName(file.name);
    if (reason.empty()) continue;
    throw Exc<&CantRetrieveContentFile>(HERE) % remotePathOf(file.name) % getConfig().host %
        contentDirectory().pathOf(file.name) % reason;
  }
}

void RetrieveContentAction::checkFreeSpace(const AgentFileList& list) {
  const auto freeBytes = static_cast<std::int64_t>(getFreeSpace(targetDir()));
  const std::int64_t neededBytes = list.getUnpackedSize();
  if (freeBytes < neededBytes) throw Exc<&NotEnoughSpace>(HERE) % freeBytes % neededBytes;
}

void RetrieveContentAction::retrieveEntry(const DumpFile& file,
                                          FileRetrievalProgressUpdater& progress) {
  // The second of two entries of one name finds what the first has brought.
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
  if (download(file, counter)) {
    removeRemoteFile(file);
  } else {
    ++filesUnlikeTheList_;
  }
}

/// True when the file is here and may go there; false when it is not what the list says.
bool RetrieveContentAction::download(const DumpFile& file, Ssh::Counter& counter) {
  const std::string remotePath = remotePathOf(file.name);
  const std::string localPath = contentDirectory().pathOf(file.name);
  CollectedText err;
  std::optional<Md5Sum> sum;
  // Some login shells fetch, and would remove, other files than the one of that name.
  if (verify_ || hasBraceExpansion(file.name)) sum.emplace();
  std::optional<std::string> failure;
  try {
    failure = receive(file, err, counter, sum ? &*sum : nullptr);
  } catch (const ExTraceable& e) {
    throw Exc<&CantRetrieveContentFile>(e, HERE) % remotePath % getConfig().host % localPath %
        errorTextOf(err);
  }
  if (failure) throw cantRetrieve(file.name, *failure);
  if (!sum) return true;
  const std::int64_t receivedBytes = sum->size();
  return isAsListed(file, receivedBytes, sum->finish());
}

Exc<&CantRetrieveContentFile> RetrieveContentAction::cantRetrieve(const std::string& name,
                                                                  const std::string& reason) const {
  return Exc<&CantRetrieveContentFile>(HERE) % remotePathOf(name) % getConfig().host %
         contentDirectory().pathOf(name) % reason;
}

/// Nothing once the file is complete and on the disk, for then its remote copy goes;
/// else what went wrong.
std::optional<std::string> RetrieveContentAction::receive(const DumpFile& file, CollectedText& err,
                                                          Ssh::Counter& counter, Md5Sum* sum) {
  if (!makeDir(targetDir())) return std::strerror(errno);
  try {
    OutputFile local = contentDirectory().create(file.name);
    local.setSum(sum);
    local.writeBehind();
    if (fetch(file, local, err, counter) != 0) return errorTextOf(err);
    const FileIdentity written = local.identity();
    if (!local.syncAndClose()) return local.errorText();
    if (!contentDirectory().isInPlace(file.name, written)) return "The file is no longer there";
  } catch (const SystemError& e) {
    return e.what();
  }
  return std::nullopt;
}

/// The exit status of the remote command. When the local file cannot be written, the reason
/// goes to `err` before the error is thrown.
int RetrieveContentAction::fetch(const DumpFile& file, OutputFile& local, CollectedText& err,
                                 Ssh::Counter& counter) {
  try {
    return getSsh().get(local, err, remotePathOf(file.name), counter);
  } catch (const Exc<&StreamWrite>&) {
    if (!local.stream()) err << local.errorText();
    throw;
  }
}

/// Records each difference in the result log.
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

ContentDirectory RetrieveContentAction::contentDirectory() const {
  const ServiceAccount& owner = serviceAccount();
  return ContentDirectory(targetDir(), owner.user, owner.group);
}

/// The MD5 sum of the local file; empty when it is not there.
std::string RetrieveContentAction::localSum(const DumpFile& file) {
  constexpr std::size_t BUFFER_BYTES = 65536;
  UniqueFd fd = contentDirectory().openExisting(file.name);
  if (!fd) return {};
  __gnu_cxx::stdio_filebuf<char> buffer(fd.release(), std::ios::in | std::ios::binary,
                                        BUFFER_BYTES);
  std::istream stream(&buffer);
  // A large file takes minutes, in which the server must not take us for dead.
  return countMd5Sum(stream, [this] { getSsh().keepAlive(); });
}

bool RetrieveContentAction::checkMD5(const DumpFile& file) {
  return !file.md5.empty() && localSum(file) == file.md5;
}

void RetrieveContentAction::checkFile(const DumpFile& file) {
  if (file.md5.empty()) return;
  const std::string sum = localSum(file);
  // This record has the two sums the other way round, and its readers know it so.
  if (sum != file.md5) theLog->log(Exc<&WrongMd5Sum>(HERE) % file.name % file.md5 % sum);
}

// --- RemoveAgentAction ---
