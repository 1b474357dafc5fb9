#include "sondrel/content_download.h"

#include <cerrno>
#include <cstring>

#include "commons/ExSystemError.h"
#include "commons/checksum.h"
#include "commons/commons.h"
#include "sondrel/action.h"

namespace {

constexpr mode_t CONTENT_DIR_MODE = 0755;

ContentDirectory ofServiceAccount(const std::string& dir) {
  const ServiceAccount& owner = serviceAccount();
  return ContentDirectory(dir, owner.user, owner.group);
}

}  // namespace

bool makeContentDir(const std::string& dir) {
  const ServiceAccount& owner = serviceAccount();
  return make_content_dir(dir, owner.user, owner.group, CONTENT_DIR_MODE) == 0;
}

ContentDownload::ContentDownload(Ssh& ssh, const config& config, const std::string& dir)
    : ssh_(ssh), config_(config), dir_(dir), directory_(ofServiceAccount(dir)) {}

std::optional<ContentDownload::Received> ContentDownload::fetch(const DumpFile& file,
                                                                Ssh::Counter& counter,
                                                                bool isSummed) const {
  std::optional<Md5Sum> sum;
  if (isSummed) sum.emplace();
  CollectedText err;
  try {
    receive(file, err, counter, sum ? &*sum : nullptr);
  } catch (const Exc<&CantRetrieveContentFile>&) {
    throw;
  } catch (const ExTraceable& e) {
    throw failure(e, {HERE}, file.name, errorTextOf(err));
  } catch (const SystemError& e) {
    throw failure({HERE}, file.name, e.what());
  }
  if (!sum) return std::nullopt;
  const std::int64_t bytes = sum->size();
  return Received{bytes, sum->finish()};
}

/// When this returns, the file is complete and on the disk: its remote copy is removed after that.
void ContentDownload::receive(const DumpFile& file, CollectedText& err, Ssh::Counter& counter,
                              Md5Sum* sum) const {
  if (!makeDirectory()) throw failure({HERE}, file.name, std::strerror(errno));
  OutputFile local = directory_.create(file.name);
  local.setSum(sum);
  local.writeBehind();
  if (runCommand(file, local, err, counter) != 0) {
    throw failure({HERE}, file.name, errorTextOf(err));
  }
  const FileIdentity written = local.identity();
  if (!local.syncAndClose()) throw failure({HERE}, file.name, local.errorText());
  if (!directory_.isInPlace(file.name, written)) {
    throw failure({HERE}, file.name, "The file is no longer there");
  }
}

/// Returns the exit status of the remote command. When the local file cannot be written, the reason
/// goes to `err` before the error is thrown.
int ContentDownload::runCommand(const DumpFile& file, OutputFile& local, CollectedText& err,
                                Ssh::Counter& counter) const {
  try {
    return ssh_.get(local, err, config_.remotePathOf(file.name), counter);
  } catch (const Exc<&StreamWrite>&) {
    if (!local.stream()) err << local.errorText();
    throw;
  }
}

Exc<&CantRetrieveContentFile> ContentDownload::failure(const Place& place, const std::string& name,
                                                       const std::string& reason) const {
  return Exc<&CantRetrieveContentFile>(place) % config_.remotePathOf(name) % config_.host %
         directory_.pathOf(name) % reason;
}

Exc<&CantRetrieveContentFile> ContentDownload::failure(const ExTraceable& cause, const Place& place,
                                                       const std::string& name,
                                                       const std::string& reason) const {
  return Exc<&CantRetrieveContentFile>(cause, place) % config_.remotePathOf(name) % config_.host %
         directory_.pathOf(name) % reason;
}
