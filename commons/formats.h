#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "commons/xml_wrap.h"

/// The progress of a migration step, for callers that poll it. The setters only change this object;
/// `saveFile` writes the document. Numbers are decimal text.
class MigrationStatus {
 public:
  enum agentOperation { DEPLOY_AGENT = 0, WAIT_FOR_AGENT = 1 };
  enum ObjectType { ACCOUNT = 0, DOMAIN_OBJECT = 1 };

  virtual ~MigrationStatus() = default;
  virtual void setIdle() = 0;
  virtual void setAgentParams(const std::string& host) = 0;
  virtual void setAgentOperation(agentOperation operation) = 0;
  virtual void setTransferSpeed(const std::string& speed) = 0;
  virtual void setTransferDump() = 0;
  virtual void setTransferTotals(const std::string& files, const std::string& size) = 0;
  virtual void setTransferFilesLeft(const std::string& files) = 0;
  virtual void setTransferSizeLeft(const std::string& size) = 0;
  /// The bytes that the content list gives in total, and those of them that have not arrived yet.
  /// Only for readers who asked for them; an implementation may ignore them.
  virtual void setListedSizes(const std::string& /*total*/, const std::string& /*left*/) {}
  virtual void setCurrentFile(const std::string& name, const std::string& size) = 0;
  virtual void setTransferCurrentFileSizeLeft(const std::string& size) = 0;
  virtual void setDeployTotals(const std::string& accounts, const std::string& domains) = 0;
  virtual void setDeploy(const std::string& accounts, const std::string& domains) = 0;
  virtual void setCurrentObject(const std::string& name, ObjectType type) = 0;
  virtual void setTranslate() = 0;
  /// Replaces the session's status document by the present state. Throws what
  /// tXmlDocument::saveToFileAtomically throws.
  virtual void saveFile() = 0;
};

/// The status as an XML document with the root "migration-status".
class XmlMigrationStatus : public tXmlDtmDocument, public MigrationStatus {
 public:
  XmlMigrationStatus();

  void setIdle() override;
  void setAgentParams(const std::string& host) override;
  void setAgentOperation(agentOperation operation) override;
  void setTransferSpeed(const std::string& speed) override;
  void setTransferDump() override;
  void setTransferTotals(const std::string& files, const std::string& size) override;
  void setTransferFilesLeft(const std::string& files) override;
  void setTransferSizeLeft(const std::string& size) override;
  void setListedSizes(const std::string& total, const std::string& left) override;
  void setCurrentFile(const std::string& name, const std::string& size) override;
  void setTransferCurrentFileSizeLeft(const std::string& size) override;
  void setDeployTotals(const std::string& accounts, const std::string& domains) override;
  void setDeploy(const std::string& accounts, const std::string& domains) override;
  void setCurrentObject(const std::string& name, ObjectType type) override;
  void setTranslate() override;
  void saveFile() override;

 private:
  enum State { IDLE, AGENT_OPERATION, DUMP_TRANSFER, FILE_TRANSFER, TRANSLATE, DEPLOY };

  void removeRootChildren();
  void addAgent();
  void addTransfer();
  void addFiles(XmlNodeRef transfer);
  void addDeploy();

  State state_ = IDLE;
  agentOperation agentOperation_ = DEPLOY_AGENT;
  std::string pid_;
  std::string host_;
  std::string speed_;
  std::string filesTotal_;
  std::string filesLeft_;
  std::string sizeTotal_;
  std::string sizeLeft_;
  std::string listedTotal_;
  std::string listedLeft_;
  std::string currentFileSizeLeft_;
  std::string currentFile_;
  std::string currentFileSize_;
  std::string totalAccounts_;
  std::string totalDomains_;
  std::string completedAccounts_;
  std::string completedDomains_;
  std::string currentObject_;
  ObjectType currentObjectType_ = ACCOUNT;
};

/// A new status with nothing in it yet; the caller owns it.
MigrationStatus* createMigrationStatusFile();

/// One content file that the agent offers.
struct DumpFile {
  /// Path relative to the remote agent directory.
  std::string name;
  /// Bytes.
  std::int64_t size;
  /// Lower-case hexadecimal; may be empty.
  std::string md5;
  /// False where the list gives no size; `size` is 0 then.
  bool sizeIsListed = true;
};

/// The agent's list of content files.
class AgentFileList {
 public:
  virtual ~AgentFileList() = default;
  /// Bytes to fetch, as the agent says; 0 when it does not say. Throws boost::bad_lexical_cast for
  /// a value that is no number.
  virtual std::int64_t getTotalSize() const = 0;
  /// Bytes that the content needs on the destination; otherwise as getTotalSize.
  virtual std::int64_t getUnpackedSize() const = 0;
  /// In document order.
  virtual const std::vector<DumpFile>& getFileList() const = 0;
};

/// The list as an XML document with the root "contentlist".
class XmlAgentFileList : public tXmlDtmDocument, public AgentFileList {
 public:
  explicit XmlAgentFileList(const std::string& text) : tXmlDtmDocument(text) {}

  /// Reads the entries; the root must have been checked. Throws
  /// boost::bad_lexical_cast for a size that is no number.
  void parse();

  std::int64_t getTotalSize() const override;
  std::int64_t getUnpackedSize() const override;
  const std::vector<DumpFile>& getFileList() const override { return files_; }

 private:
  std::int64_t getNumber(XmlNodeRef node, const std::string& name) const;

  std::vector<DumpFile> files_;
};

/// Parses a content list; the caller owns the result. Throws what the document
/// classes throw, and boost::bad_lexical_cast.
AgentFileList* getFileList(const std::string& text);
