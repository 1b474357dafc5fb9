#pragma once

#include <sys/types.h>

#include <boost/shared_ptr.hpp>
#include <cstdint>
#include <ctime>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "commons/agent_spec.h"
#include "commons/collected_text.h"
#include "commons/commons.h"
#include "commons/content_folder.h"
#include "commons/formats.h"
#include "sondrel/content_batch.h"
#include "sondrel/options.h"
#include "sondrel/progress.h"
#include "transport/ssh-transfer.h"

DECLARE_ERROR_TAG(SudoNotFound,
                  "sudo command not found on the host %1%. You should install sudo to this host or "
                  "supply root password for the migration.");
DECLARE_ERROR_TAG(SudoNotAllowed, "sudo is not allowed for user %1% on host %2%.");
DECLARE_ERROR_TAG(UnableToOpenScoutFile, "Unable to open %1% for transferring to the remote host");
DECLARE_ERROR_TAG(
    FailedToExecuteScout,
    "Failed to execute scout. \nThe return code is %1%\nThe output on STDERR is\n%2%");
DECLARE_ERROR_TAG(CantRetrieveDumpFile,
                  "Error during dump file retrieving. \n"
                  "Remote agent failed with the following stderr messages: %1%");
DECLARE_ERROR_TAG(FileWrite, "Error during %1% write: %2%");
DECLARE_ERROR_TAG(CantRetrieveDump, "Error during dump retrieval");
DECLARE_ERROR_TAG(DumpStatusError, "Error during getting dumping status");
DECLARE_ERROR_TAG(CantRetrieveContentList, "Error during content list retrieval: %1%");
DECLARE_ERROR_TAG(NotEnoughSpace,
                  "Selected filesystem has only %1% free space, but %2% is needed for operation");
DECLARE_ERROR_TAG(CantRetrieveContentFile,
                  "Failed to retrieve file '%1%' from '%2%' to '%3%': %4%");
DECLARE_ERROR_TAG(UnableToRemoveRemoteFile, "Unable to remove remote file '%1%' from '%2%': %3%");
DECLARE_ERROR_TAG(WrongMd5Sum,
                  "Problem during content retrieval: downloaded %1% has MD5 sum %2%, but it has to "
                  "be %3%. Restarting download.");
DECLARE_ERROR_TAG(WrongFileSize,
                  "Problem during content retrieval: downloaded %1% has %2% bytes, but the content "
                  "list says %3%");
DECLARE_ERROR_TAG(CantCompareFile,
                  "Problem during content retrieval: downloaded %1% may be other files that the "
                  "login shell takes its name for, and the content list has neither its size nor "
                  "its MD5 sum");
DECLARE_ERROR_TAG(ContentVerifyUnknown, "Cannot tell whether content must be verified: %1%");
DECLARE_ERROR_TAG(ContentVerificationFailed,
                  "%1% of the retrieved files differ from the content list; their remote copies "
                  "were kept");

/// A sink for what an action has to tell its caller; nobody makes one yet.
class Result;

/// True when the environment variable, by which a caller asks for something, says "yes".
bool isAskedFor(const char* variable);

/// Builds a remote command line: each word quoted, one blank between words.
class ArgsBuilder {
 public:
  explicit ArgsBuilder(const std::string& firstWord);
  ArgsBuilder& operator<<(const std::string& word);
  const std::string& str() const { return line_; }

 private:
  std::string line_;
};

/// A file in which an action leaves its result: mode 0644 when new, whatever the
/// process's umask is.
class ResultFile : public OutputFile {
 public:
  /// Creates or truncates the file. When that fails every write to it will.
  explicit ResultFile(const std::string& path);
  /// Ends the writing. Throws FileWrite when a byte may be missing, or the file.
  void finish();

 private:
  ResultFile(const std::string& path, const UmaskGuard& mask);
};

