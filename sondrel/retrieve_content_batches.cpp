#include <cerrno>
#include <cstring>
#include <log4cpp/Category.hh>
#include <utility>

#include "commons/log.h"
#include "sondrel/retrieve_content.h"

/// The part of RetrieveContentAction that fetches several files at once.

namespace {

log4cpp::Category& actionLog = log4cpp::Category::getInstance("k.Action");

}  // namespace

void RetrieveContentAction::retrieveBatch(FileRetrievalProgressUpdater& progress) {
  const ContentBatch batch = std::exchange(batch_, ContentBatch());
  if (batch.isEmpty()) return;
  BatchReceiver receiver(batch, download().directory(), progress);
  const BatchEnd end = receiveBatch(batch, receiver);
  if (end.isUnableTo()) {
    actionLog.notice("Each file is fetched by itself, since tar cannot be used there: " +
                     end.errorText);
    batching_ = false;
  } else {
    finishBatch(receiver, end);
  }
  retrieveEachAlone(receiver, progress);
}

/// Receives the archive of a batch. Throws CantRetrieveContentFile, for the file that was arriving,
/// when the connection fails or this host cannot go on.
BatchEnd RetrieveContentAction::receiveBatch(const ContentBatch& batch, BatchReceiver& receiver) {
  if (!download().makeDirectory()) {
    throw download().failure({HERE}, batch.files().front()->name, std::strerror(errno));
  }
  CollectedText err;
  try {
    const auto output = getSsh().getBatch(getConfig().agent_dir, batch.names(), err);
    BatchEnd end = takeArchive(*output, receiver);
    end.errorText = errorTextOf(err);
    return end;
  } catch (const ExTraceable& e) {
    const std::string& name = receiver.current().file->name;
    throw download().failure(e, {HERE}, name, errorTextOf(err));
  }
}

BatchEnd RetrieveContentAction::takeArchive(RemoteOutput& output, BatchReceiver& receiver) {
  BatchEnd end;
  bool hasEnded = false;
  TarReader archive([&] {
    const std::string_view bytes = output.next();
    (bytes.empty() ? hasEnded : end.isEmpty) = bytes.empty();
    return bytes;
  });
  try {
    receiver.receive(archive);
    hasEnded = true;
  } catch (const Exc<&ArchiveDamaged>& e) {
    end.damage = e.what();
  }
  // Not after other output than an archive: that may never end, and then the command does not end
  // either.
  if (hasEnded) end.exitStatus = output.status();
  return end;
}

/// Syncs the files, and removes on the source host those that are complete here. Throws
/// CantRetrieveContentFile when a file has failed.
void RetrieveContentAction::finishBatch(BatchReceiver& receiver, const BatchEnd& end) {
  if (!receiver.sync()) {
    throw download().failure({HERE}, receiver.files().front().file->name, std::strerror(errno));
  }
  std::vector<const DumpFile*> removable;
  for (BatchedFile& file : receiver.files()) {
    // When tar cannot read all of a file it fills up the member. The archive does not show that,
    // but the exit status does.
    file.isStored = file.isStored && (end.isWhole() || file.isProven());
    if (!file.isStored) continue;
    if (!verify_ || isAsListed(*file.file, file.size, file.md5)) {
      removable.push_back(file.file);
    } else {
      ++filesUnlikeTheList_;
    }
  }
  receiver.explainMissing(end);
  removeRemoteFiles(removable);
  failForBatch(receiver);
}

/// The same error as for a file that is fetched alone.
Exc<&CantRetrieveContentFile> RetrieveContentAction::cantStore(const BatchedFile& file) {
  return download().failure(Exc<&StreamWrite>(HERE), {HERE}, file.file->name, file.failure);
}

/// Throws CantRetrieveContentFile for the first file that has failed; the failures of later files
/// go to the result log.
void RetrieveContentAction::failForBatch(const BatchReceiver& receiver) {
  std::vector<Exc<&CantRetrieveContentFile>> failures;
  for (const BatchedFile& file : receiver.files()) {
    if (file.failure.empty()) continue;
    failures.push_back(file.isUnwritable
                           ? cantStore(file)
                           : download().failure({HERE}, file.file->name, file.failure));
  }
  if (receiver.surplus()) {
    failures.push_back(download().failure({HERE}, *receiver.surplus(),
                                          "The archive has it, and nobody asked for it"));
  }
  for (std::size_t i = 1; i < failures.size(); ++i) theLog->log(failures[i]);
  if (!failures.empty()) throw Exc<&CantRetrieveContentFile>(failures.front());
}

/// Fetches the files that the batch has not brought: each alone, so that each gets its own error.
void RetrieveContentAction::retrieveEachAlone(const BatchReceiver& receiver,
                                              FileRetrievalProgressUpdater& progress) {
  for (const BatchedFile& file : receiver.files()) {
    if (file.isStored) continue;
    if (file.isCounted) {
      retrieveAlone(*file.file, Ssh::null_counter);
      continue;
    }
    progress.startFile(*file.file);
    retrieveAlone(*file.file, progress);
    progress.finishFile();
  }
}
