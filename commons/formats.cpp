#include "commons/formats.h"

#include <unistd.h>

#include <boost/lexical_cast.hpp>
#include <memory>

#include "commons/session.h"

XmlMigrationStatus::XmlMigrationStatus() {
  initNewDoc("migration-status");
}

void XmlMigrationStatus::setIdle() {
  state_ = IDLE;
}

void XmlMigrationStatus::setAgentParams(const std::string& host) {
  host_ = host;
}

void XmlMigrationStatus::setAgentOperation(agentOperation operation) {
  state_ = AGENT_OPERATION;
  agentOperation_ = operation;
}

void XmlMigrationStatus::setTransferSpeed(const std::string& speed) {
  speed_ = speed;
}

void XmlMigrationStatus::setTransferDump() {
  state_ = DUMP_TRANSFER;
}

void XmlMigrationStatus::setTransferTotals(const std::string& files, const std::string& size) {
  state_ = FILE_TRANSFER;
  filesTotal_ = filesLeft_ = files;
  sizeTotal_ = sizeLeft_ = size;
}

void XmlMigrationStatus::setTransferFilesLeft(const std::string& files) {
  state_ = FILE_TRANSFER;
  filesLeft_ = files;
}

void XmlMigrationStatus::setTransferSizeLeft(const std::string& size) {
  state_ = FILE_TRANSFER;
  sizeLeft_ = size;
}

void XmlMigrationStatus::setListedSizes(const std::string& total, const std::string& left) {
  listedTotal_ = total;
  listedLeft_ = left;
}

void XmlMigrationStatus::setCurrentFile(const std::string& name, const std::string& size) {
  currentFile_ = name;
  currentFileSize_ = currentFileSizeLeft_ = size;
}

void XmlMigrationStatus::setTransferCurrentFileSizeLeft(const std::string& size) {
  state_ = FILE_TRANSFER;
  currentFileSizeLeft_ = size;
}

void XmlMigrationStatus::setDeployTotals(const std::string& accounts, const std::string& domains) {
  state_ = DEPLOY;
  totalAccounts_ = accounts;
  totalDomains_ = domains;
}

void XmlMigrationStatus::setDeploy(const std::string& accounts, const std::string& domains) {
  state_ = DEPLOY;
  completedAccounts_ = accounts;
  completedDomains_ = domains;
}

void XmlMigrationStatus::setCurrentObject(const std::string& name, ObjectType type) {
  currentObject_ = name;
  currentObjectType_ = type;
}

void XmlMigrationStatus::setTranslate() {
  state_ = TRANSLATE;
}

void XmlMigrationStatus::saveFile() {
  pid_ = std::to_string(getpid());
  removeRootChildren();
  newTextChild(root(), "pid", pid_);
  switch (state_) {
    case IDLE: newChild(root(), "idle"); break;
    case AGENT_OPERATION: addAgent(); break;
    case TRANSLATE: newChild(root(), "translate"); break;
    case DEPLOY: addDeploy(); break;
    default: addTransfer();
  }
  saveOftenAtomically(theSession->getStatusFileName());
}

/// The attributes of the root stay, so that readers still see the numbers of the deployment after
/// the state has changed.
void XmlMigrationStatus::removeRootChildren() {
  for (XmlNodeRef child : root().children()) child.remove();
}

void XmlMigrationStatus::addAgent() {
  const XmlNodeRef agent = newChild(root(), "agent");
  addAttribute(agent, "action", agentOperation_ == DEPLOY_AGENT ? "deploy" : "wait");
  newTextChild(agent, "host", host_);
}

void XmlMigrationStatus::addTransfer() {
  const XmlNodeRef transfer = newChild(root(), "transfer");
  if (!speed_.empty()) addAttribute(transfer, "speed", speed_);
  newTextChild(transfer, "host", host_);
  if (state_ == DUMP_TRANSFER) newChild(transfer, "dumpfile");
  if (state_ == FILE_TRANSFER) addFiles(transfer);
}

void XmlMigrationStatus::addFiles(XmlNodeRef transfer) {
  const XmlNodeRef files = newChild(transfer, "files");
  addAttribute(files, "total", filesTotal_);
  addAttribute(files, "left", filesLeft_);
  if (!sizeTotal_.empty() && !sizeLeft_.empty()) {
    addAttribute(files, "size-total", sizeTotal_);
    addAttribute(files, "size-left", sizeLeft_);
  }
  if (!listedTotal_.empty()) {
    addAttribute(files, "listed-total", listedTotal_);
    addAttribute(files, "listed-left", listedLeft_);
  }
  if (currentFile_.empty()) return;
  const XmlNodeRef current = newTextChild(files, "current-file", currentFile_);
  if (currentFileSize_.empty()) return;
  addAttribute(current, "size", currentFileSize_);
  addAttribute(current, "size-left", currentFileSizeLeft_);
}

void XmlMigrationStatus::addDeploy() {
  addAttribute(root(), "total-accounts", totalAccounts_);
  addAttribute(root(), "total-domains", totalDomains_);
  addAttribute(root(), "completed-accounts", completedAccounts_);
  addAttribute(root(), "completed-domains", completedDomains_);
  if (currentObject_.empty()) return;
  const XmlNodeRef object = newTextChild(root(), "current-object", currentObject_);
  addAttribute(object, "type", currentObjectType_ == ACCOUNT ? "account" : "domain");
}

MigrationStatus* createMigrationStatusFile() {
  return new XmlMigrationStatus;
}

void XmlAgentFileList::parse() {
  for (const XmlNodeRef node : root().elements()) {
    if (node.name() != "file") continue;
    files_.push_back({getNodeText(node), getNumber(node, "size"),
                      findAttribute(node, "md5sum").value_or(""),
                      findAttribute(node, "size").has_value()});
  }
}

std::int64_t XmlAgentFileList::getTotalSize() const {
  return getNumber(root(), "size");
}

std::int64_t XmlAgentFileList::getUnpackedSize() const {
  return getNumber(root(), "unpacked");
}

std::int64_t XmlAgentFileList::getNumber(XmlNodeRef node, const std::string& name) const {
  return boost::lexical_cast<std::int64_t>(findAttribute(node, name).value_or("0"));
}

AgentFileList* getFileList(const std::string& text) {
  auto list = std::make_unique<XmlAgentFileList>(text);
  list->initFileDoc("contentlist");
  list->parse();
  return list.release();
}