/// What a run can do on the source host. Owns the one SSH connection of the run,
/// opened when it is needed first.
///
/// The caller sets the configuration, which must outlive the action, and then calls
/// `execute` once. Failures are exceptions; a stop that an operator asked for is a
/// MigrationTerminatedException.
class Action : public Alarm {
 public:
  /// With `createStatus` the action keeps the session's migration status up to date,
  /// beginning now.
  explicit Action(bool createStatus);
  ~Action() override = default;
  Action(const Action&) = delete;
  Action& operator=(const Action&) = delete;

  /// Refreshes the local copy of the dumping status. A failure is dropped and ends
  /// the refreshing.
  void doAlarm() override;
  virtual void setConfig(const config* config) { config_ = config; }
  virtual void setResult(Result* result) { result_ = result; }
  virtual void execute() = 0;

  /// For the alarm's handler: has doAlarm called by the connection, if there is one.
  void requestAlarm();

 protected:
  /// The connection; made by the first call. Throws what Ssh's constructor throws.
  Ssh& getSsh();

  /// Shows a person what `describe` says, on the connection, which it makes if there is
  /// none; null, with nothing done, where nobody looks on. Throws as getSsh does.
  std::unique_ptr<ProgressDisplay> showProgress(std::function<std::string()> describe);

  /// Runs a command as the login user in the agent directory; returns its status.
  int execUser(const std::string& command, std::istream& in, std::ostream& out, std::ostream& err,
               bool quietOutput, bool quietInput);
  int execUser(const std::string& command, std::ostream& out, std::ostream& err, bool quietOutput);
  /// The same as root: through sudo when the run is to use it, else as it is, the
  /// login being root's. Throws what checkSudoPresence throws.
  int execRoot(const std::string& command, std::istream& in, std::ostream& out, std::ostream& err,
               bool quietOutput, bool quietInput);
  int execRoot(const std::string& command, std::ostream& out, std::ostream& err, bool quietOutput);

  /// Tries sudo, once per run. Throws SudoNotFound, SudoNotAllowed.
  void checkSudoPresence();
  /// Gives the remote file to the login user when the run uses sudo. Throws
  /// CantTakeFileOwnership.
  void takeFile(const std::string& path);

  /// A path below the remote agent directory.
  std::string remotePathOf(const std::string& name) const;
  /// The local agent of this run. Throws AgentNotFound.
  boost::shared_ptr<const Agent> getAgent() const;
  /// The words that start the agent's entry point.
  ArgsBuilder agentCommand() const;
  /// Replaces a file of the session directory by one line of text, without a line
  /// end. Throws FileWrite.
  void writeSessionFile(const std::string& name, const std::string& text) const;

  const config& getConfig() const { return *config_; }
  /// Null unless the constructor was told to create it.
  MigrationStatus* status() const { return status_.get(); }

 private:
  bool refreshDumpingStatus();

  std::unique_ptr<Ssh> ssh_;
  const config* config_ = nullptr;
  Result* result_ = nullptr;
  std::unique_ptr<MigrationStatus> status_;
  bool sudoChecked_ = false;
};

/// The handler of SIGALRM while the agent dumps: has the current action refresh the
/// dumping status, and sets the alarm anew.
void update_status(int signalNumber);

/// Runs the scout script on the source host and stores what it prints.
class SendScoutAction : public Action {
 public:
  using Action::Action;
  /// Throws FailedToExecuteScout.
  void execute() override;
};

/// Has the agent dump, and fetches the dump.
class RetrieveDumpAction : public Action {
 public:
  /// `agentArguments` follow the entry point; `agentInput`, if not empty, is what the
  /// agent reads.
  RetrieveDumpAction(bool createStatus, std::vector<std::string> agentArguments,
                     std::string agentInput);
  /// Throws CantRetrieveDump around every error.
  void execute() override;

 private:
  std::string agentCommandLine() const;
  void runAgent(const std::string& command);
  void fetchDump();

  std::vector<std::string> agentArguments_;
  std::string agentInput_;
};

/// Prints the agent's dumping status on standard output.
class GetDumpingStatusAction : public Action {
 public:
  using Action::Action;
  /// Throws DumpStatusError.
  void execute() override;

 private:
  void printStatus();
};

