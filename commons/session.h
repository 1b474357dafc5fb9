#pragma once

#include <string>

#include "commons/exceptions.h"

DECLARE_ERROR_TAG(UnableToCreateSession, "Unable to create session: %1%");

/// The session directory of a run and the names of everything in it.
class SessionFiles {
 public:
  /// Creates the directory `path` and its subdirectory "archives" unless they exist: owner root,
  /// mode 0750, and as group the number of the service account's user. An existing session is
  /// reused unchanged. If that number is not the account's own group and the directory is open to
  /// it, a line in the system log says so. Throws UnableToCreateSession.
  explicit SessionFiles(const std::string& path);

  std::string getDir() const { return dir_; }
  std::string getScoutResultFileName() const { return dir_ + "/scout-result.xml"; }
  std::string getStatusFileName() const { return dir_ + "/migration.status"; }
  std::string getResultFileName() const { return dir_ + "/migration.result"; }
  std::string getDeploymentStatusFileName() const { return dir_ + "/agent-deployment.status"; }
  std::string getDumpFileName() const { return dir_ + "/dump.xml"; }
  std::string getKorvoDumpFileName() const { return dir_ + "/restore.xml"; }
  std::string getLogFileName() const { return dir_ + "/migration.log"; }
  std::string getDumpingStatusFileName() const;
  /// Where the fetched content archives go.
  std::string getCidFilesDir() const { return cidFilesDir_; }
  std::string getCidFile(const std::string& name) const { return cidFilesDir_ + "/" + name; }

  /// Deletes the session directory with everything in it. Errors are not reported.
  void remove() noexcept;

 private:
  std::string dir_;
  std::string cidFilesDir_;
};

/// The session of this run; null outside the life of its controller.
extern SessionFiles* theSession;

/// Creates theSession. The destructor deletes the object; the directory stays.
class SessionLifetimeController {
 public:
  explicit SessionLifetimeController(const std::string& path);
  ~SessionLifetimeController();
  SessionLifetimeController(const SessionLifetimeController&) = delete;
  SessionLifetimeController& operator=(const SessionLifetimeController&) = delete;
};