/// Removes the file that has the dumping status' path, on this host.
class RemoveDumpingStatusAction : public Action {
 public:
  using Action::Action;
  void execute() override;
};

/// Keeps the migration status up to date while content files come in.
class FileRetrievalProgressUpdater : public Ssh::Counter {
 public:
  /// `status` must outlive the updater, and so must `listed`, if it is given: the progress by
  /// what is listed, which a person is shown. With `tellsListed` it goes into the status, too.
  FileRetrievalProgressUpdater(MigrationStatus& status, std::int64_t totalBytes, int filesNumber,
                               ContentProgress* listed = nullptr, bool tellsListed = false);

  void startFile(const DumpFile& file);
  /// Counts received bytes and saves the status.
  void operator()(int bytes) override;
  void finishFile();

 private:
  void tellListed();

  MigrationStatus& status_;
  std::time_t startTime_;
  std::int64_t bytesReceived_ = 0;
  std::int64_t bytesLeft_;
  int filesLeft_;
  std::int64_t currentFileBytesLeft_ = 0;
  ContentProgress* listed_;
  bool tellsListed_;
};

/// Fetches the content files that are not here yet, and removes each from the source
/// host once it is here.
class RetrieveContentAction : public Action {
 public:
  using Action::Action;
  /// Throws CantRetrieveDump around every error.
  void execute() override;

  /// True when the entry has a sum and the local file has the same.
  bool checkMD5(const DumpFile& file);
  /// Records a WrongMd5Sum in the result log when the sums differ.
  void checkFile(const DumpFile& file);

 private:
  void retrieveContent();
  void createContentDir();
  std::unique_ptr<AgentFileList> requestContentList();
  void refuseUnsafeNames(const AgentFileList& list);
  void checkFreeSpace(const AgentFileList& list);
  void retrieveEntry(const DumpFile& file, FileRetrievalProgressUpdater& progress);
  void retrieveAlone(const DumpFile& file, Ssh::Counter& counter);
  bool download(const DumpFile& file, Ssh::Counter& counter);
  std::optional<std::string> receive(const DumpFile& file, CollectedText& err,
                                     Ssh::Counter& counter, Md5Sum* sum);
  int fetch(const DumpFile& file, OutputFile& local, CollectedText& err, Ssh::Counter& counter);
  static bool isAsListed(const DumpFile& file, std::int64_t receivedBytes, const std::string& sum);
  void removeRemoteFile(const DumpFile& file);
  Exc<&CantRetrieveContentFile> cantRetrieve(const std::string& name,
                                             const std::string& reason) const;

  void retrieveBatch(FileRetrievalProgressUpdater& progress);
  BatchEnd receiveBatch(const ContentBatch& batch, BatchReceiver& receiver);
  static BatchEnd takeArchive(RemoteOutput& output, BatchReceiver& receiver);
  void finishBatch(BatchReceiver& receiver, const BatchEnd& end);
  Exc<&CantRetrieveContentFile> cantStore(const BatchedFile& file) const;
  void failForBatch(const BatchReceiver& receiver) const;
  void retrieveEachAlone(const BatchReceiver& receiver, FileRetrievalProgressUpdater& progress);
  void removeRemoteFiles(const std::vector<const DumpFile*>& files);
  void logRemovals(const std::vector<const DumpFile*>& files, int exitStatus,
                   const std::string& told, const std::string& errorText);
  void logRemovalFailure(const DumpFile& file, const std::string& reason) const;
  void tryRemoval(const std::vector<const DumpFile*>& files, const std::function<void()>& remove);

  std::string targetDir() const;
  ContentFolder contentFolder() const;
  std::string localSum(const DumpFile& file);

  /// Whether what arrives is compared with the list, which this host's configuration says.
  bool verify_ = false;
  int filesUnlikeTheList_ = 0;
  /// Whether small files travel together; not any more once the source host turns out unable to.
  bool batching_ = false;
  ContentBatch batch_;
};

/// Deletes the remote agent directory. Never fails for the remote side's sake, so
/// that clean-up never fails a migration.
class RemoveAgentAction : public Action {
 public:
  using Action::Action;
  void execute() override;
};
